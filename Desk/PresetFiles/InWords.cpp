// The form in words, both ways. Whatever a record holds, reading what was written of it gives the same record: a value
// that has no word is written as its code.

#include <algorithm>
#include <charconv>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "Forms.h"
#include "WordEntries.h"

namespace desk {

namespace {

using nlohmann::ordered_json;
using Kind = WordEntry::Kind;
using Need = WordEntry::Need;

constexpr size_t color_words = 3;

const WordEntry& entry_named(const char* name) {
    return *std::ranges::find(word_entries(), name, &WordEntry::name);
}

// ---- Record to words ------------------------------------------------------------------------------------------------

ordered_json code_json(int32_t code) {
    return {{code_entry, code}};
}

ordered_json name_json(const WordEntry& entry, int32_t code) {
    const bool has_name = code >= 0 && static_cast<size_t>(code) < entry.names->size();
    return has_name ? ordered_json((*entry.names)[static_cast<size_t>(code)]) : code_json(code);
}

ordered_json step_json(const WordEntry& entry, int32_t code, int32_t mode) {
    const Step* const step = entry.carries(mode) ? entry.scale->step_of(code) : nullptr;
    return step != nullptr ? ordered_json(step->word) : code_json(code);
}

ordered_json iso_json(const WordEntry& entry, int32_t iso) {
    if (iso == 0) {
        return automatic_iso;
    }
    return entry.scale->step_of(iso) != nullptr ? ordered_json(iso) : code_json(iso);
}

ordered_json styles_json(std::span<const uint8_t> record) {
    ordered_json styles = ordered_json::object();
    for (int32_t style = 0; style < SM_COLOR_STYLES; ++style) {
        ordered_json& row = styles[color_style_text(style)];
        for (const StyleValue& value : style_values()) {
            row[value.name] = get_word(record, value.offset + static_cast<size_t>(style) * sizeof(int32_t));
        }
        if (style > 0) {
            row[style_color] = words_to_json(record, offset_of_color(style), color_words);
        }
    }
    return styles;
}

ordered_json value_json(const WordEntry& entry, std::span<const uint8_t> record, int32_t mode) {
    const int32_t code = entry.kind == Kind::text ? 0 : get_word(record, entry.offset);
    switch (entry.kind) {
    case Kind::text:
        return text_to_json(record.subspan(entry.offset, SM_TITLE_SIZE));
    case Kind::name:
        return name_json(entry, code);
    case Kind::step:
        return step_json(entry, code, mode);
    case Kind::iso:
        return iso_json(entry, code);
    case Kind::integers:
        return words_to_json(record, entry.offset, entry.count);
    case Kind::hexadecimal:
        return fmt::format("{:#x}", static_cast<uint32_t>(code));
    case Kind::color_styles:
        return styles_json(record);
    case Kind::integer:
        break;
    }
    return code;
}

static_assert(SM_TITLE_SIZE == SM_SCREENNAIL_PATH_SIZE, "both texts of a record are of one size");

// What the mode does not carry, and a second sensitivity that is the first one's, says nothing.
bool says_something(const WordEntry& entry, std::span<const uint8_t> record, int32_t mode) {
    const WordEntry& iso = entry_named("iso");
    const int32_t code = entry.kind == Kind::text ? 0 : get_word(record, entry.offset);
    if (entry.kind == Kind::step) {
        return entry.carries(mode) || code != entry.left_out;
    }
    if (entry.kind == Kind::iso && entry.name != iso.name) {
        return code != get_word(record, iso.offset);
    }
    return true;
}

// ---- Words to record ------------------------------------------------------------------------------------------------

std::string joined(const std::vector<std::string>& words) {
    return fmt::format("{}", fmt::join(words, ", "));
}

// What a person wrote for a value, whether or not in quotes; nothing for what no value can be.
std::optional<std::string> written_value(const JsonNode& node) {
    const bool is_value = node.kind != JsonNode::Kind::object && node.kind != JsonNode::Kind::array;
    return is_value ? std::optional(node.text) : std::nullopt;
}

// "400", "f/4" in a fault, or what else it is.
std::string written_for_fault(const JsonNode& node) {
    return node.kind == JsonNode::Kind::text ? quoted_for_fault(node.text) : described(node);
}

class WordsReader {
  public:
    WordsReader(MissingSteps missing, Faults& faults, std::vector<std::string>& taken)
        : missing_(missing), builder_(sizeof(sm_tag_custom_info), faults), faults_(faults), taken_(taken) {}

