#include "Camera.h"

#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <cstdio>
#include <fmt/format.h>
#include <optional>
#include <utility>
#include <vector>

#include "ADE_ShotMentor.h"
#include "AllocationFaults.h"
#include "Budgets.h"
#include "Control.h"
#include "Discovery.h"
#include "Lab.h"
#include "LabTalk.h"
#include "Options.h"
#include "PresetStore.h"
#include "Script.h"
#include "Services.h"
#include "StandardError.h"
#include "Talk.h"

namespace desk::camera {

Camera::Camera(asio::io_context& loop, Listeners& listeners, SendQueue& sends, Services& services, Knobs& knobs,
               bool is_quiet, std::optional<std::chrono::seconds> idle_timeout)
    : loop_(loop), listeners_(listeners), sends_(sends), services_(services), knobs_(knobs), talk_(services, is_quiet),
      waiting_(loop, budget::waiting_time, [this](const std::shared_ptr<Link>& link) { waited_long_enough(link); }),
      turned_away_(loop, budget::turned_away_time, [](const std::shared_ptr<Link>& link) { link->close(); }),
      idle_timeout_(idle_timeout), idle_watch_(loop) {}

Camera::~Camera() {
    forget_phone();
}

void Camera::open() {
    sends_.when_idle([this] { serve(); });
    sends_.when_pulled([this] { pull_link(); });
    for (const std::unique_ptr<Listener>& listener : listeners_) {
        listener->accept([this](std::shared_ptr<Link> link) { phone_came(std::move(link)); });
    }
    if (idle_timeout_) {
        watch_idle_phone();
    }
}

// ---- Phones come and go ---------------------------------------------------------------------------------------------

void Camera::phone_came(std::shared_ptr<Link> link) {
    let_go_if_stalled();
    if (!phone_) {
        take_in_next();
    }
    if (!phone_) {
        take_in(link);
    } else if (waiting_.size() < budget::waiting_phones && all_before_have_closed()) {
        waiting_.add(std::move(link));
    } else {
        turn_away(link);
    }
}

void Camera::waited_long_enough(const std::shared_ptr<Link>& link) {
    let_go_if_stalled();
    if (!phone_) {
        take_in(link);
    } else {
        turn_away(link);
    }
}

// A phone that comes back at once may be seen before its last link's end is, and before what it sent at the last: that
// is answered first.
bool Camera::all_before_have_closed() {
    return phone_->link->phone_has_closed() && waiting_.have_all_closed();
}

void Camera::take_in(const std::shared_ptr<Link>& link) {
    say({"phone", {{"event", "connected"}}, "a phone connected"});
    link->on_lost([this](const std::string& why) { phone_left(why); });
    link->on_look([this](const Uptake& uptake) { tell_of_uptake(uptake); });
    link->pace(knobs_);
    sends_.connect(link);
    phone_.emplace(Phone{link, Intake(link->keeps_message_boundaries(), talk_, knobs_)});
    listen_to_phone();
}

void Camera::take_in_next() {
    if (const std::shared_ptr<Link> link = waiting_.take_oldest()) {
        take_in(link);
    }
}

namespace {

void discard_what_arrives(Link& link, size_t at_most) {
    link.receive([&link, at_most](std::span<const uint8_t> received) {
        if (received.size() < at_most) {
            discard_what_arrives(link, at_most - received.size());
        }
    });
}

} // namespace

// The link stays open for a moment: a close before the phone's request has been read would take the frame away from a
// phone that has not read it yet.
void Camera::turn_away(const std::shared_ptr<Link>& link) {
    say({"phone", {{"event", "turned away"}}, "a second phone was turned away"});
    if (turned_away_.size() == budget::turned_away_phones) {
        turned_away_.take_oldest()->close();
    }
    turned_away_.add(link);
    link->on_lost([this, &lost = *link](const std::string&) { turned_away_.remove(lost); });
    link->send(busy_, [&sender = *link] { sender.end_sending(); });
    discard_what_arrives(*link, budget::turned_away_bytes);
}

// For another phone alone: a phone that somebody has stopped in a debugger may take its time while nobody else wants
// the camera.
void Camera::let_go_if_stalled() {
    if (phone_ && is_phone_stalled()) {
        let_go("let go", fmt::format("the phone was let go for another one: for {} s it has taken nothing of a reply, "
                                     "or sent nothing more of a request",
                                     budget::stalled_time.count()));
    }
}

void Camera::let_go(const char* event, const std::string& why) {
    tell_if_lost_in_stall();
    say({"phone", {{"event", event}}, why});
    phone_->link->abort();
    forget_phone();
}

// A phone whose battery is empty says nothing more, and no link tells of it.
void Camera::watch_idle_phone() {
    if (phone_ && phone_->link->is_stalled(*idle_timeout_)) {
        let_go("let go as idle", fmt::format("the phone was let go: nothing has come from it or gone to it for {} s",
                                             idle_timeout_->count()));
        take_in_next();
    }
    idle_watch_.expires_after(budget::idle_look);
    idle_watch_.async_wait([this](const asio::error_code& error) {
        if (!error) {
            watch_idle_phone();
        }
    });
}

bool Camera::is_phone_stalled() {
    const bool owes = !sends_.is_idle() || phone_->intake.is_in_request();
    return owes && phone_->link->is_stalled(budget::stalled_time);
}

void Camera::pull_link() {
    phone_->link->look_lost();
    phone_left("the link was pulled");
}

void Camera::phone_left(const std::string& why) {
    tell_if_lost_in_stall();
    say({"phone", {{"event", "left"}, {"reason", why}}, "the phone left" + (why.empty() ? "" : ": " + why)});
    forget_phone();
    take_in_next();
}

// A request that was sent in half and confirmations that are due do not outlive the phone.
void Camera::forget_phone() {
    if (!phone_) {
        return;
    }
    talk_.phone_left(phone_->intake.unread());
    phone_->link->close();
    phone_.reset();
    ADE_ShotMentor_Return_To_Idle();
    sends_.disconnect();
    services_.in_use = false;
    count_requests();
}

std::string Camera::phone() const {
    if (!phone_) {
        return fmt::format("no phone is there; requests so far: {}", talk_.done());
    }
    return fmt::format("a phone is there and {}; requests so far: {}",
                       services_.in_use ? "uses the feature" : "does not use the feature yet", talk_.done());
}

// ---- Replies that are not taken -------------------------------------------------------------------------------------

namespace {

std::string taken_of(const Uptake& uptake) {
    return fmt::format("the phone has taken {} of {} bytes of the reply", uptake.taken(), uptake.total());
}

std::chrono::seconds still_for(const Uptake& uptake) {
    return std::chrono::floor<std::chrono::seconds>(uptake.still_for(Uptake::Clock::now()));
}

void say_of_uptake(const char* event, const Uptake& uptake, std::chrono::seconds still, const std::string& message) {
    say({"phone",
         {{"event", event},
          {"taken_bytes", uptake.taken()},
          {"reply_bytes", uptake.total()},
          {"seconds", still.count()}},
         message});
}

} // namespace

// A link that is slow but moves is as it should be.
void Camera::tell_of_uptake(const Uptake& uptake) {
    const auto still = still_for(uptake);
    if (!phone_->told_stalled && !uptake.is_over() && still >= budget::stall_told) {
        phone_->told_stalled = true;
        say_of_uptake("stalls", uptake, still,
                      fmt::format("the link stalls: {}, and nothing for {} s", taken_of(uptake), still.count()));
    } else if (phone_->told_stalled && still < budget::stall_told) {
        phone_->told_stalled = false;
        const auto before = still_for(phone_->uptake);
        say_of_uptake("moves again", uptake, before,
                      fmt::format("the link moves again after {} s: {}", before.count(), taken_of(uptake)));
    }
    phone_->uptake = uptake;
}

void Camera::tell_if_lost_in_stall() {
    if (phone_->told_stalled) {
        const auto still = still_for(phone_->uptake);
        say_of_uptake("lost while it stalled", phone_->uptake, still,
                      fmt::format("the link that stalled is lost: {}, and nothing for {} s", taken_of(phone_->uptake),
                                  still.count()));
    }
}

// ---- Requests -------------------------------------------------------------------------------------------------------

void Camera::listen_to_phone() {
    phone_->link->receive([this](std::span<const uint8_t> received) {
        phone_->intake.take(received);
        serve();
    });
}

// Only when the last one's reply has gone: what a script does after a request is not meant for its reply.
void Camera::count_requests() {
    if (when_done_) {
        when_done_(talk_.done());
    }
}

// Delivers what has arrived, and reads on when that is done. While a reply is on its way it does neither, and is
// called again when it has gone: a phone that does not read its replies has to wait with its requests. One that sends
// many at once has to let others in between, too.
void Camera::serve() {
    for (int packets = 0; phone_ && sends_.is_idle(); ++packets) {
        count_requests();
        if (packets == budget::packets_of_a_turn) {
            serve_later();
            return;
        }
        const Intake::Delivery delivery = phone_->intake.deliver();
        if (delivery == Intake::Delivery::none) {
            listen_to_phone();
            return;
        }
        tell_refused_allocations(knobs_);
        if (delivery == Intake::Delivery::pulled) {
            pull_link();
            return;
        }
        sends_.free_lost_replies();
        phone_->link->forgive();
        tell_if_stuck();
    }
}

void Camera::serve_later() {
    if (!std::exchange(serves_later_, true)) {
        asio::post(loop_, [this] {
            serves_later_ = false;
            serve();
        });
    }
}

void Camera::tell_if_stuck() {
    const Intake::Stuck stuck = Intake::stuck();
    if (stuck == Intake::Stuck::no || phone_->told_stuck) {
        return;
    }
    phone_->told_stuck = true;
    const std::string why = stuck == Intake::Stuck::no_memory ? "there is no memory for the phone's request"
                                                              : "the phone sent more bytes than it announced";
    say({"phone", {{"event", "stuck"}, {"reason", why}}, why + "; nothing more is answered until it leaves"});
}

// ---- The loop -------------------------------------------------------------------------------------------------------

namespace {

// Tells what standard error has missed once it takes lines again, even if no other line follows.
class LateTalk {
  public:
    explicit LateTalk(asio::io_context& loop) : timer_(loop) {
        StandardError::when_behind([this] { wait(); });
    }
    ~LateTalk() { StandardError::when_behind(nullptr); }
    LateTalk(const LateTalk&) = delete;
    LateTalk& operator=(const LateTalk&) = delete;

