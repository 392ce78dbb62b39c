// What is to be said of a tool beside its table of options: the footer of its help, and more in its man page.
#pragma once

#include <string>
#include <vector>

namespace desk::command_line {

struct Row {
    std::string term;
    std::string text;
};

struct Example {
    std::string purpose; // shown in the man page only
    std::string line;
};

struct Manual {
    std::vector<std::string> description; // paragraphs, in the man page only
    std::string words_title;              // what the rows below it explain
    std::vector<Row> words;
    std::string more_words_title = {}; // the same once more, where there are any
    std::vector<Row> more_words = {};
    std::vector<Example> examples;
    std::vector<Row> exit_codes;
    std::vector<Row> environment; // in the man page only
    std::string see_also;         // another tool
};

// The text below the options of the help.
std::string footer_of(const Manual& manual);

} // namespace desk::command_line
