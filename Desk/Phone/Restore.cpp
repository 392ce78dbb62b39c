#include "Restore.h"

#include <algorithm>
#include <filesystem>
#include <fmt/format.h>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "BackupFolder.h"
#include "BackupManifest.h"
#include "CameraClient.h"
#include "Common/Files.h"
#include "Common/Text.h"
#include "Options.h"
#include "Output.h"
#include "PresetFiles/PresetFile.h"
#include "StorablePicture.h"
#include "StoreSeveral.h"
#include "Words/Describe.h"

namespace desk::phone {
namespace {

// ---- The backup -----------------------------------------------------------------------------------------------------

BackupManifest manifest_of(const BackupFolder& folder, bool takes_incomplete) {
    if (!folder.exists()) {
        throw Failure(exit_machine,
                      fmt::format("there is no folder {}; give that of a backup", printable(folder.path())));
    }
    const std::optional<BackupManifest> manifest = folder.manifest();
    if (!manifest) {
        throw Failure(exit_usage, fmt::format("{} holds no {}; give the folder of a backup", printable(folder.path()),
                                              manifest_name));
    }
    if (!manifest->complete && !takes_incomplete) {
        throw Failure(exit_usage, fmt::format("the backup in {} is not complete; run it again, or give --incomplete to "
                                              "restore what is there",
                                              printable(folder.path())));
    }
    return *manifest;
}

// The entries whose preset files are named, in the backup's order; all where none is. The files may be given with their
// folder, as a shell completes them.
std::vector<BackupEntry> entries_of(const BackupManifest& manifest, const Options& options) {
    if (options.files.empty()) {
        return manifest.presets;
    }
    std::set<std::string> wanted;
    for (const std::string& file : options.files) {
        const std::string name = std::filesystem::path(file).filename();
        const bool is_known = std::ranges::any_of(
            manifest.presets, [&name](const BackupEntry& entry) { return entry.preset.name == name; });
        if (!is_known) {
            throw Failure(exit_usage, fmt::format("{} is no preset of the backup in {}; {} there names them",
                                                  printable(file), printable(options.folder), manifest_name));
        }
        wanted.insert(name);
    }
    std::vector<BackupEntry> chosen;
    std::ranges::copy_if(manifest.presets, std::back_inserter(chosen),
                         [&wanted](const BackupEntry& entry) { return wanted.contains(entry.preset.name); });
    return chosen;
}

// Reads files of a backup, and lets none pass that is not as it was written.
class BackupReader {
  public:
    BackupReader(const BackupFolder& folder, const Options& options) : folder_(folder), options_(options) {}

    sm_tag_custom_info preset(const BackupFile& file) const {
        const Bytes text = content(file, longest_preset_file, "make it smaller");
        return preset_from_text({reinterpret_cast<const char*>(text.data()), text.size()}, name_of(file)).preset;
    }

    Bytes picture(const BackupFile& file) const {
        Bytes bytes =
            content(file, longest_picture, "restore the others by their names, and this one with store --fit");
        require_jpeg(bytes, name_of(file));
        require_whole(bytes, name_of(file));
        return bytes;
    }

    bool is_there(const BackupEntry& entry) const {
        return has(entry.preset) && (!entry.picture || has(*entry.picture));
    }

  private:
    std::string name_of(const BackupFile& file) const { return printable(folder_.path_of(file.name)); }
    bool has(const BackupFile& file) const { return file.is_there() && folder_.has(file.name); }

    Bytes content(const BackupFile& file, size_t most, const std::string& remedy) const {
        std::optional<Bytes> bytes = folder_.read(file.name, most, remedy);
        if (!bytes) {
            throw Failure(exit_usage,
                          fmt::format("{} is missing; restore the other presets by their files' names, or put it back",
                                      name_of(file)));
        }
        if (!options_.takes_edited && !file.holds(*bytes)) {
            throw Failure(exit_usage, fmt::format("{} is not as the backup wrote it; give --edited to restore it as it "
                                                  "is",
                                                  name_of(file)));
        }
        return *std::move(bytes);
    }

