#pragma once

namespace desk::phone {

// In pixels.
struct PictureSize {
    unsigned width = 0;
    unsigned height = 0;
};

} // namespace desk::phone
