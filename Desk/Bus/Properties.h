// What objects on the bus tell of themselves.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "Message.h"

namespace desk::bus {

// Numbers of all widths are one kind, and so are strings and objects' paths. What is of no kind here is nothing.
using Value = std::variant<std::monostate, bool, int64_t, std::string, std::vector<uint8_t>, std::vector<std::string>>;
using Properties = std::map<std::string, Value>;      // by name
using Interfaces = std::map<std::string, Properties>; // by name
using Objects = std::map<std::string, Interfaces>;    // by path

// No more is read of one message: whoever sends more means no good.
constexpr size_t most_entries = 20000;

// Where the message has a{sv}, a{sa{sv}} and a{oa{sa{sv}}} next. Nothing where it has something else there, or more
// than `most_entries`.
std::optional<Properties> read_properties(Message& message);
std::optional<Interfaces> read_interfaces(Message& message);
std::optional<Objects> read_objects(Message& message);
// The same where it has a variant next.
std::optional<Value> read_value(Message& message);

// The property as that type; nothing where it is missing or something else.
template<class Type>
std::optional<Type> property(const Properties& properties, const std::string& name) {
    const auto found = properties.find(name);
    const Type* const value = found == properties.end() ? nullptr : std::get_if<Type>(&found->second);
    return value != nullptr ? std::optional<Type>(*value) : std::nullopt;
}

} // namespace desk::bus
