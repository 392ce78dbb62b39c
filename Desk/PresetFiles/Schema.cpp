#include "Schema.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>

#include "OptionalFields.h"
#include "PresetJson.h"
#include "RecordBuilder.h"
#include "Wire/Record.h"
#include "WordEntries.h"

namespace desk {

namespace {

using nlohmann::ordered_json;
using Kind = WordEntry::Kind;
using Need = WordEntry::Need;

ordered_json reference_to(const char* definition) {
    return {{"$ref", std::string("#/definitions/") + definition}};
}

ordered_json array_of(const ordered_json& items, size_t count) {
    return {{"type", "array"}, {"items", items}, {"minItems", count}, {"maxItems", count}};
}

ordered_json integers(size_t count) {
    return array_of(reference_to("integer"), count);
}

// An object with these entries and no others.
ordered_json object_of(const ordered_json& properties, const ordered_json& required) {
    return {{"type", "object"}, {"properties", properties}, {"required", required}, {"additionalProperties", false}};
}

ordered_json one_of(const ordered_json& values) {
    return {{"enum", values}};
}

ordered_json or_code(const ordered_json& words) {
    return {{"anyOf", {words, reference_to("code")}}};
}

ordered_json definitions() {
    return {{"integer",
             {{"type", "integer"},
              {"minimum", std::numeric_limits<int32_t>::min()},
              {"maximum", std::numeric_limits<int32_t>::max()}}},
            {"code",
             {{"description", "The code itself, where a value has no word"},
              {"type", "object"},
              {"properties", {{"code", reference_to("integer")}}},
              {"required", {"code"}},
              {"additionalProperties", false}}},
            {"text",
             {{"anyOf",
               {{{"type", "string"}, {"maxLength", SM_TITLE_SIZE}},
                object_of({{bytes_entry, {{"type", "string"}, {"pattern", "^[0-9a-fA-F]{104}$"}}}}, {bytes_entry})}}}}};
}

static_assert(SM_TITLE_SIZE * 2 == 104, "a text as hexadecimal digits");

// Entries that both forms may begin with.
ordered_json entries_of_file(const char* form) {
    return {{schema_entry, {{"description", "Where this schema is"}, {"type", "string"}}},
            {form_entry, {{"description", "Which form the file is of"}, {"const", form}}}};
}

// ---- In words -------------------------------------------------------------------------------------------------------

ordered_json words_of(const Scale& scale) {
    ordered_json words = ordered_json::array();
    for (const Step& step : scale.steps()) {
        words.push_back(step.word);
    }
    return words;
}

ordered_json iso_values(const Scale& scale) {
    ordered_json values = {automatic_iso};
    for (const Step& step : scale.steps()) {
        values.push_back(step.code);
    }
    return values;
}

ordered_json style_rows() {
    ordered_json rows = ordered_json::object();
    for (const std::string& style : color_style_names()) {
        ordered_json properties = ordered_json::object();
        ordered_json required = ordered_json::array();
        for (const StyleValue& value : style_values()) {
            properties[value.name] = reference_to("integer");
            required.push_back(value.name);
        }
        if (style != color_style_names().front()) {
            properties[style_color] = integers(3);
            required.push_back(style_color);
        }
        rows[style] = object_of(properties, required);
    }
    return object_of(rows, color_style_names());
}

ordered_json values_of(const WordEntry& entry) {
    switch (entry.kind) {
    case Kind::text:
        return reference_to("text");
    case Kind::name:
        return or_code(one_of(*entry.names));
    case Kind::step:
        return or_code(one_of(words_of(*entry.scale)));
    case Kind::iso:
        return or_code(one_of(iso_values(*entry.scale)));
    case Kind::integers:
        return integers(entry.count);
    case Kind::hexadecimal:
        return {{"type", "string"}, {"pattern", "^0x[0-9a-fA-F]{1,8}$"}};
    case Kind::color_styles:
        return style_rows();
    case Kind::integer:
        break;
    }
    return reference_to("integer");
}

// Draft 7 ignores what stands beside a reference.
ordered_json described(const std::string& meaning, const ordered_json& values) {
    ordered_json all = {{"description", meaning}};
    if (values.contains("$ref")) {
        all["allOf"] = {values};
    } else {
        all.insert(values.begin(), values.end());
    }
    return all;
}

// An object of the file, the whole included.
struct Object {
    ordered_json properties = ordered_json::object();
    ordered_json required = ordered_json::array();

