#include "BluetoothDaemon.h"

#include <algorithm>
#include <array>
#include <exception>
#include <fmt/format.h>
#include <string_view>
#include <utility>

#include "BluetoothTalk.h"
#include "Budgets.h"
#include "Common/Text.h"

namespace desk::camera {
namespace {

constexpr const char* service = "org.bluez";
constexpr const char* object_manager = "org.freedesktop.DBus.ObjectManager";
constexpr const char* properties = "org.freedesktop.DBus.Properties";
constexpr const char* still = "; phones that know the camera's address still connect";

struct Problem {
    const char* error; // how its name ends
    const char* text;
};

constexpr std::array<Problem, 4> problems = {{
    {".ServiceUnknown", "the Bluetooth daemon is not there, and no phone finds the camera: start it (package bluez, "
                        "systemctl start bluetooth)"},
    {".NameHasNoOwner", "the Bluetooth daemon is not there, and no phone finds the camera: start it (package bluez, "
                        "systemctl start bluetooth)"},
    {".AccessDenied", "the system's D-Bus does not let this user speak to the Bluetooth daemon, and no phone finds the "
                      "camera: run it as root, or as a user of the group bluetooth"},
    {".NoReply", "the Bluetooth daemon does not answer, and no phone finds the camera: restart it (systemctl restart "
                 "bluetooth)"},
}};

std::string problem_of(const bus::Error& error) {
    const auto* const found =
        std::ranges::find_if(problems, [&](const Problem& problem) { return error.is_named(problem.error); });
    return found != problems.end()
               ? found->text
               : fmt::format("the Bluetooth daemon answers with an error, and no phone finds the camera: {}: {}",
                             printable(error.name), printable(error.text));
}

bool is_of_adapters(std::string_view interface) {
    constexpr std::array<std::string_view, 3> all = {"org.bluez.Adapter1", "org.bluez.GattManager1",
                                                     "org.bluez.LEAdvertisingManager1"};
    return std::ranges::find(all, interface) != all.end();
}

// InterfacesAdded, InterfacesRemoved and PropertiesChanged: whether it is about an adapter. The daemon tells of every
// device that it hears, too.
bool is_of_adapters(bus::Message& signal) {
    if (signal.member() == "PropertiesChanged") {
        const std::optional<std::string> interface = signal.read_text();
        return interface && is_of_adapters(*interface);
    }
    if (!signal.read_text()) {
        return false;
    }
    if (signal.member() == "InterfacesAdded") {
        const std::optional<bus::Interfaces> added = bus::read_interfaces(signal);
        return added && std::ranges::any_of(*added, [](const auto& each) { return is_of_adapters(each.first); });
    }
    bool is = false;
    if (signal.enter('a', "s")) {
        while (const std::optional<std::string> interface = signal.read_text()) {
            is = is || is_of_adapters(*interface);
        }
    }
    return is;
}

} // namespace

BluetoothDaemon::BluetoothDaemon(asio::io_context& loop, std::string objects, Handlers handlers)
    : loop_(loop), objects_(std::move(objects)), handlers_(std::move(handlers)), look_again_(loop),
      connect_again_(loop) {}

void BluetoothDaemon::open() {
    connect();
}

void BluetoothDaemon::tell_problem(const std::string& problem) {
    if (problem != problem_) {
        problem_ = problem;
        tell_of_bluetooth("waiting", problem + still, {{"reason", problem}});
    }
}

// ---- The connection -------------------------------------------------------------------------------------------------

void BluetoothDaemon::connect() {
    try {
        connection_ = std::make_shared<BusLoop>(loop_, bus::Bus::open_system(),
                                                [this](const std::string& why) { connect_later(why); });
        listen();
        look();
    } catch (const std::exception& failure) {
        connect_later(failure.what());
    }
}

void BluetoothDaemon::attempt(const std::function<void()>& what) {
    try {
        what();
    } catch (const std::exception& failure) {
        connect_later(failure.what());
    }
}

void BluetoothDaemon::connect_later(const std::string& why) {
    tell_problem(why);
    forget();
    listening_.clear();
    connection_.reset();
    connect_again_.expires_after(budget::bus_retry);
    connect_again_.async_wait([this](const asio::error_code& error) {
        if (!error) {
            connect();
        }
    });
}

void BluetoothDaemon::listen() {
    bus::Bus& bus = connection_->bus();
    const auto adapters = [this](bus::Message signal) { adapters_changed(std::move(signal)); };
    listening_["owner"] =
        bus.when_signalled("type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
                           "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0='org.bluez'",
                           [this](bus::Message signal) { owner_changed(signal); });
    listening_["objects"] = bus.when_signalled(
        fmt::format("type='signal',sender='{}',path='/',interface='{}'", service, object_manager), adapters);
    listening_["adapters"] =
        bus.when_signalled(fmt::format("type='signal',sender='{}',interface='{}',member='PropertiesChanged',"
                                       "arg0='org.bluez.Adapter1'",
                                       service, properties),
                           adapters);
    listening_["own"] = bus.when_called(objects_, [this](const bus::Message& call) { return called(call); });
    connection_->turn_later();
}

// All that is under way was for a daemon that is gone.
void BluetoothDaemon::forget() {
    asked_.clear();
    looks_ = looks_again_ = false;
    look_again_.cancel();
    if (!std::exchange(owner_, "").empty()) {
        handlers_.lost();
    }
}

// ---- The daemon comes and goes --------------------------------------------------------------------------------------

void BluetoothDaemon::owner_changed(bus::Message& signal) {
    const char* name = nullptr;
    const char* before = nullptr;
    const char* now = nullptr;
    if (signal.sender() != "org.freedesktop.DBus" || !signal.read("sss", &name, &before, &now)) {
        return;
    }
    const bool is_gone = *now == '\0';
    if (owner_ == now && !is_gone) {
        return;
    }
    forget();
    if (is_gone) {
        tell_problem("the Bluetooth daemon has gone, and no phone finds the camera until it is back: start it "
                     "(systemctl start bluetooth)");
    } else {
        look();
    }
}

void BluetoothDaemon::adapters_changed(bus::Message signal) {
    if (signal.sender() == owner_ && is_of_adapters(signal)) {
        look_later(budget::bus_look);
    }
}

void BluetoothDaemon::look_later(std::chrono::milliseconds time) {
    if (std::exchange(looks_again_, true)) {
        return;
    }
    look_again_.expires_after(time);
    look_again_.async_wait([this](const asio::error_code& error) {
        if (!error && std::exchange(looks_again_, false)) {
            attempt([this] { look(); });
        }
    });
}

void BluetoothDaemon::look() {
    if (connection_ == nullptr) {
        return;
    }
    if (looks_) {
        look_later(budget::bus_look);
        return;
    }
    looks_ = true;
    ask(call("/", object_manager, "GetManagedObjects"),
        [this](const std::optional<bus::Error>& error, bus::Message& answer) {
            looks_ = false;
            looked(error, answer);
        });
}

void BluetoothDaemon::looked(const std::optional<bus::Error>& error, bus::Message& answer) {
    if (error) {
        tell_problem(problem_of(*error));
        if (!error->is_named(".ServiceUnknown") && !error->is_named(".AccessDenied")) {
            look_later(budget::bus_retry);
        }
        return;
    }
    const std::optional<bus::Objects> objects = bus::read_objects(answer);
    if (!objects) {
        tell_problem("the Bluetooth daemon's list of adapters cannot be read, and no phone finds the camera: is it "
                     "that of BlueZ, 5.48 or newer?");
        return;
    }
    owner_ = answer.sender();
    if (!std::exchange(problem_, "").empty()) {
        tell_of_bluetooth("ready", "the Bluetooth daemon is there");
    }
    handlers_.found(*objects);
}

bool BluetoothDaemon::called(const bus::Message& call) {
    if (call.sender() != owner_) {
        call.answer_error("org.freedesktop.DBus.Error.AccessDenied", "this is for the Bluetooth daemon alone");
        return true;
    }
    const bool done = handlers_.called(call);
    connection_->turn_later();
    return done;
}

// ---- Messages -------------------------------------------------------------------------------------------------------

bool BluetoothDaemon::is_there() const {
    return connection_ != nullptr && connection_->bus().is_open() && !owner_.empty();
}

bus::Message BluetoothDaemon::call(const std::string& path, const std::string& interface, const std::string& method) {
    return connection_->bus().method_call(service, path, interface, method);
}

void BluetoothDaemon::ask(const bus::Message& message, Answered handler) {
    const uint64_t number = questions_++;
    asked_[number] = connection_->bus().call_later(
        message, budget::bus_time, [this, number, handler = std::move(handler)](bus::Reply reply) {
            asked_.erase(number);
            if (connection_->bus().is_open()) { // else all is lost, which is told once
                handler(reply.error, reply.message);
            }
        });
    connection_->turn_later();
}

void BluetoothDaemon::send(const bus::Message& message) {
    connection_->bus().send(message);
    connection_->turn_later();
}

void BluetoothDaemon::ask_and_wait(const bus::Message& message, std::chrono::milliseconds time) {
    connection_->bus().call(message, time);
}

} // namespace desk::camera
