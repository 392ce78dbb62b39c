#include "PresetJson.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "Forms.h"
#include "OptionalFields.h"

namespace desk {

namespace {

using nlohmann::ordered_json;

constexpr std::array color_names = {"red", "green", "blue"};

// ---- Record to JSON -------------------------------------------------------------------------------------------------

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

class RecordReader {
  public:
    RecordReader(size_t size, Faults& faults) : size_(size), builder_(size, faults), faults_(faults) {}

    const Bytes& record() const { return builder_.record(); }

    void read(const JsonNode& root) {
        if (root.kind != JsonNode::Kind::object) {
            faults_.add(root.line, fmt::format("a preset is an object, {{\"title\": ...}}, not {}", described(root)));
            return;
        }
        read_entries(root, false);
    }

  private:
    void read_entries(const JsonNode& object, bool in_style) {
        GivenEntries given;
        for (const JsonNode& entry : object.children) {
            if (given.take(entry, faults_)) {
                read_entry(entry, in_style);
            }
        }
        add_missing(object.line, given, in_style);
    }

    // The phone's files may say which form they are of.
    bool is_of_the_file(const JsonNode& entry, bool in_style) const {
        return !in_style && size_ == sizeof(sm_tag_custom_info) &&
               (entry.key == schema_entry || entry.key == form_entry);
    }

    void read_entry(const JsonNode& entry, bool in_style) {
        if (is_of_the_file(entry, in_style)) {
            return;
        }
        if (entry.key == style_block && !in_style) {
            read_style(entry);
            return;
        }
        const auto field =
            std::find_if(fields().begin(), fields().end(), [&](const Field& known) { return known.name == entry.key; });
        if (field == fields().end()) {
            faults_.add(entry.line, fmt::format("{} is no entry of a preset; remove it", quoted_for_fault(entry.key)));
        } else if (field->offset >= size_) {
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

    void add_missing(size_t line, const GivenEntries& given, bool in_style) {
        for (const Field& field : fields()) {
            const bool expected = field.in_style == in_style && field.offset < size_;
            if (expected && !may_be_left_out(field) && !given.contains(field.name)) {
                faults_.add(line, fmt::format("\"{}\" is missing; add it", field.name));
            }
        }
        if (!in_style && !given.contains(style_block)) {
            faults_.add(line, fmt::format("\"{}\" is missing; add it", style_block));
        }
    }

    void read_field(const JsonNode& entry, const Field& field) {
        const std::string what = fmt::format("\"{}\"", field.name);
        switch (field.kind) {
        case Field::Kind::text:
            builder_.read_text(entry, field);
            break;
        case Field::Kind::word:
            builder_.read_word(entry, what, field.offset);
            break;
        case Field::Kind::words:
            builder_.read_words(entry, what, field.offset, field.count);
            break;
        case Field::Kind::colors:
            read_colors(entry, field);
            break;
        }
    }

    void read_colors(const JsonNode& entry, const Field& field) {
        if (!builder_.check_array(entry, fmt::format("\"{}\"", field.name), field.count, "colours")) {
            return;
        }
        for (size_t k = 0; k < field.count; ++k) {
            const JsonNode& color = entry.children[k];
            if (!builder_.check_array(color, fmt::format("\"{}\" [{}]", field.name, k), color_names.size(),
                                      "integers")) {
                continue;
            }
            for (size_t c = 0; c < color_names.size(); ++c) {
                builder_.read_word(color.children[c], fmt::format("\"{}\" [{}] {}", field.name, k, color_names[c]),
                                   field.offset + k * sizeof(sm_color) + c * sizeof(int32_t));
            }
        }
    }

    size_t size_;
    RecordBuilder builder_;
    Faults& faults_;
};

Bytes record_from_json(std::string_view text, const std::string& name, size_t size) {
    Faults faults(name);
    Bytes record;
    if (const std::optional<JsonNode> root = tree_of(text, faults)) {
        record = read_raw(*root, size, faults);
    }
    faults.throw_if_any();
    return record;
}

} // namespace

Bytes read_raw(const JsonNode& root, size_t size, Faults& faults) {
    RecordReader reader(size, faults);
    reader.read(root);
    return reader.record();
}

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
