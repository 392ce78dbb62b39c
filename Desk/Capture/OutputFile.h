// The file of a capture, which is written record by record.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <span>
#include <string>

#include "Common/Descriptor.h"

namespace desk::capture {

// Refuses what names no file: nothing, and "-", as standard output is for what the programs print. Throws Failure
// (exit_usage).
void require_file_name(const std::string& path);

class OutputFile {
  public:
    using Tell = std::function<void(const std::string& line)>;
    using Pieces = std::array<std::span<const uint8_t>, 3>;

    // Opens the file, and leaves it as it is for now. `tell` is told why the capture ends before its time. Throws
    // Failure: exit_usage for a file that holds something else than a capture, exit_machine for what cannot be written.
    OutputFile(std::string path, Tell tell);
    // Takes away a file that it has made and not begun.
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    // From here on the file is a capture, without records yet.
    void begin();
    bool has_begun() const { return has_begun_; }
    // A record of one packet, which is here in pieces, at this moment. It is in the file when this returns, and never
    // waits: a file that does not take it whole ends the capture, and all that follows is left out.
    void add(uint32_t flags, const Pieces& packet);

  private:
    void open();
    void require_capture() const;
    void write(std::span<const uint8_t> head, const Pieces& rest);
    void end(int error);

    std::string path_;
    Tell tell_;
    Descriptor file_; // none when the capture has ended
    bool is_new_ = false;
    bool is_regular_ = false;
    bool has_begun_ = false;
    int64_t size_ = 0; // of all that is whole
};

} // namespace desk::capture
