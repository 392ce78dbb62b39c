// The system's Bluetooth daemon (org.bluez), as far as it looks around for devices.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Bus/Bus.h"
#include "Common/Failure.h"
#include "Connecting.h"
#include "FoundDevices.h"
#include "StopSignals.h"

namespace desk::phone {

// What a search has found, and why it came to an end too early.
struct Search {
    FoundDevices devices;
    std::optional<Failure> failure;
};

// Waits for nothing longer than `timeout`, and for nothing any more when a signal has come. Its calls throw Failure:
// one line that says what is wrong with the daemon, and what to do.
class BluetoothDaemon {
  public:
    BluetoothDaemon(const StopSignals& stop, std::chrono::milliseconds timeout);

    // Looks around for so long with the adapter of this name, or with the first that is on.
    Search search(const std::string& adapter, std::chrono::milliseconds time);

  private:
    bus::Message method(const std::string& path, const char* interface, const char* name);
    bus::Message call(const bus::Message& message);
    bool process();
    void run_until(Clock::time_point deadline, const std::function<bool()>& is_done);
    bus::Objects objects();
    std::vector<bus::Slot> watch(const std::string& adapter, Search& found);
    void start(const std::string& adapter);
    void stop(const std::string& adapter);

    const StopSignals& stop_;
    std::chrono::milliseconds timeout_;
    bus::Bus bus_;
};

} // namespace desk::phone
