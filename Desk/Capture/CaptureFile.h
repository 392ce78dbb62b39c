// The bytes of a capture as they come: from a file, one that still grows, or a pipe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>

#include "Common/Descriptor.h"
#include "Wire/Record.h"

namespace desk::capture {

class CaptureFile {
  public:
    // Throws Failure (exit_machine) for what cannot be opened.
    CaptureFile(std::string path, bool follows, std::function<void()> while_waiting);

    // Fewer bytes than there is room for only at the end. Throws Failure (exit_machine).
    size_t read(std::span<uint8_t> room);
    std::string name() const;

  private:
    bool fill();
    bool wait_for_more();
    size_t read_some();
    void pause() const;
    bool has_shrunk() const;

    std::string path_;
    bool follows_;
    std::function<void()> while_waiting_;
    Descriptor file_;
    bool is_regular_ = false;
    uint64_t position_ = 0; // behind what was read
    Bytes buffer_;
    size_t begin_ = 0; // of what is left in the buffer
    size_t end_ = 0;
};

} // namespace desk::capture
