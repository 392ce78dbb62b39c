#include "Properties.h"

#include <string_view>

namespace desk::bus {
namespace {

// Reads one message, and counts what it has read.
class Reader {
  public:
    explicit Reader(Message& message) : message_(message) {}

    std::optional<Value> value() {
        const char* content = nullptr;
        char type = 0;
        if (sd_bus_message_peek_type(message_.get(), &type, &content) <= 0 || type != 'v' ||
            !message_.enter('v', content)) {
            return std::nullopt;
        }
        std::optional<Value> value = plain_value(content);
        return value && message_.leave() ? value : std::nullopt;
    }

    std::optional<Properties> properties() {
        return map_of<Properties>("{sv}", "sv", [this] { return value(); });
    }
    std::optional<Interfaces> interfaces() {
        return map_of<Interfaces>("{sa{sv}}", "sa{sv}", [this] { return properties(); });
    }
    std::optional<Objects> objects() {
        return map_of<Objects>("{oa{sa{sv}}}", "oa{sa{sv}}", [this] { return interfaces(); });
    }

  private:
    template<class Map, class ReadValue>
    std::optional<Map> map_of(const char* entry, const char* content, ReadValue read_value) {
        Map map;
        if (!message_.enter('a', entry)) {
            return std::nullopt;
        }
        while (message_.enter('e', content)) {
            const std::optional<std::string> name = message_.read_text();
            auto read = name && ++entries_ <= most_entries ? read_value() : std::nullopt;
            if (!read || !message_.leave()) {
                return std::nullopt;
            }
            map.insert_or_assign(*name, std::move(*read));
        }
        return message_.leave() ? std::optional<Map>(std::move(map)) : std::nullopt;
    }

    // What stands in a variant of this content. One that is of no kind is left out, not an error.
    std::optional<Value> plain_value(std::string_view content) {
        if (content == "s" || content == "o") {
            const std::optional<std::string> text = message_.read_text();
            return text ? std::optional<Value>(*text) : std::nullopt;
        }
        if (content == "as" || content == "ao") {
            return texts(content.substr(1));
        }
        if (content == "ay") {
            return bytes();
        }
        if (content == "b") {
            int value = 0;
            return message_.read("b", &value) ? std::optional<Value>(value != 0) : std::nullopt;
        }
        return number(content);
    }

    template<class Number>
    std::optional<Value> number_of(const char* type) {
        Number value = 0;
        return message_.read(type, &value) ? std::optional<Value>(static_cast<int64_t>(value)) : std::nullopt;
    }

    std::optional<Value> number(std::string_view content) {
        switch (content.size() == 1 ? content.front() : 0) {
        case 'y':
            return number_of<uint8_t>("y");
        case 'n':
            return number_of<int16_t>("n");
        case 'q':
            return number_of<uint16_t>("q");
        case 'i':
            return number_of<int32_t>("i");
        case 'u':
            return number_of<uint32_t>("u");
        case 'x':
            return number_of<int64_t>("x");
        case 't':
            return number_of<uint64_t>("t");
        default:
            return message_.skip(std::string(content).c_str()) ? std::optional<Value>(std::monostate()) : std::nullopt;
        }
    }

    std::optional<Value> bytes() {
        const void* start = nullptr;
        size_t length = 0;
        if (sd_bus_message_read_array(message_.get(), 'y', &start, &length) < 0) {
            return std::nullopt;
        }
        const auto* const first = static_cast<const uint8_t*>(start);
        return std::vector<uint8_t>(first, first + length);
    }

    std::optional<Value> texts(std::string_view type) {
        std::vector<std::string> texts;
        if (!message_.enter('a', std::string(type).c_str())) {
            return std::nullopt;
        }
        while (const std::optional<std::string> text = message_.read_text()) {
            if (++entries_ > most_entries) {
                return std::nullopt;
            }
            texts.push_back(*text);
        }
        return message_.leave() ? std::optional<Value>(std::move(texts)) : std::nullopt;
    }

    Message& message_;
    size_t entries_ = 0;
};

} // namespace

std::optional<Value> read_value(Message& message) {
    return Reader(message).value();
}

std::optional<Properties> read_properties(Message& message) {
    return Reader(message).properties();
}

std::optional<Interfaces> read_interfaces(Message& message) {
    return Reader(message).interfaces();
}

std::optional<Objects> read_objects(Message& message) {
    return Reader(message).objects();
}

} // namespace desk::bus
