#include "BluetoothTalk.h"

#include "Talk.h"

namespace desk::camera {

void tell_of_bluetooth(const char* event, const std::string& message, const nlohmann::ordered_json& more) {
    nlohmann::ordered_json fields = {{"event", event}};
    fields.update(more);
    say({"bluetooth", fields, message});
}

} // namespace desk::camera
