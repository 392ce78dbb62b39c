// What the camera's command line says.
#pragma once

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>

#include "Links/Endpoint.h"
#include "Log.h"

namespace desk::camera {

enum class Command { serve, presets, link, unlink, add, remove };

// Faults to try, off unless asked for.
struct LabOptions {
    std::chrono::milliseconds confirm_delay{0};
    int drop_every = 0; // never confirm every n-th send; 0: confirm all
    bool link_down = false;
    std::optional<int> save_result;
    std::optional<int> update_result;
    int refuse_allocation = 0; // 0: refuse none
    bool refuse_for_good = false;
};

struct Options {
    Command command = Command::serve;
    std::filesystem::path store; // absolute

    Endpoint listen; // a socket's path is absolute
    bool empty = false;
    bool full_iso_steps = true;
    LogOptions log;
    bool quiet = false; // tells of no requests
    size_t mtu = 65535;
    LabOptions lab;

    bool json = false;             // presets
    int custom_mode = 0;           // link, unlink: 0 CUSTOM1, 1 CUSTOM2
    int number = 0;                // link, remove
    std::filesystem::path record;  // add
    std::filesystem::path picture; // add
};

// Nothing when the command line asked for help, the version or the reference, which has then been printed. Throws
// Failure (exit_usage).
std::optional<Options> parse_options(int argc, char** argv);

} // namespace desk::camera
