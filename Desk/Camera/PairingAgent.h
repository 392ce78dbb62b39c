// Answers the Bluetooth daemon when a phone wants to pair: for everyone, or as the user says.
#pragma once

#include <optional>
#include <string>

#include "BluetoothDaemon.h"
#include "OfferedObjects.h"
#include "Visibility.h"

namespace desk::camera {

class PairingAgent {
  public:
    // Its object is among the offered ones at this path.
    PairingAgent(BluetoothDaemon& daemon, OfferedObjects& objects, const std::string& path, Pairing pairing);

    // From now on the daemon asks it, and no more.
    void begin();
    void end();
    // The daemon has gone, and whoever it asked for.
    void lost();

    // The user's answer. Returns what becomes of it. Throws Failure (exit_usage) when nobody asks.
    std::string answer(bool accepts);

  private:
    struct Question {
        bus::Message call;
        std::string phone; // printable: its name and its address
    };

    void asked_about_digits(bus::Message call);
    void show_digits(bus::Message call);
    void accept_without_asking(const bus::Message& call);
    void cancelled(const bus::Message& call);
    void with_phone(const std::string& device, const std::function<void(const std::string& phone)>& go_on);
    void accept(const bus::Message& call);
    static void reject(const bus::Message& call);

    BluetoothDaemon& daemon_;
    std::string path_;
    Pairing pairing_;
    bool is_registered_ = false;
    std::optional<Question> question_;
};

} // namespace desk::camera
