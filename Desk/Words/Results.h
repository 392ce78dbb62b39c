// The camera's result codes in words.
#pragma once

#include <cstdint>
#include <string>

#include "Common/Failure.h"

namespace desk {

// The code's name, such as "SM_RETURN_OPENED_ERR", or "result 77" for one without a name.
std::string name_of_result(int32_t result);

// What it means to a photographer, one sentence without a full stop: "a preset that a custom mode uses was kept".
std::string meaning_of_result(int32_t result);

// 0 for SM_RETURN_TRUE, 10 plus the number without its sign for 0 to -12, else exit_other_result.
int exit_code_of_result(int32_t result);

} // namespace desk
