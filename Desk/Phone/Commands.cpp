#include "Commands.h"

#include <algorithm>
#include <fmt/format.h>
#include <glib.h>
#include <nlohmann/json.hpp>
#include <string_view>
#include <unistd.h>

#include "Backup.h"
#include "CameraClient.h"
#include "CameraPort.h"
#include "CaptureDiff.h"
#include "Check.h"
#include "Common/Terminal.h"
#include "Common/Text.h"
#include "Copy.h"
#include "Decode.h"
#include "Options.h"
#include "Output.h"
#include "Pictures.h"
#include "PresetFiles/JsonText.h"
#include "PresetFiles/PresetFile.h"
#include "PresetFiles/Schema.h"
#include "PresetNames.h"
#include "Presets.h"
#include "Replay.h"
#include "Reporting.h"
#include "Restore.h"
#include "Scan.h"
#include "SchemaFile.h"
#include "StandardFiles.h"
#include "StoreCommand.h"
#include "Thumbnails.h"
#include "Watch.h"
#include "Words/Describe.h"
#include "Words/TextTable.h"

namespace desk::phone {
namespace {

using Json = nlohmann::ordered_json;
using Presets = std::vector<sm_tag_custom_info>;

constexpr TerminalSize thumbnail = {36, 12}; // two in 80 columns, three in 120
constexpr TerminalSize large_picture = {72, 24};

size_t width_of(const Options& options) {
    return options.width.value_or(width_of_lines(STDOUT_FILENO));
}

Form form_of(const Options& options) {
    return options.raw ? Form::raw : Form::words;
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

Drawing said(const char* text, size_t columns) {
    const std::string line = shortened(text, columns);
    return {{line}, display_width(line)};
}

Drawing drawing_of(const Bytes& picture, TerminalSize size, DrawnAs form) {
    if (picture.empty()) {
        return said("(the camera cannot read the picture)", size.columns);
    }
    return drawn(picture, size.columns, size.rows, form)
        .value_or(said("(not a picture that can be drawn)", size.columns));
}

TerminalSize picture_size(TerminalSize wanted, size_t width) {
    return {width == 0 ? wanted.columns : std::min(wanted.columns, width), wanted.rows};
}

std::string picture_text(const Bytes& picture, const Options& options) {
    const TerminalSize size = picture_size(large_picture, width_of(options));
    const Drawing drawing = drawing_of(picture, size, best_drawing(options.only_characters));
    return fmt::format("{}\n", fmt::join(drawing.lines, "\n"));
}

// A graphic is as high as its terminal makes it: nothing can stand beside it.
void print_pictures(CameraClient& camera, const Options& options, const Presets& presets) {
    const size_t width = width_of(options);
    const TerminalSize size = picture_size(thumbnail, width);
    const DrawnAs form = best_drawing(options.only_characters);
    const size_t in_a_row = form == DrawnAs::graphics ? 1 : thumbnails_in_a_row(size.columns, width);
    std::vector<Thumbnail> row;
    for (size_t number = 0; number < presets.size(); ++number) {
        const sm_tag_custom_info& preset = presets[number];
        row.push_back(
            {fmt::format("{} {}", number, title_text(preset)), drawing_of(camera.picture(preset), size, form)});
        if (row.size() == in_a_row || number + 1 == presets.size()) {
            print("\n" + row_of(row, size.columns));
            row.clear();
        }
    }
}

// Whoever asked for a width knows that it may not be enough.
void print_table(const Options& options, const std::vector<std::vector<std::string>>& rows) {
    const size_t width = width_of(options);
    print(table(rows, width));
    const std::vector<std::string> missing = left_out(rows, width);
    if (!missing.empty() && !options.width) {
        mention(options, fmt::format("left out for want of room: {}; --width 0 shows all", fmt::join(missing, ", ")));
    }
}

int list(const Options& options) {
    if (options.watch) {
        return watch(options);
    }
    CameraClient camera(options);
    const ListReply reply = camera.list();
    const bool draws = draws_pictures(options);
    if (options.json) {
        print_json(json_of(reply, form_of(options)));
        return exit_done;
    }
    print_table(options, rows_of(reply.presets, options.raw));
    if (reply.presets.empty()) {
        mention(options, "the camera holds no presets");
    }
    if (draws) {
        print_pictures(camera, options, reply.presets);
    }
    return exit_done;
}

void print_preset_file(const sm_tag_custom_info& preset, Form form) {
    print(escaped_json(text_of_preset(preset, form, schema_url())));
}

// Whoever names one preset gets it, whoever names several gets an array, even when they turn out to be the same.
void print_records(const std::vector<NumberedPreset>& presets, const Options& options) {
    if (options.presets.size() == 1) {
        print_preset_file(presets.front().preset, form_of(options));
        return;
    }
    Json list = Json::array();
    for (const NumberedPreset& one : presets) {
        list.push_back(json_of_preset(one.preset, form_of(options)));
    }
    print_json(list);
}

int show(const Options& options) {
    CameraClient camera(options);
    const std::vector<NumberedPreset> presets = presets_named(camera.list().presets, options.presets);
    const bool draws = draws_pictures(options);
    if (options.json) {
        print_records(presets, options);
        return exit_done;
    }
    const char* before = "";
    for (const auto& [number, preset] : presets) {
        const auto lines = options.raw ? codes_of(preset) : description_of(preset);
        print(before + labelled_lines(lines, width_of(options)));
        if (draws) {
            print("\n" + picture_text(camera.picture(preset), options));
        }
        before = "\n";
    }
    return exit_done;
}

// ---- picture --------------------------------------------------------------------------------------------------------

// Before anything is asked of the camera.
void check_output(const Options& options) {
    if (!is_standard(options.output_file)) {
        return;
    }
    if (options.json) {
        throw Failure(exit_usage, "--json and the picture would both go to standard output; name a file with -o");
    }
    if (output_is_terminal()) {
        throw Failure(exit_usage, "standard output is a terminal, and a picture is no text; name a file with -o, or "
                                  "pipe it to a program");
    }
}

int save_picture(const Options& options) {
    check_output(options);
    CameraClient camera(options);
    const auto [number, preset] = preset_named(camera.list().presets, options.presets.front());
    const Bytes picture = camera.picture(preset);
    if (picture.empty()) {
        throw Failure(exit_missing, fmt::format("the camera could not read the picture of preset {}; {} is not written",
                                                number, name_of_output(options.output_file)));
    }
    write_output(options.output_file, picture);
    if (options.json) {
        print_json({{"custom_id", preset.custom_id}, {"bytes", picture.size()}, {"file", options.output_file}});
    } else {
        mention(options, fmt::format("{} bytes saved in {}", picture.size(), name_of_output(options.output_file)));
    }
    return exit_done;
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
        print_json(json_of(reply, deletions, form_of(options)));
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

// ---- new and schema -------------------------------------------------------------------------------------------------

int print_new_preset(const Options& options) {
    print(escaped_json(text_of_new_preset(form_of(options), schema_url())));
    return exit_done;
}

int print_schema() {
    print(text_of_json(preset_schema()));
    return exit_done;
}

// ---- leave ----------------------------------------------------------------------------------------------------------

int leave(const Options& options) {
    CameraClient(options).leave(options.code);
    mention(options, fmt::format("the camera was told that the phone leaves, with code {}", options.code));
    return exit_done;
}

int run_command(const Options& options) {
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
    case Options::Command::create:
        return print_new_preset(options);
    case Options::Command::replay:
        return replay(options);
    case Options::Command::schema:
        return print_schema();
    case Options::Command::scan:
        return scan(options);
    case Options::Command::decode:
        return options.other_capture.empty() ? decode(options) : compare_captures(options);
    }
    return exit_usage;
}

} // namespace

int run(const Options& options) {
    Options found = options;
    found.camera = with_port(options.camera, options.timeout);
    found.other_camera = with_port(options.other_camera, options.timeout);
    return run_command(found);
}

} // namespace desk::phone
