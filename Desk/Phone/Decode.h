// The command that shows what a capture holds.
#pragma once

namespace desk::phone {

struct Options;

int decode(const Options& options);

} // namespace desk::phone
