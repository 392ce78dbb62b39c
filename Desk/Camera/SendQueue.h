// The Bluetooth application service's sends: one after another onto the link, each confirmed to the library.
#pragma once

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <span>
#include <vector>

#include "Knobs.h"
#include "Link.h"

namespace desk::camera {

// Replies are borrowed: they are read out of the library's memory until they have gone. Which memory a confirmation
// frees is the library's business, and not always that of the send it is meant for (a reply that replaces an
// unconfirmed one shifts them by one). Therefore nothing is confirmed, and the camera delivers no packet, while a
// reply is on its way: whatever is freed or replaced then has been read.
class SendQueue {
  public:
    SendQueue(asio::io_context& loop, Knobs& knobs);

    // Takes a message in. Called from inside the library, so nothing but this happens until it has returned.
    void queue(std::span<const uint8_t> reply);

    // Frees the replies that the library has lost: one that an error reply took the place of while it was unconfirmed,
    // and the newest of a full queue. It leaves both to whoever reads them, and nobody does any more. To be called when
    // the library has returned.
    void free_lost_replies();

    // Whether replies are still on their way; `when_idle` is called each time that they have all gone.
    bool is_idle() const { return waiting_.empty(); }
    void when_idle(std::function<void()> handler) { when_idle_ = std::move(handler); }
    // Called when the lab has the link pulled in the middle of a reply.
    void when_pulled(std::function<void()> handler) { when_pulled_ = std::move(handler); }

    void connect(std::shared_ptr<Link> link);
    // The phone has left: what is under way has failed. Confirms every send that has not been, those whose confirmation
    // was dropped included, so that the next phone finds the library as the first one did.
    void disconnect();

  private:
    using Clock = std::chrono::steady_clock;

    // A send that has gone, and is to be confirmed.
    struct Unconfirmed {
        int64_t number;
        Clock::time_point due;
        bool is_twice;
    };

    void send_next();
    bool is_to_pull() const;
    void send_start_and_pull();
    void pulled(size_t sent, size_t total);
    void sent();
    const char* reason_to_drop();
    void await_confirmation();
    void confirm_later();
    void confirm_due();
    void confirm(const Unconfirmed& send);
    void confirm_once();

    asio::io_context& loop_;
    Knobs& knobs_;
    asio::steady_timer timer_;
    std::shared_ptr<Link> link_;
    std::function<void()> when_idle_;
    std::function<void()> when_pulled_;
    std::deque<std::span<const uint8_t>> waiting_; // the first one is on its way
    bool is_sending_ = false;
    std::deque<Unconfirmed> unconfirmed_; // in the order of their sends
    size_t dropped_ = 0;                  // sends that have gone and will not be confirmed
    std::vector<void*> kept_;             // replies that the library holds, sent or to be sent
    int64_t sends_ = 0;
};

} // namespace desk::camera
