// The least that each job can cost: its log lines' final texts from snprintf, its bytes copied, its file read and
// searched. Whoever logs the same lines with the C library's formatter and does nothing else takes this long.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "ADE_ShotMentor_Log.h"

namespace bench {

// A line's whole text, made from its numbers by one call of snprintf.
class FloorLine {
  public:
    explicit FloorLine(const std::string& text);

    void write_to(char (&text)[ALG_LOG_LINE_SIZE]) const;
    void log() const;

  private:
    static constexpr size_t most_numbers = 6;
    void add_number(const char* conversion, int number);

    std::string format_;
    int numbers_[most_numbers] = {};
    size_t count_ = 0;
};

// The lines that the library logs while `run` runs. Aborts when one of them comes out of snprintf differently.
std::vector<FloorLine> lines_of(void (*run)());

void copy_in_packets(size_t total, size_t packet);
void read_and_search_picture();

} // namespace bench
