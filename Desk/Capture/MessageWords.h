// What a message is, in few words.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace desk::capture {

// "list", "store", of a request or of the reply to it; "function 7".
std::string name_of_message(int32_t function);

// "store \"Dusk\", picture of 141 bytes"; of a request that is cut off, what of it is there.
std::string request_in_words(std::span<const uint8_t> request);

} // namespace desk::capture
