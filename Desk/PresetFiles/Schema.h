// What may stand in a preset file, as a JSON Schema: editors complete and check by it.
#pragma once

#include <nlohmann/json_fwd.hpp>

namespace desk {

// Of both forms, in draft 7. What `--nearest` would take is not in it.
nlohmann::ordered_json preset_schema();

} // namespace desk
