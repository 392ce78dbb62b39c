// Any text as a preset file, in each form. What is accepted becomes the same bytes again when it is written and read
// once more; what is refused says so in one line for each fault.

#include <cctype>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <string_view>

#include "Input.h"
#include "PresetFiles/PresetFile.h"
#include "PresetFiles/PresetJson.h"

namespace {

const std::string file_name = "mine.json";

// Every line names the file and the line in it: nothing that the text holds can break a line.
void check_lines(const std::string& lines) {
    std::istringstream stream(lines + "\n");
    for (std::string line; std::getline(stream, line);) {
        PROMISE(line.starts_with(file_name + ":"));
        PROMISE(line.size() > file_name.size() + 1 && std::isdigit(line[file_name.size() + 1]) != 0);
    }
}

template<class Record>
void read(std::string_view text, Record (*from_json)(std::string_view, const std::string&)) {
    Record record;
    try {
        record = from_json(text, file_name);
    } catch (const desk::Failure& failure) {
        PROMISE(failure.code() == desk::exit_usage);
        check_lines(failure.what());
        return;
    }
    const std::string written = desk::to_json(record).dump();
    PROMISE(desk::encode(from_json(written, file_name)) == desk::encode(record));
}

// Any record survives being written and read.
template<class Record>
void write(const uint8_t* data, size_t size, Record (*from_json)(std::string_view, const std::string&)) {
    const Record record = fuzz::Input(data, size).record<Record>();
    PROMISE(desk::encode(from_json(desk::to_json(record).dump(2), file_name)) == desk::encode(record));
}

// A phone's record comes back from both forms of a file.
void write_forms(const sm_tag_custom_info& preset) {
    for (const desk::Form form : {desk::Form::words, desk::Form::raw}) {
        const desk::PresetFile back = desk::preset_from_text(desk::text_of_preset(preset, form, "x"), file_name);
        PROMISE(back.form == form && back.taken.empty());
        PROMISE(desk::encode(back.preset) == desk::encode(preset));
    }
}

// A file that says which form it is of. The nearest steps are steps.
void read_file(std::string_view text, desk::MissingSteps missing) {
    desk::PresetFile file;
    try {
        file = desk::preset_from_text(text, file_name, missing);
    } catch (const desk::Failure& failure) {
        PROMISE(failure.code() == desk::exit_usage);
        check_lines(failure.what());
        return;
    }
    PROMISE(missing == desk::MissingSteps::nearest || file.taken.empty());
    write_forms(file.preset);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    if (size > 0 && data[0] == 0xFF) { // no JSON text begins so
        write(data + 1, size - 1, desk::phone_record_from_json);
        write(data + 1, size - 1, desk::camera_record_from_json);
        write_forms(fuzz::Input(data + 1, size - 1).record<sm_tag_custom_info>());
        return 0;
    }
    read(text, desk::phone_record_from_json);
    read(text, desk::camera_record_from_json);
    read_file(text, desk::MissingSteps::refused);
    read_file(text, desk::MissingSteps::nearest);
    return 0;
}
