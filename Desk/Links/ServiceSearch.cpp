#include "ServiceSearch.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace desk {
namespace {

using Bytes = std::vector<uint8_t>;
using View = std::span<const uint8_t>;

constexpr uint8_t error_response = 0x01;
constexpr uint8_t search_request = 0x06;
constexpr uint8_t search_response = 0x07;
constexpr size_t header_size = 5; // kind, transaction, length of what follows
constexpr size_t longest_continuation = 16;
constexpr size_t longest_records = 16384; // many times what directories have to say about one service
constexpr uint16_t protocols_attribute = 0x0004;

constexpr uint8_t first_channel = 1;
constexpr uint8_t last_channel = 30;

// ---- Data elements --------------------------------------------------------------------------------------------------

// A value that says of itself what it is and how long.
struct Element {
    enum class Type : uint8_t { nil, number, signed_number, uuid, text, boolean, sequence, alternative, url };
    Type type = Type::nil;
    View content;
};

// Takes a number of so many bytes, most significant first, from the front. Nothing when they are not all there.
std::optional<uint32_t> take_number(View& bytes, size_t size) {
    if (bytes.size() < size) {
        return std::nullopt;
    }
    uint32_t value = 0;
    for (const uint8_t byte : bytes.first(size)) {
        value = value << 8 | byte;
    }
    bytes = bytes.subspan(size);
    return value;
}

// Sizes 0 to 4 stand for 1 to 16 bytes, and of nothing for none; the others say how many bytes tell the length.
std::optional<size_t> take_length(View& bytes, Element::Type type, uint8_t size) {
    constexpr uint8_t last_fixed = 4;
    if (size <= last_fixed) {
        return type == Element::Type::nil ? 0 : size_t{1} << size;
    }
    return take_number(bytes, size_t{1} << (size - last_fixed - 1));
}

std::optional<Element> take_element(View& bytes) {
    const std::optional<uint32_t> head = take_number(bytes, 1);
    if (!head) {
        return std::nullopt;
    }
    const auto type = static_cast<Element::Type>(*head >> 3);
    const std::optional<size_t> length = take_length(bytes, type, static_cast<uint8_t>(*head & 7));
    if (!length || *length > bytes.size()) {
        return std::nullopt;
    }
    const Element element = {type, bytes.first(*length)};
    bytes = bytes.subspan(*length);
    return element;
}

// The elements of a sequence. Nothing when they do not fill it.
std::optional<std::vector<Element>> elements_in(View bytes) {
    std::vector<Element> elements;
    while (!bytes.empty()) {
        const std::optional<Element> element = take_element(bytes);
        if (!element) {
            return std::nullopt;
        }
        elements.push_back(*element);
    }
    return elements;
}

// Of a sequence; another element has none.
std::vector<Element> elements_of(const Element& element) {
    if (element.type != Element::Type::sequence) {
        return {};
    }
    return elements_in(element.content).value_or(std::vector<Element>());
}

// A UUID may be written as the 16 or 32 bits in which it differs from the base of all short ones.
bool is_rfcomm(const Element& element) {
    static constexpr Uuid rfcomm = {0, 0, 0, 0x03, 0, 0, 0x10, 0, 0x80, 0, 0, 0x80, 0x5F, 0x9B, 0x34, 0xFB};
    const View whole = rfcomm;
    return element.type == Element::Type::uuid &&
           (std::ranges::equal(element.content, whole.subspan(2, 2)) ||
            std::ranges::equal(element.content, whole.first(4)) || std::ranges::equal(element.content, whole));
}

// ---- Records --------------------------------------------------------------------------------------------------------

// A protocol is its UUID and then its parameters; RFCOMM's first one is the channel.
std::optional<uint8_t> channel_in_protocol(const Element& protocol) {
    const std::vector<Element> parts = elements_of(protocol);
    if (parts.size() < 2 || !is_rfcomm(parts[0]) || parts[1].type != Element::Type::number ||
        parts[1].content.size() != 1) {
        return std::nullopt;
    }
    const uint8_t channel = parts[1].content[0];
    return channel >= first_channel && channel <= last_channel ? std::optional(channel) : std::nullopt;
}

std::optional<uint8_t> channel_in_protocols(const Element& protocols) {
    for (const Element& protocol : elements_of(protocols)) {
        if (const std::optional<uint8_t> channel = channel_in_protocol(protocol)) {
            return channel;
        }
    }
    return std::nullopt;
}

bool is_protocols_attribute(const Element& element) {
    return element.type == Element::Type::number && element.content.size() == 2 &&
           std::ranges::equal(element.content, std::array{uint8_t{0}, uint8_t{protocols_attribute}});
}

// A record's attributes are pairs: its number, its value.
std::optional<uint8_t> channel_in_record(const Element& record) {
    const std::vector<Element> parts = elements_of(record);
    for (size_t at = 0; at + 1 < parts.size(); at += 2) {
        if (!is_protocols_attribute(parts[at])) {
            continue;
        }
        if (const std::optional<uint8_t> channel = channel_in_protocols(parts[at + 1])) {
            return channel;
        }
    }
    return std::nullopt;
}

// ---- Packets --------------------------------------------------------------------------------------------------------

void append_number(Bytes& bytes, size_t value) {
    bytes.push_back(static_cast<uint8_t>(value >> 8));
    bytes.push_back(static_cast<uint8_t>(value));
}

template<typename Part>
void append(Bytes& bytes, const Part& part) {
    bytes.insert(bytes.end(), part.begin(), part.end());
}

Finding finding_of(Finding::Kind kind) {
    return {kind, 0, {}};
}

} // namespace

