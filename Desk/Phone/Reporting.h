// What commands say beside their data.
#pragma once

#include <cstdint>
#include <string_view>

namespace desk::phone {

struct Options;

// Talk that is no error.
void mention(const Options& options, std::string_view line);

// Says what else than success the camera answered. Returns the exit code.
int report_result(int32_t result);

} // namespace desk::phone
