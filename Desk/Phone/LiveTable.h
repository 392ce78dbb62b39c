// Lines at the end of a terminal that are replaced by others, again and again.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace desk::phone {

class LiveTable {
  public:
    // Rows of a table, header first, and a line below it. Writes only when something is to be seen of it. Of what is
    // higher than the terminal the first rows are shown. `width` is 0 for the terminal's own, which is the most.
    void show(const std::vector<std::vector<std::string>>& rows, const std::string& below, size_t width);

  private:
    std::vector<std::string> shown_;
    size_t columns_ = 0; // of the terminal, when they were shown
};

} // namespace desk::phone
