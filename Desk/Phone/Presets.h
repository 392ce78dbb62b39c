// Presets and replies in the forms that the commands print.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <utility>
#include <vector>

#include "CarefulStore.h"
#include "Wire/Frames.h"

namespace desk::phone {

// The preset with this custom_id, or null.
const sm_tag_custom_info* find(const std::vector<sm_tag_custom_info>& presets, int32_t custom_id);

// The rows of `list`, header first: in words, or as the codes that travel.
std::vector<std::vector<std::string>> rows_of(const std::vector<sm_tag_custom_info>& presets, bool raw);

// Every field of the record by its name, and its codes.
std::vector<std::pair<std::string, std::string>> codes_of(const sm_tag_custom_info& preset);

// A line for each label and its text. What is wider than `width` goes on in the next line, below the text's start; 0
// means no limit.
std::string labelled_lines(const std::vector<std::pair<std::string, std::string>>& entries, size_t width);

// A preset and the number that `list` gives it.
struct NumberedPreset {
    int number;
    sm_tag_custom_info preset;
};

// A preset in a sentence: "Dusk" (preset 12, id 13).
std::string reference_to(const NumberedPreset& preset);

// What became of a preset that was to be deleted.
struct Deletion {
    enum class Fate { deleted, used_by_custom_mode, kept };
    NumberedPreset asked;
    Fate fate;
    int32_t custom_mode; // 1 or 2 when a custom mode uses it, else 0
};

std::vector<Deletion> deletions_of(const std::vector<NumberedPreset>& presets, const DeleteReply& reply);
std::string lines_of(const std::vector<Deletion>& deletions);

// What a deletion would do, as far as the list tells: a camera keeps what a custom mode uses.
std::vector<Deletion> foreseen_deletions_of(const std::vector<NumberedPreset>& presets);
std::string foreseen_lines_of(const std::vector<Deletion>& deletions);

nlohmann::ordered_json json_of(const ListReply& reply);
nlohmann::ordered_json json_of(const StoreReply& reply);
// What was foretold of a preset that is stored, and what came out otherwise.
nlohmann::ordered_json json_of(const std::vector<Change>& changes);
nlohmann::ordered_json json_of(const std::vector<Surprise>& surprises);
nlohmann::ordered_json json_of(const DeleteReply& reply, const std::vector<Deletion>& deletions);
nlohmann::ordered_json foreseen_json_of(const std::vector<Deletion>& deletions);

} // namespace desk::phone
