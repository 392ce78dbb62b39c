// The checks of a camera, in the order in which they are made.
#pragma once

#include <span>
#include <string>

namespace desk::phone {

class CheckSession;

// The headings of Docs/integrating.md that explain what a host has to do.
namespace guide {
constexpr auto host = "What a host does";
constexpr auto system_log = "The system log";
constexpr auto store = "The preset store";
constexpr auto bluetooth = "The Bluetooth service";
constexpr auto model = "The model's values";
constexpr auto files = "The file system";
constexpr auto links = "Packets and links";
constexpr auto confirmations = "Confirmations";
constexpr auto drops = "When the link drops";
constexpr auto logs = "Logs";
constexpr auto memory = "Memory and stack";
} // namespace guide

// What a check cannot do without; it is skipped where that is missing.
enum CheckNeeds : unsigned {
    needs_nothing = 0,
    needs_list = 1U << 0,       // the camera's list
    needs_room = 1U << 1,       // room for presets of our own
    needs_stored = 1U << 2,     // a camera that stores and lists them
    needs_deletion = 1U << 3,   // one that deletes what is named, and nothing else
    needs_boundaries = 1U << 4, // a link that keeps message boundaries
    needs_stream = 1U << 5,     // one that keeps none
    needs_time = 1U << 6,       // left out with --quick
    needs_log = 1U << 7,        // --camera-log
    needs_own = needs_list | needs_room | needs_stored,
    needs_changes = needs_own | needs_deletion
};

// Presets of our own that a check may have in the camera at once.
constexpr size_t room_of_checks = 3;

struct Check {
    const char* id;
    const char* sentence; // what holds
    const char* heading;  // of Docs/integrating.md
    unsigned needs;
    void (*run)(CheckSession& session); // throws Finding, or Skip. Returns when it holds
};

std::span<const Check> all_checks();

// "Docs/integrating.md#the-preset-store"
std::string reference_to(const std::string& heading);

} // namespace desk::phone
