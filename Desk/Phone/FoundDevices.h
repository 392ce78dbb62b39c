// What the Bluetooth daemon tells of the devices around, which is what those tell of themselves.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Bus/Properties.h"
#include "Links/Endpoint.h"

namespace desk::phone {

struct FoundDevice {
    BluetoothAddress address = {};
    bool has_random_address = false; // of Low Energy alone
    std::string name;                // UTF-8, at most 248 bytes; whatever somebody has called it
    std::optional<int> signal;       // dBm; none: nothing has been heard of it lately
    bool offers_service = false;     // it says that a camera is there
    bool is_classic = false;         // it has told of itself over RFCOMM's kind of link,
    bool advertises = false;         // and over Low Energy,
    bool is_le_alone = false;        // which is all that it has

    // Daemons do not always tell over which of them a device was heard: then it may have both.
    bool may_have_rfcomm() const;
    bool may_have_le() const;
    Endpoint endpoint(Endpoint::Kind kind) const; // without a port
};

class FoundDevices {
  public:
    // Those of the adapter with this path.
    explicit FoundDevices(std::string adapter) : prefix_(std::move(adapter) + "/") {}

    // An object that there is, or is new. No more than 1000 devices are kept.
    void add(const std::string& path, const bus::Interfaces& interfaces);
    // What has changed of an object.
    void change(const std::string& path, const bus::Properties& properties);

    // Those that may be cameras: first those that say so, then the nearest.
    std::vector<FoundDevice> possible_cameras() const;

  private:
    std::string prefix_;
    std::map<std::string, FoundDevice> devices_; // by path
};

} // namespace desk::phone
