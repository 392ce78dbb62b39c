// What a preset file in codes may leave out.
#pragma once

#include "Wire/Record.h"

namespace desk {

// Whether a file may be silent of a field: the camera sets it, or it has no meaning for the phone.
bool may_be_left_out(const Field& field);

} // namespace desk
