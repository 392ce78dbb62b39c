// The system's D-Bus: calls, signals, and objects of our own. A thin layer over sd-bus of libsystemd.
//
// A program either waits in `call` and `wait`, or has a loop of its own, which waits for `descriptor`, `events` and
// `deadline` and calls `process`.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <systemd/sd-bus.h>

#include "Message.h"

namespace desk::bus {

// What the bus calls, until it is destroyed; a handler may destroy its own.
class Slot {
  public:
    Slot() = default;

  private:
    friend class Bus;
    struct Handler;
    struct Unref {
        void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
    };
    std::shared_ptr<Handler> handler_;
    std::unique_ptr<sd_bus_slot, Unref> slot_; // goes first
};

class Bus {
  public:
    using Replied = std::function<void(Reply)>;
    using Signalled = std::function<void(Message)>;
    // Answers a method's call, at once or later, or returns false: there is no such method.
    using Called = std::function<bool(Message)>;

    // Connects to DBUS_SYSTEM_BUS_ADDRESS, or to where the bus usually is. Throws Failure (exit_link), which says what
    // to do.
    static Bus open_system();

    // ---- Messages to others, of the service and the object with this path
    Message method_call(const std::string& service, const std::string& path, const std::string& interface,
                        const std::string& method);
    // Waits.
    Reply call(const Message& message, std::chrono::milliseconds time_out);
    // Does not: the handler hears of an answer, of an error or of the time that has passed, as long as there is the
    // slot.
    [[nodiscard]] Slot call_later(const Message& message, std::chrono::milliseconds time_out, Replied handler);

    // ---- Signals that fit the rule, such as "type='signal',sender='org.bluez'"
    [[nodiscard]] Slot when_signalled(const std::string& rule, Signalled handler);

    // ---- Objects of our own, at and below a path
    [[nodiscard]] Slot when_called(const std::string& path, Called handler);
    void send(const Message& message); // what has not gone when the bus is destroyed never goes

    // ---- A loop's side
    // False once the connection has ended; calls that were under way are then told errors before `process` throws.
    bool is_open() const { return sd_bus_is_open(bus_.get()) > 0; }
    int descriptor() const { return sd_bus_get_fd(bus_.get()); }
    // POLLIN and POLLOUT, as they are waited for.
    int events() const { return sd_bus_get_events(bus_.get()); }
    // When to call `process` even if nothing has come, on the steady clock.
    std::optional<std::chrono::steady_clock::time_point> deadline() const;
    // Does one thing; false where there is nothing to be done. Throws Failure (exit_link) when the connection is lost,
    // and what a handler has thrown.
    bool process();
    // Waits for something to process. False when the time has passed.
    bool wait(std::chrono::milliseconds time);

  private:
    struct Close {
        void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
    };
    explicit Bus(sd_bus* bus) : bus_(bus) {}

    std::unique_ptr<sd_bus, Close> bus_;
};

} // namespace desk::bus
