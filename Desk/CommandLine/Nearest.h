// What somebody may have meant who mistyped a word.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace desk::command_line {

// The candidate that takes the fewest changes to reach: a character more, less or another, or two that change places.
// Nothing where more than a third of the word's characters would have to change.
std::optional<std::string> nearest(const std::string& word, const std::vector<std::string>& candidates);

} // namespace desk::command_line
