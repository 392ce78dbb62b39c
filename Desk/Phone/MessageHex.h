// A message of a capture byte by byte, with what the bytes mean: as Docs/protocol.md shows its packets.
#pragma once

#include <string>
#include <vector>

#include "Capture/Messages.h"

namespace desk::phone {

std::vector<std::string> hex_of(const capture::Message& message);

} // namespace desk::phone
