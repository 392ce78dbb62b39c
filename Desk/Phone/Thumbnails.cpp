#include "Thumbnails.h"

#include <algorithm>

#include "Common/Text.h"

namespace desk::phone {
namespace {

constexpr size_t gap = 2; // blanks between two thumbnails

// A text and what pads it to the next thumbnail's column.
struct Cell {
    std::string text;
    size_t columns = 0;
};

Cell cell_of(const std::string& text, size_t columns) {
    std::string shown = shortened(text, columns);
    return {shown, display_width(shown)};
}

Cell line_of(const Drawing& drawing, size_t line) {
    return line < drawing.lines.size() ? Cell{drawing.lines[line], drawing.columns} : Cell{};
}

// Cells side by side, with blanks between them and none behind the last that has a text.
template<class CellOf>
std::string joined(std::span<const Thumbnail> thumbnails, size_t columns, const CellOf& cell_at) {
    std::string line;
    size_t missing = 0;
    for (const Thumbnail& thumbnail : thumbnails) {
        const Cell cell = cell_at(thumbnail);
        if (!cell.text.empty()) {
            line += std::string(missing, ' ') + cell.text;
            missing = 0;
        }
        missing += columns - std::min(cell.columns, columns) + gap;
    }
    return line + "\n";
}

} // namespace

size_t thumbnails_in_a_row(size_t columns, size_t width) {
    return width < columns ? 1 : (width + gap) / (columns + gap);
}

std::string row_of(std::span<const Thumbnail> thumbnails, size_t columns) {
    size_t lines = 0;
    for (const Thumbnail& thumbnail : thumbnails) {
        lines = std::max(lines, thumbnail.drawing.lines.size());
    }
    std::string text = joined(thumbnails, columns, [&](const Thumbnail& one) { return cell_of(one.caption, columns); });
    for (size_t line = 0; line < lines; ++line) {
        text += joined(thumbnails, columns, [&](const Thumbnail& one) { return line_of(one.drawing, line); });
    }
    return text;
}

} // namespace desk::phone
