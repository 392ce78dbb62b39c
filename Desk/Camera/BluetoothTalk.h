// What the camera tells of phones that find it.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace desk::camera {

// One line of the kind "bluetooth". `more` are fields besides the event. Text of others must be printable already.
void tell_of_bluetooth(const char* event, const std::string& message,
                       const nlohmann::ordered_json& more = nlohmann::ordered_json::object());

} // namespace desk::camera
