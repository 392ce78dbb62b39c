#include "Presets.h"

#include <algorithm>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "PresetFiles/PresetJson.h"
#include "Words/Describe.h"

namespace desk::phone {
namespace {

using Json = nlohmann::ordered_json;

// The words of a record that tell the presets of a list apart.
struct RawColumn {
    const char* name;
    int32_t (*value)(const sm_tag_custom_info& preset);
};

#define DESK_RAW_COLUMN(field)                                                                                         \
    {                                                                                                                  \
#field, [](const sm_tag_custom_info& preset) { return preset.field; }                                          \
    }

constexpr RawColumn raw_columns[] = {
    DESK_RAW_COLUMN(mode),
    DESK_RAW_COLUMN(av_index),
    DESK_RAW_COLUMN(tv_index),
    DESK_RAW_COLUMN(iso),
    DESK_RAW_COLUMN(iso_1_3),
    DESK_RAW_COLUMN(ev_step),
    {"color_style", [](const sm_tag_custom_info& preset) { return preset.cs_info.color_style; }},
    DESK_RAW_COLUMN(type),
    DESK_RAW_COLUMN(k_value),
    DESK_RAW_COLUMN(server_id),
    DESK_RAW_COLUMN(linked_custom_mode),
};

#undef DESK_RAW_COLUMN

std::vector<std::string> raw_header() {
    std::vector<std::string> cells = {"number", "custom_id", "title"};
    for (const RawColumn& column : raw_columns) {
        cells.emplace_back(column.name);
    }
    return cells;
}

std::vector<std::string> raw_row(int number, const sm_tag_custom_info& preset) {
    std::vector<std::string> cells = {std::to_string(number), std::to_string(preset.custom_id), title_text(preset)};
    for (const RawColumn& column : raw_columns) {
        cells.push_back(std::to_string(column.value(preset)));
    }
    return cells;
}

// Everything beyond ASCII is escaped, so that a title's bytes do nothing to a terminal.
std::string code_text(const Json& value) {
    return value.dump(-1, ' ', true);
}

void append_codes(const Json& entries, std::vector<std::pair<std::string, std::string>>& codes) {
    for (const auto& [name, value] : entries.items()) {
        if (name == "cs_info") {
            append_codes(value, codes);
        } else {
            codes.emplace_back(name, code_text(value));
        }
    }
}

bool begins_character(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0) != 0x80; // the others continue a character of UTF-8
}

// The text with a separator behind each `room` characters.
std::string fold(const std::string& text, size_t room, const std::string& separator) {
    std::string folded;
    size_t characters = 0;
    for (const char byte : text) {
        if (begins_character(byte) && characters++ == room) {
            folded += separator;
            characters = 1;
        }
        folded += byte;
    }
    return folded;
}

Json json_of(const std::vector<sm_tag_custom_info>& presets) {
    Json list = Json::array();
    for (const sm_tag_custom_info& preset : presets) {
        list.push_back(to_json(preset));
    }
    return list;
}

// With these results the camera has deleted and then listed what is left. With any other it did neither.
bool lists_what_is_left(int32_t result) {
    constexpr int32_t acted[] = {SM_RETURN_TRUE, SM_RETURN_SYSTEM_DATA_ERR, SM_RETURN_OPENED_ERR,
                                 SM_RETURN_OPENED_BOTH_ERR};
    return std::find(std::begin(acted), std::end(acted), result) != std::end(acted);
}

// The custom mode that uses a preset, as the reply to the deletion has it, else as the list before had it.
int32_t custom_mode_of(const sm_tag_custom_info& before, const sm_tag_custom_info& after) {
    return after.linked_custom_mode != 0 ? after.linked_custom_mode : before.linked_custom_mode;
}

Deletion deletion_of(const NumberedPreset& asked, const DeleteReply& reply) {
    Deletion deletion = {asked, Deletion::Fate::kept, 0};
    if (!lists_what_is_left(reply.result)) {
        return deletion;
    }
    const sm_tag_custom_info* left = find(reply.presets, asked.preset.custom_id);
    if (left == nullptr) {
        deletion.fate = Deletion::Fate::deleted;
    } else if (const int32_t mode = custom_mode_of(asked.preset, *left); mode != 0) {
        deletion.fate = Deletion::Fate::used_by_custom_mode;
        deletion.custom_mode = mode;
    }
    return deletion;
}

std::string fate_of(const Deletion& deletion) {
    switch (deletion.fate) {
    case Deletion::Fate::deleted:
        return "deleted";
    case Deletion::Fate::used_by_custom_mode:
        return "kept because " + custom_mode_text(deletion.custom_mode) + " uses it";
    case Deletion::Fate::kept:
        break;
    }
    return "kept";
}

// `deleted` is what the entry is called that tells whether it is.
Json json_of(const std::vector<Deletion>& deletions, const char* deleted) {
    Json list = Json::array();
    for (const Deletion& one : deletions) {
        list.push_back({{"number", one.asked.number},
                        {"custom_id", one.asked.preset.custom_id},
                        {deleted, one.fate == Deletion::Fate::deleted},
                        {"used_by_custom_mode", one.custom_mode}});
    }
    return list;
}

std::string lines_of(const std::vector<Deletion>& deletions, const char* before_fate) {
    std::string lines;
    for (const Deletion& one : deletions) {
        lines += fmt::format("{}: {}{}\n", reference_to(one.asked), before_fate, fate_of(one));
    }
    return lines;
}

} // namespace

