// Completions for zsh, with its own function _arguments.
#include <fmt/format.h>

#include "Reference.h"
#include "Words.h"

namespace desk::command_line {
namespace {

// In all of it @ is the name that the functions begin with, and a word in angle brackets what the table gives.
constexpr const char* script = R"(#compdef <tool>
# Completes <tool> in zsh. Made from the program's own table of options.

# Completes a value that is one of the arguments; behind a colon may follow a PATH.
@_choose() {
    local choice
    local -i code=1
    for choice; do
        if [[ $choice == *:PATH ]] && compset -P ${choice%PATH}; then
            _files
            return
        fi
    done
    local -a choices=(${@/%:PATH/:})
    compadd -S '' -- ${(M)choices:#*:} && code=0
    compadd -- ${choices:#*:} && code=0
    return code
}

@() {
    local curcontext=$curcontext state line
    typeset -A opt_args
    local -a options=(
<options>    )
    local -a commands=(
<commands>    )
    _arguments -C -S $options '1:command:->command' '*::argument:->argument' && return
    case $state in
    command) _describe -t commands command commands ;;
    argument)
        case $words[1] in
<commands' own>        esac
        ;;
    esac
}

@ "$@"
)";

// With its name, and the lines of its options and arguments.
constexpr const char* own_of_command = R"(        {})
            local -a own=(
{}{}            )
            _arguments -S $options $own
            ;;
)";

// The margins of arrays.
constexpr int of_tool = 8;
constexpr int of_command = 16;

// A line of an array.
std::string quoted_line(int margin, const std::string& text) {
    return fmt::format("{:{}}'{}'\n", "", margin, replaced(text, "'", "'\\''"));
}

// With nothing in it that _arguments would read.
std::string message(std::string text) {
    for (const char* const special : {"\\", ":", "[", "]"}) {
        text = replaced(std::move(text), special, std::string("\\") + special);
    }
    return text;
}

// A blank in front keeps _arguments from adding words of its own.
std::string action(const Values& values) {
    switch (values.kind) {
    case Values::Kind::file:
        return "_files";
    case Values::Kind::folder:
        return "_files -/";
    case Values::Kind::choices:
        return " @_choose " + replaced(joined(values.choices, " "), ":", "\\:");
    default:
        return " "; // only the user knows it
    }
}

// A name takes its value behind a blank, and "--name=value" or "-nvalue".
std::string name_of(const Entry& option, const std::string& name) {
    return option.value.empty() ? name : name + (name.starts_with("--") ? "=" : "+");
}

std::string option_lines(int margin, const std::vector<Entry>& options) {
    std::string lines;
    for (const Entry& option : options) {
        const std::string others = option.names.size() > 1 ? "(" + joined(option.names, " ") + ")" : "";
        for (const std::string& name : option.names) {
            const std::string value =
                option.value.empty() ? "" : fmt::format(":{}:{}", message(option.value), action(option.values));
            const std::string names = others + name_of(option, name);
            lines += quoted_line(margin, fmt::format("{}[{}]{}", names, message(option.help), value));
        }
    }
    return lines;
}

std::string argument_lines(int margin, const std::vector<Entry>& arguments) {
    std::string lines;
    size_t position = 1;
    for (const Entry& argument : arguments) {
        const std::string place = argument.is_repeated ? "*" : std::to_string(position++);
        const std::string value = fmt::format("{}:{}", message(argument.help), action(argument.values));
        lines += quoted_line(margin, fmt::format("{}:{}", place, value));
    }
    return lines;
}

} // namespace

std::string zsh_completion(const Table& table) {
    std::string commands;
    std::string own;
    for (const Command& command : table.commands) {
        commands += quoted_line(of_tool, fmt::format("{}:{}", message(command.name), message(command.help)));
        own += fmt::format(own_of_command, command.name, option_lines(of_command, command.options),
                           argument_lines(of_command, command.arguments));
    }
    return filled(script, {{"<options>", option_lines(of_tool, table.tool.options)},
                           {"<commands>", commands},
                           {"<commands' own>", own},
                           {"<tool>", table.tool.name},
                           {"@_", function_of(table.tool.name) + "_"},
                           {"@()", function_of(table.tool.name) + "()"},
                           {"@ ", function_of(table.tool.name) + " "}});
}

} // namespace desk::command_line
