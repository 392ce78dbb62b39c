// What the camera's help and man page say beside its options and commands.
#pragma once

#include "CommandLine/Manual.h"

namespace desk::camera {

command_line::Manual manual();

} // namespace desk::camera
