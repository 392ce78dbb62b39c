#include "Options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <fmt/format.h>
#include <iostream>
#include <set>
#include <unistd.h>

#include "ADE_ShotMentor_Version.h"
#include "Capture/OutputFile.h"
#include "CommandLine/Help.h"
#include "CommandLine/Reference.h"
#include "Common/Terminal.h"
#include "Common/Text.h"
#include "Lab.h"
#include "Manual.h"

namespace desk::camera {
namespace {

using CLI::App;

constexpr const char* link_group = "Phone link";
constexpr const char* bluetooth_group = "Bluetooth";
constexpr const char* log_group = "Talk and log";
constexpr const char* replay_group = "A capture in the place of a store";
constexpr double slowest = 0.001;
constexpr double fastest = 1000000;
constexpr double longest_pause = 86400;        // seconds
constexpr int most_idle_time = 86400;          // seconds
constexpr int most_visible_time = 86400;       // seconds
constexpr size_t most_allowed = 64;            // phones
constexpr size_t longest_name = 248;           // bytes, of an adapter
constexpr size_t longest_advertised_name = 29; // bytes, of Low Energy
constexpr size_t most_listeners = 8;           // within the descriptors that the camera sets aside for itself
constexpr const char* lab_group = "Lab: faults to try, off unless given";

// The library's own checks, without their additions to the help: the type name says it already.
CLI::Validator between(int first, int last) {
    return CLI::Range(first, last).description("");
}

CLI::Validator one_of(std::vector<std::string> words) {
    return CLI::IsMember(std::move(words)).description("");
}

struct Texts {
    std::vector<std::string> listen;
    std::optional<int> idle_timeout; // seconds
    std::optional<std::string> capture;
    std::optional<int> discoverable; // seconds
    std::string pairing = "none";
    std::vector<std::string> allow;
    std::string iso_step = "full";
    std::optional<std::string> log_level;
    std::string custom_mode;
    std::string refuse;
    std::optional<std::string> control;
    std::string script;
    std::string controlled;
    std::vector<std::string> lab_command;
    double longest_pause = 5; // seconds
};

void add_store_options(App& app, Options& options, Texts& texts) {
    app.add_option("--store", options.store, "The folder that holds the presets")->required()->type_name("DIR");
    app.add_flag("--empty", options.empty, "A store that is created holds no samples");
    app.add_option("--iso-step", texts.iso_step, "ISO steps that the model sets, full unless given")
        ->check(one_of({"full", "third"}))
        ->type_name("full|third");
}

void add_link_options(App& app, Options& options, Texts& texts) {
    app.add_option("--listen", texts.listen, "Where phones connect, unix:DIR/camera.sock unless given; may be repeated")
        ->group(link_group)
        ->type_name("URL")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    app.add_option("--idle-timeout", texts.idle_timeout, "Let a phone go with which nothing has moved for this time")
        ->check(between(1, most_idle_time))
        ->group(link_group)
        ->type_name("SECONDS");
    app.add_option("--mtu", options.mtu, "Largest packet that is sent, 65535 unless given")
        ->check(between(1, 65535))
        ->group(link_group)
        ->type_name("BYTES");
    app.add_option("--capture", texts.capture, "Write what crosses the links to this file, as Bluetooth tools read it")
        ->group(link_group)
        ->type_name("FILE");
}

// What does nothing without a link of Bluetooth.
constexpr std::array<const char*, 4> bluetooth_options = {"--name", "--discoverable", "--pairing", "--allow"};

void add_bluetooth_options(App& app, Options& options, Texts& texts) {
    const auto add = [&](const char* name, auto& value, const char* help, const char* type) {
        return app.add_option(name, value, help)->group(bluetooth_group)->type_name(type);
    };
    add("--name", options.visibility.name, "What phones show: the adapter has this name until the end", "NAME");
    add("--discoverable", texts.discoverable,
        "Let phones that look for cameras find this one, for so long; 0: as long as it runs", "SECONDS")
        ->check(between(0, most_visible_time));
    add("--pairing", texts.pairing,
        "Whether phones must have paired, none unless given. While the camera is discoverable they may: any, or those "
        "of which you confirm the digits",
        "none|any|confirm")
        ->check(one_of({"none", "any", "confirm"}));
    add("--allow", texts.allow, "Serve this phone, and no others; may be repeated", "ADDRESS")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
}

void add_log_options(App& app, Options& options, Texts& texts) {
    app.add_flag("--quiet", options.quiet, "Do not tell of each request on standard error")->group(log_group);
    app.add_option(
           "--log", options.log.destination,
           "Where the library's lines go, stderr unless given. The library itself copies errors to standard error")
        ->group(log_group)
        ->type_name("stderr|syslog|file:PATH");
    app.add_option("--log-level", texts.log_level,
                   "Which of them, warn unless given; or by tag and colour, such as warn,ALG_SMM=all,ALG_SM=cyan+error")
        ->group(log_group)
        ->type_name("off|error|warn|all");
    app.add_flag("--json", options.json, "Write what is told on standard error as JSON, an object a line")
        ->group(log_group);
}

std::string fault_of_refusal(const std::string& text) {
    const std::string number = !text.empty() && text.back() == '+' ? text.substr(0, text.size() - 1) : text;
    int n = 0;
    const bool right = CLI::detail::lexical_cast(number, n) && n > 0;
    return right ? "" : "Value " + text + " is not N or N+ with N from 1";
}

void add_lab_options(App& app, Knobs& knobs, Texts& texts) {
    const auto add = [&](const char* name, auto& value, const char* help, const char* type) {
        return app.add_option(name, value, help)->group(lab_group)->type_name(type);
    };
    add("--confirm-delay", knobs.confirm_delay, "Confirm each send only after this time", "MS")
        ->check(between(0, INT_MAX));
    add("--drop-confirmations", knobs.drop_every, "Never confirm every N-th send", "N")->check(between(1, INT_MAX));
    app.add_flag("--link-down", knobs.link_down, "Report the phone link as down")->group(lab_group);
    add("--save-result", knobs.save_result, "Answer N to a store request, and store nothing", "N");
    add("--update-result", knobs.update_result, "Answer N to an update request, and change nothing", "N");
    add("--refuse-allocation", texts.refuse,
        "Refuse the library's N-th allocation, with + all from then on; this runs shotmentor-camera-lab", "N[+]")
        ->check(fault_of_refusal);
    add("--control", texts.control, "Take commands while serving at this Unix socket, which is its owner's alone",
        "unix:PATH");
    add("--script", texts.script, "Run the commands of this file at their times", "FILE");
}

void add_replay_options(App& app, Options& options, Texts& texts) {
    const auto add = [&](const char* name, auto& value, const char* help, const char* type) {
        return app.add_option(name, value, help)->group(replay_group)->type_name(type);
    };
    CLI::Option* replay =
        add("--replay", options.replay, "Play the camera's side of this capture, a btsnoop file", "FILE");
    add("--speed", options.pace.speed, "How many times as fast as then", "FACTOR")
        ->check(CLI::Range(slowest, fastest).description(""))
        ->needs(replay);
    add("--longest-pause", texts.longest_pause, "What longer pauses become, 5 unless given", "SECONDS")
        ->check(CLI::Range(0.0, longest_pause).description(""))
        ->needs(replay);
    add("--psm", options.psm, "Where the camera of the capture listens, where that is not seen", "PSM")->needs(replay);
    app.add_flag("--loop", options.loops, "Begin again at the capture's end")->group(replay_group)->needs(replay);
}

void add_custom_mode(App& command, Texts& texts) {
    command.add_option("mode", texts.custom_mode, "The custom mode")
        ->required()
        ->check(one_of({"CUSTOM1", "CUSTOM2"}))
        ->type_name("CUSTOM1|CUSTOM2");
}

void add_number(App& command, Options& options) {
    command.add_option("number", options.number, "The preset's number, as presets prints it")
        ->required()
        ->type_name("NUMBER");
}

App& add_command(App& app, Options& options, Command command, const char* name, const char* help) {
    App* const added = app.add_subcommand(name, help);
    added->callback([&options, command] { options.command = command; });
    added->group("Commands, all but control on a store at rest; without one the camera serves");
    return *added;
}

// It needs no store of its own.
void add_control(App& app, Options& options, Texts& texts, CLI::Option& store) {
    App& control = add_command(app, options, Command::control, "control", "Turn a knob of a camera that serves");
    control.preparse_callback([&store](size_t) { store.required(false); });
    control.add_option("url", texts.controlled, "What that camera has as --control")->required()->type_name("URL");
    control.add_option("command", texts.lab_command, "One of the commands while it runs, which are listed below")
        ->required()
        ->type_name("COMMAND");
}

void add_commands(App& app, Options& options, Texts& texts) {
    App& presets = add_command(app, options, Command::presets, "presets", "Print the stored presets");
    presets.add_flag("--json", options.json, "Print the camera's records as JSON");
    App& link = add_command(app, options, Command::link, "link", "Let a custom mode use a preset");
    add_custom_mode(link, texts);
    add_number(link, options);
    App& unlink = add_command(app, options, Command::unlink, "unlink", "Let a custom mode use no preset");
    add_custom_mode(unlink, texts);
    App& add = add_command(app, options, Command::add, "add", "Store a preset");
    add.add_option("record", options.record, "A camera record: 740 bytes, or JSON")->required()->type_name("RECORD");
    add.add_option("picture", options.picture, "Its JPEG picture")->required()->type_name("PICTURE");
    App& remove = add_command(app, options, Command::remove, "remove", "Delete a preset");
    add_number(remove, options);
}

Endpoint default_endpoint(const Options& options) {
    try {
        return parse_endpoint("unix:" + (options.store / "camera.sock").string());
    } catch (const Failure& failure) { // the folder's path is too long for a socket's
        throw Failure(exit_link, std::string(failure.what()) + " with --listen");
    }
}

Endpoint listening_endpoint(const std::string& url) {
    Endpoint endpoint = parse_endpoint(url);
    if (endpoint.kind == Endpoint::Kind::unix_socket) {
        endpoint.path = std::filesystem::absolute(endpoint.path).string();
    }
    return endpoint;
}

std::vector<Endpoint> listening_endpoints(const Texts& texts, const Options& options) {
    if (texts.listen.size() > most_listeners) {
        throw Failure(exit_usage, fmt::format("--listen is given {} times, and may be given {} times at most",
                                              texts.listen.size(), most_listeners));
    }
    std::vector<Endpoint> endpoints;
    std::set<std::string> urls;
    for (const std::string& url : texts.listen) {
        endpoints.push_back(listening_endpoint(url));
        if (const Endpoint& last = endpoints.back();
            !urls.insert(last.url()).second && (last.port != 0 || last.kind == Endpoint::Kind::unix_socket)) {
            throw Failure(exit_usage, fmt::format("--listen is given twice for {}; leave one out", url));
        }
    }
    if (endpoints.empty()) {
        endpoints.push_back(default_endpoint(options));
    }
    return endpoints;
}

void require_bluetooth(const App& app, const Options& options) {
    if (std::ranges::any_of(options.listen, &Endpoint::is_bluetooth)) {
        return;
    }
    for (const char* const name : bluetooth_options) {
        if (app.get_option(name)->count() > 0) {
            throw Failure(exit_usage, fmt::format("{} is for links of Bluetooth, and the camera listens on none: add "
                                                  "--listen rfcomm:auto, or leave {} out",
                                                  name, name));
        }
    }
}

// Phones show it whole, or not at all.
void check_name(const std::string& name, const Options& options) {
    const bool is_advertised =
        options.visibility.discoverable &&
        std::ranges::any_of(options.listen, [](const Endpoint& each) { return each.kind == Endpoint::Kind::le; });
    const size_t most = is_advertised ? longest_advertised_name : longest_name;
    if (name.empty() || printable(name) != name) {
        throw Failure(exit_usage, "--name is empty, or no line of UTF-8: give one with letters that can be shown");
    }
    if (name.size() > most) {
        throw Failure(exit_usage,
                      fmt::format("--name has {} bytes, and {} has room for {}: give a shorter one", name.size(),
                                  is_advertised ? "an advertisement of Low Energy" : "Bluetooth", most));
    }
}

std::vector<BluetoothAddress> allowed_phones(const std::vector<std::string>& texts) {
    if (texts.size() > most_allowed) {
        throw Failure(exit_usage, fmt::format("--allow is given {} times, and may be given {} times at most",
                                              texts.size(), most_allowed));
    }
    std::vector<BluetoothAddress> allowed;
    for (const std::string& text : texts) {
        const std::optional<BluetoothAddress> address = bluetooth_address_in(text);
        if (!address) {
            throw Failure(exit_usage, fmt::format("--allow {}: that is no phone's address; write it like "
                                                  "00:11:22:33:44:55",
                                                  printable(text)));
        }
        allowed.push_back(*address);
    }
    return allowed;
}

void take_bluetooth_texts(const App& app, const Texts& texts, Options& options) {
    require_bluetooth(app, options);
    Visibility& visibility = options.visibility;
    if (texts.discoverable) {
        visibility.discoverable = std::chrono::seconds(*texts.discoverable);
    }
    if (visibility.name) {
        check_name(*visibility.name, options);
    }
    visibility.pairing = texts.pairing == "any"       ? Pairing::any
                         : texts.pairing == "confirm" ? Pairing::confirm
                                                      : Pairing::none;
    if (visibility.pairing == Pairing::confirm && visibility.discoverable && !texts.control) {
        throw Failure(exit_usage, "--pairing confirm asks at the control socket: add --control unix:PATH");
    }
    visibility.allowed = allowed_phones(texts.allow);
}

std::filesystem::path capture_file(const Texts& texts) {
    if (!texts.capture) {
        return {};
    }
    capture::require_file_name(*texts.capture);
    return std::filesystem::absolute(*texts.capture);
}

Endpoint control_endpoint(const std::string& url) {
    Endpoint endpoint = parse_endpoint(url);
    if (endpoint.kind != Endpoint::Kind::unix_socket) {
        throw Failure(exit_usage, url + ": a control socket is a Unix socket; write unix:PATH");
    }
    endpoint.path = std::filesystem::absolute(endpoint.path).string();
    return endpoint;
}

void take_lab_texts(const Texts& texts, Options& options) {
    options.knobs.full_iso_steps = texts.iso_step == "full";
    if (!texts.refuse.empty()) {
        options.knobs.refuse_for_good = texts.refuse.back() == '+';
        options.knobs.refuse_allocation = std::stoi(texts.refuse);
    }
    if (texts.control) {
        options.control = control_endpoint(*texts.control);
    }
    if (!texts.script.empty()) {
        options.script = read_script(texts.script);
    }
}

void take_control_texts(const Texts& texts, Options& options) {
    options.controlled = control_endpoint(texts.controlled);
    for (const std::string& word : texts.lab_command) {
        options.lab_command += (options.lab_command.empty() ? "" : " ") + word;
    }
    check_lab_command(options.lab_command);
}

void take_replay_texts(const Texts& texts, Options& options) {
    if (texts.listen.size() != 1) {
        throw Failure(exit_usage, "--replay has no store to listen in: say where with one --listen URL (see --help)");
    }
    options.listen = listening_endpoints(texts, options);
    options.pace.longest_pause = std::chrono::milliseconds(std::llround(texts.longest_pause * 1000));
}

// What a camera does that plays a capture, the capture says.
void check_options_of_replay(const App& app) {
    for (const char* const name : {"--store",         "--empty",
                                   "--iso-step",      "--mtu",
                                   "--idle-timeout",  "--capture",
                                   "--log",           "--log-level",
                                   "--confirm-delay", "--drop-confirmations",
                                   "--link-down",     "--save-result",
                                   "--update-result", "--refuse-allocation",
                                   "--control",       "--script",
                                   "--name",          "--discoverable",
                                   "--pairing",       "--allow"}) {
        if (app.get_option(name)->count() > 0) {
            throw Failure(exit_usage,
                          fmt::format("{} does nothing with --replay, which plays what the capture has: leave "
                                      "one of them out",
                                      name));
        }
    }
    if (!app.get_subcommands().empty()) {
        throw Failure(exit_usage,
                      app.get_subcommands().front()->get_name() + " is no command for --replay, which serves");
    }
}

bool is_replay_asked_for(const std::vector<std::string>& words) {
    return std::ranges::any_of(
        words, [](const std::string& word) { return word == "--replay" || word.starts_with("--replay="); });
}

// What the command line says in words. Paths become absolute: the camera changes its working directory.
void take_texts(const App& app, const Texts& texts, Options& options) {
    if (options.command == Command::control) {
        take_control_texts(texts, options);
        return;
    }
    if (!options.replay.empty()) {
        take_replay_texts(texts, options);
        return;
    }
    if (options.store.empty()) {
        throw Failure(exit_usage, "--store names no folder (see --help)");
    }
    options.store = std::filesystem::absolute(options.store);
    if (options.command == Command::serve) {
        options.listen = listening_endpoints(texts, options);
        take_bluetooth_texts(app, texts, options);
        options.capture = capture_file(texts);
        if (texts.idle_timeout) {
            options.idle_timeout = std::chrono::seconds(*texts.idle_timeout);
        }
    }
    options.log.choice = LogChoice::parse(texts.log_level.value_or("warn"));
    options.log.is_choice_given = texts.log_level.has_value();
    options.custom_mode = texts.custom_mode == "CUSTOM2" ? 1 : 0;
    take_lab_texts(texts, options);
}

// Help for something that there is not would be help for something else.
std::string help_of(const App& app) {
    const std::vector<std::string> unknown = app.remaining(true);
    if (!unknown.empty()) {
        throw Failure(exit_usage, "there is no " + unknown.front() + " (see --help)");
    }
    const command_line::Table table = command_line::table_of(app);
    const size_t width = width_of_lines(STDOUT_FILENO);
    for (const command_line::Command& command : table.commands) {
        if (app.got_subcommand(command.name)) {
            return command_line::help_of(command, table, manual(), width);
        }
    }
    return command_line::help_of(table, manual(), width);
}

} // namespace

std::optional<Options> parse_options(int argc, char** argv) {
    const std::vector<std::string> words = command_line::words_of(argc, argv);
    Options options;
    Texts texts;
    App app("A camera without a camera: serves a preset store to a phone, with the camera's own library.",
            "shotmentor-camera");
    app.set_version_flag("--version", SHOTMENTOR_VERSION);
    app.fallthrough();
    app.require_subcommand(0, 1);
    add_store_options(app, options, texts);
    add_link_options(app, options, texts);
    add_bluetooth_options(app, options, texts);
    add_log_options(app, options, texts);
    add_replay_options(app, options, texts);
    add_lab_options(app, options.knobs, texts);
    add_commands(app, options, texts);
    add_control(app, options, texts, *app.get_option("--store"));
    app.get_option("--store")->required(!is_replay_asked_for(words));
    command_line::add_reference(app, manual());
    try {
        app.parse(std::vector<std::string>(words.rbegin(), words.rend())); // CLI11 takes them from the end
    } catch (const CLI::CallForHelp&) {
        std::cout << help_of(app);
        return std::nullopt;
    } catch (const command_line::CallForReference& reference) {
        std::cout << reference.what();
        return std::nullopt;
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) {
            app.exit(error);
            return std::nullopt;
        }
        throw Failure(exit_usage, one_line(error.what()) + " (see --help)");
    }
    if (app.get_option("--replay")->count() > 0) {
        check_options_of_replay(app);
    }
    take_texts(app, texts, options);
    return options;
}

} // namespace desk::camera
