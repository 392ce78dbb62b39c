// Completions for zsh, with its own function _arguments.
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

// In single quotes, and with nothing in it that _arguments would read.
std::string quoted(std::string text) {
    return "'" + replaced(std::move(text), "'", "'\\''") + "'";
}

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

std::string option_lines(const std::vector<Entry>& options, const std::string& margin) {
    std::string lines;
    for (const Entry& option : options) {
        const std::string others = option.names.size() > 1 ? "(" + joined(option.names, " ") + ")" : "";
        for (const std::string& name : option.names) {
            const std::string value =
                option.value.empty() ? "" : ":" + message(option.value) + ":" + action(option.values);
            lines += margin + quoted(others + name_of(option, name) + "[" + message(option.help) + "]" + value) + "\n";
        }
    }
    return lines;
}

std::string argument_lines(const std::vector<Entry>& arguments, const std::string& margin) {
    std::string lines;
    size_t position = 1;
    for (const Entry& argument : arguments) {
        const std::string place = argument.is_repeated ? "*" : std::to_string(position++);
        lines += margin + quoted(place + ":" + message(argument.help) + ":" + action(argument.values)) + "\n";
    }
    return lines;
}

} // namespace

std::string zsh_completion(const Table& table) {
    const std::string margin(8, ' ');
    std::string commands;
    std::string own;
    for (const Command& command : table.commands) {
        commands += margin + quoted(message(command.name) + ":" + message(command.help)) + "\n";
        std::string lines =
            option_lines(command.options, margin + "        ") + argument_lines(command.arguments, margin + "        ");
        own += margin + command.name + ")\n" + margin + "    local -a own=(\n" + lines + margin + "    )\n" + margin +
               "    _arguments -S $options $own\n" + margin + "    ;;\n";
    }
    return filled(script, {{"<options>", option_lines(table.tool.options, margin)},
                           {"<commands>", commands},
                           {"<commands' own>", own},
                           {"<tool>", table.tool.name},
                           {"@_", function_of(table.tool.name) + "_"},
                           {"@()", function_of(table.tool.name) + "()"},
                           {"@ ", function_of(table.tool.name) + " "}});
}

} // namespace desk::command_line
