// What is to be said of a tool beside its table of options, in its help and its man page.
#pragma once

#include <string>
#include <vector>

namespace desk::command_line {

struct Row {
    std::string term;
    std::string text;
};

struct Example {
    std::string command; // that it shows; nothing where the tool has none in it
    std::string purpose;
    std::string line;
};

// An option of the tool that does something for these commands only, or for all except these.
struct Scope {
    enum class Kind { only, except };
    std::string option;
    Kind kind;
    std::vector<std::string> commands;
};

struct Manual {
    std::vector<std::string> description; // paragraphs, in the man page only
    std::string words_title;              // what the rows below it explain
    std::vector<Row> words;
    std::string more_words_title = {}; // the same once more, where there are any
    std::vector<Row> more_words = {};
    std::string more_words_of = {}; // the command that takes them
    std::vector<Example> examples;
    std::vector<Row> exit_codes;
    std::vector<Row> environment; // in the man page only
    std::vector<Scope> scopes;    // of the options that do not apply to every command
    std::string see_also;         // another tool
};

} // namespace desk::command_line
