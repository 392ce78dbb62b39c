#include "Options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <fmt/format.h>
#include <limits>

#include "ADE_ShotMentor_Records.h"
#include "ADE_ShotMentor_Version.h"
#include "CommandLine/Reference.h"
#include "Common/Text.h"
#include "Manual.h"
#include "Output.h"

namespace desk::phone {
namespace {

constexpr double shortest_timeout = 0.001;
constexpr double longest_timeout = 86400; // a day; more is a slip of the hand
constexpr size_t largest_mtu = SM_REQUEST_LIMIT;
constexpr size_t largest_width = 100000;

// What CLI11 fills before it is turned into options.
struct Arguments {
    Options options;
    std::string url;
    double timeout_seconds = 5;
    int number = 0;
};

// A check that does not show in the help: its bounds are no news to anybody there.
template<typename Number>
CLI::Validator between(Number least, Number most) {
    return CLI::Range(least, most).description("");
}

CLI::Validator number_range() {
    return between(0, std::numeric_limits<int>::max());
}

void add_common_options(CLI::App& app, Arguments& arguments) {
    Options& options = arguments.options;
    app.add_option("--connect", arguments.url, "the camera's link")->required()->type_name("URL");
    app.add_option("--timeout", arguments.timeout_seconds, "how long to wait for an answer, 5 unless given")
        ->check(between(shortest_timeout, longest_timeout))
        ->type_name("SECONDS");
    app.add_flag("--json", options.json, "data as JSON");
    app.add_flag("--raw", options.raw, "the codes as they travel");
    app.add_option("--mtu", options.mtu, "largest packet that is sent, 4096 unless given")
        ->check(between(size_t{1}, largest_mtu))
        ->type_name("BYTES");
    app.add_option("--width", options.width, "width of tables, 0 for no limit; the terminal's, or 80, unless given")
        ->check(between(size_t{0}, largest_width))
        ->type_name("COLUMNS");
}

CLI::App* add_command(CLI::App& app, Options& options, Options::Command command, const char* name, const char* help) {
    CLI::App* added = app.add_subcommand(name, help);
    added->parse_complete_callback([&options, command] { options.command = command; });
    return added;
}

void add_reading_commands(CLI::App& app, Arguments& arguments) {
    Options& options = arguments.options;
    CLI::App* list = add_command(app, options, Options::Command::list, "list", "list all presets, one line each");
    list->add_flag("--pictures", options.with_pictures, "draw the presets' pictures, too");

    CLI::App* show = add_command(app, options, Options::Command::show, "show", "print one preset in full");
    show->add_option("NUMBER", arguments.number, "the preset's number")
        ->required()
        ->check(number_range())
        ->type_name("");
    show->add_flag("--picture", options.with_pictures, "draw the preset's picture, too");

    CLI::App* picture = add_command(app, options, Options::Command::picture, "picture", "save a preset's picture");
    picture->add_option("NUMBER", arguments.number, "the preset's number")
        ->required()
        ->check(number_range())
        ->type_name("");
    picture->add_option("-o,--output", options.output_file, "where to")->required()->type_name("FILE");
}

void add_changing_commands(CLI::App& app, Options& options) {
    CLI::App* store =
        add_command(app, options, Options::Command::store, "store", "store a preset, and print its number and id");
    store->add_option("PRESET.json", options.preset_file, "what --json show prints")->required()->type_name("");
    store->add_option("PICTURE.jpg", options.picture_file, "its picture")->required()->type_name("");
    store->add_flag("--fit", options.fits_picture, "make a picture smaller that is too large for the camera");

    CLI::App* rename =
        add_command(app, options, Options::Command::rename, "rename", "change title and server identity of a preset");
    rename->add_option("ID", options.custom_id, "the preset's custom_id")->required()->type_name("");
    rename->add_option("TITLE", options.title, "at most 51 bytes of UTF-8")->required()->type_name("");
    rename->add_option("--server-id", options.server_id, "as it is unless given")->type_name("N");

    CLI::App* remove = add_command(app, options, Options::Command::remove, "delete", "delete presets in one request");
    remove->add_option("NUMBER", options.numbers, "the presets' numbers")
        ->required()
        ->check(number_range())
        ->type_name("");

    CLI::App* leave =
        add_command(app, options, Options::Command::leave, "leave", "tell the camera that the phone leaves");
    leave->add_option("--code", options.code, "the phone's own result code, 1 unless given")->type_name("N");
}

// A list of the checks is the one thing that needs no camera.
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

Endpoint endpoint_of(const std::string& url) {
    try {
        return parse_endpoint(url);
    } catch (const Failure& failure) {
        throw Failure(failure.code(), printable(failure.what())); // one line, whatever the URL holds
    }
}

Options options_from(Arguments& arguments) {
    Options& options = arguments.options;
    if (!options.list_checks) {
        options.camera = endpoint_of(arguments.url);
    }
    options.timeout = std::chrono::milliseconds(std::llround(std::ceil(arguments.timeout_seconds * 1000)));
    if (options.command == Options::Command::show || options.command == Options::Command::picture) {
        options.numbers = {arguments.number};
    }
    return options;
}

Failure usage_failure(const CLI::App& app, const CLI::ParseError& error) {
    if (app.get_subcommands().empty() && dynamic_cast<const CLI::RequiredError*>(&error) != nullptr) {
        return {exit_usage,
                "--connect URL and a command are needed: list, show, picture, store, rename, delete, leave or check; "
                "see shotmentor-phone --help"};
    }
    std::string line = error.what();
    std::replace(line.begin(), line.end(), '\n', ' ');
    return {exit_usage, fmt::format("{}; see shotmentor-phone --help", printable(line))};
}

} // namespace

std::optional<Options> options_of(int argc, char** argv) {
    Arguments arguments;
    CLI::App app("Reads and changes the shooting presets of a camera.", "shotmentor-phone");
    app.footer(command_line::footer_of(manual()));
    app.set_version_flag("--version", SHOTMENTOR_VERSION);
    app.fallthrough(); // the common options may stand behind the command as well
    app.require_subcommand(1);
    add_common_options(app, arguments);
    add_reading_commands(app, arguments);
    add_changing_commands(app, arguments.options);
    add_checking_command(app, arguments.options);
    command_line::add_reference(app, manual());
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        print(app.help());
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
