// What the camera tells its user: one line on standard error for each thing that happened, as text or as JSON. Standard
// output is for data alone.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace desk::camera {

constexpr const char* program_name = "shotmentor-camera";

// Kinds that are not told as all others.
constexpr const char* kind_request = "request"; // has the time of day in front as text
constexpr const char* kind_log = "log";         // a line of the library, which is no text of this program

// One thing that is said.
struct Said {
    std::string kind;
    nlohmann::ordered_json fields; // an object: what a program wants to know of it
    std::string message;           // the sentence for a person
};

void say(const Said& said);

// Its line, not broken yet, without the line's end.
std::string text_of(const Said& said);
// The same as one JSON object with the time. Its characters are fit for a terminal.
std::string json_of(const Said& said);

} // namespace desk::camera
