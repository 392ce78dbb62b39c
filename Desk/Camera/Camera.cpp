#include "Camera.h"

#include <algorithm>
#include <asio/steady_timer.hpp>
#include <cstdio>

#include "Lab/LibraryHeap.h"
#include "Options.h"
#include "PresetStore.h"
#include "Services.h"
#include "Talk.h"
#include "Wire/Frames.h"

namespace desk {

Camera::Camera(asio::io_context& loop, Listener& listener, SendQueue& sends, Services& services)
    : loop_(loop), listener_(listener), sends_(sends), services_(services) {}

Camera::~Camera() {
    forget_phone();
}

void Camera::open() {
    sends_.when_idle([this] { serve(); });
    listener_.accept([this](std::shared_ptr<Link> link) { phone_came(std::move(link)); });
}

// ---- Phones come and go -----------------------------------------------------------------------------------

void Camera::phone_came(std::shared_ptr<Link> link) {
    if (!phone_) {
        take_in(std::move(link));
    } else if (all_before_have_closed()) {
        next_.push_back(std::move(link));
    } else {
        turn_away(std::move(link));
    }
}

// A phone that comes back at once may be seen before its last link's end is, and before what it sent at the
// last: that is answered first.
bool Camera::all_before_have_closed() {
    const auto has_closed = [](const std::shared_ptr<Link>& link) { return link->phone_has_closed(); };
    return has_closed(phone_->link) && std::all_of(next_.begin(), next_.end(), has_closed);
}

void Camera::take_in(std::shared_ptr<Link> link) {
    say("a phone connected");
    link->on_lost([this](const std::string& why) { phone_left(why); });
    sends_.connect(link);
    phone_.emplace(Phone{link, Intake(link->keeps_borders())});
    listen_to_phone();
}

namespace {

void discard_what_arrives(Link& link) {
    link.receive([&link](std::span<const uint8_t>) { discard_what_arrives(link); });
}

} // namespace

// The link stays open for a moment: a close before the phone's request has been read would take the frame
// away from a phone that has not read it yet.
void Camera::turn_away(std::shared_ptr<Link> link) {
    say("a second phone was turned away");
    const auto frame = std::make_shared<Bytes>(busy_frame());
    const auto patience = std::make_shared<asio::steady_timer>(loop_, std::chrono::seconds(1));
    patience->async_wait([link, frame, patience](const asio::error_code&) { link->close(); });
    link->on_lost([patience](const std::string&) { patience->cancel(); });
    link->send(*frame, [&sender = *link] { sender.end_sending(); });
    discard_what_arrives(*link);
}

void Camera::phone_left(const std::string& why) {
    say("the phone left" + (why.empty() ? "" : ": " + why));
    forget_phone();
    if (!next_.empty()) {
        const std::shared_ptr<Link> link = next_.front();
        next_.pop_front();
        take_in(link);
    }
}

// A request that was sent in half and confirmations that are due do not outlive the phone.
void Camera::forget_phone() {
    if (!phone_) {
        return;
    }
    phone_->link->close();
    phone_.reset();
    Intake::return_library_to_idle();
    sends_.disconnect();
    services_.in_use = false;
}

// ---- Requests ---------------------------------------------------------------------------------------------

void Camera::listen_to_phone() {
    phone_->link->receive([this](std::span<const uint8_t> received) {
        phone_->intake.take(received);
        serve();
    });
}

// Hands over what has arrived, and reads on when that is done. While a reply is on its way it does neither,
// and is called again when it has gone: a phone that does not read its replies has to wait with its requests.
void Camera::serve() {
    while (phone_ && sends_.is_idle()) {
        if (!phone_->intake.hand_over()) {
            listen_to_phone();
            return;
        }
        tell_if_stuck();
    }
}

void Camera::tell_if_stuck() {
    const Intake::Stuck stuck = Intake::stuck();
    if (stuck == Intake::Stuck::no || phone_->told_stuck) {
        return;
    }
    phone_->told_stuck = true;
    say(stuck == Intake::Stuck::no_memory
            ? "there is no memory for the phone's request; nothing more is answered until it leaves"
            : "the phone sent more bytes than it announced; nothing more is answered until it leaves");
}

// ---- The loop ---------------------------------------------------------------------------------------------

namespace {

void announce(const Endpoint& endpoint) {
    std::printf("listening on %s\n", endpoint.url().c_str());
    std::fflush(stdout);
}

} // namespace

void serve_phones(asio::io_context& loop, PresetStore& store, const Options& options) {
    Listener listener(loop, options.listen, options.mtu);
    SendQueue sends(loop, options.lab);
    Services services(store, &sends, options);
    Camera camera(loop, listener, sends, services);
    camera.open();
    library_heap::refuse(options.lab.refuse_allocation, options.lab.refuse_for_good);
    announce(listener.endpoint());
    loop.run();
}

} // namespace desk
