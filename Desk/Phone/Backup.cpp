#include "Backup.h"

#include <algorithm>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <set>
#include <utility>

#include "BackupFolder.h"
#include "BackupManifest.h"
#include "CameraClient.h"
#include "Common/Text.h"
#include "Options.h"
#include "Output.h"
#include "PresetFiles/PresetFile.h"
#include "Presets.h"
#include "Progress.h"
#include "SchemaFile.h"
#include "Words/Describe.h"

namespace desk::phone {
namespace {

std::string file_text(const sm_tag_custom_info& preset) {
    return text_of_preset(preset, Form::words, schema_url());
}

std::span<const uint8_t> bytes_of(std::string_view text) {
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

// ---- Where it goes --------------------------------------------------------------------------------------------------

// What is in the folder, and where the new backup grows.
struct Place {
    BackupFolder folder;
    std::optional<BackupFolder> unfinished; // inside it: of a complete backup that is replaced, or was to be
    std::optional<BackupManifest> old;      // the complete backup that is replaced
    std::optional<BackupManifest> begun;    // the backup that goes on

    const BackupFolder& growing() const { return old ? *unfinished : folder; }
};

Failure complete_failure(const std::string& path) {
    return {exit_usage, fmt::format("{} holds a complete backup; give another folder, or --overwrite to replace it",
                                    printable(path))};
}

// What an unfinished backup's folder has; nothing where there is no folder, or nothing in it.
std::optional<BackupManifest> begun_in(const BackupFolder& folder) {
    if (!folder.exists()) {
        return std::nullopt;
    }
    std::optional<BackupManifest> begun = folder.manifest();
    folder.require_nothing_else(begun.value_or(BackupManifest{}), false);
    return begun;
}

// Looks only. Throws Failure for a folder that holds what a backup must not touch.
Place place_for(const std::string& path, bool overwrites) {
    Place place{BackupFolder(path), {}, {}, {}};
    if (!place.folder.exists()) {
        return place;
    }
    std::optional<BackupManifest> found = place.folder.manifest();
    place.folder.require_nothing_else(found.value_or(BackupManifest{}), found.has_value());
    place.unfinished.emplace(place.folder.path_of(unfinished_name));
    std::optional<BackupManifest> begun = begun_in(*place.unfinished);
    if (!found || !found->complete) {
        place.begun = std::move(found);
        return place;
    }
    if (!overwrites) {
        throw complete_failure(path);
    }
    place.old = std::move(found);
    place.begun = std::move(begun);
    return place;
}

// ---- What it gets ---------------------------------------------------------------------------------------------------

class Backup {
  public:
    Backup(const Options& options, CameraClient& camera, const BackupFolder& folder)
        : camera_(camera), folder_(folder), progress_("", !options.quiet) {}

    // Goes on with what has been begun. Throws Failure.
    void run(const ListReply& list, const std::optional<BackupManifest>& begun) {
        presets_ = list.presets;
        plan(printable(list.model), begun);
        folder_.write_manifest(manifest_);
        for (size_t number = 0; number < presets_.size(); ++number) {
            progress_.show_step(number + 1, presets_.size(), manifest_.presets[number].title);
            fetch(presets_[number], manifest_.presets[number]);
        }
        progress_.clear();
        if (differs(camera_.list())) { // a backup is of one moment
            throw changed_failure();
        }
        finish(folder_, manifest_);
    }

    // Removes what an older backup had, and says that all is there.
    static void finish(const BackupFolder& folder, BackupManifest& manifest) {
        for (const std::string& name : manifest.obsolete) {
            folder.remove(name);
        }
        folder.remove_temporary_files();
        manifest.obsolete.clear();
        manifest.complete = true;
        folder.write_manifest(manifest);
    }

    const BackupManifest& manifest() const { return manifest_; }
    size_t kept() const { return kept_; }
    size_t saved() const { return saved_; }

  private:
    void plan(const std::string& model, const std::optional<BackupManifest>& begun) {
        manifest_.model = model;
        for (size_t number = 0; number < presets_.size(); ++number) {
            const sm_tag_custom_info& preset = presets_[number];
            const std::string title = title_text(preset);
            const std::string stem = file_stem(number, title);
            const std::string text = file_text(preset);
            const BackupFile file = {stem + ".json", text.size(), sha256_of(bytes_of(text))};
            const BackupFile picture = {stem + ".jpg", 0, ""};
            manifest_.presets.push_back({static_cast<int32_t>(number), preset.custom_id, title, file, picture});
        }
        if (begun) {
            keep_pictures(*begun);
            note_obsolete(begun->names());
        }
    }

    // Of presets that are as they were, and whose pictures are there.
    void keep_pictures(const BackupManifest& begun) {
        for (BackupEntry& entry : manifest_.presets) {
            const auto same = std::ranges::find_if(begun.presets, [&](const BackupEntry& before) {
                return before.preset.name == entry.preset.name && before.preset.sha256 == entry.preset.sha256 &&
                       before.picture && before.picture->name == entry.picture->name;
            });
            if (same != begun.presets.end() && folder_.holds(*same->picture)) {
                entry.picture = same->picture;
            }
        }
    }

    void note_obsolete(const std::vector<std::string>& before) {
        const std::vector<std::string> now = manifest_.names();
        std::set<std::string> known(now.begin(), now.end());
        for (const std::string& name : before) {
            if (known.insert(name).second) {
                manifest_.obsolete.push_back(name);
            }
        }
    }

    void fetch(const sm_tag_custom_info& preset, BackupEntry& entry) {
        const bool had_preset = folder_.holds(entry.preset);
        if (!had_preset) {
            folder_.write(entry.preset.name, bytes_of(file_text(preset)));
        }
        if (entry.picture->is_there()) {
            kept_ += had_preset;
        } else {
            fetch_picture(preset, entry);
            folder_.write_manifest(manifest_);
        }
        ++saved_;
    }

    void fetch_picture(const sm_tag_custom_info& preset, BackupEntry& entry) {
        const Bytes picture = picture_of(preset);
        if (picture.empty()) {
            complain(fmt::format("the camera could not read the picture of {}; the preset is saved without",
                                 reference_to({entry.number, preset})));
            manifest_.obsolete.push_back(entry.picture->name);
            entry.picture.reset();
            return;
        }
        folder_.write(entry.picture->name, picture);
        entry.picture = BackupFile{entry.picture->name, picture.size(), sha256_of(picture)};
    }

    // A camera is silent when it does not have a preset any more.
    Bytes picture_of(const sm_tag_custom_info& preset) {
        try {
            return camera_.picture(preset);
        } catch (const Failure& failure) {
            if (failure.code() == exit_timeout && is_seen_to_differ()) {
                throw changed_failure();
            }
            throw;
        }
    }

    bool is_seen_to_differ() {
        try {
            return differs(camera_.list());
        } catch (const Failure&) {
            return false; // the first failure says more
        }
    }

    bool differs(const ListReply& now) const {
        return !std::ranges::equal(presets_, now.presets,
                                   [](const auto& one, const auto& other) { return encode(one) == encode(other); });
    }

    static Failure changed_failure() {
        return {exit_changed, "the camera's presets changed while they were backed up"};
    }

    CameraClient& camera_;
    std::vector<sm_tag_custom_info> presets_;
    const BackupFolder& folder_;
    Progress progress_;
    BackupManifest manifest_;
    size_t kept_ = 0;
    size_t saved_ = 0;
};

// ---- Where a backup is replaced -------------------------------------------------------------------------------------

// Removes the folder of an unfinished backup, of which nothing is needed any more.
void discard(const BackupFolder& unfinished) {
    const BackupManifest manifest = unfinished.manifest().value_or(BackupManifest{});
    unfinished.require_nothing_else(manifest, false);
    unfinished.remove_temporary_files();
    for (const std::string& name : manifest.names()) {
        unfinished.remove(name);
    }
    unfinished.remove(manifest_name);
    unfinished.remove_if_empty();
}

// A loss of power in here leaves an unfinished backup, which the next run completes.
void replace(const Place& place, BackupManifest manifest) {
    const std::vector<std::string> names = manifest.names();
    const std::set<std::string> kept(names.begin(), names.end());
    for (const std::string& name : place.old->names()) {
        if (!kept.contains(name)) {
            manifest.obsolete.push_back(name);
        }
    }
    manifest.complete = false;
    place.folder.write_manifest(manifest);
    for (const std::string& name : names) {
        place.folder.take_from(*place.unfinished, name);
    }
    Backup::finish(place.folder, manifest);
}

// Puts a whole backup where it belongs.
void settle(const Place& place, const BackupManifest& manifest) {
    if (place.old) {
        replace(place, manifest);
    }
    if (place.unfinished && place.unfinished->exists()) {
        discard(*place.unfinished);
    }
}

// ---- What it says ---------------------------------------------------------------------------------------------------

std::string size_text(size_t bytes) {
    constexpr double kilobyte = 1e3;
    constexpr double megabyte = 1e6;
    const auto count = static_cast<double>(bytes);
    return count < megabyte ? fmt::format("{:.1f} kB", count / kilobyte) : fmt::format("{:.1f} MB", count / megabyte);
}

size_t without_picture(const BackupManifest& manifest) {
    return static_cast<size_t>(
        std::ranges::count_if(manifest.presets, [](const BackupEntry& entry) { return !entry.picture; }));
}

void tell(const Options& options, const BackupManifest& manifest, size_t kept) {
    const size_t count = manifest.presets.size();
    if (options.json) {
        print_json({{"folder", options.folder},
                    {"model", manifest.model},
                    {"presets", count},
                    {"bytes", manifest.bytes()},
                    {"already_there", kept},
                    {"without_picture", without_picture(manifest)}});
        return;
    }
    const std::string already =
        kept == 0 ? "" : fmt::format(", {} of them {} there already", kept, kept == 1 ? "was" : "were");
    print(fmt::format("{} preset{}, {}, in {}{}\n", count, count == 1 ? "" : "s", size_text(manifest.bytes()),
                      printable(options.folder), already));
}

Failure broken_off(const Failure& why, const Backup& backup, const std::string& remedy) {
    return {why.code(), fmt::format("{}; {} of {} presets are saved, {}", why.what(), backup.saved(),
                                    backup.manifest().presets.size(), remedy)};
}

// Fetches what is to come, then lets it take the place of what was there.
void complete(const ListReply& list, const Place& place, Backup& backup) {
    constexpr const char* again = "run it again to go on";
    try {
        place.growing().make();
        backup.run(list, place.begun);
    } catch (const Failure& failure) {
        const std::string untouched =
            place.old ? fmt::format("the backup in {} is as it was; ", printable(place.folder.path())) : "";
        throw broken_off(failure, backup, untouched + again);
    }
    try {
        settle(place, backup.manifest());
    } catch (const Failure& failure) {
        throw broken_off(failure, backup, again);
    }
}

} // namespace

int back_up(const Options& options) {
    place_for(options.folder, options.overwrites); // before a camera is asked
    CameraClient camera(without_progress(options));
    const ListReply list = camera.list();
    BackupFolder folder(options.folder);
    const bool is_new = folder.make();
    folder.lock();
    const Place place = place_for(options.folder, options.overwrites);
    Backup backup(options, camera, place.growing());
    try {
        complete(list, place, backup);
    } catch (const Failure&) {
        if (is_new) {
            folder.remove_if_empty();
        }
        throw;
    }
    tell(options, backup.manifest(), backup.kept());
    return without_picture(backup.manifest()) == 0 ? exit_done : exit_missing;
}

} // namespace desk::phone
