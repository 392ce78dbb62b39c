#include "LiveTable.h"

#include <algorithm>
#include <fmt/format.h>
#include <sstream>
#include <unistd.h>

#include "Common/Terminal.h"
#include "Common/Text.h"
#include "Output.h"
#include "Words/TextTable.h"

namespace desk::phone {
namespace {

constexpr TerminalSize usual_size = {80, 24, 0, 0};
constexpr size_t fewest_lines = 3; // a header, a word for the rest, the line below

std::vector<std::string> lines_in(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream input(text);
    for (std::string line; std::getline(input, line);) {
        lines.push_back(line);
    }
    return lines;
}

// The last row of the terminal is for the cursor, and the one before for the line below the table.
void cut(std::vector<std::string>& lines, size_t rows, size_t columns) {
    const size_t room = std::max(rows, fewest_lines + 1) - 2;
    if (lines.size() <= room) {
        return;
    }
    const size_t left_out = lines.size() - room + 1;
    lines.resize(room - 1);
    lines.push_back(shortened(fmt::format("… and {} more", left_out), columns));
}

} // namespace

void LiveTable::show(const std::vector<std::vector<std::string>>& rows, const std::string& below, size_t width) {
    const TerminalSize size = terminal_size(STDOUT_FILENO).value_or(usual_size);
    std::vector<std::string> lines = lines_in(table(rows, width == 0 ? size.columns : std::min(width, size.columns)));
    cut(lines, size.rows, size.columns);
    lines.push_back(shortened(below, size.columns));
    if (lines == shown_ && size.columns == columns_) {
        return;
    }
    // A terminal of another width may have broken the old lines, or not: new ones stand below them.
    std::string text = shown_.empty() || size.columns != columns_ ? "" : fmt::format("\x1b[{}A", shown_.size());
    for (const std::string& line : lines) {
        text += "\r\x1b[2K" + line + "\n"; // erased first: behind a full line, its last character would go
    }
    print(text + "\x1b[J");
    shown_ = std::move(lines);
    columns_ = size.columns;
}

} // namespace desk::phone
