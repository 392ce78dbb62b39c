#include "Talk.h"

#include "StandardError.h"

namespace desk::camera {

void say(const std::string& line) {
    StandardError::tell(std::string(program_name) + ": " + line);
}

} // namespace desk::camera
