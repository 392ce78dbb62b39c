// Any message of the bus, of any types in any depth: what is read of it is there when its types are those that are
// asked for, and not when they are others.

#include <array>
#include <string>
#include <sys/socket.h>

#include "Bus/Properties.h"
#include "Input.h"

namespace {

using desk::bus::Message;
using fuzz::Input;

constexpr int deepest = 8;      // variants in variants
constexpr int deepest_type = 3; // a longer one than of 255 characters cannot be
constexpr int most_entries_of_array = 40;

// Messages need a bus, but nobody at its other end.
sd_bus* bus_without_anybody() {
    std::array<int, 2> ends = {};
    sd_bus* bus = nullptr;
    PROMISE(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends.data()) == 0);
    PROMISE(sd_bus_new(&bus) >= 0 && sd_bus_set_fd(bus, ends[0], ends[0]) >= 0 && sd_bus_start(bus) >= 0);
    return bus;
}

sd_bus* bus = nullptr;

// Types hold others, up to a depth.
// NOLINTBEGIN(misc-no-recursion)
std::string type_of(Input& input, int depth) {
    static constexpr std::array<const char*, 16> plain = {"y", "b", "n", "q", "i",  "u",  "x",     "t",
                                                          "d", "s", "o", "g", "ay", "as", "a{sv}", "v"};
    if (depth == 0 || !input.flag()) {
        return plain[static_cast<size_t>(input.below(plain.size()))];
    }
    switch (input.below(5)) {
    case 0:
        return "a" + type_of(input, depth - 1);
    case 1:
        return "(" + type_of(input, depth - 1) + type_of(input, depth - 1) + ")";
    case 2:
        return "a{s" + type_of(input, depth - 1) + "}";
    case 3:
        return "a{sa{sv}}";
    default:
        return "a{oa{sa{sv}}}";
    }
}

size_t length_of_first(const std::string& types, size_t start) {
    size_t end = start;
    while (types[end] == 'a') {
        ++end;
    }
    int open = 0;
    do {
        open += types[end] == '(' || types[end] == '{' ? 1 : types[end] == ')' || types[end] == '}' ? -1 : 0;
        ++end;
    } while (open > 0);
    return end - start;
}

void append(Input& input, Message& message, const std::string& type, int depth);

void append_all(Input& input, Message& message, const std::string& types, int depth) {
    for (size_t start = 0; start < types.size();) {
        const size_t length = length_of_first(types, start);
        append(input, message, types.substr(start, length), depth);
        start += length;
    }
}

void append_container(Input& input, Message& message, char kind, const std::string& content, int depth) {
    PROMISE(sd_bus_message_open_container(message.get(), kind, content.c_str()) >= 0);
    if (kind == 'a') {
        for (int count = input.empty() ? 0 : input.below(most_entries_of_array); count > 0; --count) {
            append(input, message, content, depth);
        }
    } else {
        append_all(input, message, content, depth);
    }
    PROMISE(sd_bus_message_close_container(message.get()) >= 0);
}

void append_plain(Input& input, Message& message, char type) {
    uint64_t bits = 0;
    static constexpr std::array<const char*, 4> paths = {"/", "/org/bluez", "/org/bluez/hci0", "/a_b/c9"};
    static constexpr std::array<const char*, 6> texts = {"",        "org.bluez.Adapter1", "Powered", "\xE6\x97\xA5",
                                                         "\x1B[2J", "\xEF\xBF\xBD"};
    const void* value = &bits;
    if (type == 'o') {
        value = paths[static_cast<size_t>(input.below(paths.size()))];
    } else if (type == 's') {
        value = texts[static_cast<size_t>(input.below(texts.size()))];
    } else if (type == 'g') {
        value = "a{sv}";
    } else {
        bits = static_cast<uint64_t>(input.number());
        if (type == 'b') {
            bits &= 1U;
        }
    }
    PROMISE(sd_bus_message_append_basic(message.get(), type, value) >= 0);
}

void append(Input& input, Message& message, const std::string& type, int depth) {
    switch (type.front()) {
    case 'a':
        append_container(input, message, 'a', type.substr(1), depth);
        break;
    case '(':
        append_container(input, message, 'r', type.substr(1, type.size() - 2), depth);
        break;
    case '{':
        append_container(input, message, 'e', type.substr(1, type.size() - 2), depth);
        break;
    case 'v':
        append_container(input, message, 'v', depth > 0 ? type_of(input, std::min(depth, deepest_type)) : "u",
                         depth - 1);
        break;
    default:
        append_plain(input, message, type.front());
    }
}

// NOLINTEND(misc-no-recursion)

Message made_of(Input& input, const std::string& types) {
    sd_bus_message* made = nullptr;
    PROMISE(sd_bus_message_new_signal(bus, &made, "/org/bluez", "org.example", "Made") >= 0);
    Message message(made);
    append_all(input, message, types, deepest);
    PROMISE(sd_bus_message_seal(made, 1, 0) >= 0);
    return message;
}

// Each reader takes the message from its start.
template<class Read>
bool is_read(Message& message, Read read) {
    PROMISE(sd_bus_message_rewind(message.get(), 1) >= 0);
    return read(message).has_value();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    bus = bus_without_anybody();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    constexpr size_t most_bytes = 1000; // that more entries are refused than that, a test shows
    Input input(data, std::min(size, most_bytes));
    const std::string types = input.flag() ? "a{oa{sa{sv}}}" : type_of(input, deepest_type);
    Message message = made_of(input, types);
    PROMISE(is_read(message, desk::bus::read_objects) == (types == "a{oa{sa{sv}}}"));
    PROMISE(is_read(message, desk::bus::read_interfaces) == (types == "a{sa{sv}}"));
    PROMISE(is_read(message, desk::bus::read_properties) == (types == "a{sv}"));
    PROMISE(is_read(message, desk::bus::read_value) == (types == "v"));
    PROMISE(is_read(message, [](Message& each) { return each.read_text(); }) == (types == "s" || types == "o"));
    return 0;
}
