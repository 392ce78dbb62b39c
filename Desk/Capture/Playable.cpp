#include "Playable.h"

#include <fmt/format.h>
#include <utility>

#include "Common/Failure.h"
#include "Wire/Frames.h"

namespace desk::capture {
namespace {

bool says_busy(const Exchange& exchange) {
    const Bytes camera = exchange.sent_by(Side::camera);
    return camera.size() >= sizeof(sm_frame) && function_of(camera) == busy_function;
}

} // namespace

Playable::Playable(const std::string& path, std::string name, std::optional<uint16_t> psm, Tell tell)
    : name_(std::move(name)), tell_(std::move(tell)), exchanges_(path, {.follows = false, .psm = psm}) {}

std::optional<Exchange> Playable::next() {
    while (std::optional<Exchange> exchange = exchanges_.next()) {
        tell_remarks();
        const bool is_late_end = exchange->packets.empty() && exchange->connection != current_;
        if (!is_busy(*exchange) && !is_late_end) {
            check_order(*exchange);
            return exchange;
        }
    }
    tell_remarks();
    return std::nullopt;
}

bool Playable::is_busy(const Exchange& exchange) {
    if (exchange.opens && says_busy(exchange)) {
        was_busy_ = true;
        busy_.insert(exchange.connection);
        tell_(fmt::format("connection {} is passed over: the phone was told that the camera was busy",
                          exchange.connection));
    }
    const bool is_busy = busy_.contains(exchange.connection);
    if (exchange.ending != Ending::none) {
        busy_.erase(exchange.connection);
    }
    return is_busy;
}

// A camera serves one phone at a time.
void Playable::check_order(const Exchange& exchange) {
    if (current_ && exchange.connection < *current_) {
        throw Failure(exit_usage, fmt::format("{}: connection {} goes on after connection {} has begun, and a camera "
                                              "serves one phone at a time: this cannot be played",
                                              name_, exchange.connection, *current_));
    }
    current_ = exchange.connection;
}

void Playable::tell_remarks() {
    for (const std::string& remark : exchanges_.remarks()) {
        ++faults_;
        tell_(fmt::format("{}: {}", name_, remark));
    }
}

void Playable::check_any() const {
    if (current_) {
        return;
    }
    if (was_busy_) {
        throw Failure(exit_missing, fmt::format("{} holds a phone that was told that the camera was busy, and nothing "
                                                "else: there is nothing to play",
                                                name_));
    }
    throw nothing_in(name_);
}

void Playable::check_whole() const {
    if (faults_ > 0) {
        throw not_in_full(name_);
    }
}

Failure nothing_in(const std::string& name) {
    return {exit_missing,
            fmt::format("{} holds nothing that a phone and a camera have said; where the capture lacks how "
                        "they began, name the camera's PSM with --psm",
                        name)};
}

Failure not_in_full(const std::string& name) {
    return {exit_cut_capture,
            fmt::format("{} was not read in full, see above; capture it again, or take what is here", name)};
}

} // namespace desk::capture
