// A request or a reply of a capture in words, as the camera's own log has them.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "Capture/Messages.h"
#include "PresetFiles/PresetFile.h"

namespace desk::phone {

struct MessageWords {
    std::string text;                                                 // one line
    std::vector<std::string> more;                                    // a line for each preset of a list
    nlohmann::ordered_json fields = nlohmann::ordered_json::object(); // the same for a program
};

MessageWords words_of(const capture::Message& message, Form form);

} // namespace desk::phone
