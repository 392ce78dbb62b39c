#include "Replay.h"

#include <algorithm>
#include <fmt/format.h>
#include <optional>
#include <thread>

#include "Capture/Assembler.h"
#include "Capture/Comparison.h"
#include "Capture/MessageWords.h"
#include "Capture/Playable.h"
#include "Capture/Recut.h"
#include "Common/Failure.h"
#include "Common/Text.h"
#include "Options.h"
#include "Output.h"
#include "ReplayLink.h"
#include "Reporting.h"
#include "StandardFiles.h"

namespace desk::phone {
namespace {

using capture::Ending;
using capture::Exchange;
using capture::Packet;
using capture::Side;

// The first difference is enough, unless all are asked for.
struct Enough {};

// What is known of the conversation as it goes on: of the capture, and of the camera that is there.
class Replay {
  public:
    explicit Replay(const Options& options) : options_(options) {}

    void play(const Exchange& exchange);
    // Ends what is still open.
    void end(Ending ending);

    size_t requests() const { return requests_; }
    size_t replies() const { return replies_; }
    size_t differences() const { return differences_; }

  private:
    void connect(const Exchange& exchange);
    void send(const Exchange& exchange);
    void send_piece(std::span<const uint8_t> piece);
    void send_packet(std::span<const uint8_t> packet);
    void wait_as_then(const Packet& packet);
    void expect(const Packet& packet, std::span<const uint8_t> bytes);
    void expect_message(const Bytes& before);
    Bytes next_answer(const std::string& name, int32_t function);
    void expect_start();
    void differ(const std::string& line);
    void tell(const std::string& line) const;

