#include "MessageHex.h"

#include <algorithm>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <span>
#include <string_view>

#include "Common/Text.h"
#include "Wire/Frames.h"
#include "Words/Functions.h"

namespace desk::phone {
namespace {

using capture::Message;

constexpr size_t header = sizeof(sm_frame);
constexpr size_t word = sizeof(int32_t);
constexpr size_t record = sizeof(sm_tag_custom_info);
constexpr size_t in_a_line = 16;
constexpr size_t usual_column = 23; // where the meaning begins

std::string digits_of(std::span<const uint8_t> bytes) {
    return fmt::format("{:02x}", fmt::join(bytes, " "));
}

// The digits, with "00 x 48" in the place of many zeros at the end.
std::string folded_digits(std::span<const uint8_t> bytes) {
    constexpr size_t least_folded = 8;
    const auto last = std::find_if(bytes.rbegin(), bytes.rend(), [](uint8_t byte) { return byte != 0; });
    const auto zeros = static_cast<size_t>(last - bytes.rbegin());
    if (zeros < least_folded) {
        return digits_of(bytes);
    }
    const std::string start = digits_of(bytes.first(bytes.size() - zeros));
    return fmt::format("{}{}00 x {}", start, start.empty() ? "" : " ", zeros);
}

// Goes through a message from its start to its end.
class Lines {
  public:
    explicit Lines(const Message& message)
        : message_(message), mark_(message.sender == capture::Side::phone ? '>' : '<') {}

    size_t left() const { return message_.bytes.size() - at_; }
    bool has(size_t size) const { return left() >= size; }
    std::span<const uint8_t> bytes(size_t size) const { return std::span(message_.bytes).subspan(at_, size); }

    int32_t value() const { return get_word(message_.bytes, at_); }
    int32_t take_word(const char* name) {
        const int32_t taken = value();
        add(word, fmt::format("{}: {}", name, taken));
        return taken;
    }
    void add(size_t size, const std::string& meaning) {
        add_line(folded_digits(bytes(size)), meaning);
        at_ += size;
    }
    void add_text(size_t size, const char* name) {
        const auto field = bytes(size);
        const std::string text = text_of(reinterpret_cast<const char*>(field.data()), size);
        add(size, fmt::format("{}: \"{}\"", name, printable(text)));
    }
    void add_rest(const char* meaning) {
        while (left() > 0) {
            add(std::min(left(), in_a_line), meaning);
        }
    }
    // Bytes of the message that are not shown.
    void add_hidden(const char* what) {
        if (message_.arrived > message_.bytes.size()) {
            add_line("...", fmt::format("{}, {} bytes", what, message_.arrived - at_));
        }
        at_ = message_.bytes.size();
    }
    std::vector<std::string> take() { return std::move(lines_); }

  private:
    void add_line(const std::string& digits, const std::string& meaning) {
        const size_t column = std::max(digits.size() + 4, usual_column);
        lines_.push_back(meaning.empty() ? fmt::format("{} {}", mark_, digits)
                                         : fmt::format("{} {:<{}}{}", mark_, digits, column, meaning));
    }

    const Message& message_;
    char mark_;
    size_t at_ = 0;
    std::vector<std::string> lines_;
};

// ---- The record -----------------------------------------------------------------------------------------------------

bool is_zero(std::span<const uint8_t> bytes) {
    return std::ranges::all_of(bytes, [](uint8_t byte) { return byte == 0; });
}

size_t size_of(const Field& field) {
    return field.kind == Field::Kind::text ? field.count : field.words() * word;
}

// What a field's word is called: its name, and where there are several of them, which one.
std::string word_name(const Field& field, size_t index) {
    if (field.kind == Field::Kind::colors) {
        constexpr const char* parts[] = {"red", "green", "blue"};
        return fmt::format("{}[{}] {}", field.name, index / 3, parts[index % 3]);
    }
    return field.words() == 1 ? field.name : fmt::format("{}[{}]", field.name, index);
}

// Zeros beside each other are one line.
class ZeroRun {
  public:
    explicit ZeroRun(Lines& lines) : lines_(lines) {}
    void add(size_t offset, size_t size, const std::string& name) {
        begin_ = size_ == 0 ? offset : begin_;
        size_ += size;
        name_ = name;
        ++fields_;
    }
    void end() {
        if (size_ > 0) {
            lines_.add(size_, fields_ == 1 ? fmt::format("{}: 0", name_)
                                           : fmt::format("offsets {} to {}", begin_, begin_ + size_ - 1));
        }
        size_ = fields_ = 0;
    }

