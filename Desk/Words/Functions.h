// What requests are called, in logs and by the phone's commands.
#pragma once

#include <cstdint>
#include <string>

namespace desk {

// "list", "store": what a phone asks for with this function number, or gets a reply to; "function 6" where it is none.
std::string name_of_function(int32_t function);

} // namespace desk