    const Options& options_;
    capture::Comparison comparison_;
    std::optional<ReplayLink> link_;
    std::optional<capture::Assembler> camera_; // of the capture
    uint32_t connection_ = 0;
    std::optional<int64_t> last_time_; // of the capture
    std::optional<capture::Recut> recut_;
    bool camera_has_closed_ = false;
    bool camera_may_close_ = false;
    bool told_unreadable_ = false;
    size_t requests_ = 0;
    size_t replies_ = 0;
    size_t differences_ = 0;
};

void Replay::differ(const std::string& line) {
    ++differences_;
    print(line + "\n");
    if (!options_.all_differences) {
        throw Enough{};
    }
}

void Replay::tell(const std::string& line) const {
    if (options_.verbose) {
        say(line);
    }
}

void Replay::connect(const Exchange& exchange) {
    if (!exchange.packets.empty()) {
        wait_as_then(exchange.packets.front());
    }
    connection_ = exchange.connection;
    tell(fmt::format("connection {}", connection_));
    camera_.emplace(Side::camera, exchange.keeps_message_boundaries);
    camera_has_closed_ = false;
    recut_.emplace(Side::phone, !exchange.keeps_message_boundaries && options_.camera.keeps_message_boundaries());
    link_.emplace(options_.camera, options_.timeout, options_.capture.get());
}

void Replay::play(const Exchange& exchange) {
    if (exchange.connection != connection_) {
        end(Ending::unknown);
        connect(exchange);
    }
    send(exchange);
    if (exchange.ending != Ending::none) {
        end(exchange.ending);
    }
}

// The identities in a request are those of the camera that is there; all else is sent as it was.
void Replay::send(const Exchange& exchange) {
    const Bytes request = exchange.sent_by(Side::phone);
    const Bytes now = exchange.continues ? request : comparison_.translated(request);
    if (exchange.is_request) {
        ++requests_;
        tell(fmt::format("request {}: {}", requests_, capture::request_in_words(now)));
    }
    camera_may_close_ = exchange.ending == Ending::camera_left || exchange.ending == Ending::unknown;
    size_t sent = 0;
    for (const Packet& packet : exchange.packets) {
        if (packet.sender == Side::camera) {
            expect(packet, exchange.bytes_of(packet));
            continue;
        }
        wait_as_then(packet);
        send_piece(std::span<const uint8_t>(now).subspan(sent, packet.size));
        sent += packet.size;
    }
}

void Replay::send_piece(std::span<const uint8_t> piece) {
    for (const Bytes& packet : recut_->take(piece)) {
        send_packet(packet);
    }
}

// A camera that hung up then may do so now.
void Replay::send_packet(std::span<const uint8_t> packet) {
    const bool was_taken = !camera_has_closed_ && link_->send(packet);
    camera_has_closed_ = !was_taken;
    if (!was_taken && !camera_may_close_) {
        throw Failure(exit_protocol,
                      fmt::format("request {}: the camera closed the link before all was sent", requests_));
    }
}

// The time between two packets of the capture.
void Replay::wait_as_then(const Packet& packet) {
    if (last_time_) {
        std::this_thread::sleep_for(capture::pause_between(options_.pace, *last_time_, packet.time));
    }
    last_time_ = packet.time;
}

void Replay::expect(const Packet& packet, std::span<const uint8_t> bytes) {
    for (const Bytes& message : camera_->take(bytes)) {
        expect_message(message);
    }
    if (camera_->is_stuck() && !told_unreadable_) {
        told_unreadable_ = true;
        say("what the camera says in the capture is no message from here on; it is not compared");
    }
    last_time_ = packet.time;
}

void Replay::expect_message(const Bytes& before) {
    ++replies_;
    const std::string name =
        fmt::format("reply {} ({})", replies_, capture::name_of_message(capture::function_of(before)));
    const Bytes now = next_answer(name, capture::function_of(before));
    tell(fmt::format("{}: {}", name, counted(now.size(), "byte")));
    for (const std::string& line : comparison_.of_replies(before, now)) {
        differ(fmt::format("{}: {}", name, line));
    }
}

// What the camera says and did not say then is told and passed over.
Bytes Replay::next_answer(const std::string& name, int32_t function) {
    try {
        while (std::optional<Bytes> now = link_->next_message()) {
            if (capture::function_of(*now) == function) {
                return *std::move(now);
            }
            differ(fmt::format("before {}: the camera says {}, which it did not", name,
                               capture::name_of_message(capture::function_of(*now))));
        }
    } catch (const Failure& failure) {
        throw Failure(failure.code(), fmt::format("{}: {}", name, failure.what()));
    }
    throw Failure(exit_protocol, fmt::format("{}: the camera closed the link before it answered", name));
}

// A reply that the capture has the start of: the phone, or the camera, hung up within it.
void Replay::expect_start() {
    const Bytes& before = camera_->begun();
    if (before.empty() || camera_->is_stuck()) {
        return;
    }
    const Bytes now = link_->start_of_message(before.size());
    constexpr size_t header = sizeof(sm_frame);
    if (before.size() >= header && now.size() >= header &&
        !std::equal(before.begin(), before.begin() + header, now.begin())) {
        differ(fmt::format("reply {}, cut off: was {} of {} bytes, is {} of {} bytes", replies_ + 1,
                           capture::name_of_message(capture::function_of(before)), capture::total_of(before),
                           capture::name_of_message(capture::function_of(now)), capture::total_of(now)));
    }
}

void Replay::end(Ending ending) {
    if (!link_) {
        return;
    }
    if (!recut_->rest().empty()) {
        send_packet(recut_->rest());
    }
    const bool was_cut_off = !camera_->begun().empty() && !camera_->is_stuck();
    expect_start();
    if (ending == Ending::camera_left && !was_cut_off && !link_->wait_for_close()) {
        differ(fmt::format("the end of connection {}: the camera closed the link, and now does not", connection_));
    }
    for (const Bytes& message : was_cut_off ? std::vector<Bytes>() : link_->finish()) {
        differ(fmt::format("behind reply {}: the camera says {}, which it did not", replies_,
                           capture::name_of_message(capture::function_of(message))));
    }
    link_.reset();
    camera_.reset();
    connection_ = 0;
}

// ---- The capture ----------------------------------------------------------------------------------------------------

capture::Playable playable(const Options& options) {
    return {options.captured_file, name_of_input(options.captured_file), options.psm,
            [](const std::string& line) { say(line); }};
}

// ---- What would be sent ---------------------------------------------------------------------------------------------

size_t packets_of(const Exchange& exchange, Side side) {
    return static_cast<size_t>(std::ranges::count(exchange.packets, side, &Packet::sender));
}

void print_planned(const Exchange& exchange, int64_t start, size_t replies) {
    const Bytes request = exchange.sent_by(Side::phone);
    if (exchange.opens) {
        print(fmt::format("connection {}\n", exchange.connection));
    }
    if (request.empty()) {
        return;
    }
    const double seconds = static_cast<double>(exchange.packets.front().time - start) / 1e6;
    print(fmt::format("  {:.3f} s  {}: {} in {}{}\n", seconds,
                      exchange.is_request ? capture::request_in_words(request) : "the rest of the request",
                      counted(request.size(), "byte"), counted(packets_of(exchange, Side::phone), "packet"),
                      replies == 0 ? ""
                                   : fmt::format(", then waits for {}",
                                                 replies == 1 ? "1 reply" : fmt::format("{} replies", replies))));
}

int plan(const Options& options) {
    capture::Playable source = playable(options);
    std::optional<int64_t> start;
    std::optional<capture::Assembler> camera;
    while (const std::optional<Exchange> exchange = source.next()) {
        if (exchange->opens || !camera) {
            camera.emplace(Side::camera, exchange->keeps_message_boundaries);
        }
        if (!start && !exchange->packets.empty()) {
            start = exchange->packets.front().time;
        }
        print_planned(*exchange, start.value_or(0), camera->take(exchange->sent_by(Side::camera)).size());
    }
    source.check_any();
    source.check_whole();
    return exit_done;
}

std::string summary(const Replay& replay) {
    return fmt::format("{} sent, {} compared: {}", counted(replay.requests(), "request"),
                       replay.replies() == 1 ? "1 reply" : fmt::format("{} replies", replay.replies()),
                       replay.differences() == 0 ? "no difference" : counted(replay.differences(), "difference"));
}

} // namespace

int replay(const Options& options) {
    if (options.dry_run) {
        return plan(options);
    }
    capture::Playable source = playable(options);
    Replay replay(options);
    try {
        while (const std::optional<Exchange> exchange = source.next()) {
            replay.play(*exchange);
        }
        source.check_any();
        replay.end(Ending::unknown);
    } catch (const Enough&) {
        mention(options, "the replay ended at the first difference; --all goes on");
        return exit_differs;
    }
    mention(options, summary(replay));
    if (replay.differences() > 0) {
        return exit_differs;
    }
    source.check_whole();
    return exit_done;
}

} // namespace desk::phone
