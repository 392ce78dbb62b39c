// The man page, in the macros of man(7).
#include <algorithm>
#include <cctype>

#include "Reference.h"
#include "Words.h"

namespace desk::command_line {
namespace {

constexpr const char* date = "2026-11-22"; // on which what the pages say last changed

// Text that means nothing to roff.
std::string plain(std::string text) {
    text = replaced(replaced(std::move(text), "\\", "\\e"), "-", "\\-");
    return text.starts_with(".") || text.starts_with("'") ? "\\&" + text : text;
}

std::string bold(const std::string& text) {
    return "\\fB" + plain(text) + "\\fR";
}

std::string italic(const std::string& text) {
    return "\\fI" + plain(text) + "\\fR";
}

std::string section(const std::string& title) {
    return ".SH " + title + "\n";
}

std::string upper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::toupper(c); });
    return text;
}

// A value is in italics but where it is to be typed as it stands.
std::string value_of(const Entry& entry) {
    if (entry.values.kind != Values::Kind::choices || entry.values.choices.empty()) {
        return italic(entry.value);
    }
    const bool is_typed = entry.value.find('|') != std::string::npos;
    return is_typed ? filled(bold(entry.value), {{"|", "\\fR|\\fB"}, {"PATH", "\\fIPATH"}}) : italic(entry.value);
}

std::string argument(const Entry& entry) {
    const std::string shown = value_of(entry) + (entry.is_repeated ? "..." : "");
    return entry.is_required ? shown : "[" + shown + "]";
}

std::string option_in_synopsis(const Entry& entry) {
    const std::string shown = bold(entry.names[0]) + (entry.value.empty() ? "" : " " + value_of(entry));
    return entry.is_required ? shown : "[" + shown + "]";
}

std::string arguments_of(const Command& command) {
    std::string line;
    for (const Entry& entry : command.options) {
        line += " " + option_in_synopsis(entry);
    }
    for (const Entry& entry : command.arguments) {
        line += " " + argument(entry);
    }
    return line;
}

std::string synopsis(const Table& table) {
    std::string start = bold(table.tool.name);
    for (const Entry& entry : table.tool.options) {
        start += entry.is_required ? " " + option_in_synopsis(entry) : "";
    }
    start += " [" + italic("OPTION") + "...]";
    std::string lines = section("SYNOPSIS") + (table.needs_command ? "" : start + "\n.br\n");
    for (const Command& command : table.commands) {
        const bool is_last = &command == &table.commands.back();
        lines += start + " " + bold(command.name) + arguments_of(command) + (is_last ? "\n" : "\n.br\n");
    }
    return lines;
}

std::string paragraph(const std::string& term, const std::string& text) {
    return ".TP\n" + term + "\n" + plain(text) + "\n";
}

std::string entry_paragraph(const Entry& entry) {
    std::vector<std::string> names;
    for (const std::string& name : entry.names) {
        names.push_back(name.starts_with("-") ? bold(name) : value_of(entry));
    }
    const bool is_option = entry.names[0].starts_with("-");
    const std::string value = is_option && !entry.value.empty() ? " " + value_of(entry) : "";
    return paragraph(joined(names, ", ") + value, is_option ? text_of_option(entry) : entry.help);
}

std::string commands(const Table& table) {
    std::string lines = section("COMMANDS");
    std::string group = "Subcommands"; // CLI11's own word
    for (const Command& command : table.commands) {
        if (command.group != group) {
            group = command.group;
            lines += plain(group) + ".\n";
        }
        lines += ".SS \"" + bold(command.name) + arguments_of(command) + "\"\n" + plain(command.help) + "\n";
        for (const Entry& entry : command.arguments) {
            lines += entry_paragraph(entry);
        }
        for (const Entry& entry : command.options) {
            lines += entry_paragraph(entry);
        }
    }
    return lines;
}

std::string options(const Table& table) {
    std::string lines = section("OPTIONS") + "They may stand before or behind the command.\n";
    std::string group = "Options"; // CLI11's own word
    for (const Entry& entry : table.tool.options) {
        if (entry.group != group) {
            group = entry.group;
            lines += ".SS \"" + plain(group) + "\"\n";
        }
        lines += entry_paragraph(entry);
    }
    return lines;
}

std::string rows(const std::string& title, const std::vector<Row>& rows) {
    std::string lines = section(upper(title));
    for (const Row& row : rows) {
        lines += paragraph(bold(row.term), row.text);
    }
    return lines;
}

std::string examples(const Manual& manual) {
    std::string lines = section("EXAMPLES");
    for (const Example& example : manual.examples) {
        lines += paragraph(plain(example.purpose), "");
        lines.pop_back(); // the empty text's line
        lines += bold(example.line) + "\n";
    }
    return lines;
}

} // namespace

std::string man_page(const Table& table, const Manual& manual) {
    const std::string& name = table.tool.name;
    std::string page = ".\\\" Made from the program's own table of options.\n.TH " + plain(upper(name)) + " 1 " + date +
                       " \"ShotMentor " + table.version + "\" \"User Commands\"\n.nh\n.ad l\n";
    page += section("NAME") + plain(name) + " \\- " + plain(clause(table.tool.help)) + "\n" + synopsis(table);
    page += section("DESCRIPTION");
    for (const std::string& text : manual.description) {
        page += (&text == &manual.description.front() ? "" : ".PP\n") + plain(text) + "\n";
    }
    page += commands(table) + options(table) + rows(manual.words_title, manual.words);
    page += manual.more_words.empty() ? "" : rows(manual.more_words_title, manual.more_words);
    page += examples(manual);
    page += rows("Environment", manual.environment) + rows("Exit status", manual.exit_codes);
    return page + section("SEE ALSO") + bold(manual.see_also) + "(1)\n";
}

} // namespace desk::command_line
