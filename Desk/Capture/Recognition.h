// Which bytes may begin a conversation between a phone and a camera. Other protocols begin with small numbers, too: a
// function number and a total length must fit.
#pragma once

#include <cstdint>
#include <span>

namespace desk::capture {

enum class Beginning { nothing, request, reply };

// What the first bytes of a message tell, at least the 8 of its header; nothing for fewer.
Beginning beginning_of(std::span<const uint8_t> bytes);

} // namespace desk::capture
