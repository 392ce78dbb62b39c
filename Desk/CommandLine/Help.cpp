#include "Help.h"

#include <algorithm>
#include <string_view>

#include "Common/Text.h"
#include "Words.h"

namespace desk::command_line {
namespace {

constexpr size_t margin = 2;
constexpr size_t gap = 2;           // blanks between a term and its text
constexpr size_t longest_term = 26; // beside which its text begins
constexpr size_t narrowest_text = 24;
constexpr size_t text_below = 6;            // where a text begins that has no room beside its term
constexpr size_t most_examples = 7;         // of the whole tool
constexpr std::string_view goes_on = " \\"; // the end of a line of a command that goes on in the next

std::string blanks(size_t count) {
    return std::string(count, ' ');
}

// The words of a line, each whole in its quotes.
std::vector<std::string> words_in(std::string_view line) {
    std::vector<std::string> words(1);
    bool is_quoted = false;
    for (const char character : line) {
        is_quoted ^= character == '"';
        if (character == ' ' && !is_quoted) {
            words.emplace_back();
        } else {
            words.back() += character;
        }
    }
    return words;
}

// Words in lines of at most `width` columns, the first of which has `used` taken already. Each line that has a
// successor ends in `end`. A word that is wider than a line has one for itself.
std::string broken(const std::vector<std::string>& words, size_t width, size_t used, size_t indentation,
                   std::string_view end = "") {
    std::string lines;
    size_t column = used;
    bool begins_line = true;
    for (const std::string& word : words) {
        const size_t needed = display_width(word) + (begins_line ? 0 : 1);
        if (width > 0 && !begins_line && column + needed + end.size() > width) {
            lines += std::string(end) + "\n" + blanks(indentation) + word;
            column = indentation + display_width(word);
        } else {
            lines += (begins_line ? "" : " ") + word;
            column += needed;
        }
        begins_line = false;
    }
    return lines + "\n";
}

std::string paragraph(std::string_view text, size_t width, size_t indentation = 0) {
    return blanks(indentation) + broken(words_in(text), width, indentation, indentation);
}

std::string command_line_of(const std::string& line, size_t width, size_t indentation) {
    return blanks(indentation) + broken(words_in(line), width, indentation, indentation + margin, goes_on);
}

// The column at which the texts of some rows begin.
size_t text_column(const std::vector<Row>& rows, size_t width) {
    size_t longest = 0;
    for (const Row& row : rows) {
        const size_t term = display_width(row.term);
        longest = term > longest_term ? longest : std::max(longest, term);
    }
    const size_t column = margin + longest + gap;
    return width == 0 || column + narrowest_text <= width ? column : text_below;
}

std::string lines_of(const std::string& title, const std::vector<Row>& rows, size_t width) {
    if (rows.empty()) {
        return "";
    }
    const size_t column = text_column(rows, width);
    std::string lines = "\n" + paragraph(title + ":", width);
    for (const Row& row : rows) {
        std::string line = blanks(margin) + row.term;
        const size_t used = display_width(line);
        line += used + gap <= column ? blanks(column - used) : "\n" + blanks(column);
        lines += line + broken(words_in(row.text), width, column, column);
    }
    return lines;
}

// ---- Entries --------------------------------------------------------------------------------------------------------

Row row_of(const Entry& entry) {
    if (!entry.names[0].starts_with("-")) {
        return {entry.value + (entry.is_repeated ? "..." : ""), entry.help};
    }
    return {joined(entry.names, ",") + (entry.value.empty() ? "" : " " + entry.value), text_of_option(entry)};
}

std::vector<Row> rows_of(const std::vector<Entry>& entries) {
    std::vector<Row> rows;
    rows.reserve(entries.size());
    for (const Entry& entry : entries) {
        rows.push_back(row_of(entry));
    }
    return rows;
}

// Entries or commands by their groups, in the order in which these come.
template<class Item, class RowOf>
std::string grouped_lines(const std::vector<Item>& items, const RowOf& row, const std::string& unnamed,
                          const std::string& title, size_t width) {
    std::string lines;
    for (size_t first = 0; first < items.size();) {
        const std::string group = items[first].group;
        std::vector<Row> rows;
        for (; first < items.size() && items[first].group == group; ++first) {
            rows.push_back(row(items[first]));
        }
        lines += lines_of(group == unnamed ? title : group, rows, width);
    }
    return lines;
}

std::string usage_line(const std::string& words, size_t width) {
    constexpr std::string_view start = "Usage: ";
    return std::string(start) + broken(words_in(words), width, start.size(), start.size());
}

bool names(const std::vector<std::string>& words, const std::string& word) {
    return std::find(words.begin(), words.end(), word) != words.end();
}

bool applies(const Entry& option, const Command& command, const Manual& manual) {
    for (const Scope& scope : manual.scopes) {
        if (names(option.names, scope.option)) {
            return names(scope.commands, command.name) == (scope.kind == Scope::Kind::only);
        }
    }
    return true;
}

std::vector<Entry> common_options(const Command& command, const Table& table, const Manual& manual) {
    std::vector<Entry> options;
    for (const Entry& option : table.tool.options) {
        if (applies(option, command, manual)) {
            options.push_back(option);
        }
    }
    return options;
}

std::string with_needs(std::string words, const std::vector<Entry>& options) {
    for (const Entry& option : options) {
        words += option.is_required ? " " + option.names[0] + " " + option.value : "";
    }
    return words;
}

std::string usage_of(const Command& command, const Table& table, const Manual& manual) {
    std::string words = with_needs(table.tool.name, common_options(command, table, manual)) + " " + command.name;
    for (const Entry& entry : command.arguments) {
        words += " " + row_of(entry).term;
    }
    return with_needs(words, command.options) + " [OPTION...]";
}

std::string usage_of(const Table& table) {
    return with_needs(table.tool.name, table.tool.options) + (table.needs_command ? " COMMAND" : " [COMMAND]") +
           " [OPTION...]";
}

// ---- Examples -------------------------------------------------------------------------------------------------------

std::string lines_of_examples(const std::vector<Example>& examples, size_t width) {
    std::string lines = examples.empty() ? "" : "\nExamples:\n";
    for (const Example& example : examples) {
        lines += paragraph(example.purpose, width, margin) + command_line_of(example.line, width, 2 * margin);
    }
    return lines;
}

// The first one of each command, and those that have none.
std::vector<Example> examples_of_tool(const Manual& manual) {
    std::vector<Example> examples;
    std::vector<std::string> commands;
    for (const Example& example : manual.examples) {
        const bool is_new = example.command.empty() || !names(commands, example.command);
        if (is_new && examples.size() < most_examples) {
            commands.push_back(example.command);
            examples.push_back(example);
        }
    }
    return examples;
}

std::vector<Example> examples_of(const Command& command, const Manual& manual) {
    std::vector<Example> examples;
    for (const Example& example : manual.examples) {
        if (example.command == command.name) {
            examples.push_back(example);
        }
    }
    return examples;
}

// What the words in capitals mean that its arguments and options take.
std::vector<Row> values_of(const Command& command, const std::vector<Entry>& options, const Manual& manual) {
    std::vector<Entry> entries = command.arguments;
    entries.insert(entries.end(), options.begin(), options.end());
    std::vector<Row> rows;
    for (const Row& row : manual.words) {
        if (std::ranges::any_of(entries, [&](const Entry& entry) { return entry.value == row.term; })) {
            rows.push_back(row);
        }
    }
    return rows;
}

} // namespace

std::string help_of(const Table& table, const Manual& manual, size_t width) {
    const auto row_of_command = [](const Command& command) { return Row{command.name, command.help}; };
    const std::string more = table.tool.name + " COMMAND --help tells more of a command.";
    return paragraph(table.tool.help, width) + usage_line(usage_of(table), width) +
           grouped_lines(table.commands, row_of_command, "Subcommands", "Commands", width) + paragraph(more, width) +
           grouped_lines(table.tool.options, row_of, "Options", "Options", width) +
           lines_of(manual.words_title, manual.words, width) +
           lines_of(manual.more_words_title, manual.more_words, width) +
           lines_of_examples(examples_of_tool(manual), width) + lines_of("Exit codes", manual.exit_codes, width);
}

std::string help_of(const Command& command, const Table& table, const Manual& manual, size_t width) {
    const std::string& tool = table.tool.name;
    const std::vector<Entry> common = common_options(command, table, manual);
    return paragraph(tool + " " + command.name + " - " + clause(command.help), width) +
           usage_line(usage_of(command, table, manual), width) +
           lines_of("Arguments", rows_of(command.arguments), width) +
           lines_of("Options", rows_of(command.options), width) + lines_of("Common options", rows_of(common), width) +
           lines_of(manual.words_title, values_of(command, common, manual), width) +
           (command.name == manual.more_words_of ? lines_of(manual.more_words_title, manual.more_words, width) : "") +
           lines_of_examples(examples_of(command, manual), width) + "\n" +
           paragraph(tool + " --help tells of the other commands, and of exit codes.", width);
}

std::vector<std::string> words_of(int argc, char** argv) {
    std::vector<std::string> words(argv + std::min(argc, 1), argv + argc);
    if (!words.empty() && words.front() == "help") {
        words.erase(words.begin());
        words.insert(words.begin() + (words.empty() ? 0 : 1), "--help");
    }
    return words;
}

} // namespace desk::command_line
