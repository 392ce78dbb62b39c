// The connection to one phone, whatever kind of socket it is.
#pragma once

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>

#include "Capture/Writer.h"
#include "Uptake.h"

namespace desk::camera {

struct Knobs;

// How a link cuts what it carries.
struct LinkTraits {
    bool keeps_message_boundaries = false;
    size_t mtu = 0;                 // largest packet to send, on a link that keeps message boundaries
    bool kernel_tells_room = false; // asked for what it still holds, it tells what it could hold on top
};

// One receive and one send may be under way at a time. A link that breaks calls `on_lost` once, from the loop, instead
// of their handlers; a link that was closed calls nothing more.
class Link : public std::enable_shared_from_this<Link> {
  public:
    using Received = std::function<void(std::span<const uint8_t>)>;
    using Sent = std::function<void()>;
    using Lost = std::function<void(const std::string& why)>; // empty: the phone closed it
    using Looked = std::function<void(const Uptake& uptake)>;

    // Takes the connected socket over. `buffer` is where it receives; links may share one. What crosses the link is
    // written to `capture`, if there is one.
    Link(asio::io_context& loop, int socket, LinkTraits traits, std::span<uint8_t> buffer,
         std::unique_ptr<capture::LinkWriter> capture);

    bool keeps_message_boundaries() const { return traits_.keeps_message_boundaries; }
    void on_lost(Lost handler) { lost_ = std::move(handler); }
    // Called now and then while the phone has not taken all that was sent, and once when it has.
    void on_look(Looked handler) { looked_ = std::move(handler); }

    // Waits for one packet, which may be empty, or for bytes of the stream. They are the handler's until it returns. A
    // wait that is under way goes on.
    void receive(Received handler);
    // Sends the bytes, cut into packets of the link. They are read until the handler is called: nothing is copied. A
    // phone that has left takes them as well as any: what it has sent is received before the link counts as lost.
    void send(std::span<const uint8_t> bytes, Sent handler);
    // From now on bytes pass at the pace of these knobs, which outlive the link.
    void pace(const Knobs& knobs) { knobs_ = &knobs; }
    // Whether the phone has closed its end, although what it sent before may still wait to be received.
    bool phone_has_closed();
    // Whether the phone keeps a receive or a send waiting, and no byte has moved for this time.
    bool is_stalled(std::chrono::seconds time);
    // The time of a stall begins anew: it was the camera that kept the phone waiting.
    void forgive() { moved_ = Clock::now(); }
    // Tells the phone that nothing more follows.
    void end_sending();
    void close();
    // Closes at once: what is still on its way to the phone is dropped.
    void abort();
    // When it is closed, a capture shows it as lost.
    void look_lost() { end_capture_as(capture::LinkWriter::End::link_lost); }

  private:
    using Clock = std::chrono::steady_clock;

    bool is_paced() const;
    Clock::duration time_of(size_t packet) const;
    void let_through(asio::steady_timer& pause, size_t packet, Clock::time_point since, void (Link::*go_on)());
    void wait_for_bytes();
    size_t next_to_read();
    size_t largest_piece() const;
    void read_paced();
    void read_once(size_t at_most);
    ssize_t receive_before_end(std::span<uint8_t> room, int& flags);
    bool is_empty_packet();
    size_t next_to_write() const;
    void write_on();
    void write_paced();
    bool write_packet();
    void write_later();
    void all_is_written();
    void watch_uptake();
    void look_at_uptake();
    size_t held_by_kernel();
    void end_capture_as(capture::LinkWriter::End how);
    void lose_by(int error);
    void lose(const std::string& why, capture::LinkWriter::End how);
    void stop_timers();

    asio::io_context& loop_;
    asio::posix::stream_descriptor socket_;
    LinkTraits traits_;
    std::span<uint8_t> buffer_;
    std::span<const uint8_t> unsent_;
    Received received_;
    Sent sent_;
    Lost lost_;
    Clock::time_point moved_ = Clock::now(); // when the last byte did, either way
    int end_ = 0;                            // the error by which the link has ended, while bytes before it are read
    Uptake uptake_;
    Looked looked_;
    asio::steady_timer watch_;
    bool watches_ = false;         // the next look is due
    const Knobs* knobs_ = nullptr; // of a link that may be slowed
    asio::steady_timer read_pause_;
    asio::steady_timer write_pause_;
    std::unique_ptr<capture::LinkWriter> capture_; // none where nothing is captured, or the link has ended
};

} // namespace desk::camera
