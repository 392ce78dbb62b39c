#include "PresetJson.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <utility>
#include <variant>
#include <vector>

#include "JsonTree.h"

namespace desk {

namespace {

using nlohmann::json;
using nlohmann::ordered_json;

constexpr auto style_block = "cs_info";
constexpr auto bytes_entry = "bytes";
constexpr std::array color_names = {"red", "green", "blue"};

// What a preset file may leave out: the camera sets it, or it has no meaning for the phone.
constexpr std::array<std::string_view, 7> optional_entries = {
    "linked_custom_mode", "screennail_path", "reserved_636", "preset_num", "custom_id", "applocal_id", "server_id"};

bool is_optional(const Field& field) {
    return std::find(optional_entries.begin(), optional_entries.end(), field.name) != optional_entries.end();
}

// ---- Record to JSON -------------------------------------------------------------------------------------------------

bool is_utf8(const std::string& text) {
    try {
        (void)json(text).dump();
        return true;
    } catch (const json::type_error&) {
        return false;
    }
}

ordered_json text_to_json(std::span<const uint8_t> field) {
    const auto end = std::find(field.begin(), field.end(), 0);
    const std::string text(field.begin(), end);
    const bool nothing_behind = std::all_of(end, field.end(), [](uint8_t byte) { return byte == 0; });
    if (nothing_behind && is_utf8(text)) {
        return text;
    }
    return {{bytes_entry, fmt::format("{:02x}", fmt::join(field, ""))}};
}

ordered_json words_to_json(std::span<const uint8_t> bytes, size_t offset, size_t count) {
    ordered_json words = ordered_json::array();
    for (size_t k = 0; k < count; ++k) {
        words.push_back(get_word(bytes, offset + k * sizeof(int32_t)));
    }
    return words;
}

ordered_json field_to_json(std::span<const uint8_t> record, const Field& field) {
    switch (field.kind) {
    case Field::Kind::text:
        return text_to_json(record.subspan(field.offset, field.count));
    case Field::Kind::word:
        return get_word(record, field.offset);
    case Field::Kind::words:
        return words_to_json(record, field.offset, field.count);
    case Field::Kind::colors:
        break;
    }
    ordered_json colors = ordered_json::array();
    for (size_t k = 0; k < field.count; ++k) {
        colors.push_back(words_to_json(record, field.offset + k * sizeof(sm_color), color_names.size()));
    }
    return colors;
}

template<class Record>
ordered_json record_to_json(const Record& preset) {
    const Bytes record = encode(preset);
    ordered_json whole = ordered_json::object();
    for (const Field& field : fields()) {
        if (field.offset >= record.size()) {
            continue;
        }
        ordered_json& parent = field.in_style ? whole[style_block] : whole;
        parent[field.name] = field_to_json(record, field);
    }
    return whole;
}

// ---- Tree to record -------------------------------------------------------------------------------------------------

class Faults {
  public:
    explicit Faults(std::string name) : name_(std::move(name)) {}

    void add(size_t line, const std::string& fault) {
        lines_.emplace(line, fmt::format("{}:{}: {}", name_, line, fault));
        if (lines_.size() > most_lines) {
            lines_.erase(std::prev(lines_.end()));
            ++untold_;
        }
    }

    void throw_if_any() const {
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

  private:
    // More than a preset has entries, so that each of them can be missing.
    static constexpr size_t most_lines = 100;

    std::string name_;
    std::multimap<size_t, std::string> lines_;
    size_t untold_ = 0;
};

std::string described(const JsonNode& node) {
    return node.kind == JsonNode::Kind::text ? "a text" : node.text;
}

class RecordReader {
  public:
    RecordReader(size_t size, Faults& faults) : record_(size), faults_(faults) {}

    const Bytes& record() const { return record_; }

    void read(const JsonNode& root) {
        if (root.kind != JsonNode::Kind::object) {
            faults_.add(root.line, fmt::format("a preset is an object, {{\"title\": ...}}, not {}", described(root)));
            return;
        }
        read_entries(root, false);
    }

