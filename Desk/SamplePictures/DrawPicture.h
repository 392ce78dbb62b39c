// Draws the sample pictures: for the build, which puts them into the camera.
#pragma once

#include <cstdint>
#include <vector>

namespace desk::camera {

// A picture as a camera stores it: real JPEG data of a few hundred KB that holds four JPEG streams, each beginning with
// FF D8 FF DB, back to back: the picture itself and smaller versions. A phone gets the first two. Throws Failure
// (exit_machine).
std::vector<uint8_t> draw_picture(int number);

} // namespace desk::camera
