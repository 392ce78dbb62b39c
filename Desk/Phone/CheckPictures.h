// JPEG pictures of any size: a grey square of 8 by 8 pixels, and comments.
#pragma once

#include "Wire/Record.h"

namespace desk::phone {

// A picture of exactly so many bytes, 100 or from 145 on. No two of different seeds are the same, and bytes that are
// lost or moved show.
Bytes picture_of(size_t size, int seed);

} // namespace desk::phone
