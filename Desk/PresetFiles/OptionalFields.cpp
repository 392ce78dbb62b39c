#include "OptionalFields.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace desk {

bool may_be_left_out(const Field& field) {
    constexpr std::array<std::string_view, 7> optional_fields = {
        "linked_custom_mode", "screennail_path", "reserved_636", "preset_num", "custom_id", "applocal_id", "server_id"};
    return std::ranges::find(optional_fields, field.name) != optional_fields.end();
}

} // namespace desk
