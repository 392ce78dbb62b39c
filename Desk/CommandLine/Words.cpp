#include "Words.h"

#include <cctype>

namespace desk::command_line {

std::string joined(const std::vector<std::string>& words, std::string_view separator) {
    std::string text;
    for (const std::string& word : words) {
        text += (text.empty() ? "" : std::string(separator)) + word;
    }
    return text;
}

std::string replaced(std::string text, std::string_view before, std::string_view after) {
    for (size_t at = text.find(before); at != std::string::npos; at = text.find(before, at + after.size())) {
        text.replace(at, before.size(), after);
    }
    return text;
}

std::string filled(std::string text, const std::vector<std::pair<std::string_view, std::string>>& blanks) {
    for (const auto& [blank, value] : blanks) {
        text = replaced(std::move(text), blank, value);
    }
    return text;
}

std::string clause(std::string sentence) {
    sentence[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(sentence[0])));
    if (sentence.back() == '.') {
        sentence.pop_back();
    }
    return sentence;
}

std::string function_of(const std::string& tool) {
    return "_" + replaced(tool, "-", "_");
}

} // namespace desk::command_line
