// A file to which the camera's log lines go while a check runs: what is appended to it, line by line.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "Common/Descriptor.h"

namespace desk::phone {

class CameraLog {
  public:
    // Begins at the end that the file has now. Throws Failure: exit_usage for what is no regular file, exit_machine for
    // one that cannot be read.
    explicit CameraLog(const std::string& path);

    // Lines that the library writes, by what they tell.
    struct Counts {
        int64_t parked = 0;          // a request ran while the last reply was unconfirmed
        int64_t confirmed_late = 0;  // a confirmation came after the next request
        int64_t confirmed_twice = 0; // a confirmation came, and no reply was waiting for it
        int64_t refused_memory = 0;  // an allocation was refused
        int64_t unread_pictures = 0; // a picture's file could not be read
        int64_t refused_records = 0; // a request was shorter than its record
    };
    // All lines so far. Throws Failure (exit_machine) when the file has become shorter.
    const Counts& read_on();

  private:
    void take(std::string_view bytes);
    void count(std::string_view line);

    std::string path_;
    Descriptor file_;
    int64_t position_ = 0;
    std::string line_; // the beginning of one that has not ended yet
    Counts counts_;
};

} // namespace desk::phone
