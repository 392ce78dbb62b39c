// The camera: takes one phone at a time in and lets the library answer it.
#pragma once

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Intake.h"
#include "Listener.h"
#include "RequestTalk.h"
#include "SendQueue.h"
#include "TimedLinks.h"
#include "Wire/Frames.h"

namespace desk::camera {

struct Options;
class PresetStore;
class Services;

// Where phones connect: one of them at a time is served, wherever it comes.
using Listeners = std::vector<std::unique_ptr<Listener>>;

class Camera {
  public:
    // A phone with which nothing has moved for `idle_timeout` is let go; without one it may be silent for ever.
    Camera(asio::io_context& loop, Listeners& listeners, SendQueue& sends, Services& services, Knobs& knobs,
           bool is_quiet, std::optional<std::chrono::seconds> idle_timeout);
    // The phone that is there is left alone, and the library returned to idle.
    ~Camera();
    Camera(const Camera&) = delete;
    Camera& operator=(const Camera&) = delete;

    // Takes phones in from now on.
    void open();

    // Called with the number of requests that have been answered, or had no answer, since the start.
    void when_done(std::function<void(int64_t)> handler) { when_done_ = std::move(handler); }
    // Which phone is there, in words.
    std::string phone() const;

  private:
    // What is known of the phone that is there.
    struct Phone {
        std::shared_ptr<Link> link;
        Intake intake;
        bool told_stuck = false;
        bool told_stalled = false; // and not yet that it goes on
        Uptake uptake = {};        // as it was looked at last
    };

    void phone_came(std::shared_ptr<Link> link);
    void waited_long_enough(const std::shared_ptr<Link>& link);
    bool all_before_have_closed();
    void take_in(const std::shared_ptr<Link>& link);
    void take_in_next();
    void turn_away(const std::shared_ptr<Link>& link);
    void let_go_if_stalled();
    void let_go(const char* event, const std::string& why);
    void watch_idle_phone();
    void pull_link();
    void count_requests();
    bool is_phone_stalled();
    void tell_of_uptake(const Uptake& uptake);
    void tell_if_lost_in_stall();
    void phone_left(const std::string& why);
    void forget_phone();
    void listen_to_phone();
    void serve();
    void serve_later();
    void tell_if_stuck();

    asio::io_context& loop_;
    Listeners& listeners_;
    SendQueue& sends_;
    Services& services_;
    Knobs& knobs_;
    RequestTalk talk_;
    std::optional<Phone> phone_;
    TimedLinks waiting_; // phones whose forerunners have closed, but not been read to the end
    TimedLinks turned_away_;
    const Bytes busy_ = busy_frame();
    std::function<void(int64_t)> when_done_;
    bool serves_later_ = false; // `serve` has been posted
    std::optional<std::chrono::seconds> idle_timeout_;
    asio::steady_timer idle_watch_;
};

// Serves phones until the loop is stopped. What crosses their links is written to `capture` unless it is null. Throws
// Failure (exit_link).
void serve_phones(asio::io_context& loop, PresetStore& store, const Options& options, capture::Writer* capture);

} // namespace desk::camera
