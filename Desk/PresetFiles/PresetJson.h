// Preset files: records as JSON, one entry for each field of the record, by its name, in the record's order, the colour
// styles nested in "cs_info", colours as [red, green, blue]. A text is a string when its bytes are clean UTF-8 followed
// by NULs alone, else {"bytes": "<hexadecimal, all of them>"}. Record to JSON and back gives the same bytes.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

#include "Common/Failure.h"
#include "Wire/Record.h"

namespace desk {

inline constexpr auto style_block = "cs_info";

nlohmann::ordered_json to_json(const sm_tag_custom_info& preset);
nlohmann::ordered_json to_json(const tag_custom_info& preset);

// Reads a whole file's text. `name` is the file's name for the failure's line. Throws Failure (exit_usage) whose line
// names the file, the line in it and the entry for: text that is not JSON, an entry that no record has, one that is
// given twice, one that is missing, a number that is no integer or does not fit 32 bits, a text that does not fit its
// field, an array of the wrong length. The faults of a file are collected, one a line, up to a hundred. Missing entries
// are taken as 0 (texts as empty) for linked_custom_mode, screennail_path, reserved_636, preset_num, custom_id,
// applocal_id and server_id.
sm_tag_custom_info phone_record_from_json(std::string_view text, const std::string& name);
tag_custom_info camera_record_from_json(std::string_view text, const std::string& name);

} // namespace desk
