// The two forms of a preset file, for whoever puts a file together. `Faults` takes what is wrong with a file; what is
// read from a faulty one is of no use.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "PresetFile.h"
#include "RecordBuilder.h"

namespace desk {

// The document, unless it is no JSON.
std::optional<JsonNode> tree_of(std::string_view text, Faults& faults);

// A text of a record: a string when its bytes are clean UTF-8 followed by NULs alone, else {"bytes": "<hexadecimal>"}.
nlohmann::ordered_json text_to_json(std::span<const uint8_t> field);
nlohmann::ordered_json words_to_json(std::span<const uint8_t> record, size_t offset, size_t count);

// The raw form: the bytes of a record of `size` bytes.
Bytes read_raw(const JsonNode& root, size_t size, Faults& faults);

// The form in words: the bytes of a phone's record. What was taken in the place of what the camera has no step for is
// told in `taken`, a line each.
Bytes read_in_words(const JsonNode& root, MissingSteps missing, Faults& faults, std::vector<std::string>& taken);
nlohmann::ordered_json in_words(const sm_tag_custom_info& preset);
// Removes what a file to begin with need not speak of.
void leave_out_what_cameras_give(nlohmann::ordered_json& entries);

} // namespace desk
