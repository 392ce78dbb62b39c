// Tables in plain text, for a terminal or a file.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace desk {

// Columns padded to the width that is there, the last columns left out first, then lines cut with an ellipsis; the
// first three columns stay. `width` 0 means no limit. The first row is the header. Widths are those of a terminal.
std::string table(const std::vector<std::vector<std::string>>& rows, size_t width);

// The headers of the columns that a table of this width leaves out.
std::vector<std::string> left_out(const std::vector<std::vector<std::string>>& rows, size_t width);

} // namespace desk
