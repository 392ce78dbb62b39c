// The system's Bluetooth daemon (org.bluez), which may be missing, go, and come back at any time. Nothing here waits
// for it.
#pragma once

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "Budgets.h"
#include "Bus/Bus.h"
#include "Bus/Properties.h"
#include "BusLoop.h"

namespace desk::camera {

class BluetoothDaemon {
  public:
    struct Handlers {
        // What it has: when it is there, and after each change of its adapters.
        std::function<void(const bus::Objects&)> found;
        // It has gone, and forgotten all that it was told.
        std::function<void()> lost;
        // It calls an object of ours; false where there is no such method.
        std::function<bool(bus::Message)> called;
    };
    using Answered = std::function<void(const std::optional<bus::Error>& error, bus::Message& answer)>;

    // `objects` is the path at and below which our objects lie.
    BluetoothDaemon(asio::io_context& loop, std::string objects, Handlers handlers);

    // Connects, now and whenever the connection is lost.
    void open();

    bool is_there() const;
    // Does what speaks to the daemon, outside of its handlers: a connection that is lost by it is told.
    void attempt(const std::function<void()>& what);
    // Has it say again what it has: `found` is called soon.
    void look_soon() { look_later(budget::bus_look); }
    // A message to it. This and all that follows only while it is there; they may throw.
    bus::Message call(const std::string& path, const std::string& interface, const std::string& method);
    // The handler hears of it, or of an error, unless the daemon goes before.
    void ask(const bus::Message& message, Answered handler);
    // Gives one more answer to it.
    void send(const bus::Message& message);
    // What was answered without it goes its way.
    void send_soon() { connection_->turn_later(); }
    // For the end, when the loop has come to its own.
    void ask_and_wait(const bus::Message& message, std::chrono::milliseconds time);

  private:
    void connect();
    void connect_later(const std::string& why);
    void listen();
    void owner_changed(bus::Message& signal);
    void adapters_changed(bus::Message signal);
    void look();
    void look_later(std::chrono::milliseconds time);
    void looked(const std::optional<bus::Error>& error, bus::Message& answer);
    bool called(const bus::Message& call);
    void forget();
    void tell_problem(const std::string& problem);

    asio::io_context& loop_;
    std::string objects_;
    Handlers handlers_;
    std::shared_ptr<BusLoop> connection_;
    std::map<std::string, bus::Slot> listening_;
    std::map<uint64_t, bus::Slot> asked_;
    uint64_t questions_ = 0;
    std::string owner_; // its name of this time; empty while it is not there
    bool looks_ = false;
    bool looks_again_ = false;
    asio::steady_timer look_again_;
    asio::steady_timer connect_again_;
    std::string problem_; // the last that was told
};

} // namespace desk::camera
