// Which phones find the camera by Bluetooth, and which may pair.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "Links/Endpoint.h"

namespace desk::camera {

// How phones pair: not at all, all that want to while the camera is discoverable, or those of which the user says yes.
enum class Pairing { none, any, confirm };

struct Visibility {
    std::optional<std::string> name;                  // what phones show; none: what the adapter is called anyway
    std::optional<std::chrono::seconds> discoverable; // 0: as long as the camera runs; none: not at all
    Pairing pairing = Pairing::none;
    std::vector<BluetoothAddress> allowed; // phones that are served; empty: all
};

} // namespace desk::camera
