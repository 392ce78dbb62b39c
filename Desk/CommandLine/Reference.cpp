#include "Reference.h"

namespace desk::command_line {
namespace {

std::string text_of(const std::string& form, const Table& table, const Manual& manual) {
    return form == "man"    ? man_page(table, manual)
           : form == "bash" ? bash_completion(table)
           : form == "zsh"  ? zsh_completion(table)
                            : fish_completion(table);
}

} // namespace

void add_reference(CLI::App& app, const Manual& manual) {
    const auto call = [&app, manual](const std::string& form) {
        throw CallForReference(text_of(form, table_of(app), manual));
    };
    app.add_option_function<std::string>("--reference", call)
        ->check(CLI::IsMember({"man", "bash", "zsh", "fish"}))
        ->group("")
        ->trigger_on_parse(); // nothing else has to be given
}

} // namespace desk::command_line
