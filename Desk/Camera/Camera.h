// The camera: takes one phone at a time in and lets the library answer it.
#pragma once

#include <asio/io_context.hpp>
#include <deque>
#include <memory>
#include <optional>
#include <string>

#include "Intake.h"
#include "Listener.h"
#include "SendQueue.h"

namespace desk {

struct Options;
class PresetStore;
class Services;

class Camera {
  public:
    Camera(asio::io_context& loop, Listener& listener, SendQueue& sends, Services& services);
    // The phone that is there is left alone, and the library returned to idle.
    ~Camera();
    Camera(const Camera&) = delete;
    Camera& operator=(const Camera&) = delete;

    // Takes phones in from now on.
    void open();

  private:
    // What is known of the phone that is there.
    struct Phone {
        std::shared_ptr<Link> link;
        Intake intake;
        bool told_stuck = false;
    };

    void phone_came(std::shared_ptr<Link> link);
    bool all_before_have_closed();
    void take_in(std::shared_ptr<Link> link);
    void turn_away(std::shared_ptr<Link> link);
    void phone_left(const std::string& why);
    void forget_phone();
    void listen_to_phone();
    void serve();
    void tell_if_stuck();

    asio::io_context& loop_;
    Listener& listener_;
    SendQueue& sends_;
    Services& services_;
    std::optional<Phone> phone_;
    std::deque<std::shared_ptr<Link>>
        next_; // phones whose forerunners have closed, but not been read to the end
};

// Serves phones until the loop is stopped. Throws Failure (exit_link).
void serve_phones(asio::io_context& loop, PresetStore& store, const Options& options);

} // namespace desk