    const BackupFolder& folder_;
    const Options& options_;
};

// What to store of an entry, its files checked.
PresetToStore checked(const BackupReader& reader, const BackupFolder& folder, const BackupEntry& entry,
                      bool is_complete) {
    PresetToStore preset;
    preset.source = entry.preset.name;
    preset.title = printable(entry.title);
    if (!is_complete && !reader.is_there(entry)) {
        complain(fmt::format("{} was not saved before the backup broke off; it is left out", entry.preset.name));
        preset.fate = PresetToStore::Fate::left_out;
        return preset;
    }
    preset.preset = reader.preset(entry.preset);
    preset.title = title_text(preset.preset);
    if (!entry.picture) {
        complain(fmt::format("{0} has no picture in the backup, and is left out; store it with one of your own: store "
                             "{0} PICTURE.jpg",
                             printable(folder.path_of(entry.preset.name))));
        preset.fate = PresetToStore::Fate::left_out;
        return preset;
    }
    preset.picture = [&reader, file = *entry.picture] { return reader.picture(file); };
    preset.picture();
    return preset;
}

// ---- What the camera holds ------------------------------------------------------------------------------------------

// The camera's presets, each of which stands for one of the backup's at most.
class HeldPresets {
  public:
    HeldPresets(CameraClient& camera, const CarefulStore& store)
        : camera_(camera), presets_(store.listed()), state_(state_of(presets_)), claimed_(presets_.size()) {}

    // Marks a preset that the camera holds already.
    void look_up(PresetToStore& preset) {
        if (preset.fate != PresetToStore::Fate::waiting) {
            return;
        }
        const std::vector<sm_tag_custom_info> forms = forms_of(preset.preset);
        std::string sum; // of the backup's picture, once it is needed
        for (size_t number = 0; number < presets_.size(); ++number) {
            if (claimed_[number] || presets_[number].custom_id <= 0 || !is_one_of(forms, presets_[number])) {
                continue;
            }
            sum = sum.empty() ? sha256_of(as_fetched(preset.picture())) : sum;
            if (sum_of_picture(presets_[number]) == sum) {
                claimed_[number] = true;
                preset.fate = PresetToStore::Fate::held;
                preset.preset_num = static_cast<int32_t>(number);
                preset.custom_id = presets_[number].custom_id;
                return;
            }
        }
    }

  private:
    // How the camera may list a preset: as it was when it was saved, or as it becomes when it is stored, with its
    // aperture or, where there was no way to keep that, without.
    std::vector<sm_tag_custom_info> forms_of(const sm_tag_custom_info& wanted) const {
        const sm_tag_custom_info sent = sendable(wanted);
        std::vector<sm_tag_custom_info> forms = {wanted};
        for (const CameraState& state : {state_, CameraState{state_.iso_steps, SM_MODE_AUTO}}) {
            const std::vector<sm_tag_custom_info> all = forecasts(sent, state);
            forms.insert(forms.end(), all.begin(), all.end());
        }
        return forms;
    }

    // But for the custom mode that uses it, which the camera's user decides.
    static bool is_one_of(const std::vector<sm_tag_custom_info>& forms, sm_tag_custom_info held) {
        return std::ranges::any_of(forms, [&held](const sm_tag_custom_info& form) {
            held.linked_custom_mode = form.linked_custom_mode;
            return differences(form, held).empty();
        });
    }

    const std::string& sum_of_picture(const sm_tag_custom_info& preset) {
        std::string& sum = sums_[preset.custom_id];
        if (sum.empty()) {
            sum = sha256_of(camera_.picture(preset));
        }
        return sum;
    }

    CameraClient& camera_;
    std::vector<sm_tag_custom_info> presets_;
    CameraState state_;
    std::vector<bool> claimed_;
    std::map<int32_t, std::string> sums_; // of the camera's pictures, by custom_id
};

} // namespace

int restore(const Options& options) {
    const BackupFolder folder(options.folder);
    const BackupManifest manifest = manifest_of(folder, options.takes_incomplete);
    const BackupReader reader(folder, options);
    std::vector<PresetToStore> presets;
    for (const BackupEntry& entry : entries_of(manifest, options)) {
        presets.push_back(checked(reader, folder, entry, manifest.complete));
    }
    CameraClient camera(without_progress(options));
    CarefulStore store(camera, options.quiet);
    HeldPresets held(camera, store);
    for (PresetToStore& preset : presets) {
        held.look_up(preset);
    }
    return store_several(options, store, std::move(presets), {"the camera", "run it again to go on"});
}

} // namespace desk::phone