  private:
    using Given = std::map<std::string, size_t>; // entries of an object and their lines

    void read_entries(const JsonNode& object, bool in_style) {
        Given given;
        for (const JsonNode& entry : object.children) {
            const auto [first, is_first] = given.emplace(entry.key, entry.line);
            if (is_first) {
                read_entry(entry, in_style);
            } else {
                faults_.add(entry.line, fmt::format("{} is given twice, first in line {}; remove one",
                                                    quoted_for_fault(entry.key), first->second));
            }
        }
        add_missing(object.line, given, in_style);
    }

    void read_entry(const JsonNode& entry, bool in_style) {
        if (entry.key == style_block && !in_style) {
            read_style(entry);
            return;
        }
        const auto field =
            std::find_if(fields().begin(), fields().end(), [&](const Field& known) { return known.name == entry.key; });
        if (field == fields().end()) {
            faults_.add(entry.line, fmt::format("{} is no entry of a preset; remove it", quoted_for_fault(entry.key)));
        } else if (field->offset >= record_.size()) {
            faults_.add(entry.line, fmt::format("\"{}\" is of the phone's presets only; remove it", entry.key));
        } else if (field->in_style != in_style) {
            faults_.add(entry.line, fmt::format("\"{}\" belongs {} \"{}\"; move it there", entry.key,
                                                field->in_style ? "in" : "outside of", style_block));
        } else {
            read_field(entry, *field);
        }
    }

    void read_style(const JsonNode& entry) {
        if (entry.kind == JsonNode::Kind::object) {
            read_entries(entry, true);
        } else {
            faults_.add(entry.line, fmt::format("\"{}\" must be an object, not {}", style_block, described(entry)));
        }
    }

    void add_missing(size_t line, const Given& given, bool in_style) {
        for (const Field& field : fields()) {
            const bool expected = field.in_style == in_style && field.offset < record_.size();
            if (expected && !is_optional(field) && !given.contains(field.name)) {
                faults_.add(line, fmt::format("\"{}\" is missing; add it", field.name));
            }
        }
        if (!in_style && !given.contains(style_block)) {
            faults_.add(line, fmt::format("\"{}\" is missing; add it", style_block));
        }
    }

    void read_field(const JsonNode& entry, const Field& field) {
        switch (field.kind) {
        case Field::Kind::text:
            read_text(entry, field);
            break;
        case Field::Kind::word:
            read_word(entry, fmt::format("\"{}\"", field.name), field.offset);
            break;
        case Field::Kind::words:
            read_words(entry, field);
            break;
        case Field::Kind::colors:
            read_colors(entry, field);
            break;
        }
    }

    void read_word(const JsonNode& node, const std::string& what, size_t offset) {
        if (node.kind == JsonNode::Kind::integer) {
            put_word(record_, offset, node.number);
        } else if (node.kind == JsonNode::Kind::huge_integer) {
            faults_.add(node.line, fmt::format("{} is {}; give an integer from -2147483648 to 2147483647", what,
                                               cut_for_fault(node.text)));
        } else {
            faults_.add(node.line, fmt::format("{} must be an integer, not {}", what, described(node)));
        }
    }

    // Tells what is wrong unless it is an array of so many.
    bool check_array(const JsonNode& node, const std::string& what, size_t count, const char* of) {
        if (node.kind != JsonNode::Kind::array) {
            faults_.add(node.line,
                        fmt::format("{} must be an array of {} {}, not {}", what, count, of, described(node)));
        } else if (node.children.size() != count) {
            faults_.add(node.line, fmt::format("{} has {} {}; give {}", what, node.children.size(), of, count));
        } else {
            return true;
        }
        return false;
    }

    void read_words(const JsonNode& entry, const Field& field) {
        if (!check_array(entry, fmt::format("\"{}\"", field.name), field.count, "integers")) {
            return;
        }
        for (size_t k = 0; k < field.count; ++k) {
            read_word(entry.children[k], fmt::format("\"{}\" [{}]", field.name, k), field.offset + k * sizeof(int32_t));
        }
    }

