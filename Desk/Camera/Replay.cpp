#include "Replay.h"

#include <algorithm>
#include <cstdio>
#include <fmt/format.h>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <utility>

#include "Capture/Comparison.h"
#include "Capture/MessageWords.h"
#include "Capture/Playable.h"
#include "Capture/Recut.h"
#include "Common/Failure.h"
#include "Common/Text.h"
#include "Options.h"
#include "ReplayPhone.h"
#include "Talk.h"

namespace desk::camera {
namespace {

using capture::Ending;
using capture::Exchange;
using capture::Packet;
using capture::Playable;
using capture::Side;

constexpr const char* kind = "replay";

void tell(const std::string& line) {
    say({kind, nlohmann::ordered_json::object(), line});
}

Playable playable(const Options& options, const Playable::Tell& remark) {
    return {options.replay, printable(options.replay), options.psm, remark};
}

// The exchanges of the capture in order, from which a phone may stray.
class Play {
  public:
    // Differences are counted in `differences`.
    Play(const Options& options, const Waiting& waiting, const ReplayListener& listener, size_t& differences)
        : options_(options), waiting_(waiting), listener_(listener), source_(playable(options, tell)),
          differences_(differences), differences_before_(differences) {}

    // From the capture's start to its end.
    void run();

  private:
    std::optional<Exchange> next();
    void play(const Exchange& exchange);
    void take_phone_in(const Exchange& exchange);
    std::optional<Exchange> answered(const Exchange& exchange);
    std::optional<Exchange> other_request(const Exchange& exchange, std::span<const uint8_t> message);
    std::optional<size_t> place_of(const Exchange& exchange, int32_t function) const;
    void phone_left_within(const Exchange& exchange);
    void send(const Exchange& exchange);
    bool send_piece(std::span<const uint8_t> piece);
    void end(Ending ending);
    void differ(const std::string& line);
    void heard(const std::string& line) const;

