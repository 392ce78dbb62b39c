#include "FoundDevices.h"

#include <algorithm>
#include <strings.h>
#include <tuple>

#include "Links/ServiceUuids.h"

namespace desk::phone {
namespace {

constexpr const char* device_interface = "org.bluez.Device1";
constexpr size_t most_devices = 1000;
constexpr size_t longest_path = 255;
constexpr size_t longest_name = 248;           // that Bluetooth carries
constexpr uint8_t flag_without_classic = 0x04; // of what is advertised: BR/EDR not supported

// What is cut off is cut off between two characters.
std::string cut(std::string name) {
    if (name.size() > longest_name) {
        size_t end = longest_name;
        while (end > 0 && (static_cast<uint8_t>(name[end]) & 0xC0U) == 0x80U) {
            --end;
        }
        name.resize(end);
    }
    return name;
}

bool names_service(const std::vector<std::string>& uuids) {
    return std::any_of(uuids.begin(), uuids.end(),
                       [](const std::string& uuid) { return strcasecmp(uuid.c_str(), service_uuid) == 0; });
}

void take(FoundDevice& device, const bus::Properties& properties) {
    if (const auto name = bus::property<std::string>(properties, "Name")) {
        device.name = cut(*name);
    }
    if (const auto signal = bus::property<int64_t>(properties, "RSSI")) {
        device.signal = static_cast<int>(std::clamp<int64_t>(*signal, INT16_MIN, INT16_MAX));
    }
    if (const auto uuids = bus::property<std::vector<std::string>>(properties, "UUIDs")) {
        device.offers_service = names_service(*uuids);
    }
    if (bus::property<int64_t>(properties, "Class")) {
        device.is_classic = true;
    }
    const auto flags = bus::property<std::vector<uint8_t>>(properties, "AdvertisingFlags");
    if (flags && !flags->empty()) {
        device.advertises = true;
        device.is_le_alone = (flags->front() & flag_without_classic) != 0;
    }
}

} // namespace

bool FoundDevice::may_have_rfcomm() const {
    return !has_random_address && !is_le_alone && (is_classic || (offers_service && !advertises));
}

bool FoundDevice::may_have_le() const {
    return offers_service;
}

Endpoint FoundDevice::endpoint(Endpoint::Kind kind) const {
    Endpoint endpoint;
    endpoint.kind = kind;
    endpoint.address = address;
    endpoint.has_random_address = kind == Endpoint::Kind::le && has_random_address;
    return endpoint;
}

void FoundDevices::add(const std::string& path, const bus::Interfaces& interfaces) {
    const auto properties = interfaces.find(device_interface);
    if (properties == interfaces.end() || !path.starts_with(prefix_) || path.size() > longest_path ||
        (devices_.size() >= most_devices && !devices_.contains(path))) {
        return;
    }
    const auto text = bus::property<std::string>(properties->second, "Address");
    const auto address = text ? bluetooth_address_in(*text) : std::nullopt;
    if (!address) {
        return;
    }
    FoundDevice device;
    device.address = *address;
    device.has_random_address = bus::property<std::string>(properties->second, "AddressType") == "random";
    take(device, properties->second);
    devices_.insert_or_assign(path, std::move(device));
}

void FoundDevices::change(const std::string& path, const bus::Properties& properties) {
    const auto found = devices_.find(path);
    if (found != devices_.end()) {
        take(found->second, properties);
    }
}

std::vector<FoundDevice> FoundDevices::possible_cameras() const {
    std::vector<FoundDevice> devices;
    for (const auto& [path, device] : devices_) {
        if (device.offers_service || (device.may_have_rfcomm() && device.signal)) {
            devices.push_back(device);
        }
    }
    const auto rank = [](const FoundDevice& device) {
        return std::tuple(!device.offers_service, -device.signal.value_or(INT16_MIN), device.address);
    };
    std::ranges::sort(devices, {}, rank);
    return devices;
}

} // namespace desk::phone
