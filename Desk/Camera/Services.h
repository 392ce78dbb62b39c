// The services that the library imports, over a preset store and a send queue.
#pragma once

#include "Options.h"
#include "PresetStore.h"
#include "SendQueue.h"

namespace desk::camera {

// While one exists, the library's services answer from it. Nothing that goes wrong in one escapes into the library: it
// becomes the service's own way to say no, and a line on standard error.
class Services {
  public:
    // `send_queue` may be null where nothing is sent.
    Services(PresetStore& preset_store, SendQueue* send_queue, const Options& options);
    ~Services();
    Services(const Services&) = delete;
    Services& operator=(const Services&) = delete;

    PresetStore& store;
    SendQueue* const sends;
    const bool full_iso_steps;
    const LabOptions lab;
    bool in_use = false; // whether the phone uses the feature
};

} // namespace desk::camera
