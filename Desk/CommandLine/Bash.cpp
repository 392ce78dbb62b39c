// Completions for bash, with the functions of the package bash-completion.
#include <fmt/format.h>

#include "Reference.h"
#include "Words.h"

namespace desk::command_line {
namespace {

// In all of it @ is the name that the functions begin with, and a word in angle brackets what the table gives.
constexpr const char* script = R"(# Completes <tool> in bash. Made from the program's own table of options.

# Completes a value that is one of the arguments; behind a colon may follow a PATH.
@_choose() {
    local choice
    for choice; do
        if [[ $choice == *:PATH && $cur == "${choice%PATH}"* ]]; then
            cur=${cur#"${choice%PATH}"}
            _filedir
            [[ $COMP_WORDBREAKS == *:* ]] || COMPREPLY=("${COMPREPLY[@]/#/${choice%PATH}}")
            return
        fi
    done
    mapfile -t COMPREPLY < <(compgen -W "${*/%:PATH/:}" -- "$cur")
    [[ ${COMPREPLY[0]-} != *: ]] || compopt -o nospace
    __ltrim_colon_completions "$cur"
}

@() {
    local cur prev words cword split
    _init_completion -s -n : || return
    local command='' arguments=0 i
    for ((i = 1; i < cword; i++)); do
        case ${words[i]} in
        <options with a value>) ((++i)) ;;
        -*) ;;
        *) if [[ $command ]]; then ((++arguments)); else command=${words[i]}; fi ;;
        esac
    done
    case $command/$prev in
<values of options>    esac
    ! $split || return
    if [[ $cur == -* ]]; then
        local options='<options>'
        case $command in
<options of commands>        esac
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$cur")
    elif [[ -z $command ]]; then
        mapfile -t COMPREPLY < <(compgen -W '<commands>' -- "$cur")
    else
        case $command/$arguments in
<values of arguments>        esac
    fi
} && complete -F @ <tool>
)";

// The command that completes a value, or nothing where only the user knows it.
std::string completer(const Values& values) {
    switch (values.kind) {
    case Values::Kind::file:
        return "_filedir";
    case Values::Kind::folder:
        return "_filedir -d";
    case Values::Kind::choices:
        return "@_choose " + joined(values.choices, " ");
    default:
        return "";
    }
}

std::vector<std::string> names_in(const std::vector<Entry>& options) {
    std::vector<std::string> names;
    for (const Entry& option : options) {
        names.insert(names.end(), option.names.begin(), option.names.end());
    }
    return names;
}

std::vector<Entry> options_with_value(const Command& command) {
    std::vector<Entry> found;
    for (const Entry& option : command.options) {
        if (!option.value.empty()) {
            found.push_back(option);
        }
    }
    return found;
}

std::string values_of_options(const Command& command, const std::string& place) {
    std::string lines;
    for (const Entry& option : options_with_value(command)) {
        std::vector<std::string> patterns;
        for (const std::string& name : option.names) {
            patterns.push_back(fmt::format("{}/{}", place, name));
        }
        const std::string action = completer(option.values);
        lines += fmt::format("    {}) {}{}return ;;\n", joined(patterns, " | "), action, action.empty() ? "" : "; ");
    }
    return lines;
}

std::string values_of_arguments(const Command& command) {
    std::string lines;
    size_t position = 0;
    for (const Entry& argument : command.arguments) {
        const std::string place = argument.is_repeated ? "*" : std::to_string(position++);
        const std::string action = completer(argument.values);
        lines += action.empty() ? "" : fmt::format("        {}/{}) {} ;;\n", command.name, place, action);
    }
    return lines;
}

} // namespace

std::string bash_completion(const Table& table) {
    std::vector<std::string> commands;
    std::vector<std::string> valued = names_in(options_with_value(table.tool));
    std::string values = values_of_options(table.tool, "*");
    std::string options;
    std::string arguments;
    for (const Command& command : table.commands) {
        const std::vector<std::string> more = names_in(options_with_value(command));
        valued.insert(valued.end(), more.begin(), more.end());
        commands.push_back(command.name);
        values += values_of_options(command, command.name);
        if (!command.options.empty()) {
            const std::string names = joined(names_in(command.options), " ");
            options += fmt::format("        {}) options+=' {}' ;;\n", command.name, names);
        }
        arguments += values_of_arguments(command);
    }
    return filled(script, {{"<options with a value>", joined(valued, " | ")},
                           {"<values of options>", values},
                           {"<options>", joined(names_in(table.tool.options), " ")},
                           {"<options of commands>", options},
                           {"<commands>", joined(commands, " ")},
                           {"<values of arguments>", arguments},
                           {"<tool>", table.tool.name},
                           {"@", function_of(table.tool.name)}});
}

} // namespace desk::command_line
