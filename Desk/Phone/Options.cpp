#include "Options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fmt/format.h>
#include <set>
#include <unistd.h>

#include "ADE_ShotMentor_Records.h"
#include "ADE_ShotMentor_Version.h"
#include "CommandLine/Help.h"
#include "CommandLine/Nearest.h"
#include "CommandLine/Reference.h"
#include "Common/Terminal.h"
#include "Common/Text.h"
#include "Manual.h"
#include "Output.h"
#include "PresetNames.h"

namespace desk::phone {
namespace {

constexpr double shortest_timeout = 0.001;
constexpr double longest_timeout = 86400; // a day; more is a slip of the hand
constexpr double slowest = 0.001;         // of a replay
constexpr double fastest = 1000000;
constexpr double usual_interval = 2;
constexpr double shortest_interval = 0.1;
constexpr double longest_interval = 86400;
constexpr size_t largest_mtu = SM_REQUEST_LIMIT;
constexpr size_t largest_width = 100000;
constexpr double usual_search = 10; // as long as Bluetooth takes to hear of everything once
constexpr double shortest_search = 0.1;
constexpr double longest_search = 3600;
constexpr const char* connect_variable = "SHOTMENTOR_CONNECT";

// What CLI11 fills before it is turned into options.
struct Arguments {
    Options options;
    std::string url;
    std::string other_url;
    std::optional<std::string> capture;
    double timeout_seconds = 5;
    double longest_pause = 5;
    double search = usual_search;
    bool no_pauses = false;
    std::set<std::string> words; // of the command line, as they were given
};

// A check that does not show in the help: its bounds are no news to anybody there.
template<typename Number>
CLI::Validator between(Number least, Number most) {
    return CLI::Range(least, most).description("");
}

void add_common_options(CLI::App& app, Arguments& arguments) {
    Options& options = arguments.options;
    app.add_option("--connect", arguments.url, "the camera's link")
        ->required()
        ->envname(connect_variable)
        ->type_name("URL");
    app.add_option("--timeout", arguments.timeout_seconds, "how long to wait for an answer, 5 unless given")
        ->check(between(shortest_timeout, longest_timeout))
        ->type_name("SECONDS");
    app.add_flag("--json", options.json, "data as JSON");
    app.add_flag("--raw", options.raw, "the codes as they travel");
    CLI::Option* quiet = app.add_flag("--quiet", options.quiet, "say nothing but errors, and draw no progress");
    app.add_flag("--verbose", options.verbose, "tell of each request and reply, with time and bytes")->excludes(quiet);
    app.add_option("--mtu", options.mtu, "largest packet that is sent, 4096 unless given")
        ->check(between(size_t{1}, largest_mtu))
        ->type_name("BYTES");
    app.add_option("--capture", arguments.capture,
                   "write what crosses the link to this file, as Bluetooth tools read it")
        ->type_name("FILE");
    app.add_option("--width", options.width,
                   "width of tables and of presets, 0 for no limit; that of a terminal, else none, unless given")
        ->check(between(size_t{0}, largest_width))
        ->type_name("COLUMNS");
}

CLI::App* add_command(CLI::App& app, Options& options, Options::Command command, const char* name, const char* help) {
    CLI::App* added = app.add_subcommand(name, help);
    added->parse_complete_callback([&options, command] { options.command = command; });
    return added;
}

// The presets that a command is about. Where it takes several, CLI11 reads [a,b] as two words: nobody has meant those.
CLI::Option* add_presets(CLI::App* command, Arguments& arguments) {
    const auto take = [&arguments](const CLI::results_t& names) {
        for (const std::string& name : names) {
            if (!arguments.words.contains(name)) {
                throw CLI::ValidationError("PRESET", "a title in brackets cannot be given: write number or id:ID");
            }
        }
        arguments.options.presets = names;
        return true;
    };
    return command->add_option("PRESET", take, "number, id:ID or title")
        ->required()
        ->check(CLI::Validator(fault_of_name, ""))
        ->type_name("");
}

void add_symbols(CLI::App* command, Options& options) {
    command->add_flag("--symbols", options.only_characters, "draw with characters where the terminal has graphics");
}

std::chrono::milliseconds milliseconds_of(double seconds) {
    return std::chrono::milliseconds(std::llround(std::ceil(seconds * 1000)));
}

// Its value may be left out, which CLI11 tells as an empty one.
CLI::Option* add_watch(CLI::App* command, Options& options) {
    const auto take = [&options](const CLI::results_t& values) {
        const std::string& text = values.front();
        double seconds = usual_interval;
        const bool is_number = text.empty() || CLI::detail::lexical_cast(text, seconds);
        // A number that is none (nan) is not between any two.
        if (!is_number || !(seconds >= shortest_interval && seconds <= longest_interval)) {
            throw CLI::ValidationError("--watch", fmt::format("{} is no time from {} to {} seconds", text,
                                                              shortest_interval, longest_interval));
        }
        options.watch = milliseconds_of(seconds);
        return true;
    };
    return command->add_option("--watch", take, "show the presets as they change, with a look every 2 s unless given")
        ->expected(0, 1)
        ->type_name("[SECONDS]");
}

void add_reading_commands(CLI::App& app, Arguments& arguments) {
    Options& options = arguments.options;
    CLI::App* list = add_command(app, options, Options::Command::list, "list", "list all presets, one line each");
    CLI::Option* pictures = list->add_flag("--pictures", options.with_pictures, "draw the presets' pictures, too");
    add_symbols(list, options);
    add_watch(list, options)->excludes(pictures);

    CLI::App* show = add_command(app, options, Options::Command::show, "show", "print presets in full");
    add_presets(show, arguments)->expected(1, -1)->allow_extra_args();
    show->add_flag("--picture", options.with_pictures, "draw each preset's picture, too");
    add_symbols(show, options);

    CLI::App* picture = add_command(app, options, Options::Command::picture, "picture", "save a preset's picture");
    add_presets(picture, arguments);
    picture->add_option("-o,--output", options.output_file, "where to; - is standard output")
        ->required()
        ->type_name("FILE");
}

void add_changing_commands(CLI::App& app, Arguments& arguments) {
    Options& options = arguments.options;
    CLI::App* store =
        add_command(app, options, Options::Command::store, "store", "store a preset, and print its number and id");
    store->add_option("PRESET.json", options.preset_file, "as new and --json show print it; - is standard input")
        ->required()
        ->type_name("");
    store->add_option("PICTURE.jpg", options.picture_file, "its picture; - is standard input")
        ->required()
        ->type_name("");
    store->add_flag("--fit", options.fits_picture,
                    "make a picture smaller that is too large for the camera, and a JPEG of a PNG");
    store->add_flag("--nearest", options.takes_nearest,
                    "take the nearest step for a value that the camera has none for");
    CLI::Option* store_dry_run =
        store->add_flag("--dry-run", options.dry_run, "only say what the camera would make of it");
    store->add_flag("--unchecked", options.unchecked, "send the one request alone: foretell nothing, compare nothing")
        ->excludes(store_dry_run);

    CLI::App* rename =
        add_command(app, options, Options::Command::rename, "rename", "change title and server identity of a preset");
    add_presets(rename, arguments);
    rename->add_option("TITLE", options.title, "at most 51 bytes of UTF-8")->required()->type_name("");
    rename->add_option("--server-id", options.server_id, "as it is unless given")->type_name("N");

    CLI::App* remove = add_command(app, options, Options::Command::remove, "delete", "delete presets in one request");
    add_presets(remove, arguments)->expected(1, -1)->allow_extra_args();
    remove->add_flag("--dry-run", options.dry_run, "only say what would be deleted");

    CLI::App* leave =
        add_command(app, options, Options::Command::leave, "leave", "tell the camera that the phone leaves");
    leave->add_option("--code", options.code, "the phone's own result code, 1 unless given")->type_name("N");
}

void add_copying_commands(CLI::App& app, Arguments& arguments) {
    Options& options = arguments.options;
    CLI::App* backup = add_command(app, options, Options::Command::back_up, "backup", "save all presets in a folder");
    backup->add_option("DIR", options.folder, "where to; it is made when it is not there")->required()->type_name("");
    backup->add_flag("--overwrite", options.overwrites, "replace the complete backup that is there");

    CLI::App* restore =
        add_command(app, options, Options::Command::restore, "restore", "store the presets of a backup");
    restore->add_option("DIR", options.folder, "the backup")->required()->type_name("");
    restore->add_option("FILE", options.files, "only these of its preset files")->type_name("");
    restore->add_flag("--edited", options.takes_edited, "take files that have changed since the backup, too");
    restore->add_flag("--incomplete", options.takes_incomplete, "restore what a backup has that was broken off");
    restore->add_flag("--dry-run", options.dry_run, "only say what would be stored, and what becomes of it");

    CLI::App* copy = add_command(app, options, Options::Command::copy, "copy", "store presets in another camera");
    add_presets(copy, arguments)->expected(1, -1)->allow_extra_args();
    copy->add_option("--to", arguments.other_url, "the other camera's link")->required()->type_name("URL");
    copy->add_flag("--dry-run", options.dry_run, "only say what would be stored, and what becomes of it");
}

// One that needs no camera.
CLI::App* add_lone_command(CLI::App& app, Options& options, Options::Command command, const char* name,
                           const char* help) {
    CLI::App* const added = app.add_subcommand(name, help);
    added->preparse_callback([&app, &options, command](size_t) {
        options.command = command;
        app.get_option("--connect")->required(false);
    });
    return added;
}

void add_scanning_command(CLI::App& app, Arguments& arguments) {
    Options& options = arguments.options;
    CLI::App* scan =
        add_lone_command(app, options, Options::Command::scan, "scan", "find cameras over Bluetooth, and their URLs");
    scan->add_option("--seconds", arguments.search, "how long to look around, 10 unless given")
        ->check(between(shortest_search, longest_search))
        ->type_name("SECONDS");
    scan->add_option("--adapter", options.adapter, "with this adapter, such as hci1, instead of the first that is on")
        ->type_name("NAME");
}

void add_printing_commands(CLI::App& app, Options& options) {
    add_lone_command(app, options, Options::Command::create, "new", "print a preset file to begin with");
    add_lone_command(app, options, Options::Command::schema, "schema", "print the JSON Schema of preset files");
    CLI::App* decode = add_lone_command(app, options, Options::Command::decode, "decode",
                                        "print what a phone and a camera said in a capture");
    decode->add_option("FILE", options.captured_file, "a btsnoop file of Bluetooth packets; - is standard input")
        ->required()
        ->type_name("");
    CLI::Option* hex =
        decode->add_flag("--hex", options.with_hex, "print the bytes of each message and what they mean, too");
    CLI::Option* follow = decode->add_flag("--follow", options.follows, "wait for more at the end of the file");
    CLI::Option* diff =
        decode->add_option("--diff", options.other_capture, "print in what this capture differs instead")
            ->type_name("FILE")
            ->excludes(hex)
            ->excludes(follow);
    decode->add_flag("--all", options.all_differences, "print all differences, and not the first alone")->needs(diff);
    decode->add_option("--psm", options.psm, "where the camera listens on L2CAP, where its first message does not tell")
        ->check(CLI::Range(1, 65535).description(""))
        ->type_name("PSM");
}

// What a replay would send needs no camera.
bool is_planned_replay(const Options& options) {
    return options.command == Options::Command::replay && options.dry_run;
}

bool needs_camera(const Options& options) {
    return !options.list_checks && !is_planned_replay(options) && options.command != Options::Command::create &&
           options.command != Options::Command::schema && options.command != Options::Command::decode &&
           options.command != Options::Command::scan;
}

// A list of the checks needs no camera either.
void add_checking_command(CLI::App& app, Options& options) {
    CLI::App* check = app.add_subcommand("check", "find out what the camera gets wrong");
    check->parse_complete_callback([&app, &options] {
        options.command = Options::Command::check;
        app.get_option("--connect")->required(!options.list_checks);
    });
    check->add_flag("--quick", options.quick, "without the longest picture and without filling the camera");
    check->add_option("--junit", options.junit_file, "where to put the results as JUnit XML, too")->type_name("FILE");
    check
        ->add_option("--camera-log", options.camera_log,
                     "the file that the camera writes its log to: confirmations and memory show there")
        ->type_name("FILE");
    check->add_flag("--list-checks", options.list_checks, "print the id of each check and what must hold, and end");
}

void add_replaying_command(CLI::App& app, Arguments& arguments) {
    Options& options = arguments.options;
    CLI::App* replay = app.add_subcommand(
        "replay", "send the phone's side of a capture again, and compare the answers; this changes presets as then");
    replay->parse_complete_callback([&app, &options] {
        options.command = Options::Command::replay;
        app.get_option("--connect")->required(!options.dry_run);
    });
    replay->add_option("FILE", options.captured_file, "the capture, a btsnoop file; - is standard input")
        ->required()
        ->type_name("");
    replay->add_flag("--all", options.all_differences, "go on behind the first difference, and tell all");
    CLI::Option* speed = replay->add_option("--speed", options.pace.speed, "how many times as fast as then")
                             ->check(between(slowest, fastest))
                             ->type_name("FACTOR");
    replay->add_option("--longest-pause", arguments.longest_pause, "what longer pauses become, 5 unless given")
        ->check(between(0.0, longest_timeout))
        ->type_name("SECONDS");
    replay->add_flag("--no-pauses", arguments.no_pauses, "send as fast as the camera answers")->excludes(speed);
    replay->add_option("--psm", options.psm, "where the camera of the capture listens, where that is not seen")
        ->type_name("PSM");
    replay->add_flag("--dry-run", options.dry_run, "only say what would be sent");
}

bool is_from_environment(const Arguments& arguments) {
    return std::none_of(arguments.words.begin(), arguments.words.end(),
                        [](const std::string& word) { return word.starts_with("--connect"); });
}

Endpoint endpoint_of(const Arguments& arguments) {
    try {
        return parse_endpoint(arguments.url);
    } catch (const Failure& failure) {
        const std::string origin = is_from_environment(arguments) ? fmt::format("{}: ", connect_variable) : "";
        throw Failure(failure.code(), origin + printable(failure.what())); // one line, whatever the URL holds
    }
}

Endpoint other_endpoint_of(const Arguments& arguments) {
    try {
        return parse_endpoint(arguments.other_url);
    } catch (const Failure& failure) {
        throw Failure(failure.code(), fmt::format("--to: {}", printable(failure.what())));
    }
}

// It is refused before anything is sent.
// What is sent again is read while it is sent.
void check_capture(const Arguments& arguments) {
    std::error_code ignored;
    if (arguments.capture && arguments.options.command == Options::Command::replay &&
        std::filesystem::equivalent(*arguments.capture, arguments.options.captured_file, ignored)) {
        throw Failure(exit_usage, "--capture would write over the capture that is sent again; name another file");
    }
}

std::shared_ptr<capture::Writer> capture_of(const Arguments& arguments) {
    if (!arguments.capture) {
        return nullptr;
    }
    capture::require_file_name(*arguments.capture);
    return std::make_shared<capture::Writer>(*arguments.capture, capture::Side::phone,
                                             [](const std::string& line) { complain(line); });
}

Options options_from(Arguments& arguments) {
    Options& options = arguments.options;
    if (options.command == Options::Command::copy) {
        options.other_camera = other_endpoint_of(arguments);
    }
    if (needs_camera(options)) {
        options.camera = endpoint_of(arguments);
        check_capture(arguments);
        options.capture = capture_of(arguments);
    }
    options.timeout = milliseconds_of(arguments.timeout_seconds);
    options.pace.has_pauses = !arguments.no_pauses;
    options.pace.longest_pause = milliseconds_of(arguments.longest_pause);
    options.search = milliseconds_of(arguments.search);
    return options;
}

// The options that may stand here: the tool's, and those of the command where one is given.
std::vector<std::string> option_names(const command_line::Table& table, const CLI::App& app) {
    std::vector<command_line::Entry> options = table.tool.options;
    for (const command_line::Command& command : table.commands) {
        if (app.got_subcommand(command.name)) {
            options.insert(options.end(), command.options.begin(), command.options.end());
        }
    }
    std::vector<std::string> names;
    for (const command_line::Entry& option : options) {
        names.insert(names.end(), option.names.begin(), option.names.end());
    }
    return names;
}

std::vector<std::string> command_names(const command_line::Table& table) {
    std::vector<std::string> names;
    for (const command_line::Command& command : table.commands) {
        names.push_back(command.name);
    }
    return names;
}

Failure unknown_failure(const char* kind, const std::string& word, const std::vector<std::string>& names) {
    const std::optional<std::string> meant = command_line::nearest(word, names);
    const std::string hint = meant ? fmt::format("did you mean {}? See", *meant) : "see";
    return {exit_usage, fmt::format("there is no {} {}; {} shotmentor-phone --help", kind, printable(word), hint)};
}

// The first word that is no option or command, where that is what is wrong. Behind -- stand no options.
std::optional<Failure> unknown_word_failure(const CLI::App& app) {
    const std::vector<std::string> words = app.remaining(true);
    if (words.empty() || std::find(words.begin(), words.end(), "--") != words.end()) {
        return std::nullopt;
    }
    const command_line::Table table = command_line::table_of(app);
    const std::string word = words.front().substr(0, words.front().find('='));
    if (word.starts_with('-')) {
        return unknown_failure("option", word, option_names(table, app));
    }
    if (app.get_subcommands().empty()) {
        return unknown_failure("command", word, command_names(table));
    }
    return std::nullopt;
}

Failure usage_failure(const CLI::App& app, const CLI::ParseError& error) {
    if (const std::optional<Failure> failure = unknown_word_failure(app)) {
        return *failure;
    }
    const bool lacks_something = dynamic_cast<const CLI::RequiredError*>(&error) != nullptr;
    const CLI::Option* connect = app.get_option("--connect");
    if (lacks_something && app.get_subcommands().empty()) {
        return {exit_usage,
                fmt::format("--connect URL (or {} in the environment) and a command are needed: list, show, "
                            "picture, store, rename, delete, backup, restore, copy, leave, check, replay, scan, new, "
                            "schema or decode; see shotmentor-phone --help",
                            connect_variable)};
    }
    if (lacks_something && connect->get_required() && connect->empty()) {
        return {exit_usage,
                fmt::format("--connect URL is needed, or {} in the environment; see shotmentor-phone --help",
                            connect_variable)};
    }
    std::string line = error.what();
    std::replace(line.begin(), line.end(), '\n', ' ');
    return {exit_usage, fmt::format("{}; see shotmentor-phone --help", printable(line))};
}

// Help for something that there is not would be help for something else.
void print_help(const CLI::App& app) {
    if (const std::optional<Failure> failure = unknown_word_failure(app)) {
        throw Failure(*failure);
    }
    const command_line::Table table = command_line::table_of(app);
    const size_t width = width_of_lines(STDOUT_FILENO);
    for (const command_line::Command& command : table.commands) {
        if (app.got_subcommand(command.name)) {
            print(command_line::help_of(command, table, manual(), width));
            return;
        }
    }
    print(command_line::help_of(table, manual(), width));
}

} // namespace

std::optional<Options> options_of(int argc, char** argv) {
    const std::vector<std::string> words = command_line::words_of(argc, argv);
    Arguments arguments;
    arguments.words.insert(words.begin(), words.end());
    CLI::App app("Reads and changes the shooting presets of a camera.", "shotmentor-phone");
    app.set_version_flag("--version", SHOTMENTOR_VERSION);
    app.fallthrough(); // the common options may stand behind the command as well
    app.require_subcommand(1);
    add_common_options(app, arguments);
    add_reading_commands(app, arguments);
    add_changing_commands(app, arguments);
    add_copying_commands(app, arguments);
    add_checking_command(app, arguments.options);
    add_replaying_command(app, arguments);
    add_scanning_command(app, arguments);
    add_printing_commands(app, arguments.options);
    command_line::add_reference(app, manual());
    try {
        app.parse(std::vector<std::string>(words.rbegin(), words.rend())); // CLI11 takes them from the end
    } catch (const CLI::CallForHelp&) {
        print_help(app);
        return std::nullopt;
    } catch (const CLI::CallForVersion& version) {
        print(std::string(version.what()) + "\n");
        return std::nullopt;
    } catch (const command_line::CallForReference& reference) {
        print(reference.what());
        return std::nullopt;
    } catch (const CLI::ParseError& error) {
        throw usage_failure(app, error);
    }
    return options_from(arguments);
}

} // namespace desk::phone
