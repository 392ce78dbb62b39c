#include "Manual.h"

#include <algorithm>

namespace desk::command_line {
namespace {

std::string lines_of(const std::string& title, const std::vector<Row>& rows) {
    size_t width = 0;
    for (const Row& row : rows) {
        width = std::max(width, row.term.size());
    }
    std::string lines = title + ":\n";
    for (const Row& row : rows) {
        lines += "  " + row.term + std::string(width + 2 - row.term.size(), ' ') + row.text + "\n";
    }
    return lines;
}

} // namespace

std::string footer_of(const Manual& manual) {
    std::string footer = lines_of(manual.words_title, manual.words);
    if (!manual.more_words.empty()) {
        footer += "\n" + lines_of(manual.more_words_title, manual.more_words);
    }
    footer += "\nExamples:\n";
    for (const Example& example : manual.examples) {
        footer += "  " + example.line + "\n";
    }
    footer += "\n" + lines_of("Exit codes", manual.exit_codes);
    footer.pop_back(); // CLI11 ends the last line
    return footer;
}

} // namespace desk::command_line
