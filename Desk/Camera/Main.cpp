// shotmentor-camera: a host for libshotmentor.so that drives it as firmware does. See Docs/desk.md.

#include <algorithm>
#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>
#include <csignal>
#include <cstdio>
#include <exception>
#include <optional>
#include <string_view>

#include "AllocationFaults.h"
#include "Camera.h"
#include "Capture/Writer.h"
#include "Commands.h"
#include "Descriptors.h"
#include "Lab.h"
#include "Options.h"
#include "PresetStore.h"
#include "Replay.h"
#include "Samples.h"
#include "StandardError.h"
#include "Talk.h"

namespace desk::camera {
namespace {

PresetStore open_or_make_store(const Options& options) {
    return PresetStore::open(options.store, true, options.empty ? nullptr : PresetStore::Fill(add_samples));
}

// The library opens the pictures itself, by their paths relative to the store.
void enter(const std::filesystem::path& store) {
    std::error_code error;
    std::filesystem::current_path(store, error);
    if (error) {
        throw Failure(exit_machine, "cannot enter " + store.string() + ": " + error.message());
    }
}

// It is refused before there is a store.
std::optional<capture::Writer> open_capture(const std::filesystem::path& file) {
    if (file.empty()) {
        return std::nullopt;
    }
    return std::optional<capture::Writer>(std::in_place, file.string(), capture::Side::camera,
                                          [](const std::string& line) {
                                              say({"failure", {{"reason", line}}, line});
                                          });
}

int serve(const Options& options) {
    ensure_descriptors();
    std::optional<capture::Writer> capture = open_capture(options.capture);
    asio::io_context loop;
    asio::signal_set signals(loop, SIGINT, SIGTERM); // waited for from here on: a store is not made in half
    signals.async_wait([&](const asio::error_code&, int) { loop.stop(); });
    const Log log(options.log);
    PresetStore store = open_or_make_store(options);
    enter(options.store);
    serve_phones(loop, store, options, capture ? &*capture : nullptr);
    return exit_done;
}

bool needs_refusing_allocator(const Options& options) {
    return options.knobs.refuse_allocation ||
           std::any_of(options.script.begin(), options.script.end(),
                       [](const ScriptStep& step) { return refuses_allocations(step.command); });
}

int run(int argc, char** argv) {
    const std::optional<Options> options = parse_options(argc, argv);
    if (!options) {
        return exit_done;
    }
    if (!options->replay.empty()) {
        return replay(*options);
    }
    require_allocator(needs_refusing_allocator(*options), argv);
    const int code = options->command == Command::serve ? serve(*options) : run_command(*options);
    if (std::fflush(stdout) != 0) {
        throw Failure(exit_machine, "cannot write to standard output");
    }
    return code;
}

int fail(const char* line, int code) {
    say({"failure", {{"exit_code", code}}, line});
    return code;
}

// Asked for before the command line is read: what is wrong with it is told in this way, too.
bool is_json_asked_for(int argc, char** argv) {
    return std::any_of(argv + 1, argv + argc,
                       [](const char* argument) { return std::string_view(argument) == "--json"; });
}

int run_and_tell(int argc, char** argv) {
    fill_standard_descriptors();
    const StandardError standard_error;
    if (is_json_asked_for(argc, argv)) {
        StandardError::speak_json();
    }
    try {
        return run(argc, argv);
    } catch (const Failure& failure) {
        return fail(failure.what(), failure.code());
    } catch (const std::exception& error) {
        return fail(error.what(), exit_machine);
    }
}

} // namespace
} // namespace desk::camera

int main(int argc, char** argv) {
    std::signal(SIGPIPE, SIG_IGN); // a phone that leaves is an error of its link, not the camera's end,
    std::signal(SIGXFSZ, SIG_IGN); // and so is a file that may not grow
    return desk::camera::run_and_tell(argc, argv);
}
