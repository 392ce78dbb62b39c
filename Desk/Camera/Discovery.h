// Lets phones find the camera by Bluetooth: tells the system's daemon where it listens, advertises it, and lets phones
// pair, as far as the user wants that.
#pragma once

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "BluetoothAdapter.h"
#include "BluetoothDaemon.h"
#include "Links/Endpoint.h"
#include "OfferedObjects.h"
#include "PairingAgent.h"
#include "Visibility.h"

namespace desk::camera {

class Discovery {
  public:
    // The endpoints are those of Bluetooth where the camera listens, with their channels and PSMs.
    Discovery(asio::io_context& loop, const Visibility& visibility, std::vector<Endpoint> endpoints);
    // Puts back what was set, and waits for that a while.
    ~Discovery();
    Discovery(const Discovery&) = delete;
    Discovery& operator=(const Discovery&) = delete;

    void open();
    // The user's answer to a phone that wants to pair. Throws Failure (exit_usage) when none does.
    std::string answer_pairing(bool accepts);

  private:
    struct Record {
        Endpoint endpoint;
        std::string path;
    };

    void offer_records();
    void offer_low_energy();
    void offer_advertisement(const std::string& path, std::vector<OfferedProperty> properties);
    void found(const bus::Objects& objects);
    void adapters_found(const bus::Objects& objects);
    bool is_listened_on(const bus::Interfaces& interfaces) const;
    void lost();
    void register_records();
    static void registered(const Endpoint& endpoint, const std::optional<bus::Error>& error);
    void time_is_over();
    void put_back();
    void count_down();
    std::string name() const;
    bool has(Endpoint::Kind kind) const;

    Visibility visibility_;
    std::vector<Endpoint> endpoints_;
    std::vector<Record> records_;
    WantedOfAdapters wanted_;
    OfferedObjects objects_;
    BluetoothDaemon daemon_;
    PairingAgent agent_;
    std::map<std::string, BluetoothAdapter> adapters_; // all that were ever there, by path
    bool is_registered_ = false;
    bool told_no_adapter_ = false;
    asio::steady_timer hide_;
};

} // namespace desk::camera
