// A JSON document as a tree whose every entry knows its line in the document, so that a fault can be told by its line.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace desk {

struct JsonNode {
    enum class Kind { object, array, integer, huge_integer, text, other };
    Kind kind = Kind::other;
    size_t line = 0;
    std::string key;  // where the parent is an object
    std::string text; // a text itself; else what the value is, for a fault
    int32_t number = 0;
    std::vector<JsonNode> children = {};
};

// Why a text is no JSON document.
struct JsonSyntaxFault {
    size_t line = 0;
    size_t column = 0;
    std::string text; // in ASCII, without anything of the document's own
};

// The document's root, with at most four levels of objects and arrays: what lies deeper is read over.
std::variant<JsonNode, JsonSyntaxFault> parse_json(std::string_view text);

// What a fault names, cut to a length that a line can bear.
std::string cut_for_fault(std::string text);

// A name of the document's own in quotes for a fault, control characters and all else but ASCII escaped.
std::string quoted_for_fault(const std::string& name);

} // namespace desk