Bytes ServiceSearch::request(View continuation) const {
    // A sequence of one UUID; as many bytes as there can be; a sequence of one attribute's number.
    Bytes parameters = {0x35, 1 + sizeof service_, 0x1C};
    append(parameters, service_);
    append(parameters, std::array<uint8_t, 7>{0xFF, 0xFF, 0x35, 0x03, 0x09, 0x00, protocols_attribute});
    parameters.push_back(static_cast<uint8_t>(continuation.size()));
    append(parameters, continuation);
    Bytes packet = {search_request};
    append_number(packet, transaction_);
    append_number(packet, parameters.size());
    append(packet, parameters);
    return packet;
}

Finding ServiceSearch::take(View packet) {
    if (packet.size() < header_size) {
        return finding_of(Finding::Kind::faulty);
    }
    const uint8_t kind = packet[0];
    View rest = packet.subspan(1);
    const uint32_t transaction = *take_number(rest, 2);
    const uint32_t length = *take_number(rest, 2);
    if (transaction != transaction_ || length != rest.size()) {
        return finding_of(Finding::Kind::faulty);
    }
    if (kind == error_response) {
        return finding_of(Finding::Kind::refused);
    }
    return kind == search_response ? take_part(rest) : finding_of(Finding::Kind::faulty);
}

// Each part brings a byte at least, so that there is an end to them.
Finding ServiceSearch::take_part(View parameters) {
    const std::optional<uint32_t> count = take_number(parameters, 2);
    if (!count || *count >= parameters.size() || records_.size() + *count > longest_records) {
        return finding_of(Finding::Kind::faulty);
    }
    append(records_, parameters.first(*count));
    View continuation = parameters.subspan(*count);
    const size_t length = *take_number(continuation, 1);
    if (length != continuation.size() || length > longest_continuation || (length > 0 && *count == 0)) {
        return finding_of(Finding::Kind::faulty);
    }
    if (length == 0) {
        return finding();
    }
    ++transaction_;
    return {Finding::Kind::nothing_yet, 0, request(continuation)};
}

Finding ServiceSearch::finding() const {
    View bytes = records_;
    const std::optional<Element> all = take_element(bytes);
    if (!all || all->type != Element::Type::sequence || !bytes.empty()) {
        return finding_of(Finding::Kind::faulty);
    }
    const std::optional<std::vector<Element>> records = elements_in(all->content);
    if (!records) {
        return finding_of(Finding::Kind::faulty);
    }
    for (const Element& record : *records) {
        if (const std::optional<uint8_t> channel = channel_in_record(record)) {
            return {Finding::Kind::found, *channel, {}};
        }
    }
    return finding_of(Finding::Kind::absent);
}

} // namespace desk