    ordered_json schema() const { return object_of(properties, required); }
};

Object object_of_group(const std::string& group) {
    Object object;
    for (const WordEntry& entry : word_entries()) {
        if (entry.group == group) {
            object.properties[entry.name] = described(entry.meaning, values_of(entry));
            if (entry.need == Need::always) {
                object.required.push_back(entry.name);
            }
        }
    }
    return object;
}

// Which modes need an entry, and that the others have it as a code at most.
ordered_json rule_of(const WordEntry& entry) {
    ordered_json modes = ordered_json::array();
    for (size_t mode = 0; mode < mode_names().size(); ++mode) {
        if (entry.carries(static_cast<int32_t>(mode))) {
            modes.push_back(mode_names()[mode]);
        }
    }
    return {{"if", {{"properties", {{"mode", one_of(modes)}}}}},
            {"then", {{"required", {entry.name}}}},
            {"else",
             {{"if", {{"properties", {{"mode", {{"type", "string"}}}}}}},
              {"then", {{"properties", {{entry.name, reference_to("code")}}}}}}}};
}

ordered_json form_in_words() {
    Object whole = object_of_group("");
    ordered_json rules = ordered_json::array();
    for (const WordEntry& entry : word_entries()) {
        if (entry.kind == Kind::step) {
            rules.push_back(rule_of(entry));
        }
        if (!entry.group.empty() && !whole.properties.contains(entry.group)) {
            const Object group = object_of_group(entry.group);
            whole.properties[entry.group] = group.schema();
            if (!group.required.empty()) {
                whole.required.push_back(entry.group);
            }
        }
    }
    const ordered_json of_file = entries_of_file("words");
    whole.properties.insert(of_file.begin(), of_file.end());
    ordered_json schema = whole.schema();
    schema["allOf"] = rules;
    return schema;
}

// ---- Raw ------------------------------------------------------------------------------------------------------------

ordered_json values_of(const Field& field) {
    switch (field.kind) {
    case Field::Kind::text:
        return reference_to("text");
    case Field::Kind::words:
        return integers(field.count);
    case Field::Kind::colors:
        return array_of(integers(3), field.count);
    case Field::Kind::word:
        break;
    }
    return reference_to("integer");
}

ordered_json form_of_codes() {
    Object whole;
    Object styles;
    for (const Field& field : fields()) {
        Object& parent = field.in_style ? styles : whole;
        parent.properties[field.name] = values_of(field);
        if (!may_be_left_out(field)) {
            parent.required.push_back(field.name);
        }
    }
    whole.properties[style_block] = styles.schema();
    whole.required.push_back(style_block);
    const ordered_json of_file = entries_of_file("raw");
    whole.properties.insert(of_file.begin(), of_file.end());
    return whole.schema();
}

} // namespace

ordered_json preset_schema() {
    const ordered_json is_in_words = {{"properties", {{form_entry, {{"const", "words"}}}}}, {"required", {form_entry}}};
    return {{schema_entry, "http://json-schema.org/draft-07/schema#"},
            {"title", "A shooting preset of ShotMentor"},
            {"description", "In a photographer's words, or in the codes of its record"},
            {"type", "object"},
            {"if", is_in_words},
            {"then", form_in_words()},
            {"else", form_of_codes()},
            {"definitions", definitions()}};
}

} // namespace desk
