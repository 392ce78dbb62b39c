#include "Table.h"

#include <CLI/CLI.hpp>
#include <array>
#include <sstream>
#include <string_view>
#include <utility>

namespace desk::command_line {
namespace {

using CLI::App;
using Kind = Values::Kind;

// The forms of a link's URL, of which the phone's hold an address in between.
constexpr std::string_view url_forms = "unix:PATH|tcp:HOST:PORT|rfcomm:CHANNEL|l2cap:PSM|le:PSM";

// The kinds of values by what the help calls them.
constexpr std::array<std::pair<std::string_view, Kind>, 7> kinds = {{
    {"DIR", Kind::folder},
    {"FILE", Kind::file},
    {"PICTURE", Kind::file},
    {"PICTURE.jpg", Kind::file},
    {"PRESET.json", Kind::file},
    {"RECORD", Kind::file},
    {"URL", Kind::choices},
}};

// Of "stderr|file:PATH|tcp:HOST:PORT" the choices "stderr", "file:PATH" and "tcp:".
std::vector<std::string> choices_in(std::string_view forms) {
    std::vector<std::string> choices;
    std::istringstream input{std::string(forms)};
    for (std::string form; std::getline(input, form, '|');) {
        const size_t colon = form.find(':');
        const bool is_start = colon != std::string::npos && form.substr(colon) != ":PATH";
        choices.push_back(is_start ? form.substr(0, colon + 1) : form);
    }
    return choices;
}

Values values_of(const std::string& value) {
    for (const auto& [name, kind] : kinds) {
        if (value == name) {
            return {kind, kind == Kind::choices ? choices_in(url_forms) : std::vector<std::string>{}};
        }
    }
    if (value.find('|') != std::string::npos) {
        return {Kind::choices, choices_in(value)};
    }
    return {};
}

Entry entry_of(const CLI::Option& option) {
    Entry entry;
    for (const std::string& name : option.get_snames()) {
        entry.names.push_back("-" + name);
    }
    for (const std::string& name : option.get_lnames()) {
        entry.names.push_back("--" + name);
    }
    const bool takes_value = option.get_items_expected_max() > 0;
    entry.value = takes_value ? option.get_type_name() : "";
    if (option.get_positional()) {
        entry.names = {option.get_name(true)};
        // An argument whose name says what it is has no other word for its value.
        entry.value = entry.value.empty() ? entry.names[0] : entry.value;
    }
    entry.help = option.get_description();
    entry.group = option.get_group();
    entry.variable = option.get_envname();
    entry.is_required = option.get_required();
    entry.is_repeated = option.get_items_expected_max() > 1;
    entry.values = values_of(entry.value);
    return entry;
}

Command command_of(const App& app) {
    Command command{app.get_name(), app.get_description(), app.get_group(), {}, {}};
    for (const CLI::Option* const option : app.get_options({})) {
        const bool is_hidden = option->get_group().empty();
        const bool is_help_of_command = app.get_parent() != nullptr && option == app.get_help_ptr();
        if (!is_hidden && !is_help_of_command) {
            (option->get_positional() ? command.arguments : command.options).push_back(entry_of(*option));
        }
    }
    return command;
}

} // namespace

std::string text_of_option(const Entry& entry) {
    if (!entry.is_required) {
        return entry.help;
    }
    return entry.help + "; must be given" + (entry.variable.empty() ? "" : ", here or as " + entry.variable);
}

Table table_of(const App& app) {
    Table table;
    table.tool = command_of(app);
    table.version = app.version();
    table.needs_command = app.get_require_subcommand_min() > 0;
    for (const App* const command : app.get_subcommands({})) {
        table.commands.push_back(command_of(*command));
    }
    return table;
}

} // namespace desk::command_line
