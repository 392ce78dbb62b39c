// A preset as a file that a person reads and edits. It has the phone's values as a camera's list has them; what has to
// be sent in their place, so that they come back as they went out, is not the file's business.
#pragma once

#include <string>
#include <string_view>

#include "ADE_ShotMentor_Records.h"

namespace desk {

enum class Form {
    words, // in a photographer's words
    raw    // the record's fields and codes
};

struct PresetFile {
    sm_tag_custom_info preset = {};
    Form form = Form::raw;
};

// The file's whole text, its last line ended.
std::string text_of_preset(const sm_tag_custom_info& preset, Form form);

// Reads a file of either form. `name` is the file's for the failure's lines. Throws Failure (exit_usage), whose lines
// name file, line and entry, up to a hundred of them.
PresetFile preset_from_text(std::string_view text, const std::string& name);

} // namespace desk
