#include "ExitCodes.h"

#include <array>

#include "Common/Failure.h"

namespace desk::command_line {
namespace {

struct Meaning {
    int first;
    int last;
    const char* camera; // null where the tool never ends with the code
    const char* phone;
};

constexpr int last_result = exit_result + 12; // results 0 to -12
constexpr const char* done = "done";
constexpr const char* machine = "this machine failed: a file, the disk";
constexpr const char* other_result = "any other result";

constexpr std::array<Meaning, 18> meanings = {{
    {exit_done, exit_done, done, done},
    {exit_machine, exit_machine, machine, machine},
    {exit_usage, exit_usage, "wrong usage or input: options, records, pictures",
     "wrong usage or input: options, preset files, pictures that are no whole JPEG"},
    {exit_link, exit_link, "cannot listen; control: cannot connect", "cannot connect"},
    {exit_timeout, exit_timeout, "control: no answer in time", "no answer in time"},
    {exit_busy, exit_busy, nullptr, "the camera is busy with another phone"},
    {exit_protocol, exit_protocol, "control: what answers is no control socket",
     "the answer is not what the protocol promises, or the link was closed before it was complete"},
    {exit_store_in_use, exit_store_in_use, "another camera has the store open", nullptr},
    {exit_store_damaged, exit_store_damaged, "the store is damaged", nullptr},
    {exit_missing, exit_missing, "no such store, or no such preset",
     "no such preset, a picture that the camera could not read, nothing of ours in a capture, or no camera found"},
    {exit_result, last_result, "the store's own result 0 to -12: 10 plus the number without its sign",
     "the camera's result 0 to -12: 10 plus the number without its sign"},
    {exit_other_result, exit_other_result, other_result, other_result},
    {exit_faulty_camera, exit_faulty_camera, nullptr, "check found that the camera got something wrong"},
    {exit_stopped, exit_stopped, nullptr, "check, restore, copy or scan was stopped by a signal"},
    {exit_not_as_forecast, exit_not_as_forecast, nullptr, "a stored preset is not as was foretold"},
    {exit_changed, exit_changed, nullptr, "the camera's presets changed while they were backed up"},
    {exit_cut_capture, exit_cut_capture, "--replay: the capture is cut off or damaged",
     "a capture is cut off or damaged, or lacks bytes of what was said"},
    {exit_differs, exit_differs, "--replay: a phone said something else than in the capture",
     "replay, decode --diff: something else was said than in the capture"},
}};

std::vector<Row> rows_of(const char* Meaning::*tool) {
    std::vector<Row> rows;
    for (const Meaning& meaning : meanings) {
        const std::string last = meaning.last == meaning.first ? "" : " to " + std::to_string(meaning.last);
        if (meaning.*tool != nullptr) {
            rows.push_back({std::to_string(meaning.first) + last, meaning.*tool});
        }
    }
    return rows;
}

} // namespace

std::vector<Row> exit_codes_of_camera() {
    return rows_of(&Meaning::camera);
}

std::vector<Row> exit_codes_of_phone() {
    return rows_of(&Meaning::phone);
}

} // namespace desk::command_line
