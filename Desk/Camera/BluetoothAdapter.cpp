#include "BluetoothAdapter.h"

#include <algorithm>
#include <fmt/format.h>
#include <string_view>
#include <utility>

#include "BluetoothTalk.h"
#include "Common/Text.h"

namespace desk::camera {
namespace {

constexpr const char* adapter_interface = "org.bluez.Adapter1";
constexpr const char* services_interface = "org.bluez.GattManager1";
constexpr const char* advertising_interface = "org.bluez.LEAdvertisingManager1";

constexpr int most_attempts = 40;

void append_variant(bus::Message& message, const char* type, const bus::Value& value) {
    message.open('v', type);
    if (const bool* const flag = std::get_if<bool>(&value)) {
        message.append("b", static_cast<int>(*flag));
    } else if (const auto* const number = std::get_if<int64_t>(&value)) {
        message.append("u", static_cast<uint32_t>(*number));
    } else {
        message.append("s", std::get<std::string>(value).c_str());
    }
    message.close();
}

} // namespace

BluetoothAdapter::BluetoothAdapter(BluetoothDaemon& daemon, const WantedOfAdapters& wanted, std::string path)
    : daemon_(daemon), wanted_(wanted), path_(std::move(path)), name_(path_.substr(path_.rfind('/') + 1)) {}

// ---- It comes and goes ----------------------------------------------------------------------------------------------

void BluetoothAdapter::found(const bus::Interfaces& interfaces) {
    const auto adapter = interfaces.find(adapter_interface);
    properties_ = adapter->second;
    has_services_ = interfaces.contains(services_interface);
    has_advertisements_ = interfaces.contains(advertising_interface);
    if (!bus::property<bool>(properties_, "Powered").value_or(false)) {
        went_off();
        return;
    }
    told_off_ = false;
    want_all();
    for (Setting& setting : settings_) {
        change(setting);
    }
    if (wanted_.has_low_energy) {
        offer_service();
        advertise();
    }
    if (wanted_.has_classic && bus::property<bool>(adapter->second, "Discoverable").value_or(false)) {
        tell_visible();
    }
}

void BluetoothAdapter::lost() {
    for (Setting& setting : settings_) {
        setting.is_asked_for = false;
    }
    offers_service_ = told_off_ = told_visible_ = false;
    advertised_.clear();
    properties_.clear();
}

void BluetoothAdapter::went_off() {
    if (!std::exchange(told_off_, true)) {
        tell_of_bluetooth("waiting",
                          fmt::format("the Bluetooth adapter {} is off, and no phone reaches the camera by it: turn it "
                                      "on (bluetoothctl power on, or rfkill unblock bluetooth)",
                                      printable(name_)),
                          {{"adapter", name_}, {"reason", "off"}});
    }
    stop_advertising();
    for (Setting& setting : settings_) {
        setting.is_asked_for = false;
    }
    told_visible_ = false;
}

void BluetoothAdapter::hide() {
    stop_advertising();
    for (auto setting = settings_.rbegin(); setting != settings_.rend(); ++setting) {
        if (!setting->of_visibility) {
            continue;
        }
        if (const std::optional<bus::Message> call = call_to_put_back(*setting)) {
            daemon_.ask(*call, [](const std::optional<bus::Error>&, bus::Message&) {});
        }
    }
    std::erase_if(settings_, [](const Setting& setting) { return setting.of_visibility; });
    if (wanted_.has_low_energy && !properties_.empty()) {
        advertise();
    }
}

std::vector<bus::Message> BluetoothAdapter::calls_to_put_back() {
    std::vector<bus::Message> calls;
    for (auto setting = settings_.rbegin(); setting != settings_.rend(); ++setting) {
        if (std::optional<bus::Message> call = call_to_put_back(*setting)) {
            calls.push_back(std::move(*call));
        }
    }
    return calls;
}

// ---- Settings -------------------------------------------------------------------------------------------------------

void BluetoothAdapter::want(const char* property, const char* type, bus::Value value, bool of_visibility) {
    const auto known = std::ranges::find(settings_, property, &Setting::property);
    if (known == settings_.end()) {
        settings_.push_back({property, type, std::move(value), of_visibility});
    } else if (!known->is_asked_for) {
        known->wanted = std::move(value);
    }
}

// Times come first: the daemon looks at them when it is made discoverable.
void BluetoothAdapter::want_all() {
    if (wanted_.name) {
        want("Alias", "s", *wanted_.name, false);
    }
    if (!wanted_.is_visible) {
        return;
    }
    const int64_t seconds = wanted_.time.count();
    if (wanted_.is_pairable) {
        want("PairableTimeout", "u", seconds, true);
        want("Pairable", "b", true, true);
    }
    if (wanted_.has_classic) {
        want("DiscoverableTimeout", "u", seconds, true);
        want("Discoverable", "b", true, true);
    }
}

// Once for each time that the daemon is there: what somebody else changes after that is his will.
void BluetoothAdapter::change(Setting& setting) {
    const auto current = properties_.find(setting.property);
    if (std::exchange(setting.is_asked_for, true) || current == properties_.end() ||
        current->second == setting.wanted || current->second.index() != setting.wanted.index()) {
        return;
    }
    if (!setting.original) {
        setting.original = current->second;
    }
    const bus::Value before = std::exchange(current->second, setting.wanted);
    daemon_.ask(call_to_set(setting, setting.wanted),
                [this, property = setting.property, before](const std::optional<bus::Error>& error, bus::Message&) {
                    if (error) {
                        refused(property, before, *error);
                    } else if (std::string_view(property) == "Discoverable") {
                        tell_visible();
                    }
                });
}

// The daemon is busy while it has set the same thing by itself, such as for an agent.
void BluetoothAdapter::refused(const char* property, const bus::Value& before, const bus::Error& error) {
    properties_.insert_or_assign(property, before);
    const auto setting = std::ranges::find(settings_, property, &Setting::property);
    if (error.is_named(".Busy") && setting != settings_.end() && ++setting->attempts < most_attempts) {
        setting->is_asked_for = false;
        daemon_.look_soon();
        return;
    }
    tell_refused(fmt::format("to set {} of {}", property, printable(name_)), error);
}

bus::Message BluetoothAdapter::call_to_set(const Setting& setting, const bus::Value& value) {
    bus::Message call = daemon_.call(path_, "org.freedesktop.DBus.Properties", "Set");
    call.append("ss", adapter_interface, setting.property);
    append_variant(call, setting.type, value);
    return call;
}

// Unless somebody else has changed it since.
std::optional<bus::Message> BluetoothAdapter::call_to_put_back(Setting& setting) {
    const std::optional<bus::Value> original = std::exchange(setting.original, std::nullopt);
    const auto current = properties_.find(setting.property);
    if (!original || current == properties_.end() || current->second != setting.wanted || *original == setting.wanted) {
        return std::nullopt;
    }
    return call_to_set(setting, *original);
}

// ---- Low Energy -----------------------------------------------------------------------------------------------------

void BluetoothAdapter::offer_service() {
    if (std::exchange(offers_service_, true)) {
        return;
    }
    if (!has_services_) {
        tell_of_bluetooth("refused",
                          fmt::format("{} has no Low Energy: phones connect by rfcomm: alone there", printable(name_)),
                          {{"adapter", name_}});
        return;
    }
    bus::Message call = daemon_.call(path_, services_interface, "RegisterApplication");
    call.append("oa{sv}", wanted_.application.c_str(), 0);
    daemon_.ask(call, [this](const std::optional<bus::Error>& error, bus::Message&) {
        if (error) {
            tell_refused(fmt::format("the Low Energy service on {}", printable(name_)), *error);
        } else {
            tell_of_bluetooth("service",
                              fmt::format("phones that know {} read there where to connect by le:", printable(name_)),
                              {{"adapter", name_}});
        }
    });
}

void BluetoothAdapter::advertise() {
    if (!has_advertisements_ || !advertised_.empty()) {
        return;
    }
    advertised_ = wanted_.is_visible ? wanted_.advertisement : wanted_.quiet_advertisement;
    bus::Message call = daemon_.call(path_, advertising_interface, "RegisterAdvertisement");
    call.append("oa{sv}", advertised_.c_str(), 0);
    daemon_.ask(call, [this](const std::optional<bus::Error>& error, bus::Message&) {
        if (error) {
            tell_refused(fmt::format("the advertisement on {}", printable(name_)), *error);
        } else {
            tell_visible();
        }
    });
}

void BluetoothAdapter::stop_advertising() {
    const std::string advertised = std::exchange(advertised_, "");
    if (advertised.empty()) {
        return;
    }
    bus::Message call = daemon_.call(path_, advertising_interface, "UnregisterAdvertisement");
    call.append("o", advertised.c_str());
    daemon_.ask(call, [](const std::optional<bus::Error>&, bus::Message&) {});
}

// ---- Talk -----------------------------------------------------------------------------------------------------------

void BluetoothAdapter::tell_visible() {
    if (!wanted_.is_visible || std::exchange(told_visible_, true)) {
        return;
    }
    const std::string name = bus::property<std::string>(properties_, "Alias").value_or("");
    const int64_t seconds = wanted_.time.count();
    const std::string time = seconds == 0 ? "as long as the camera runs" : fmt::format("for {} s", seconds);
    tell_of_bluetooth(
        "discoverable",
        fmt::format("phones that look for cameras find \"{}\" on {} {}", printable(name), printable(name_), time),
        {{"adapter", name_}, {"name", printable(name)}, {"seconds", seconds}});
}

void BluetoothAdapter::tell_refused(const std::string& what, const bus::Error& error) {
    const std::string reason = printable(error.name + ": " + error.text);
    tell_of_bluetooth("refused",
                      fmt::format("the Bluetooth daemon refuses {} ({}); phones that know the camera's address still "
                                  "connect",
                                  what, reason),
                      {{"adapter", name_}, {"reason", reason}});
}

} // namespace desk::camera
