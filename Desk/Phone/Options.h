// What the command line asks for.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Capture/Pace.h"
#include "Capture/Writer.h"
#include "Links/Endpoint.h"

namespace desk::phone {

struct Options {
    enum class Command {
        list,
        show,
        picture,
        store,
        rename,
        remove,
        back_up,
        restore,
        copy,
        leave,
        check,
        create,
        schema,
        decode,
        replay,
        scan
    };

    Endpoint camera;
    std::chrono::milliseconds timeout{5000};
    size_t mtu = 4096;
    // what crosses all links is written there, unless it is null
    std::shared_ptr<capture::Writer> capture;
    bool json = false;
    bool raw = false;
    bool quiet = false;          // no talk but errors
    bool verbose = false;        // tells of each request and reply
    std::optional<size_t> width; // 0: no limit

    Command command = Command::list;
    bool with_pictures = false;   // list, show
    bool only_characters = false; // list, show: no graphics
    // list: the time between two looks
    std::optional<std::chrono::milliseconds> watch;

    std::vector<std::string> presets;        // show, remove, copy: at least one; picture, rename: exactly one
    std::string output_file;                 // picture
    std::string preset_file;                 // store
    std::string picture_file;                // store
    bool fits_picture = false;               // store
    bool takes_nearest = false;              // store
    bool unchecked = false;                  // store: the one request alone
    std::string title;                       // rename
    std::optional<int32_t> server_id;        // rename
    std::string folder;                      // back_up, restore
    std::vector<std::string> files;          // restore; all when there are none
    Endpoint other_camera;                   // copy
    bool dry_run = false;                    // store, remove, restore, copy, replay
    bool overwrites = false;                 // back_up
    bool takes_edited = false;               // restore
    bool takes_incomplete = false;           // restore
    bool quick = false;                      // check
    bool list_checks = false;                // check
    int32_t code = 1;                        // leave
    std::string junit_file;                  // check
    std::string camera_log;                  // check
    std::string captured_file;               // decode, replay
    std::string other_capture;               // decode: the one to compare with
    capture::Pace pace;                      // replay
    std::optional<uint16_t> psm;             // decode, replay: where the captured camera listens
    std::chrono::milliseconds search{10000}; // scan: how long
    std::string adapter;                     // scan: with which; any that is on when it is empty
    bool follows = false;                    // decode
    bool with_hex = false;                   // decode
    bool all_differences = false;            // decode, replay
};

// The options that the command line gives, or nothing when it asked for help, the version or the reference, which is
// then on standard output. Throws Failure (exit_usage).
std::optional<Options> options_of(int argc, char** argv);

} // namespace desk::phone