    const Options& options_;
    const Waiting& waiting_;
    const ReplayListener& listener_;
    Playable source_;
    size_t place_ = 0; // of the next exchange
    std::optional<ReplayPhone> phone_;
    std::optional<capture::Recut> recut_;
    uint32_t connection_ = 0; // that is played, or was when the phone left
    int64_t last_time_ = 0;   // of the capture
    size_t& differences_;
    size_t differences_before_;
    size_t requests_ = 0;
};

void Play::differ(const std::string& line) {
    ++differences_;
    tell("not as in the capture: " + line);
}

void Play::heard(const std::string& line) const {
    if (!options_.quiet) {
        tell(line);
    }
}

void Play::run() {
    while (const std::optional<Exchange> exchange = next()) {
        play(*exchange);
    }
    end(Ending::unknown);
    source_.check_whole();
    const size_t differences = differences_ - differences_before_;
    tell(fmt::format("the capture is at its end: {}, {}", counted(requests_, "request"),
                     differences == 0 ? "no difference" : counted(differences, "difference")));
}

std::optional<Exchange> Play::next() {
    ++place_;
    return source_.next();
}

void Play::play(const Exchange& exchange) {
    if (exchange.connection != connection_) {
        end(Ending::unknown);
        take_phone_in(exchange);
    }
    if (!phone_) {
        return; // it has left before the rest of the connection came
    }
    const bool waits = exchange.is_request;
    const std::optional<Exchange> now = waits ? answered(exchange) : std::optional<Exchange>(exchange);
    if (now && phone_) {
        send(*now);
    }
    if (now && now->ending != Ending::none) {
        end(now->ending);
    }
}

void Play::take_phone_in(const Exchange& exchange) {
    connection_ = exchange.connection;
    phone_.emplace(listener_.accept());
    recut_.emplace(Side::camera, !exchange.keeps_message_boundaries && phone_->keeps_message_boundaries());
    heard(fmt::format("a phone connected, for connection {}", connection_));
}

// ---- What the phone asks --------------------------------------------------------------------------------------------

Bytes kept_of(Bytes request) {
    request.resize(std::min(request.size(), size_t{SM_REQUEST_LIMIT})); // what is longer is counted, not held
    return request;
}

bool is_whole(const Exchange& exchange, const Bytes& request) {
    capture::Assembler whole(Side::phone, exchange.keeps_message_boundaries);
    return !whole.take(request).empty();
}

// Waits for the request. Returns the exchange to go on with: this one, or a later one of the same connection.
std::optional<Exchange> Play::answered(const Exchange& exchange) {
    while (true) {
        const std::optional<Bytes> message = phone_->next_message();
        if (!message) {
            phone_left_within(exchange);
            return exchange;
        }
        ++requests_;
        const std::string name = capture::request_in_words(*message);
        const Bytes expected = kept_of(exchange.sent_by(Side::phone));
        const bool is_same_kind = expected.size() >= sizeof(sm_frame) && message->size() >= sizeof(sm_frame) &&
                                  capture::function_of(expected) == capture::function_of(*message);
        if (!is_same_kind) {
            if (std::optional<Exchange> later = other_request(exchange, *message)) {
                return later;
            }
            continue;
        }
        const std::vector<std::string> lines = capture::Comparison().of_requests(expected, *message);
        for (const std::string& line : lines) {
            differ(fmt::format("{}: {}", name, line));
        }
        if (lines.empty()) {
            heard(name + ": as in the capture");
        }
        return exchange;
    }
}

// One that the capture has further on, with an answer, is answered so, and what lies between is left out. Any other one
// gets no answer.
std::optional<Exchange> Play::other_request(const Exchange& exchange, std::span<const uint8_t> message) {
    const std::string line = fmt::format("was {}, is {}", capture::request_in_words(exchange.sent_by(Side::phone)),
                                         capture::request_in_words(message));
    const std::optional<size_t> place =
        message.size() < sizeof(sm_frame) ? std::nullopt : place_of(exchange, capture::function_of(message));
    if (!place) {
        differ(line + "; the capture has no answer to that further on, so it gets none");
        return std::nullopt;
    }
    differ(fmt::format("{}; {} left out", line, counted(*place + 1 - place_, "request")));
    std::optional<Exchange> later;
    while (place_ <= *place) {
        later = next();
    }
    return later;
}

// Reads the capture once more.
std::optional<size_t> Play::place_of(const Exchange& exchange, int32_t function) const {
    Playable source = playable(options_, [](const std::string&) {});
    for (size_t place = 0; const std::optional<Exchange> other = source.next(); ++place) {
        if (other->connection > exchange.connection) {
            break;
        }
        const Bytes request = other->sent_by(Side::phone);
        if (place >= place_ && other->is_request && request.size() >= sizeof(sm_frame) &&
            capture::function_of(request) == function && !other->sent_by(Side::camera).empty()) {
            return place;
        }
    }
    return std::nullopt;
}

// That may be what it did then, too.
void Play::phone_left_within(const Exchange& exchange) {
    const Bytes expected = exchange.sent_by(Side::phone);
    const bool left_so = !is_whole(exchange, expected) && phone_->begun() == kept_of(expected);
    if (!left_so) {
        differ(fmt::format("the phone leaves here, where it asks: {}", capture::request_in_words(expected)));
    }
    phone_.reset();
}

// ---- What the camera says -------------------------------------------------------------------------------------------

void Play::send(const Exchange& exchange) {
    for (const Packet& packet : exchange.packets) {
        if (packet.sender == Side::camera) {
            waiting_.pause(capture::pause_between(options_.pace, last_time_, packet.time));
            if (!send_piece(exchange.bytes_of(packet))) {
                differ("the phone leaves before it has taken all that the camera says");
                phone_.reset();
                return;
            }
        }
        last_time_ = packet.time;
    }
}

bool Play::send_piece(std::span<const uint8_t> piece) {
    return std::ranges::all_of(recut_->take(piece), [this](const Bytes& packet) { return phone_->send(packet); });
}

// A camera that hung up does so at once. Else the phone is waited for.
void Play::end(Ending ending) {
    if (!phone_) {
        return;
    }
    if (!recut_->rest().empty()) {
        phone_->send(recut_->rest());
    }
    while (ending != Ending::camera_left) {
        const std::optional<Bytes> message = phone_->next_message();
        if (!message) {
            break;
        }
        ++requests_;
        differ(fmt::format("the phone leaves there, and asks here: {}; it gets no answer",
                           capture::request_in_words(*message)));
    }
    phone_.reset();
    heard(ending == Ending::camera_left ? "the link was closed, as then" : "the phone left");
}

void check_file(const std::string& path) {
    struct stat file = {};
    if (::stat(path.c_str(), &file) == 0 && !S_ISREG(file.st_mode)) {
        throw Failure(exit_usage, fmt::format("{} is no ordinary file, and --replay reads it more than once: save the "
                                              "capture in one",
                                              printable(path)));
    }
}

size_t play_on(const Options& options, const Waiting& waiting, const ReplayListener& listener) {
    size_t differences = 0;
    try {
        do {
            Play(options, waiting, listener, differences).run();
        } while (options.loops);
    } catch (const Stopped&) {
        tell("stopped by a signal");
    }
    return differences;
}

} // namespace

int replay(const Options& options) {
    check_file(options.replay);
    Playable first = playable(options, [](const std::string&) {});
    static_cast<void>(first.next());
    first.check_any();
    const Waiting waiting;
    const ReplayListener listener(waiting, options.listen.front());
    std::printf("listening on %s\n", listener.endpoint().url().c_str());
    std::fflush(stdout);
    return play_on(options, waiting, listener) == 0 ? exit_done : exit_differs;
}

} // namespace desk::camera