  private:
    Lines& lines_;
    size_t begin_ = 0;
    size_t size_ = 0;
    size_t fields_ = 0;
    std::string name_;
};

void add_words(Lines& lines, ZeroRun& zeros, const Field& field, std::span<const uint8_t> all) {
    for (size_t index = 0; index < field.words(); ++index) {
        const size_t offset = field.offset + index * word;
        if (is_zero(all.subspan(offset, word))) {
            zeros.add(offset, word, word_name(field, index));
        } else {
            zeros.end();
            lines.take_word(word_name(field, index).c_str());
        }
    }
}

bool add_record(Lines& lines) {
    if (!lines.has(record)) {
        return false;
    }
    const auto all = lines.bytes(record);
    ZeroRun zeros(lines);
    for (const Field& field : fields()) {
        if (field.kind != Field::Kind::text) {
            add_words(lines, zeros, field, all);
        } else if (is_zero(all.subspan(field.offset, size_of(field)))) {
            zeros.add(field.offset, size_of(field), field.name);
        } else {
            zeros.end();
            lines.add_text(size_of(field), field.name.c_str());
        }
    }
    zeros.end();
    return true;
}

// ---- Each message ---------------------------------------------------------------------------------------------------

void add_words(Lines& lines, std::initializer_list<const char*> names) {
    for (const char* name : names) {
        if (lines.has(word)) {
            lines.take_word(name);
        }
    }
}

void add_records(Lines& lines) {
    add_words(lines, {"record layout", "presets"});
    while (add_record(lines)) {
    }
}

void add_preset_and_picture(Lines& lines) {
    add_record(lines);
}

void add_pairs(Lines& lines) {
    while (lines.has(2 * word)) {
        add_words(lines, {"preset number", "custom_id"});
    }
}

void add_list(Lines& lines) {
    if (lines.has(SM_MODEL_SIZE)) {
        lines.add_text(SM_MODEL_SIZE, "model");
        add_records(lines);
    }
}

void add_deletion(Lines& lines) {
    add_words(lines, {"result"});
    add_records(lines);
}

struct Payload {
    int32_t function;
    void (*add)(Lines&);
};

constexpr Payload payloads[] = {
    {SM_FUNCTION_STATE_OFF, [](Lines& lines) { add_words(lines, {"its own result code"}); }},
    {SM_FUNCTION_SEND_PRESET,
     [](Lines& lines) {
         add_words(lines, {"custom_id", "the phone's own id of it"});
     }},
    {SM_FUNCTION_RECEIVE_PRESET, add_preset_and_picture},
    {SM_FUNCTION_UPDATE_PRESET, add_preset_and_picture},
    {SM_FUNCTION_DELETE_PRESET, add_pairs},
    {SM_REPLY + SM_FUNCTION_SEND_LIST, add_list},
    {SM_REPLY + SM_FUNCTION_SEND_PRESET, [](Lines& lines) { add_words(lines, {"custom_id"}); }},
    {SM_REPLY + SM_FUNCTION_RECEIVE_PRESET,
     [](Lines& lines) {
         add_words(lines, {"result", "preset_num", "custom_id", "applocal_id"});
     }},
    {SM_REPLY + SM_FUNCTION_UPDATE_PRESET, [](Lines& lines) { add_words(lines, {"result"}); }},
    {SM_REPLY + SM_FUNCTION_DELETE_PRESET, add_deletion},
    {busy_function, [](Lines& lines) { add_words(lines, {"busy"}); }},
};

bool has_picture(const Message& message) {
    return message.function == SM_FUNCTION_RECEIVE_PRESET || message.function == SM_REPLY + SM_FUNCTION_SEND_PRESET;
}

std::string function_text(const Message& message) {
    if (capture::is_reply(message.function)) {
        return fmt::format("function {:#x}: the reply to {}", message.function, message.function - SM_REPLY);
    }
    const std::string number = fmt::format("function {}", message.function);
    const std::string name = name_of_function(message.function);
    return name == number ? number : fmt::format("{}: {}", number, name);
}

} // namespace

std::vector<std::string> hex_of(const Message& message) {
    Lines lines(message);
    if (message.fate == Message::Fate::unanswered || message.fate == Message::Fate::uncertain) {
        return {};
    }
    if (lines.has(header)) {
        lines.add(word, function_text(message));
        lines.add(word, fmt::format("total length: {}", message.total));
        const auto* const payload = std::ranges::find(payloads, message.function, &Payload::function);
        if (payload != std::end(payloads) && message.fate == Message::Fate::whole) {
            payload->add(lines);
        }
    }
    lines.add_rest("");
    lines.add_hidden(has_picture(message) ? "picture" : "not shown");
    return lines.take();
}

} // namespace desk::phone
