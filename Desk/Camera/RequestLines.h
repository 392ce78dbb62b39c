// A request and what came of it, in one line.
#pragma once

#include <array>
#include <bitset>
#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

#include "ADE_ShotMentor_Records.h"

namespace desk::camera {

class Services;

// A request that the library has done with. The services know what they were called for.
struct DoneRequest {
    int32_t function = 0;
    int32_t total = 0;
    int result = 0; // the entry's
    // The start of its payload, with zeros behind the request's end, as for the library.
    std::array<uint8_t, sizeof(sm_tag_custom_info)> start{};
    std::bitset<SM_PRESET_LIMIT> named; // the preset numbers that a deletion names
};

size_t payload_size(const DoneRequest& request);

// What is told of it: the line for a person, and the same for a program.
struct RequestLine {
    std::string text;
    nlohmann::ordered_json fields; // an object
};

RequestLine line_of(const DoneRequest& request, const Services& services);

} // namespace desk::camera
