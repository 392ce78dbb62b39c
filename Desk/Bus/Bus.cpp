#include "Bus.h"

#include <cerrno>
#include <cstring>
#include <exception>
#include <fmt/format.h>
#include <new>
#include <utility>

#include "Common/Failure.h"

namespace desk::bus {
namespace {

using std::chrono::microseconds;

[[noreturn]] void throw_failure(const char* what, int error) {
    if (error == -ENOMEM) {
        throw std::bad_alloc();
    }
    throw Failure(exit_link, fmt::format("{}: {}", what, std::strerror(-error)));
}

void check(const char* what, int result) {
    if (result < 0) {
        throw_failure(what, result);
    }
}

uint64_t in_microseconds(std::chrono::milliseconds time) {
    return static_cast<uint64_t>(microseconds(time).count());
}

Error error_from(const sd_bus_error& error) {
    return {error.name != nullptr ? error.name : "", error.message != nullptr ? error.message : ""};
}

// What a handler has thrown, which must not pass through the bus's own code. `process` throws it again.
thread_local std::exception_ptr thrown;

Reply reply_from(sd_bus_message* message) {
    Reply reply{Message::shared(message), std::nullopt};
    if (const sd_bus_error* const error = sd_bus_message_get_error(message)) {
        reply.error = error_from(*error);
    }
    return reply;
}

} // namespace

// Alive while it runs, even if its slot is destroyed then.
struct Slot::Handler : std::enable_shared_from_this<Slot::Handler> {
    explicit Handler(std::function<int(sd_bus_message*)> taken) : run(std::move(taken)) {}

    static int enter(sd_bus_message* message, void* handler, sd_bus_error*) {
        try {
            const std::shared_ptr<Handler> kept = static_cast<Handler*>(handler)->shared_from_this();
            return kept->run(message);
        } catch (...) {
            thrown = std::current_exception();
            return 0;
        }
    }

    std::function<int(sd_bus_message*)> run;
};

Bus Bus::open_system() {
    sd_bus* bus = nullptr;
    const int result = sd_bus_open_system(&bus);
    if (result < 0) {
        throw Failure(exit_link,
                      fmt::format("cannot reach the system's D-Bus: {}; start it (package dbus), or say with "
                                  "DBUS_SYSTEM_BUS_ADDRESS where it is",
                                  std::strerror(-result)));
    }
    return Bus(bus);
}

Message Bus::method_call(const std::string& service, const std::string& path, const std::string& interface,
                         const std::string& method) {
    sd_bus_message* message = nullptr;
    check("cannot call over the system's D-Bus",
          sd_bus_message_new_method_call(bus_.get(), &message, service.c_str(), path.c_str(), interface.c_str(),
                                         method.c_str()));
    return Message(message);
}

Reply Bus::call(const Message& message, std::chrono::milliseconds time_out) {
    sd_bus_error error = {};
    sd_bus_message* answer = nullptr;
    const int result = sd_bus_call(bus_.get(), message.get(), in_microseconds(time_out), &error, &answer);
    Reply reply{Message(answer), std::nullopt};
    if (result < 0) {
        reply.error = error_from(error);
    }
    sd_bus_error_free(&error);
    return reply;
}

Slot Bus::call_later(const Message& message, std::chrono::milliseconds time_out, Replied handler) {
    Slot made;
    made.handler_ = std::make_shared<Slot::Handler>([handler = std::move(handler)](sd_bus_message* answer) {
        handler(reply_from(answer));
        return 0;
    });
    sd_bus_slot* slot = nullptr;
    check("cannot call over the system's D-Bus",
          sd_bus_call_async(bus_.get(), &slot, message.get(), Slot::Handler::enter, made.handler_.get(),
                            in_microseconds(time_out)));
    made.slot_.reset(slot);
    return made;
}

Slot Bus::when_signalled(const std::string& rule, Signalled handler) {
    Slot made;
    made.handler_ = std::make_shared<Slot::Handler>([handler = std::move(handler)](sd_bus_message* signal) {
        handler(Message::shared(signal));
        return 0;
    });
    sd_bus_slot* slot = nullptr;
    check("cannot listen to the system's D-Bus",
          sd_bus_add_match_async(bus_.get(), &slot, rule.c_str(), Slot::Handler::enter, nullptr, made.handler_.get()));
    made.slot_.reset(slot);
    return made;
}

Slot Bus::when_called(const std::string& path, Called handler) {
    Slot made;
    made.handler_ = std::make_shared<Slot::Handler>(
        [handler = std::move(handler)](sd_bus_message* call) { return handler(Message::shared(call)) ? 1 : 0; });
    sd_bus_slot* slot = nullptr;
    check("cannot offer objects on the system's D-Bus",
          sd_bus_add_fallback(bus_.get(), &slot, path.c_str(), Slot::Handler::enter, made.handler_.get()));
    made.slot_.reset(slot);
    return made;
}

void Bus::send(const Message& message) {
    check("cannot send over the system's D-Bus", sd_bus_send(bus_.get(), message.get(), nullptr));
}

std::optional<std::chrono::steady_clock::time_point> Bus::deadline() const {
    uint64_t microseconds_since_boot = 0;
    check("the system's D-Bus is lost", sd_bus_get_timeout(bus_.get(), &microseconds_since_boot));
    if (microseconds_since_boot == UINT64_MAX) {
        return std::nullopt;
    }
    return std::chrono::steady_clock::time_point(microseconds(microseconds_since_boot));
}

bool Bus::process() {
    const int result = sd_bus_process(bus_.get(), nullptr);
    if (const std::exception_ptr failure = std::exchange(thrown, nullptr)) {
        std::rethrow_exception(failure);
    }
    check("the system's D-Bus is lost", result);
    return result > 0;
}

bool Bus::wait(std::chrono::milliseconds time) {
    const int result = sd_bus_wait(bus_.get(), in_microseconds(time));
    check("the system's D-Bus is lost", result == -EINTR ? 0 : result);
    return result > 0;
}

} // namespace desk::bus
