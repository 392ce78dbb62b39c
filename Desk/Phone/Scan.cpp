#include "Scan.h"

#include <algorithm>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <set>
#include <unistd.h>

#include "BluetoothDaemon.h"
#include "CameraPort.h"
#include "Common/Failure.h"
#include "Common/Terminal.h"
#include "Common/Text.h"
#include "Options.h"
#include "Output.h"
#include "Reporting.h"
#include "Words/TextTable.h"

namespace desk::phone {
namespace {

using Json = nlohmann::ordered_json;
using Kind = Endpoint::Kind;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr size_t most_asked = 20;
constexpr seconds longest_asking{60};
// A controller keeps a link of Low Energy for about two seconds, and has no second one meanwhile.
constexpr milliseconds pause_between_le_links{2500};

// A device that is a camera, and the URLs of its links.
struct Camera {
    FoundDevice device;
    std::vector<Endpoint> links;
};

std::string words_for(const FoundDevice& device) {
    const std::string address = text_of(device.address);
    return device.name.empty() ? address : fmt::format("\"{}\" ({})", printable(device.name), address);
}

// ---- Asking the devices ---------------------------------------------------------------------------------------------

// Asks one device after another on which ports it has a camera.
class Asking {
  public:
    Asking(const Options& options, const StopSignals& stop) : options_(options), stop_(stop) {}

    // Nothing where the device is no camera.
    std::optional<Camera> ask(const FoundDevice& device);
    size_t left_out() const { return left_out_; }

  private:
    struct Unanswered {
        std::vector<Endpoint> links; // that may be there all the same
        std::string reason;          // of the last one
    };

    bool is_over() const { return stop_.have_come() || Clock::now() >= deadline_; }
    void ask_for(const Endpoint& link, Camera& camera, Unanswered& unanswered);

    const Options& options_;
    const StopSignals& stop_;
    Clock::time_point deadline_ = Clock::now() + longest_asking;
    Clock::time_point next_le_link_; // not before
    size_t asked_ = 0;
    size_t left_out_ = 0;
};

void Asking::ask_for(const Endpoint& link, Camera& camera, Unanswered& unanswered) {
    if (link.kind == Kind::le) {
        poll_one(never_stopped, 0, next_le_link_, stop_.descriptor());
    }
    const PortAnswer answer = ask_for_port(link, options_.timeout, stop_.descriptor());
    if (link.kind == Kind::le && answer.was_tried) {
        next_le_link_ = Clock::now() + pause_between_le_links;
    }
    if (answer.port) {
        camera.links.push_back(link);
        camera.links.back().port = *answer.port;
        return;
    }
    unanswered.reason = answer.reason;
    if (!answer.is_absent) {
        unanswered.links.push_back(link);
    }
}

// A device that says of itself that it is a camera, and can be heard, is believed even if it does not answer.
std::optional<Camera> Asking::ask(const FoundDevice& device) {
    Camera camera{device, {}};
    Unanswered unanswered;
    const bool is_asked = asked_ < most_asked && !is_over();
    asked_ += is_asked ? 1 : 0;
    left_out_ += is_asked ? 0 : 1;
    for (const auto& [kind, is_possible] :
         {std::pair(Kind::rfcomm, device.may_have_rfcomm()), std::pair(Kind::le, device.may_have_le())}) {
        if (is_possible && is_asked) {
            ask_for(device.endpoint(kind), camera, unanswered);
        } else if (is_possible) {
            unanswered.links.push_back(device.endpoint(kind));
        }
    }
    if (camera.links.empty() && device.offers_service && device.signal) {
        camera.links = unanswered.links;
        if (is_asked && !stop_.have_come()) {
            mention(options_, fmt::format("{} says that it is a camera; {}", words_for(device), unanswered.reason));
        }
    }
    return camera.links.empty() ? std::nullopt : std::optional(camera);
}

std::vector<Camera> cameras_among(const std::vector<FoundDevice>& devices, const Options& options,
                                  const StopSignals& stop) {
    std::vector<Camera> cameras;
    Asking asking(options, stop);
    for (const FoundDevice& device : devices) {
        if (const std::optional<Camera> camera = asking.ask(device)) {
            cameras.push_back(*camera);
        }
    }
    if (asking.left_out() > 0 && !stop.have_come()) {
        mention(options, fmt::format("there are too many devices: {} not been asked for a camera",
                                     asking.left_out() == 1 ? "1 has" : fmt::format("{} have", asking.left_out())));
    }
    return cameras;
}

// ---- Printing -------------------------------------------------------------------------------------------------------

const char* name_of(Kind kind) {
    return kind == Kind::le ? "le" : "rfcomm";
}

std::string signal_text(const FoundDevice& device) {
    return device.signal ? fmt::format("{} dBm", *device.signal) : "";
}

void print_table(const std::vector<Camera>& cameras, size_t width) {
    std::vector<std::vector<std::string>> rows = {{"URL", "SIGNAL", "NAME", "LINK", "ADDRESS"}};
    for (const Camera& camera : cameras) {
        for (const Endpoint& link : camera.links) {
            rows.push_back({link.url(), signal_text(camera.device), printable(camera.device.name), name_of(link.kind),
                            text_of(camera.device.address)});
        }
    }
    if (rows.size() > 1) {
        print(table(rows, width));
    }
}

Json json_of(const Camera& camera) {
    Json links = Json::array();
    for (const Endpoint& link : camera.links) {
        links.push_back({{"link", name_of(link.kind)},
                         {"url", link.url()},
                         {"port", link.port != 0 ? Json(link.port) : Json(nullptr)}});
    }
    const FoundDevice& device = camera.device;
    return {{"name", device.name},
            {"address", text_of(device.address)},
            {"address_type", device.has_random_address ? "random" : "public"},
            {"signal", device.signal ? Json(*device.signal) : Json(nullptr)},
            {"links", links}};
}

void print_cameras(const std::vector<Camera>& cameras, const Options& options) {
    if (!options.json) {
        print_table(cameras, options.width.value_or(width_of_lines(STDOUT_FILENO)));
        return;
    }
    Json list = Json::array();
    std::ranges::transform(cameras, std::back_inserter(list), json_of);
    print_json({{"cameras", list}});
}

Search look_around(const Options& options, const StopSignals& stop) {
    if (!options.quiet && talk_is_terminal() && terminal_can_redraw()) {
        show_passing_line("looking for cameras ...");
    }
    Search search = BluetoothDaemon(stop, options.timeout).search(options.adapter, options.search);
    clear_passing_line();
    return search;
}

} // namespace

int scan(const Options& options) {
    const StopSignals stop;
    const Search search = look_around(options, stop);
    const std::vector<Camera> cameras = cameras_among(search.devices.possible_cameras(), options, stop);
    print_cameras(cameras, options);
    if (stop.have_come()) {
        throw Failure(exit_stopped, "the search was stopped by a signal");
    }
    if (search.failure) {
        throw Failure(*search.failure);
    }
    if (cameras.empty()) {
        throw Failure(exit_missing, "no camera was found; see that it runs, is near, and lets itself be found "
                                    "(shotmentor-camera --discoverable). Whoever knows its address needs no search: "
                                    "--connect rfcomm:ADDRESS:auto or le:ADDRESS:auto");
    }
    return exit_done;
}

} // namespace desk::phone
