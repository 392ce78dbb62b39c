// One adapter of the Bluetooth daemon: what is set, registered and advertised there while the camera runs, and put back
// at its end.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "BluetoothDaemon.h"
#include "Bus/Properties.h"

namespace desk::camera {

// What is wanted of all adapters.
struct WantedOfAdapters {
    std::optional<std::string> name;
    bool is_visible = false;      // until the time is over
    std::chrono::seconds time{0}; // that it is visible, from now on; 0: as long as the camera runs
    bool is_pairable = false;     // while it is visible
    bool has_classic = false;     // RFCOMM or L2CAP
    bool has_low_energy = false;
    std::string application;         // the paths of our objects
    std::string advertisement;       // while it is visible
    std::string quiet_advertisement; // and else: Low Energy reaches nobody who does not advertise
};

class BluetoothAdapter {
  public:
    BluetoothAdapter(BluetoothDaemon& daemon, const WantedOfAdapters& wanted, std::string path);

    // The daemon has it; to be called after each change. Does what is still to be done.
    void found(const bus::Interfaces& interfaces);
    // The daemon, or it, has gone.
    void lost();
    // The camera is visible no more.
    void hide();
    // All that was set as it was before, in order.
    std::vector<bus::Message> calls_to_put_back();

  private:
    struct Setting {
        const char* property;
        const char* type;
        bus::Value wanted;
        bool of_visibility = true;
        std::optional<bus::Value> original = std::nullopt; // once it has been changed
        bool is_asked_for = false;                         // of this daemon
        int attempts = 0;
    };

    void want(const char* property, const char* type, bus::Value value, bool of_visibility);
    void want_all();
    void went_off();
    void change(Setting& setting);
    void refused(const char* property, const bus::Value& before, const bus::Error& error);
    bus::Message call_to_set(const Setting& setting, const bus::Value& value);
    std::optional<bus::Message> call_to_put_back(Setting& setting);
    void offer_service();
    void advertise();
    void stop_advertising();
    void tell_visible();
    void tell_refused(const std::string& what, const bus::Error& error);

    BluetoothDaemon& daemon_;
    const WantedOfAdapters& wanted_;
    std::string path_;
    std::string name_; // of the adapter: hci0
    std::vector<Setting> settings_;
    bus::Properties properties_; // as the daemon last told them, and as we have set them
    bool has_advertisements_ = false;
    bool has_services_ = false;
    bool told_off_ = false;
    bool told_visible_ = false;
    bool offers_service_ = false;
    std::string advertised_; // the path of what is advertised
};

} // namespace desk::camera
