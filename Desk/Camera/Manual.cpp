#include "Manual.h"

#include "CommandLine/ExitCodes.h"
#include "Lab.h"

namespace desk::camera {

namespace {

// What a camera is started with to serve does nothing for a command.
std::vector<command_line::Scope> scopes_of_serving() {
    using command_line::Scope;
    std::vector<Scope> scopes = {{"--iso-step", Scope::Kind::only, {"presets"}},
                                 {"--json", Scope::Kind::only, {"presets"}},
                                 {"--store", Scope::Kind::except, {"control"}}};
    for (const char* option : {"--empty",         "--listen",
                               "--idle-timeout",  "--mtu",
                               "--name",          "--discoverable",
                               "--pairing",       "--allow",
                               "--capture",       "--quiet",
                               "--log",           "--log-level",
                               "--confirm-delay", "--drop-confirmations",
                               "--link-down",     "--save-result",
                               "--update-result", "--refuse-allocation",
                               "--control",       "--script",
                               "--replay",        "--speed",
                               "--longest-pause", "--psm",
                               "--loop"}) {
        scopes.push_back({option, Scope::Kind::only, {}});
    }
    return scopes;
}

} // namespace

command_line::Manual manual() {
    return {
        .description =
            {"A host for libshotmentor.so that drives it as a camera's firmware does, over a preset store in a folder "
             "and a real link. shotmentor-phone is the phone that belongs to it.",
             "Without a command it serves. It creates the store on first start, with twelve sample presets and their "
             "pictures, and prints \"listening on URL\" to standard output once a phone can connect. It serves one "
             "phone at a time. SIGINT and SIGTERM end it in order. Where it listens on Bluetooth, the system's "
             "Bluetooth daemon tells phones the channel or PSM; with --discoverable those that look for cameras find "
             "it. With --pairing it serves only phones that have paired.",
             "Standard error tells what happens, a line for each request; with --json each line is a JSON object. "
             "Faults to try are set by options, by control while it serves, and by a script: lines such as \"at 2.5s "
             "pull reply 1000\" or \"after request 3 link-down on\", with comments behind #.",
             "A store is the folder DIR: a database, presets.sqlite, and a folder pictures. An answer of success means "
             "that the change outlives a loss of power."},
        .words_title = "Links",
        .words = {{"unix:PATH", "a Unix socket that keeps message boundaries"},
                  {"tcp:HOST:PORT", "a byte stream; port 0 takes any free one"},
                  {"rfcomm:CHANNEL", "Bluetooth: a byte stream; the channel auto takes any free one"},
                  {"le:PSM", "Bluetooth Low Energy: a channel against credits; auto takes any free PSM"},
                  {"l2cap:PSM", "Bluetooth: L2CAP with enhanced retransmission, which phones have to ask for"}},
        .more_words_title = "Commands while it runs",
        .more_words = lab_commands(),
        .more_words_of = "control",
        .examples = {{"", "Serve the store /tmp/camera, and create it with samples where there is none:",
                      "shotmentor-camera --store /tmp/camera"},
                     {"", "Serve it over TCP, with all lines of the library on standard error:",
                      "shotmentor-camera --store /tmp/camera --listen tcp:127.0.0.1:0 --log-level all"},
                     {"",
                      "Serve it over Bluetooth to phones of any make, which find it as \"Kitchen\" for two minutes:",
                      "shotmentor-camera --store /tmp/camera --listen rfcomm:auto --listen le:auto --name Kitchen "
                      "--discoverable 120"},
                     {"", "Write what phones and it say to each other to a file for Wireshark:",
                      "shotmentor-camera --store /tmp/camera --capture camera.btsnoop"},
                     {"", "Take commands at a socket:",
                      "shotmentor-camera --store /tmp/camera --control unix:/tmp/camera/control.sock"},
                     {"control", "From another terminal, lose the link in the middle of the next reply:",
                      "shotmentor-camera control unix:/tmp/camera/control.sock pull reply 1000"},
                     {"", "Play what a camera said in a capture to a phone's application:",
                      "shotmentor-camera --replay capture.btsnoop --listen tcp:127.0.0.1:7700"},
                     {"presets", "Print what it holds:", "shotmentor-camera --store /tmp/camera presets"},
                     {"link", "Let CUSTOM1 use preset 3:", "shotmentor-camera --store /tmp/camera link CUSTOM1 3"},
                     {"unlink", "Let CUSTOM1 use no preset:", "shotmentor-camera --store /tmp/camera unlink CUSTOM1"},
                     {"add", "Store a preset from a camera's record and a picture:",
                      "shotmentor-camera --store /tmp/camera add dawn.json dawn.jpg"},
                     {"remove", "Delete preset 3:", "shotmentor-camera --store /tmp/camera remove 3"}},
        .exit_codes = command_line::exit_codes_of_camera(),
        .environment = {{"NO_COLOR", "when it is not empty, the library's lines have no colours on a terminal"},
                        {"DBUS_SYSTEM_BUS_ADDRESS", "where the system's D-Bus is, if not where it usually is"}},
        .scopes = scopes_of_serving(),
        .see_also = "shotmentor-phone",
    };
}

} // namespace desk::camera
