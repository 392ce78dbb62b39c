// The pictures of the sample presets. They were drawn when the camera was built, so that its first start need not wait.
#pragma once

#include <cstdint>
#include <span>

namespace desk::camera {

constexpr int sample_count = 12;

// The JPEG data of a sample, 0 to 11; it lies in the program.
std::span<const uint8_t> sample_picture(int number);

} // namespace desk::camera