    Bytes read(const JsonNode& root) {
        find_mode(root);
        for (const WordEntry& entry : word_entries()) {
            if (entry.kind == Kind::step) {
                builder_.put(entry.offset, entry.left_out);
            }
        }
        read_object(root, "");
        return builder_.record();
    }

  private:
    // What the mode carries has to be known before anything else is read.
    void find_mode(const JsonNode& root) {
        const auto node = std::ranges::find(root.children, "mode", &JsonNode::key);
        if (node != root.children.end() && node->kind == JsonNode::Kind::text) {
            mode_ = code_of(mode_names(), node->text);
        } else if (node != root.children.end()) {
            mode_ = code_given(*node);
        }
    }

    void read_object(const JsonNode& object, const std::string& group) {
        GivenEntries given;
        for (const JsonNode& node : object.children) {
            if (given.take(node, faults_)) {
                read_entry(node, group);
            }
        }
        fill_missing(object.line, given, group);
    }

    void read_entry(const JsonNode& node, const std::string& group) {
        if (group.empty() && (node.key == schema_entry || node.key == form_entry)) {
            return;
        }
        const auto entry = std::ranges::find_if(
            word_entries(), [&](const WordEntry& known) { return known.group == group && known.name == node.key; });
        if (entry != word_entries().end()) {
            read_value(node, *entry);
        } else if (group.empty() && is_group(node.key)) {
            read_group(node);
        } else {
            faults_.add(node.line, fmt::format("{} is no entry of {}; remove it", quoted_for_fault(node.key),
                                               group.empty() ? "a preset in words" : '"' + group + '"'));
        }
    }

    static bool is_group(const std::string& name) {
        return std::ranges::find(word_entries(), name, &WordEntry::group) != word_entries().end();
    }

    void read_group(const JsonNode& node) {
        if (node.kind == JsonNode::Kind::object) {
            read_object(node, node.key);
        } else {
            faults_.add(node.line, fmt::format("\"{}\" must be an object, not {}", node.key, described(node)));
        }
    }

    // ---- What is not given

    bool is_needed(const WordEntry& entry) const {
        const bool goes_with_mode = entry.need == Need::with_the_mode && mode_ && entry.carries(*mode_);
        return entry.need == Need::always || goes_with_mode;
    }

    void fill_missing(size_t line, const GivenEntries& given, const std::string& group) {
        std::string missing_group;
        for (const WordEntry& entry : word_entries()) {
            if (entry.group != group) {
                if (group.empty() && !given.contains(entry.group) && is_needed(entry) && entry.group != missing_group) {
                    missing_group = entry.group;
                    faults_.add(line, fmt::format("\"{}\" is missing; add it", entry.group));
                }
            } else if (!given.contains(entry.name)) {
                fill_missing_entry(line, entry);
            }
        }
    }

    void fill_missing_entry(size_t line, const WordEntry& entry) {
        if (is_needed(entry)) {
            faults_.add(line, fmt::format("\"{}\" is missing; add it", entry.name));
        } else if (entry.kind == Kind::iso) {
            builder_.put(entry.offset, get_word(builder_.record(), entry_named("iso").offset));
        }
    }

    // ---- Values

    void read_value(const JsonNode& node, const WordEntry& entry) {
        const std::string what = fmt::format("\"{}\"", entry.name);
        switch (entry.kind) {
        case Kind::text:
            builder_.read_text(node, *std::ranges::find(fields(), entry.offset, &Field::offset));
            break;
        case Kind::integer:
            builder_.read_word(node, what, entry.offset);
            break;
        case Kind::integers:
            builder_.read_words(node, what, entry.offset, entry.count);
            break;
        case Kind::hexadecimal:
            read_hexadecimal(node, entry);
            break;
        case Kind::color_styles:
            read_styles(node);
            break;
        default:
            read_word_or_code(node, entry);
        }
    }

