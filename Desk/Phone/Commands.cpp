#include "Commands.h"

#include <algorithm>
#include <fmt/format.h>
#include <glib.h>
#include <nlohmann/json.hpp>
#include <string_view>
#include <unistd.h>

#include "Backup.h"
#include "CameraClient.h"
#include "CarefulStore.h"
#include "Check.h"
#include "Common/Files.h"
#include "Common/Text.h"
#include "Copy.h"
#include "Fit.h"
#include "Jpeg.h"
#include "Options.h"
#include "Output.h"
#include "Pictures.h"
#include "PresetFiles/PresetFile.h"
#include "PresetFiles/PresetJson.h"
#include "PresetNames.h"
#include "Presets.h"
#include "Restore.h"
#include "StorablePicture.h"
#include "Words/Describe.h"
#include "Words/Results.h"

namespace desk::phone {
namespace {

using Json = nlohmann::ordered_json;
using Presets = std::vector<sm_tag_custom_info>;

constexpr size_t default_width = 80;
constexpr const char* full_camera = "the camera holds 40 presets, as many as a camera takes: delete one first";
constexpr TerminalSize thumbnail = {32, 12};
constexpr TerminalSize large_picture = {72, 24};

size_t width_of(const Options& options) {
    if (options.width) {
        return *options.width;
    }
    const std::optional<TerminalSize> terminal = terminal_size(STDOUT_FILENO);
    return terminal ? terminal->columns : default_width;
}

// Lines that no person reads are left whole.
size_t width_of_lines(const Options& options) {
    return options.width || output_is_terminal() ? width_of(options) : 0;
}

// Talk that is no error.
void mention(const Options& options, std::string_view line) {
    if (!options.quiet) {
        say(line);
    }
}

// Says what else than success the camera answered. Returns the exit code.
int report_result(int32_t result) {
    if (result != SM_RETURN_TRUE) {
        complain(
            fmt::format("the camera answered {}, {}: {}", result, name_of_result(result), meaning_of_result(result)));
    }
    return exit_code_of_result(result);
}

// ---- list and show --------------------------------------------------------------------------------------------------

// Whether to draw what was asked for. Says why not.
bool draws_pictures(const Options& options) {
    if (!options.with_pictures) {
        return false;
    }
    const std::optional<std::string> reason =
        options.json ? std::optional<std::string>("JSON is wanted") : why_not_drawn();
    if (reason) {
        mention(options, fmt::format("pictures are not drawn: {}", *reason));
    }
    return !reason;
}

std::string picture_text(const Bytes& picture, TerminalSize size) {
    if (picture.empty()) {
        return "(the camera could not read the picture)\n";
    }
    return drawn(picture, size.columns, size.rows).value_or("(not a picture that can be drawn)\n");
}

TerminalSize picture_size(TerminalSize wanted, size_t width) {
    return {width == 0 ? wanted.columns : std::min(wanted.columns, width), wanted.rows};
}

void print_pictures(CameraClient& camera, const Options& options, const Presets& presets) {
    const TerminalSize size = picture_size(thumbnail, width_of(options));
    for (size_t number = 0; number < presets.size(); ++number) {
        const sm_tag_custom_info& preset = presets[number];
        const std::string picture = picture_text(camera.picture(preset), size);
        print(fmt::format("\n{} {}\n{}", number, title_text(preset), picture));
    }
}

int list(const Options& options) {
    CameraClient camera(options);
    const ListReply reply = camera.list();
    const bool draws = draws_pictures(options);
    if (options.json) {
        print_json(json_of(reply));
        return exit_done;
    }
    print(table(rows_of(reply.presets, options.raw), width_of(options)));
    if (reply.presets.empty()) {
        mention(options, "the camera holds no presets");
    }
    if (draws) {
        print_pictures(camera, options, reply.presets);
    }
    return exit_done;
}

// Whoever names one preset gets it, whoever names several gets an array, even when they turn out to be the same.
Json records_of(const std::vector<NumberedPreset>& presets, bool is_one) {
    Json list = Json::array();
    for (const NumberedPreset& one : presets) {
        list.push_back(to_json(one.preset));
    }
    return is_one ? list.front() : list;
}

int show(const Options& options) {
    CameraClient camera(options);
    const std::vector<NumberedPreset> presets = presets_named(camera.list().presets, options.presets);
    const bool draws = draws_pictures(options);
    if (options.json) {
        print_json(records_of(presets, options.presets.size() == 1));
        return exit_done;
    }
    const char* before = "";
    for (const auto& [number, preset] : presets) {
        const auto lines = options.raw ? codes_of(preset) : description_of(preset);
        print(before + labelled_lines(lines, width_of_lines(options)));
        if (draws) {
            print("\n" + picture_text(camera.picture(preset), picture_size(large_picture, width_of(options))));
        }
        before = "\n";
    }
    return exit_done;
}

// ---- picture --------------------------------------------------------------------------------------------------------

int save_picture(const Options& options) {
    CameraClient camera(options);
    const auto [number, preset] = preset_named(camera.list().presets, options.presets.front());
    const Bytes picture = camera.picture(preset);
    if (picture.empty()) {
        throw Failure(exit_missing, fmt::format("the camera could not read the picture of preset {}; {} is not written",
                                                number, printable(options.output_file)));
    }
    write_file(options.output_file, picture);
    if (options.json) {
        print_json({{"custom_id", preset.custom_id}, {"bytes", picture.size()}, {"file", options.output_file}});
    } else {
        mention(options, fmt::format("{} bytes saved in {}", picture.size(), options.output_file));
    }
    return exit_done;
}

// ---- store ----------------------------------------------------------------------------------------------------------

struct SentPicture {
    Bytes jpeg;
    std::string change; // what was made of the file's picture, if anything
};

std::string size_text(const PictureSize& size, size_t bytes) {
    constexpr double kilobyte = 1e3;
    constexpr double megabyte = 1e6;
    const auto count = static_cast<double>(bytes);
    return count < megabyte ? fmt::format("{}x{}, {:.0f} KB", size.width, size.height, count / kilobyte)
                            : fmt::format("{}x{}, {:.1f} MB", size.width, size.height, count / megabyte);
}

Bytes file_of_picture(const std::string& path, bool fits) {
    if (fits) {
        return read_file(path, longest_file_to_fit);
    }
    return read_file(path, longest_picture,
                     fmt::format("give a smaller file, or --fit, which makes JPEG files of up to {} MiB smaller",
                                 longest_file_to_fit >> 20U));
}

SentPicture picture_from(const std::string& path, bool fits) {
    Bytes picture = file_of_picture(path, fits);
    const std::string name = printable(path);
    require_jpeg(picture, name);
    if (picture.size() > longest_picture) {
        FittedPicture fitted = fit_jpeg(picture, longest_picture, name);
        const std::string before = size_text(fitted.before, picture.size());
        const std::string after = size_text(fitted.after, fitted.jpeg.size());
        return {std::move(fitted.jpeg), fmt::format("{}: {}, sent as {}", name, before, after)};
    }
    require_whole(picture, name);
    return {std::move(picture), ""};
}

PresetFile preset_from(const std::string& path) {
    const Bytes text = read_file(path, longest_preset_file);
    return preset_from_text({reinterpret_cast<const char*>(text.data()), text.size()}, printable(path));
}

void print_stored(const StoreReply& reply) {
    if (reply.result == SM_RETURN_TRUE) {
        print(fmt::format("stored as preset {} with id {}\n", reply.preset_num, reply.custom_id));
    }
}

// Sends the one request and nothing else.
int store_unchecked(const Options& options, const PresetFile& file, const SentPicture& picture) {
    const sm_tag_custom_info sent = file.form == Form::raw ? file.preset : sendable(file.preset);
    const StoreReply reply = CameraClient(options).store(sent, picture.jpeg);
    if (!picture.change.empty()) {
        say(picture.change);
    }
    if (options.json) {
        print_json(json_of(reply));
    } else {
        print_stored(reply);
    }
    return report_result(reply.result);
}

int foresee_store(const Options& options, const CarefulStore& camera, const Planned& planned) {
    if (options.json) {
        print_json({{"forecast", json_of(planned.changes)}});
        return exit_done;
    }
    for (const Change& change : planned.changes) {
        print(line_of(planned, change) + "\n");
    }
    if (planned.changes.empty()) {
        print(fmt::format("\"{}\" will be as it is\n", title_text(planned.wanted)));
    }
    if (camera.room() == 0) {
        mention(options, full_camera);
    }
    return exit_done;
}

// What was stored is on standard output even where it cannot be compared any more.
int finish_store(const Options& options, CarefulStore& camera, const Planned& planned, const StoreReply& reply) {
    Json json = json_of(reply);
    json["forecast"] = json_of(planned.changes);
    json["differences"] = nullptr; // until they are known
    if (!options.json) {
        print_stored(reply);
    }
    std::vector<Surprise> surprises;
    try {
        surprises = camera.finish();
    } catch (const Failure&) {
        if (options.json) {
            print_json(json);
        }
        throw;
    }
    json["differences"] = json_of(surprises);
    if (options.json) {
        print_json(json);
    }
    for (const Surprise& surprise : surprises) {
        complain(line_of(surprise));
    }
    const int code = report_result(reply.result);
    return code == exit_done && !surprises.empty() ? int{exit_not_as_forecast} : code;
}

int store(const Options& options) {
    const PresetFile file = preset_from(options.preset_file);
    const SentPicture picture = picture_from(options.picture_file, options.fits_picture);
    if (options.unchecked) {
        return store_unchecked(options, file, picture);
    }
    CameraClient client(options);
    CarefulStore camera(client, options.quiet);
    const Planned planned = camera.plan(file.preset, file.form, picture.jpeg);
    if (options.dry_run) {
        return foresee_store(options, camera, planned);
    }
    const StoreReply reply = camera.store(planned, picture.jpeg);
    if (!picture.change.empty()) {
        say(picture.change);
    }
    return finish_store(options, camera, planned, reply);
}

// ---- rename ---------------------------------------------------------------------------------------------------------

void check_title(const std::string& title) {
    constexpr size_t longest = SM_TITLE_SIZE - 1;
    if (title.size() > longest) {
        throw Failure(exit_usage, fmt::format("the title has {} bytes, and the camera keeps {}; make it shorter",
                                              title.size(), longest));
    }
    if (g_utf8_validate(title.data(), static_cast<gssize>(title.size()), nullptr) == FALSE) {
        throw Failure(exit_usage, "the title is no clean UTF-8");
    }
}

int rename_preset(const Options& options) {
    check_title(options.title);
    CameraClient camera(options);
    const NumberedPreset old = preset_named(camera.list().presets, options.presets.front());
    sm_tag_custom_info changed = {};
    options.title.copy(changed.title, sizeof changed.title);
    changed.custom_id = old.preset.custom_id;
    changed.server_id = options.server_id.value_or(old.preset.server_id); // the camera replaces it with the title
    const int32_t result = camera.update(changed);
    if (options.json) {
        print_json({{"result", result}});
    } else if (result == SM_RETURN_TRUE) {
        mention(options, fmt::format("{} is now \"{}\"", reference_to(old), title_text(changed)));
    }
    return report_result(result);
}

// ---- delete ---------------------------------------------------------------------------------------------------------

std::vector<sm_delete_pair> pairs_of(const std::vector<NumberedPreset>& presets) {
    std::vector<sm_delete_pair> pairs;
    pairs.reserve(presets.size());
    for (const NumberedPreset& one : presets) {
        pairs.push_back({one.preset.preset_num, one.preset.custom_id});
    }
    return pairs;
}

int foresee_deletion(const Options& options, const std::vector<NumberedPreset>& presets) {
    const std::vector<Deletion> deletions = foreseen_deletions_of(presets);
    if (options.json) {
        print_json(foreseen_json_of(deletions));
    } else {
        print(foreseen_lines_of(deletions));
    }
    return exit_done;
}

int delete_presets(const Options& options) {
    CameraClient camera(options);
    const std::vector<NumberedPreset> presets = presets_named(camera.list().presets, options.presets);
    if (options.dry_run) {
        return foresee_deletion(options, presets);
    }
    const DeleteReply reply = camera.remove(pairs_of(presets));
    const std::vector<Deletion> deletions = deletions_of(presets, reply);
    if (options.json) {
        print_json(json_of(reply, deletions));
    } else {
        print(lines_of(deletions));
    }
    const bool kept = std::any_of(deletions.begin(), deletions.end(),
                                  [](const Deletion& one) { return one.fate != Deletion::Fate::deleted; });
    if (reply.result == SM_RETURN_TRUE && kept) {
        throw Failure(exit_protocol, "the camera answered success, but still lists a preset that it was to delete");
    }
    return report_result(reply.result);
}

// ---- leave ----------------------------------------------------------------------------------------------------------

int leave(const Options& options) {
    CameraClient(options).leave(options.code);
    mention(options, fmt::format("the camera was told that the phone leaves, with code {}", options.code));
    return exit_done;
}

} // namespace

int run(const Options& options) {
    switch (options.command) {
    case Options::Command::list:
        return list(options);
    case Options::Command::show:
        return show(options);
    case Options::Command::picture:
        return save_picture(options);
    case Options::Command::store:
        return store(options);
    case Options::Command::rename:
        return rename_preset(options);
    case Options::Command::remove:
        return delete_presets(options);
    case Options::Command::back_up:
        return back_up(options);
    case Options::Command::restore:
        return restore(options);
    case Options::Command::copy:
        return copy(options);
    case Options::Command::leave:
        return leave(options);
    case Options::Command::check:
        return check(options);
    }
    return exit_usage;
}

} // namespace desk::phone
