// Small texts that the forms of the reference are put together from.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace desk::command_line {

std::string joined(const std::vector<std::string>& words, std::string_view separator);

// With `after` in place of each `before`.
std::string replaced(std::string text, std::string_view before, std::string_view after);

// With all of these pairs replaced, one after the other.
std::string filled(std::string text, const std::vector<std::pair<std::string_view, std::string>>& blanks);

// "A camera." as one does not begin, and not end, a sentence.
std::string clause(std::string sentence);

// What the functions of a tool's completions are called, such as "_shotmentor_phone".
std::string function_of(const std::string& tool);

} // namespace desk::command_line