    static std::optional<int32_t> code_given(const JsonNode& node) {
        const bool is_code = node.kind == JsonNode::Kind::object && node.children.size() == 1 &&
                             node.children.front().key == code_entry &&
                             node.children.front().kind == JsonNode::Kind::integer;
        return is_code ? std::optional(node.children.front().number) : std::nullopt;
    }

    void read_word_or_code(const JsonNode& node, const WordEntry& entry) {
        if (const std::optional<int32_t> code = code_given(node)) {
            builder_.put(entry.offset, *code);
        } else if (entry.kind == Kind::name) {
            read_name(node, entry);
        } else if (entry.kind == Kind::iso && node.kind == JsonNode::Kind::text && node.text == automatic_iso) {
            builder_.put(entry.offset, 0);
        } else if (entry.carries != nullptr && mode_ && !entry.carries(*mode_)) {
            faults_.add(node.line, fmt::format("\"{}\" is not set in the mode {}; remove it, or change \"mode\"",
                                               entry.name, mode_name(*mode_)));
        } else {
            read_step(node, entry);
        }
    }

    void read_name(const JsonNode& node, const WordEntry& entry) {
        const std::optional<int32_t> code =
            node.kind == JsonNode::Kind::text ? code_of(*entry.names, node.text) : std::nullopt;
        if (code) {
            builder_.put(entry.offset, *code);
        } else {
            faults_.add(node.line, fmt::format("\"{}\" is {}; write one of {}", entry.name, written_for_fault(node),
                                               joined(*entry.names)));
        }
    }

    void read_step(const JsonNode& node, const WordEntry& entry) {
        const std::optional<std::string> written = written_value(node);
        const std::optional<double> stops = written ? entry.scale->stops_of(*written) : std::nullopt;
        if (!stops) {
            faults_.add(node.line, fmt::format("\"{}\" is {}; write one like {}{}", entry.name, written_for_fault(node),
                                               example_of(entry), entry.kind == Kind::iso ? ", or \"auto\"" : ""));
            return;
        }
        const Scale::Neighbours around = entry.scale->around(*stops);
        if (around.is_step() || missing_ == MissingSteps::nearest) {
            builder_.put(entry.offset, around.nearest->code);
        }
        if (!around.is_step()) {
            tell_missing_step(node, entry, around);
        }
    }

    static std::string example_of(const WordEntry& entry) {
        const std::vector<Step>& steps = entry.scale->steps();
        const std::string& word = steps[steps.size() / 2 + 1].word;
        return entry.kind == Kind::iso ? word : '"' + word + '"';
    }

    void tell_missing_step(const JsonNode& node, const WordEntry& entry, const Scale::Neighbours& around) {
        const std::string wanted =
            fmt::format("\"{}\": the camera has no step for {}", entry.name, cut_for_fault(node.text));
        if (missing_ == MissingSteps::nearest) {
            taken_.push_back(fmt::format("{}: {} is taken", wanted, around.nearest->word));
        } else if (around.below != nullptr && around.above != nullptr) {
            faults_.add(node.line, fmt::format("{}; the nearest are {} and {}: write one of them, or have {} taken by "
                                               "--nearest",
                                               wanted, around.below->word, around.above->word, around.nearest->word));
        } else {
            const char* const end = around.below == nullptr ? "lowest" : "highest";
            faults_.add(node.line, fmt::format("{}; its {} is {}: write that, or have it taken by --nearest", wanted,
                                               end, around.nearest->word));
        }
    }

    void read_hexadecimal(const JsonNode& node, const WordEntry& entry) {
        constexpr std::string_view start = "0x";
        const std::string_view text = node.text;
        uint32_t code = 0;
        bool is_good = node.kind == JsonNode::Kind::text && text.starts_with(start);
        if (is_good) {
            const auto [end, error] = std::from_chars(text.data() + start.size(), text.data() + text.size(), code, 16);
            is_good = error == std::errc{} && end == text.data() + text.size();
        }
        if (is_good) {
            builder_.put(entry.offset, static_cast<int32_t>(code));
        } else {
            faults_.add(node.line, fmt::format("\"{}\" is {}; write one like \"0x40\", with at most 8 digits",
                                               entry.name, written_for_fault(node)));
        }
    }

    // ---- Colour styles