const sm_tag_custom_info* find(const std::vector<sm_tag_custom_info>& presets, int32_t custom_id) {
    const auto found = std::find_if(presets.begin(), presets.end(),
                                    [custom_id](const auto& preset) { return preset.custom_id == custom_id; });
    return found == presets.end() ? nullptr : &*found;
}

std::vector<std::vector<std::string>> rows_of(const std::vector<sm_tag_custom_info>& presets, bool raw) {
    std::vector<std::vector<std::string>> rows = {raw ? raw_header() : table_header()};
    for (size_t position = 0; position < presets.size(); ++position) {
        const int number = static_cast<int>(position);
        rows.push_back(raw ? raw_row(number, presets[position]) : table_row(number, presets[position]));
    }
    return rows;
}

std::vector<std::pair<std::string, std::string>> codes_of(const sm_tag_custom_info& preset) {
    std::vector<std::pair<std::string, std::string>> codes;
    append_codes(to_json(preset), codes);
    return codes;
}

std::string labelled_lines(const std::vector<std::pair<std::string, std::string>>& entries, size_t width) {
    size_t label_width = 0;
    for (const auto& [label, text] : entries) {
        label_width = std::max(label_width, label.size());
    }
    const size_t indentation = label_width + 2;
    const size_t room = width > indentation ? width - indentation : 1;
    const std::string next_line = "\n" + std::string(indentation, ' ');
    std::string lines;
    for (const auto& [label, text] : entries) {
        const std::string folded = width == 0 ? text : fold(text, room, next_line);
        lines += fmt::format("{:<{}}{}\n", label, indentation, folded);
    }
    return lines;
}

std::string reference_to(const NumberedPreset& preset) {
    return fmt::format("\"{}\" (preset {}, id {})", title_text(preset.preset), preset.number, preset.preset.custom_id);
}

std::vector<Deletion> deletions_of(const std::vector<NumberedPreset>& presets, const DeleteReply& reply) {
    std::vector<Deletion> deletions;
    deletions.reserve(presets.size());
    for (const NumberedPreset& asked : presets) {
        deletions.push_back(deletion_of(asked, reply));
    }
    return deletions;
}

std::string lines_of(const std::vector<Deletion>& deletions) {
    return lines_of(deletions, "");
}

std::vector<Deletion> foreseen_deletions_of(const std::vector<NumberedPreset>& presets) {
    std::vector<Deletion> deletions;
    deletions.reserve(presets.size());
    for (const NumberedPreset& one : presets) {
        const int32_t mode = one.preset.linked_custom_mode;
        deletions.push_back({one, mode == 0 ? Deletion::Fate::deleted : Deletion::Fate::used_by_custom_mode, mode});
    }
    return deletions;
}

std::string foreseen_lines_of(const std::vector<Deletion>& deletions) {
    return lines_of(deletions, "would be ");
}

nlohmann::ordered_json json_of(const ListReply& reply) {
    return {{"model", reply.model}, {"presets", json_of(reply.presets)}};
}

nlohmann::ordered_json json_of(const StoreReply& reply) {
    return {{"result", reply.result},
            {"preset_num", reply.preset_num},
            {"custom_id", reply.custom_id},
            {"applocal_id", reply.applocal_id}};
}

nlohmann::ordered_json json_of(const std::vector<Change>& changes) {
    Json list = Json::array();
    for (const Change& change : changes) {
        Json one = {{"entry", change.entry},
                    {"wanted", change.wanted},
                    {"expected", change.expected},
                    {"reason", change.reason}};
        if (!change.condition.empty()) {
            one["condition"] = change.condition;
        }
        list.push_back(std::move(one));
    }
    return list;
}

nlohmann::ordered_json json_of(const std::vector<Surprise>& surprises) {
    Json list = Json::array();
    for (const Surprise& one : surprises) {
        list.push_back({{"custom_id", one.custom_id},
                        {"entry", one.difference.entry},
                        {"expected", one.difference.expected},
                        {"found", one.difference.found}});
    }
    return list;
}

nlohmann::ordered_json json_of(const DeleteReply& reply, const std::vector<Deletion>& deletions) {
    return {{"result", reply.result}, {"asked", json_of(deletions, "deleted")}, {"presets", json_of(reply.presets)}};
}

nlohmann::ordered_json foreseen_json_of(const std::vector<Deletion>& deletions) {
    return {{"asked", json_of(deletions, "would_be_deleted")}};
}

} // namespace desk::phone
