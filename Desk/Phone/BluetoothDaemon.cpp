#include "BluetoothDaemon.h"

#include <algorithm>
#include <fmt/format.h>
#include <iterator>
#include <poll.h>
#include <utility>

#include "Common/Text.h"

namespace desk::phone {
namespace {

constexpr const char* daemon_name = "org.bluez";
constexpr const char* adapter_interface = "org.bluez.Adapter1";
constexpr const char* object_manager = "org.freedesktop.DBus.ObjectManager";
constexpr const char* properties_interface = "org.freedesktop.DBus.Properties";

// The links do without the daemon.
Failure failure_of(ExitCode code, const std::string& what) {
    return {code, what + ". Whoever knows a camera's address needs none of this: --connect rfcomm:ADDRESS:auto or "
                         "le:ADDRESS:auto"};
}

struct Meaning {
    const char* ending; // of the error's name
    ExitCode code;
    const char* what;
};

constexpr const char* no_daemon = "no Bluetooth daemon runs on this machine; install it (package bluez) and start it "
                                  "(systemctl start bluetooth)";
constexpr const char* no_rights = "this user may not use the Bluetooth daemon; become a member of the group bluetooth, "
                                  "or try as root";
constexpr const char* no_answer =
    "the Bluetooth daemon does not answer; see what it says (journalctl -u bluetooth), or "
    "restart it (systemctl restart bluetooth)";
constexpr const char* adapter_off = "the Bluetooth adapter is off; turn it on (bluetoothctl power on; rfkill unblock "
                                    "bluetooth)";
constexpr const char* adapter_gone = "the Bluetooth adapter has gone; plug it in again";
constexpr const char* nonsense = "what answers as the Bluetooth daemon says nothing that makes sense; restart it "
                                 "(systemctl restart bluetooth)";

constexpr Meaning meanings[] = {
    {".ServiceUnknown", exit_link, no_daemon},
    {".NameHasNoOwner", exit_link, no_daemon},
    {".NoSuchUnit", exit_link, no_daemon},
    {".AccessDenied", exit_link, no_rights},
    {".NotAuthorized", exit_link, no_rights},
    {".NotPermitted", exit_link, no_rights},
    {".NotReady", exit_link, adapter_off},
    {".InProgress", exit_link,
     "the Bluetooth adapter is busy with what another program searches or connects; try again when that is done"},
    {".NoReply", exit_timeout, no_answer},
    {".Timeout", exit_timeout, no_answer},
    {".UnknownObject", exit_link, adapter_gone},
};

Failure failure_of(const bus::Error& error) {
    for (const Meaning& meaning : meanings) {
        if (error.is_named(meaning.ending)) {
            return failure_of(meaning.code, meaning.what);
        }
    }
    constexpr size_t longest = 200; // of others' words
    return failure_of(
        exit_link, fmt::format("the Bluetooth daemon refuses to look around: {} ({}); see what it says (journalctl "
                               "-u bluetooth)",
                               shortened(printable(error.text), longest), shortened(printable(error.name), longest)));
}

std::string name_of(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

bool is_on(const bus::Properties& adapter) {
    return bus::property<bool>(adapter, "Powered") == true;
}

// The path of the adapter with this name, or of the first that is on.
std::string chosen_adapter(const bus::Objects& objects, const std::string& wanted) {
    std::vector<std::string> names;
    std::string chosen;
    bool chosen_is_on = false;
    for (const auto& [path, interfaces] : objects) {
        const auto adapter = interfaces.find(adapter_interface);
        if (adapter == interfaces.end()) {
            continue;
        }
        names.push_back(printable(name_of(path)));
        if (!chosen_is_on && (wanted.empty() || name_of(path) == wanted)) {
            chosen = path;
            chosen_is_on = is_on(adapter->second);
        }
    }
    if (names.empty()) {
        throw failure_of(exit_link, "this machine has no Bluetooth adapter; plug one in");
    }
    if (chosen.empty()) {
        constexpr size_t most_named = 8;
        names.resize(std::min(names.size(), most_named));
        throw Failure(exit_usage, fmt::format("this machine has no Bluetooth adapter {}, but {}", printable(wanted),
                                              fmt::join(names, ", ")));
    }
    if (!chosen_is_on) {
        throw failure_of(exit_link, adapter_off);
    }
    return chosen;
}

std::string signal_rule(const std::string& interface, const std::string& member) {
    return fmt::format("type='signal',sender='{}',interface='{}',member='{}'", daemon_name, interface, member);
}

void take_added(bus::Message& signal, FoundDevices& devices) {
    const std::optional<std::string> path = signal.read_text();
    const auto interfaces = path ? bus::read_interfaces(signal) : std::nullopt;
    if (interfaces) {
        devices.add(*path, *interfaces);
    }
}

void take_change(bus::Message& signal, const std::string& adapter, Search& found) {
    const std::optional<std::string> interface = signal.read_text();
    const auto properties = interface ? bus::read_properties(signal) : std::nullopt;
    if (!properties) {
        return;
    }
    const std::string path(signal.path());
    if (path != adapter) {
        found.devices.change(path, *properties);
    } else if (bus::property<bool>(*properties, "Powered") == false) {
        found.failure = failure_of(exit_link, adapter_off);
    }
}

void take_removal(bus::Message& signal, const std::string& adapter, Search& found) {
    if (signal.read_text() == adapter) {
        found.failure = failure_of(exit_link, adapter_gone);
    }
}

} // namespace

BluetoothDaemon::BluetoothDaemon(const StopSignals& stop, std::chrono::milliseconds timeout)
    : stop_(stop), timeout_(timeout), bus_([] {
          try {
              return bus::Bus::open_system();
          } catch (const Failure& failure) {
              throw failure_of(failure.code(), failure.what());
          }
      }()) {}

bus::Message BluetoothDaemon::method(const std::string& path, const char* interface, const char* name) {
    return bus_.method_call(daemon_name, path, interface, name);
}

bool BluetoothDaemon::process() {
    try {
        return bus_.process();
    } catch (const Failure& failure) {
        throw failure_of(failure.code(), fmt::format("{}; see that it runs", failure.what()));
    }
}

void BluetoothDaemon::run_until(Clock::time_point deadline, const std::function<bool()>& is_done) {
    while (!is_done() && Clock::now() < deadline && !stop_.have_come()) {
        if (!process()) {
            const auto until = std::min(deadline, bus_.deadline().value_or(deadline));
            poll_one(bus_.descriptor(), static_cast<short>(bus_.events()), until, stop_.descriptor());
        }
    }
}

// The answer. The bus keeps the time as well, but not while it does not let us in.
bus::Message BluetoothDaemon::call(const bus::Message& message) {
    std::optional<bus::Reply> reply;
    const auto take = [&reply](bus::Reply answer) { reply = std::move(answer); };
    const bus::Slot slot = bus_.call_later(message, timeout_, take);
    run_until(Clock::now() + timeout_, [&reply] { return reply.has_value(); });
    if (!reply) {
        throw stop_.have_come() ? Failure(exit_stopped, "the search was stopped by a signal")
                                : failure_of(exit_timeout, no_answer);
    }
    if (reply->error) {
        throw failure_of(*reply->error);
    }
    return std::move(reply->message);
}

bus::Objects BluetoothDaemon::objects() {
    bus::Message answer = call(method("/", object_manager, "GetManagedObjects"));
    std::optional<bus::Objects> objects = bus::read_objects(answer);
    if (!objects) {
        throw failure_of(exit_protocol, nonsense);
    }
    return std::move(*objects);
}

std::vector<bus::Slot> BluetoothDaemon::watch(const std::string& adapter, Search& found) {
    std::vector<bus::Slot> slots;
    slots.push_back(bus_.when_signalled(signal_rule(object_manager, "InterfacesAdded"),
                                        [&found](bus::Message signal) { take_added(signal, found.devices); }));
    slots.push_back(
        bus_.when_signalled(signal_rule(object_manager, "InterfacesRemoved"),
                            [&found, adapter](bus::Message signal) { take_removal(signal, adapter, found); }));
    slots.push_back(
        bus_.when_signalled(signal_rule(properties_interface, "PropertiesChanged"),
                            [&found, adapter](bus::Message signal) { take_change(signal, adapter, found); }));
    slots.push_back(
        bus_.when_signalled("type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged',arg0='org.bluez'",
                            [&found](const bus::Message&) {
                                found.failure = failure_of(exit_link, "the Bluetooth daemon has gone; try again");
                            }));
    return slots;
}

// Of both kinds of link. Devices of RFCOMM need not say what they offer before they are asked, so none is left out.
void BluetoothDaemon::start(const std::string& adapter) {
    bus::Message filter = method(adapter, adapter_interface, "SetDiscoveryFilter");
    filter.append("a{sv}", 1, "Transport", "s", "auto");
    call(filter);
    const bus::Message message = method(adapter, adapter_interface, "StartDiscovery");
    try {
        call(message);
    } catch (const Failure&) {
        if (!stop_.have_come()) {
            throw;
        }
    }
}

// What the daemon answers matters little: it stops for whoever leaves the bus as well.
void BluetoothDaemon::stop(const std::string& adapter) {
    const bus::Message message = method(adapter, adapter_interface, "StopDiscovery");
    if (stop_.have_come()) {
        bus_.send(message);
        return;
    }
    try {
        call(message);
    } catch (const Failure&) { // NOLINT(bugprone-empty-catch)
    }
}

Search BluetoothDaemon::search(const std::string& adapter_name, std::chrono::milliseconds time) {
    const bus::Objects there = objects();
    const std::string adapter = chosen_adapter(there, adapter_name);
    Search found{FoundDevices(adapter), std::nullopt};
    for (const auto& [path, interfaces] : there) {
        found.devices.add(path, interfaces);
    }
    const std::vector<bus::Slot> slots = watch(adapter, found);
    start(adapter);
    try {
        run_until(Clock::now() + time, [&found] { return found.failure.has_value(); });
    } catch (const Failure& failure) {
        found.failure = failure;
    }
    if (!found.failure) {
        stop(adapter);
    }
    return found;
}

} // namespace desk::phone