  private:
    void wait() {
        timer_.expires_after(std::chrono::seconds(1));
        timer_.async_wait([this](const asio::error_code& error) {
            if (!error && !StandardError::catch_up()) {
                wait();
            }
        });
    }

    asio::steady_timer timer_;
};

constexpr Security security_of(Pairing pairing) {
    switch (pairing) {
    case Pairing::any:
        return Security::encrypted;
    case Pairing::confirm:
        return Security::confirmed;
    case Pairing::none:
        break;
    }
    return Security::low;
}

Listeners listen(asio::io_context& loop, const Options& options, std::span<uint8_t> buffer, capture::Writer* capture) {
    Listeners listeners;
    const Admission admission = {.security = security_of(options.visibility.pairing),
                                 .allowed = options.visibility.allowed};
    for (const Endpoint& endpoint : options.listen) {
        listeners.push_back(std::make_unique<Listener>(loop, endpoint, options.mtu, admission, buffer));
    }
    if (capture != nullptr) {
        capture->begin();
        for (const std::unique_ptr<Listener>& listener : listeners) {
            listener->capture(*capture);
        }
    }
    return listeners;
}

// Nothing where phones do not come by Bluetooth.
std::optional<Discovery> discovery_of(asio::io_context& loop, const Visibility& visibility,
                                      const Listeners& listeners) {
    std::vector<Endpoint> endpoints;
    for (const std::unique_ptr<Listener>& listener : listeners) {
        if (listener->endpoint().is_bluetooth()) {
            endpoints.push_back(listener->endpoint());
        }
    }
    if (endpoints.empty()) {
        return std::nullopt;
    }
    return std::optional<Discovery>(std::in_place, loop, visibility, endpoints);
}

void announce(const Endpoint& endpoint) {
    std::printf("listening on %s\n", endpoint.url().c_str());
    std::fflush(stdout);
}

} // namespace

void serve_phones(asio::io_context& loop, PresetStore& store, const Options& options, capture::Writer* capture) {
    const LateTalk late_talk(loop);
    std::vector<uint8_t> buffer(budget::received_bytes);
    Listeners listeners = listen(loop, options, buffer, capture);
    Lab lab(options.knobs);
    std::optional<Control> control;
    if (options.control) {
        control.emplace(loop, *options.control, lab);
    }
    SendQueue sends(loop, lab.knobs());
    Services services(store, &sends, lab.knobs());
    Script script(loop, options.script, lab);
    Camera camera(loop, listeners, sends, services, lab.knobs(), options.quiet, options.idle_timeout);
    std::optional<Discovery> discovery = discovery_of(loop, options.visibility, listeners);
    if (discovery) {
        lab.when_answered_to_pair([&](bool accepts) { return discovery->answer_pairing(accepts); });
    }
    lab.when_asked_for_phone([&] { return camera.phone(); });
    camera.when_done([&](int64_t count) { script.requests_done(count); });
    announce_lab(lab.knobs());
    start_refusing_allocations(lab.knobs());
    script.start();
    camera.open();
    if (control) {
        control->open();
    }
    for (const std::unique_ptr<Listener>& listener : listeners) {
        announce(listener->endpoint());
    }
    if (discovery) {
        discovery->open();
    }
    loop.run();
}

} // namespace desk::camera
