#include "TextTable.h"

#include <algorithm>

#include "Common/Text.h"

namespace desk {
namespace {

constexpr size_t title_column = 2;
constexpr size_t gap = 2; // blanks between two columns

std::vector<size_t> widths_of(const std::vector<std::vector<std::string>>& rows) {
    std::vector<size_t> widths;
    for (const auto& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (size_t k = 0; k < row.size(); ++k) {
            widths[k] = std::max(widths[k], display_width(row[k]));
        }
    }
    return widths;
}

// How many columns there is room for. Those up to the title always stay.
size_t columns_that_fit(const std::vector<size_t>& widths, size_t width) {
    size_t all = 0;
    for (size_t k = 0; k < widths.size(); ++k) {
        all += widths[k] + (k > 0 ? gap : 0);
        if (width > 0 && all > width && k > title_column) {
            return k;
        }
    }
    return widths.size();
}

std::string table_line(const std::vector<std::string>& row, const std::vector<size_t>& widths, size_t columns,
                       size_t width) {
    std::string line;
    for (size_t k = 0; k < std::min(columns, row.size()); ++k) {
        line += row[k] + std::string(widths[k] - display_width(row[k]) + gap, ' ');
    }
    line.erase(line.find_last_not_of(' ') + 1);
    return (width == 0 ? line : shortened(line, width)) + '\n';
}

} // namespace

std::string table(const std::vector<std::vector<std::string>>& rows, size_t width) {
    const std::vector<size_t> widths = widths_of(rows);
    const size_t columns = columns_that_fit(widths, width);
    std::string text;
    for (const auto& row : rows) {
        text += table_line(row, widths, columns, width);
    }
    return text;
}

std::vector<std::string> left_out(const std::vector<std::vector<std::string>>& rows, size_t width) {
    if (rows.empty()) {
        return {};
    }
    const std::vector<std::string>& header = rows.front();
    const size_t columns = std::min(columns_that_fit(widths_of(rows), width), header.size());
    return {header.begin() + static_cast<std::ptrdiff_t>(columns), header.end()};
}

} // namespace desk
