#include "JsonTree.h"

#include <algorithm>
#include <limits>
#include <nlohmann/json.hpp>
#include <utility>

namespace desk {
namespace {

using nlohmann::json;

// Where the reading of a text stands.
struct Position {
    size_t line = 1;
    bool after_newline = false;
};

// The characters of a text. The line is that of the character read last; a newline still belongs to the line that it
// ends, as the parser reads one character beyond a number to find its end.
class LineIterator {
  public:
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char*;
    using reference = const char&;

    LineIterator(const char* at, Position* position) : at_(at), position_(position) {}

    reference operator*() const { return *at_; }
    LineIterator& operator++() {
        position_->line += position_->after_newline;
        position_->after_newline = *at_ == '\n';
        ++at_;
        return *this;
    }
    LineIterator operator++(int) {
        const LineIterator before = *this;
        ++*this;
        return before;
    }
    bool operator==(const LineIterator& other) const { return at_ == other.at_; }

  private:
    const char* at_;
    Position* position_;
};

class TreeBuilder : public nlohmann::json_sax<json> {
  public:
    explicit TreeBuilder(const Position& position) : position_(position) {}

    JsonNode take_root() { return std::move(root_); }
    size_t error_position() const { return error_position_; }
    const std::string& error() const { return error_; }

    bool null() override { return add({JsonNode::Kind::other, line(), key_, "null"}); }
    bool boolean(bool value) override { return add({JsonNode::Kind::other, line(), key_, value ? "true" : "false"}); }
    bool number_integer(int64_t value) override {
        const bool fits = value >= std::numeric_limits<int32_t>::min() && value <= std::numeric_limits<int32_t>::max();
        return add({fits ? JsonNode::Kind::integer : JsonNode::Kind::huge_integer, line(), key_, std::to_string(value),
                    fits ? static_cast<int32_t>(value) : 0});
    }
    bool number_unsigned(uint64_t value) override {
        if (value <= uint64_t{std::numeric_limits<int32_t>::max()}) {
            return number_integer(static_cast<int64_t>(value));
        }
        return add({JsonNode::Kind::huge_integer, line(), key_, std::to_string(value)});
    }
    bool number_float(double, const std::string& written) override {
        const bool has_digits_alone = written.find_first_not_of("-0123456789") == std::string::npos;
        return add({has_digits_alone ? JsonNode::Kind::huge_integer : JsonNode::Kind::other, line(), key_,
                    cut_for_fault(written)});
    }
    bool string(std::string& value) override { return add({JsonNode::Kind::text, line(), key_, std::move(value)}); }
    bool binary(json::binary_t&) override { return false; } // not in text
    bool start_object(size_t) override { return open({JsonNode::Kind::object, line(), key_, "an object"}); }
    bool start_array(size_t) override { return open({JsonNode::Kind::array, line(), key_, "an array"}); }
    bool end_object() override { return close(); }
    bool end_array() override { return close(); }
    bool key(std::string& name) override {
        key_ = name;
        key_line_ = position_.line;
        return true;
    }
    bool parse_error(size_t position, const std::string&, const json::exception& exception) override {
        error_position_ = position;
        error_ = exception.what();
        return false;
    }

  private:
    // A preset has four levels: the record, its style block, the colours in it, a colour. Nothing deeper can be right.
    static constexpr size_t deepest = 4;

    // An entry of an object has the line of its name.
    size_t line() const {
        const bool in_object = !open_.empty() && open_.back()->kind == JsonNode::Kind::object;
        return in_object ? key_line_ : position_.line;
    }

    bool add(JsonNode node) {
        if (too_deep_ > 0) {
            return true;
        }
        if (open_.empty()) {
            root_ = std::move(node);
        } else {
            open_.back()->children.push_back(std::move(node));
        }
        return true;
    }

    bool open(JsonNode node) {
        add(std::move(node));
        if (too_deep_ > 0 || open_.size() == deepest) {
            ++too_deep_;
        } else { // the pointers stay good: a node gets no further children while one of them is open
            open_.push_back(open_.empty() ? &root_ : &open_.back()->children.back());
        }
        return true;
    }

    bool close() {
        if (too_deep_ > 0) {
            --too_deep_;
        } else {
            open_.pop_back();
        }
        return true;
    }

    const Position& position_;
    JsonNode root_;
    std::vector<JsonNode*> open_;
    size_t too_deep_ = 0;
    std::string key_;
    size_t key_line_ = 0;
    size_t error_position_ = 0;
    std::string error_;
};

// The parser's own words, without its heading and without the piece of the file that it repeats.
std::string words_of_parser(std::string error) {
    if (error.find("out_of_range") != std::string::npos) {
        return "a number is far too large";
    }
    const size_t heading = error.find(": ");
    if (heading != std::string::npos) {
        error.erase(0, heading + 2);
    }
    const size_t repeated = error.find("; last read: ");
    if (repeated != std::string::npos) {
        const size_t expected = error.rfind("; expected ");
        const bool has_expected = expected != std::string::npos && expected > repeated;
        error = error.substr(0, repeated) + (has_expected ? error.substr(expected) : "");
    }
    std::replace_if(
        error.begin(), error.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
    return error;
}

// `count` bytes have been read when the parser stopped, the last of them being the one that it stopped at.
JsonSyntaxFault syntax_fault(std::string_view text, size_t count, const std::string& error) {
    const std::string_view before = text.substr(0, std::max(count, size_t{1}) - 1);
    const auto line = static_cast<size_t>(std::count(before.begin(), before.end(), '\n')) + 1;
    const size_t newline = before.rfind('\n');
    const size_t column = newline == std::string_view::npos ? before.size() + 1 : before.size() - newline;
    return {line, column, words_of_parser(error)};
}

} // namespace

std::variant<JsonNode, JsonSyntaxFault> parse_json(std::string_view text) {
    Position position;
    TreeBuilder builder(position);
    const LineIterator first(text.data(), &position);
    const LineIterator last(text.data() + text.size(), &position);
    if (!json::sax_parse(first, last, &builder)) {
        return syntax_fault(text, builder.error_position(), builder.error());
    }
    return builder.take_root();
}

std::string cut_for_fault(std::string text) {
    constexpr size_t longest = 60;
    if (text.size() > longest) {
        text.replace(longest, std::string::npos, "...");
    }
    return text;
}

std::string quoted_for_fault(const std::string& name) {
    return cut_for_fault(json(name).dump(-1, ' ', true));
}

} // namespace desk
