// JSON as people like to read it.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace desk {

// One entry to a line; arrays of numbers, and small objects of them, on one line. The last line is ended.
std::string text_of_json(const nlohmann::ordered_json& document);

} // namespace desk
