// What the camera's command line says.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "Capture/Pace.h"
#include "Knobs.h"
#include "Links/Endpoint.h"
#include "Log.h"
#include "Script.h"
#include "Visibility.h"

namespace desk::camera {

enum class Command { serve, presets, link, unlink, add, remove, control };

struct Options {
    Command command = Command::serve;
    std::filesystem::path store; // absolute

    std::vector<Endpoint> listen; // a socket's path is absolute; at least one
    bool empty = false;
    LogOptions log;
    bool quiet = false;          // tells of no requests
    bool loops = false;          // begins the capture again that is played
    std::optional<uint16_t> psm; // where the camera of that capture listens
    size_t mtu = 65535;
    std::optional<std::chrono::seconds> idle_timeout;
    Visibility visibility;
    std::filesystem::path capture; // absolute; empty for none
    Knobs knobs;                   // at the start
    std::string replay;            // the capture that is played in the place of a store; empty: none
    capture::Pace pace;
    std::optional<Endpoint> control;
    std::vector<ScriptStep> script;

    bool json = false;             // presets; the talk
    int custom_mode = 0;           // link, unlink: 0 CUSTOM1, 1 CUSTOM2
    int number = 0;                // link, remove
    std::filesystem::path record;  // add
    std::filesystem::path picture; // add
    Endpoint controlled;           // control: a running camera's
    std::string lab_command;       // control
};

// Nothing when the command line asked for help, the version or the reference, which has then been printed. Throws
// Failure (exit_usage).
std::optional<Options> parse_options(int argc, char** argv);

} // namespace desk::camera
