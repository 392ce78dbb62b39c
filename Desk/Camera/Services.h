// The services that the library imports, over a preset store and a send queue.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>

#include "Knobs.h"
#include "PresetStore.h"
#include "SendQueue.h"

namespace desk::camera {

// What the services were called for since this was cleared, and what they answered.
struct ServiceCalls {
    bool link_is_down = false; // and the library was told so
    bool looked_up = false;    // a preset, and then either found it or not
    std::optional<tag_custom_info> found;
    std::optional<int> deletion;                     // the store's own result, which the library does not look at
    std::array<int, SM_CUSTOM_MODES> linked{-1, -1}; // before that deletion
    std::optional<std::span<const uint8_t>> reply;   // the library's, until it is confirmed
};

// While one exists, the library's services answer from it. Nothing that goes wrong in one escapes into the library: it
// becomes the service's own way to say no, and a line on standard error.
class Services {
  public:
    // `send_queue` may be null where nothing is sent.
    Services(PresetStore& preset_store, SendQueue* send_queue, const Knobs& lab_knobs);
    ~Services();
    Services(const Services&) = delete;
    Services& operator=(const Services&) = delete;

    PresetStore& store;
    SendQueue* const sends;
    const Knobs& knobs;
    bool in_use = false; // whether the phone uses the feature
    ServiceCalls calls;
};

} // namespace desk::camera
