// The conversation with the camera: one request after another, each with its answer.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "Link.h"
#include "Wire/Frames.h"

namespace desk::phone {

struct Options;

// The options of a client whose requests draw no progress: whoever sends many of them draws one for all.
Options without_progress(const Options& options);

// What the phone holds at most of a camera's bytes: one frame in progress, longest_picture_reply, and one receipt of
// the link, 1 MiB. A picture stays in the memory that it came in. While it is drawn, most_decoder_memory comes to that:
// about 200 MB in all.
//
// Every request throws Failure: exit_timeout, exit_busy, or exit_protocol when the link is closed early or the answer
// is not the one that the request has.
class CameraClient {
  public:
    explicit CameraClient(const Options& options);

    ListReply list();
    // The bytes of the picture; none when the camera cannot read it.
    Bytes picture(const sm_tag_custom_info& preset);
    StoreReply store(const sm_tag_custom_info& preset, std::span<const uint8_t> picture);
    int32_t update(const sm_tag_custom_info& preset);
    DeleteReply remove(std::span<const sm_delete_pair> pairs);
    // Has no answer: returns once the camera has taken it and closed the link, or has had time to.
    void leave(int32_t code);

  private:
    // A request under way.
    struct Exchange {
        Bytes request;
        std::string silence;   // what no answer at all may mean
        size_t longest_answer; // one that announces more bytes is refused
        Clock::time_point begin = Clock::now();
        Clock::time_point last_move = begin;
        size_t sent = 0;
        bool refused = false; // the camera takes no more of it
        bool is_sending() const { return !refused && sent < request.size(); }
    };

    Bytes answer_to(Exchange exchange, const std::string& progress_label);
    void send_all(Exchange exchange);
    void move_bytes(Exchange& exchange);
    bool send_more(Exchange& exchange);
    bool receive_more();
    std::optional<Bytes> next_frame(size_t longest);
    void drop_frames();
    void wait_for_close();
    std::chrono::milliseconds longest_duration(const Exchange& exchange) const;
    Failure early_close_failure(const Exchange& exchange) const;
    Failure no_answer_failure(const Exchange& exchange) const;
    Failure too_slow_failure(const Exchange& exchange) const;
    void tell(const char* what, std::span<const uint8_t> frame) const;

    Clock::time_point start_ = Clock::now();
    bool quiet_;
    bool verbose_;
    std::chrono::milliseconds timeout_;
    Link link_;
    FrameReader reader_;
    std::span<const uint8_t> received_; // in the link's memory, and not taken by the reader yet
    bool closed_ = false;
};

} // namespace desk::phone
