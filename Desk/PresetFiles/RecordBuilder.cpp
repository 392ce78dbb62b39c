#include "RecordBuilder.h"

#include <algorithm>
#include <fmt/format.h>
#include <iterator>

#include "Common/Failure.h"

namespace desk {

void Faults::add(size_t line, const std::string& fault) {
    lines_.emplace(line, fmt::format("{}:{}: {}", name_, line, fault));
    if (lines_.size() > most_lines) {
        lines_.erase(std::prev(lines_.end()));
        ++untold_;
    }
}

void Faults::throw_if_any() const {
    std::vector<std::string> texts;
    for (const auto& [line, text] : lines_) {
        texts.push_back(text);
    }
    if (untold_ > 0) {
        texts.push_back(
            fmt::format("{}:{}: and {} faults more; mend these first", name_, lines_.rbegin()->first, untold_));
    }
    if (!texts.empty()) {
        throw Failure(exit_usage, fmt::format("{}", fmt::join(texts, "\n")));
    }
}

std::string described(const JsonNode& node) {
    return node.kind == JsonNode::Kind::text ? "a text" : node.text;
}

bool GivenEntries::take(const JsonNode& entry, Faults& faults) {
    const auto [first, is_first] = lines_.emplace(entry.key, entry.line);
    if (!is_first) {
        faults.add(entry.line, fmt::format("{} is given twice, first in line {}; remove one",
                                           quoted_for_fault(entry.key), first->second));
    }
    return is_first;
}

void RecordBuilder::read_word(const JsonNode& node, const std::string& what, size_t offset) {
    if (node.kind == JsonNode::Kind::integer) {
        put(offset, node.number);
    } else if (node.kind == JsonNode::Kind::huge_integer) {
        faults_.add(node.line, fmt::format("{} is {}; give an integer from -2147483648 to 2147483647", what,
                                           cut_for_fault(node.text)));
    } else {
        faults_.add(node.line, fmt::format("{} must be an integer, not {}", what, described(node)));
    }
}

bool RecordBuilder::check_array(const JsonNode& node, const std::string& what, size_t count, const char* of) {
    if (node.kind != JsonNode::Kind::array) {
        faults_.add(node.line, fmt::format("{} must be an array of {} {}, not {}", what, count, of, described(node)));
    } else if (node.children.size() != count) {
        faults_.add(node.line, fmt::format("{} has {} {}; give {}", what, node.children.size(), of, count));
    } else {
        return true;
    }
    return false;
}

void RecordBuilder::read_words(const JsonNode& node, const std::string& what, size_t offset, size_t count) {
    if (!check_array(node, what, count, "integers")) {
        return;
    }
    for (size_t k = 0; k < count; ++k) {
        read_word(node.children[k], fmt::format("{} [{}]", what, k), offset + k * sizeof(int32_t));
    }
}

void RecordBuilder::read_text(const JsonNode& entry, const Field& field) {
    if (entry.kind == JsonNode::Kind::text) {
        read_string(entry, field);
    } else if (entry.kind == JsonNode::Kind::object) {
        read_bytes(entry, field);
    } else {
        faults_.add(entry.line,
                    fmt::format("{} must be a text, not {}", quoted_for_fault(entry.key), described(entry)));
    }
}

void RecordBuilder::read_string(const JsonNode& entry, const Field& field) {
    const std::string name = quoted_for_fault(entry.key);
    if (entry.text.size() > field.count) {
        faults_.add(entry.line,
                    fmt::format("{} has {} bytes in UTF-8; shorten it to {}", name, entry.text.size(), field.count));
    } else if (entry.text.find('\0') != std::string::npos) {
        faults_.add(entry.line, fmt::format("{} holds a NUL; write it as {{\"bytes\": \"<hexadecimal>\"}}", name));
    } else {
        std::copy(entry.text.begin(), entry.text.end(), at(field.offset));
    }
}

void RecordBuilder::read_bytes(const JsonNode& entry, const Field& field) {
    const JsonNode* const hex = entry.children.size() == 1 ? &entry.children.front() : nullptr;
    const bool is_hex = hex && hex->key == bytes_entry && hex->kind == JsonNode::Kind::text &&
                        hex->text.size() == 2 * field.count &&
                        hex->text.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
    if (!is_hex) {
        faults_.add(hex ? hex->line : entry.line,
                    fmt::format("{} must be a text or {{\"{}\": \"...\"}} with {} hexadecimal digits",
                                quoted_for_fault(entry.key), bytes_entry, 2 * field.count));
        return;
    }
    for (size_t k = 0; k < field.count; ++k) {
        *at(field.offset + k) = static_cast<uint8_t>(std::stoi(hex->text.substr(2 * k, 2), nullptr, 16));
    }
}

} // namespace desk
