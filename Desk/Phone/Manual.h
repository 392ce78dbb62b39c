// What the phone's help and man page say beside its options and commands.
#pragma once

#include "CommandLine/Manual.h"

namespace desk::phone {

command_line::Manual manual();

} // namespace desk::phone
