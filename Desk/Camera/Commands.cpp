#include "Commands.h"

#include <cstdio>
#include <cstring>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <unistd.h>

#include "ADE_ShotMentor.h"
#include "Common/Files.h"
#include "Common/Terminal.h"
#include "Control.h"
#include "PresetFiles/PresetJson.h"
#include "PresetStore.h"
#include "Services.h"
#include "Talk.h"
#include "Wire/Frames.h"
#include "Words/Describe.h"
#include "Words/Results.h"
#include "Words/TextTable.h"

namespace desk::camera {
namespace {

PresetStore open_store(const Options& options) {
    return PresetStore::open(options.store, false);
}

// Tells why the store refused a change. Returns the exit code.
int report_result(int result, const PresetStore& store) {
    if (result != SM_RETURN_TRUE) {
        const std::string& reason = store.last_error();
        say({"failure", {{"result", result}}, meaning_of_result(result) + (reason.empty() ? "" : ": " + reason)});
    }
    return exit_code_of_result(result);
}

void check_number(const PresetStore& store, int number) {
    const size_t count = store.presets().size();
    if (number < 0 || static_cast<size_t>(number) >= count) {
        const std::string known =
            count == 0 ? "the store is empty" : fmt::format("the numbers go from 0 to {}", count - 1);
        throw Failure(exit_missing, fmt::format("there is no preset {}; {}", number, known));
    }
}

// ---- presets --------------------------------------------------------------------------------------------------------

// As the library marks it in a list: CUSTOM2 where both use the preset.
int32_t linked_custom_mode(const PresetStore& store, int number) {
    return store.linked(1) == number ? 2 : store.linked(0) == number ? 1 : 0;
}

sm_tag_custom_info as_the_phone_gets_it(const PresetStore& store, const tag_custom_info& camera, int number) {
    sm_tag_custom_info phone = {};
    ADE_PRO_CreateProFilm(&camera, &phone);
    phone.linked_custom_mode = linked_custom_mode(store, number);
    return phone;
}

void print_table(PresetStore& store, const Options& options) {
    const Services services(store, nullptr, options.knobs); // the conversion asks for the model's ISO steps
    std::vector<std::vector<std::string>> rows = {table_header()};
    int number = 0;
    for (const tag_custom_info& preset : store.presets()) {
        rows.push_back(table_row(number, as_the_phone_gets_it(store, preset, number)));
        ++number;
    }
    std::fputs(table(rows, width_of_lines(STDOUT_FILENO)).c_str(), stdout);
}

void print_json(const PresetStore& store) {
    nlohmann::ordered_json presets = nlohmann::ordered_json::array();
    for (const tag_custom_info& preset : store.presets()) {
        presets.push_back(to_json(preset));
    }
    std::printf("%s\n", presets.dump(2).c_str());
}

int list_presets(const Options& options) {
    PresetStore store = open_store(options);
    if (options.json) {
        print_json(store);
    } else {
        print_table(store, options);
    }
    return exit_done;
}

// ---- link, unlink, remove -------------------------------------------------------------------------------------------

int link_preset(const Options& options) {
    PresetStore store = open_store(options);
    check_number(store, options.number);
    return report_result(store.link(options.custom_mode, options.number), store);
}

int unlink_preset(const Options& options) {
    PresetStore store = open_store(options);
    return report_result(store.unlink(options.custom_mode), store);
}

int remove_preset(const Options& options) {
    PresetStore store = open_store(options);
    check_number(store, options.number);
    std::vector<int> flags(SM_DELETE_FLAGS);
    flags[static_cast<size_t>(options.number)] = 1;
    return report_result(store.remove(flags), store);
}

// ---- add ------------------------------------------------------------------------------------------------------------

// JSON has no NUL, and 740 bytes of a record without one are hardly a record.
bool is_raw_record(const Bytes& bytes) {
    return bytes.size() == sizeof(tag_custom_info) && std::memchr(bytes.data(), 0, bytes.size()) != nullptr;
}

tag_custom_info read_record(const std::filesystem::path& path) {
    const Bytes bytes = read_file(path, longest_preset_file);
    if (is_raw_record(bytes)) {
        return decode_camera_record(bytes);
    }
    return camera_record_from_json({reinterpret_cast<const char*>(bytes.data()), bytes.size()}, path.string());
}

// None longer than a phone could have sent.
Bytes read_picture(const std::filesystem::path& path) {
    constexpr uint8_t start[] = {0xFF, 0xD8, 0xFF};
    Bytes bytes = read_file(path, longest_picture);
    if (bytes.size() < sizeof start || std::memcmp(bytes.data(), start, sizeof start) != 0) {
        throw Failure(exit_usage, path.string() + " is no JPEG picture: it does not begin with FF D8 FF");
    }
    return bytes;
}

int add_preset(const Options& options) {
    tag_custom_info preset = read_record(options.record);
    const Bytes picture = read_picture(options.picture);
    PresetStore store = open_store(options);
    const int result = store.save(preset, picture.data(), static_cast<int>(picture.size()));
    if (result == SM_RETURN_TRUE) {
        std::printf("number %d, id %d\n", preset.preset_num, preset.custom_id);
    }
    return report_result(result, store);
}

} // namespace

int run_command(const Options& options) {
    switch (options.command) {
    case Command::presets:
        return list_presets(options);
    case Command::link:
        return link_preset(options);
    case Command::unlink:
        return unlink_preset(options);
    case Command::add:
        return add_preset(options);
    case Command::remove:
        return remove_preset(options);
    case Command::control:
        return control_camera(options.controlled, options.lab_command);
    case Command::serve:
        break;
    }
    throw std::logic_error("serving is no command on a store at rest");
}

} // namespace desk::camera