    void read_colors(const JsonNode& entry, const Field& field) {
        if (!check_array(entry, fmt::format("\"{}\"", field.name), field.count, "colours")) {
            return;
        }
        for (size_t k = 0; k < field.count; ++k) {
            const JsonNode& color = entry.children[k];
            if (!check_array(color, fmt::format("\"{}\" [{}]", field.name, k), color_names.size(), "integers")) {
                continue;
            }
            for (size_t c = 0; c < color_names.size(); ++c) {
                read_word(color.children[c], fmt::format("\"{}\" [{}] {}", field.name, k, color_names[c]),
                          field.offset + k * sizeof(sm_color) + c * sizeof(int32_t));
            }
        }
    }

    void read_text(const JsonNode& entry, const Field& field) {
        if (entry.kind == JsonNode::Kind::text) {
            read_string(entry, field);
        } else if (entry.kind == JsonNode::Kind::object) {
            read_bytes(entry, field);
        } else {
            faults_.add(entry.line, fmt::format("\"{}\" must be a text, not {}", field.name, described(entry)));
        }
    }

    void read_string(const JsonNode& entry, const Field& field) {
        if (entry.text.size() > field.count) {
            faults_.add(entry.line, fmt::format("\"{}\" has {} bytes in UTF-8; shorten it to {}", field.name,
                                                entry.text.size(), field.count));
        } else if (entry.text.find('\0') != std::string::npos) {
            faults_.add(entry.line,
                        fmt::format("\"{}\" holds a NUL; write it as {{\"bytes\": \"<hexadecimal>\"}}", field.name));
        } else {
            std::copy(entry.text.begin(), entry.text.end(), at(field.offset));
        }
    }

    void read_bytes(const JsonNode& entry, const Field& field) {
        const JsonNode* const hex = entry.children.size() == 1 ? &entry.children.front() : nullptr;
        const bool is_hex = hex && hex->key == bytes_entry && hex->kind == JsonNode::Kind::text &&
                            hex->text.size() == 2 * field.count &&
                            hex->text.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
        if (!is_hex) {
            faults_.add(hex ? hex->line : entry.line,
                        fmt::format("\"{}\" must be a text or {{\"{}\": \"...\"}} with {} hexadecimal digits",
                                    field.name, bytes_entry, 2 * field.count));
            return;
        }
        for (size_t k = 0; k < field.count; ++k) {
            *at(field.offset + k) = static_cast<uint8_t>(std::stoi(hex->text.substr(2 * k, 2), nullptr, 16));
        }
    }

    Bytes::iterator at(size_t offset) { return record_.begin() + static_cast<std::ptrdiff_t>(offset); }

    Bytes record_;
    Faults& faults_;
};

Bytes record_from_json(std::string_view text, const std::string& name, size_t size) {
    Faults faults(name);
    RecordReader reader(size, faults);
    const auto parsed = parse_json(text);
    if (const auto* const fault = std::get_if<JsonSyntaxFault>(&parsed)) {
        faults.add(fault->line, fmt::format("not valid JSON at column {}: {}", fault->column, fault->text));
    } else {
        reader.read(std::get<JsonNode>(parsed));
    }
    faults.throw_if_any();
    return reader.record();
}

} // namespace

ordered_json to_json(const sm_tag_custom_info& preset) {
    return record_to_json(preset);
}

ordered_json to_json(const tag_custom_info& preset) {
    return record_to_json(preset);
}

sm_tag_custom_info phone_record_from_json(std::string_view text, const std::string& name) {
    return decode_phone_record(record_from_json(text, name, sizeof(sm_tag_custom_info)));
}

tag_custom_info camera_record_from_json(std::string_view text, const std::string& name) {
    return decode_camera_record(record_from_json(text, name, sizeof(tag_custom_info)));
}

} // namespace desk
