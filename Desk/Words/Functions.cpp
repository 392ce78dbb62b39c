#include "Functions.h"

#include <algorithm>
#include <fmt/format.h>
#include <iterator>

#include "ADE_ShotMentor_Records.h"

namespace desk {
namespace {

struct Function {
    int32_t number;
    const char* name;
};

constexpr Function functions[] = {
    {SM_FUNCTION_STATE_OFF, "leave"},        {SM_FUNCTION_SEND_LIST, "list"},
    {SM_FUNCTION_SEND_PRESET, "picture"},    {SM_FUNCTION_RECEIVE_PRESET, "store"},
    {SM_FUNCTION_UPDATE_PRESET, "rename"},   {SM_FUNCTION_DELETE_PRESET, "delete"},
    {SM_FUNCTION_STATE_ON, "link state on"},
};

} // namespace

std::string name_of_function(int32_t function) {
    const bool is_reply = function >= SM_REPLY && function <= SM_REPLY + SM_FUNCTION_LAST;
    const int32_t number = is_reply ? function - SM_REPLY : function;
    const Function* const found = std::ranges::find(functions, number, &Function::number);
    if (found != std::end(functions)) {
        return found->name;
    }
    return is_reply ? fmt::format("function {:#x}", function) : fmt::format("function {}", function);
}

} // namespace desk
