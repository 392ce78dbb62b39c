// A preset as a file that a person reads and edits. It has the phone's values as a camera's list has them; what has to
// be sent in their place, so that they come back as they went out, is not the file's business.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "ADE_ShotMentor_Records.h"

namespace desk {

enum class Form {
    words, // in a photographer's words
    raw    // the record's fields and codes
};

// What to do about exposure values that the camera has no step for.
enum class MissingSteps { refused, nearest };

struct PresetFile {
    sm_tag_custom_info preset = {};
    Form form = Form::raw;
    std::vector<std::string> taken; // a line for each value that the nearest step was taken for
};

// A preset as JSON, which says which form it is of.
nlohmann::ordered_json json_of_preset(const sm_tag_custom_info& preset, Form form);

// The file's whole text, its last line ended. `schema` is where an editor finds what may stand in it; nothing is said
// of it when it is empty.
std::string text_of_preset(const sm_tag_custom_info& preset, Form form, const std::string& schema = "");

// Reads a file of either form; one that does not say which is raw. `name` is the file's for the failure's lines. Throws
// Failure (exit_usage), whose lines name file, line and entry, up to a hundred of them.
PresetFile preset_from_text(std::string_view text, const std::string& name,
                            MissingSteps missing = MissingSteps::refused);

// What a file in words calls a field of the record: "av_index" is "aperture", "cs_hue" is "styles hue".
std::string entry_in_words(const std::string& field);

// A file to begin with, all of whose values are usual ones.
std::string text_of_new_preset(Form form, const std::string& schema = "");

} // namespace desk