    void read_styles(const JsonNode& node) {
        if (node.kind != JsonNode::Kind::object) {
            faults_.add(node.line, fmt::format("\"{}\" must be an object, not {}", node.key, described(node)));
            return;
        }
        GivenEntries given;
        for (const JsonNode& row : node.children) {
            if (given.take(row, faults_)) {
                read_style(row);
            }
        }
        for (const std::string& style : color_style_names()) {
            if (!given.contains(style)) {
                faults_.add(node.line, fmt::format("\"{}\" has no \"{}\"; add it", node.key, style));
            }
        }
    }

    void read_style(const JsonNode& row) {
        const auto style = std::ranges::find(color_style_names(), row.key);
        if (style == color_style_names().end()) {
            faults_.add(row.line, fmt::format("{} is no colour style; write one of {}", quoted_for_fault(row.key),
                                              joined(color_style_names())));
        } else if (row.kind != JsonNode::Kind::object) {
            faults_.add(row.line, fmt::format("\"{}\" must be an object, not {}", row.key, described(row)));
        } else {
            read_style_values(row, static_cast<int32_t>(style - color_style_names().begin()));
        }
    }

    void read_style_values(const JsonNode& row, int32_t style) {
        GivenEntries given;
        for (const JsonNode& node : row.children) {
            if (given.take(node, faults_)) {
                read_style_value(node, row.key, style);
            }
        }
        std::vector<std::string> expected =
            style > 0 ? std::vector<std::string>{style_color} : std::vector<std::string>{};
        std::ranges::transform(style_values(), std::back_inserter(expected), &StyleValue::name);
        for (const std::string& name : expected) {
            if (!given.contains(name)) {
                faults_.add(row.line, fmt::format("\"{}\" of \"{}\" is missing; add it", name, row.key));
            }
        }
    }

    void read_style_value(const JsonNode& node, const std::string& row, int32_t style) {
        const std::string what = fmt::format("{} of \"{}\"", quoted_for_fault(node.key), row);
        const auto value = std::ranges::find(style_values(), node.key, &StyleValue::name);
        if (value != style_values().end()) {
            builder_.read_word(node, what, value->offset + static_cast<size_t>(style) * sizeof(int32_t));
        } else if (node.key == style_color && style > 0) {
            builder_.read_words(node, what, offset_of_color(style), color_words);
        } else {
            faults_.add(node.line, fmt::format("{} is no value of it; remove it", what));
        }
    }

    MissingSteps missing_;
    RecordBuilder builder_;
    Faults& faults_;
    std::vector<std::string>& taken_;
    std::optional<int32_t> mode_; // not of a file whose mode is faulty
};

} // namespace

std::string entry_in_words(const std::string& field) {
    const auto known = std::ranges::find(fields(), field, &Field::name);
    if (known == fields().end()) {
        return field;
    }
    if (known->offset == offset_of_color(1)) {
        return fmt::format("{} {}", styles_entry, style_color);
    }
    for (const StyleValue& value : style_values()) {
        if (value.offset == known->offset) {
            return fmt::format("{} {}", styles_entry, value.name);
        }
    }
    const auto entry = std::ranges::find(word_entries(), known->offset, &WordEntry::offset);
    if (entry == word_entries().end()) {
        return field;
    }
    return entry->group.empty() ? entry->name : fmt::format("{} {}", entry->group, entry->name);
}

ordered_json in_words(const sm_tag_custom_info& preset) {
    const Bytes record = encode(preset);
    ordered_json whole = ordered_json::object();
    for (const WordEntry& entry : word_entries()) {
        if (says_something(entry, record, preset.mode)) {
            ordered_json& parent = entry.group.empty() ? whole : whole[entry.group];
            parent[entry.name] = value_json(entry, record, preset.mode);
        }
    }
    return whole;
}

void leave_out_what_cameras_give(ordered_json& entries) {
    for (const WordEntry& entry : word_entries()) {
        if (entry.need == Need::never && entry.group != adjustments_entry) {
            entries.erase(entry.group.empty() ? entry.name : entry.group);
        }
    }
}

Bytes read_in_words(const JsonNode& root, MissingSteps missing, Faults& faults, std::vector<std::string>& taken) {
    return WordsReader(missing, faults, taken).read(root);
}

} // namespace desk
