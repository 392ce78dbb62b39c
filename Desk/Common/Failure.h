// How the desk's tools fail: one clear line, and an exit code.
#pragma once

#include <stdexcept>
#include <string>

namespace desk {

// The exit codes of both tools; a camera's result code has one of its own, see `exit_code_of_result`.
enum ExitCode {
    exit_done = 0,
    exit_machine = 1,          // a file or the disk of this machine
    exit_usage = 2,            // options, preset files, pictures
    exit_link = 3,             // cannot connect, or cannot listen
    exit_timeout = 4,          // no answer in time
    exit_busy = 5,             // the camera serves another phone
    exit_protocol = 6,         // an answer that breaks the protocol, or a link that was closed too early
    exit_store_in_use = 7,     // another camera has the store open
    exit_store_damaged = 8,    // the store's files are not what they should be
    exit_missing = 9,          // no such store, or no such preset
    exit_result = 10,          // result codes 0 to -12: 10 plus the number without its sign
    exit_other_result = 30,    // any other result code but 1
    exit_faulty_camera = 31,   // a check of the camera found that something does not hold
    exit_stopped = 32,         // a signal ended a check, a restore or a copy before all was done
    exit_not_as_forecast = 33, // a camera shows what it stored otherwise than was foretold
    exit_changed = 34,         // the camera's presets changed while they were backed up
    exit_cut_capture = 35,     // a capture is cut off or damaged, or lacks bytes of what was said
    exit_differs = 36          // a conversation is not as it was captured
};

// `what` is the one line that the tool prints: what is wrong, and how to mend it.
class Failure : public std::runtime_error {
  public:
    Failure(ExitCode code, const std::string& line) : std::runtime_error(line), code_(code) {}
    ExitCode code() const { return code_; }

  private:
    ExitCode code_;
};

} // namespace desk
