#include "Rfcomm.h"

#include <algorithm>

#include "Hci.h"
#include "LittleEndian.h"

namespace desk::capture {
namespace {

constexpr uint8_t first_dlci = 2; // the one below are the session's own
constexpr size_t checksum_size = 1;

struct Frame {
    uint8_t dlci = 0;
    uint8_t control = 0; // without the P/F bit
    std::span<const uint8_t> data;
};

// The length has one byte, or two where the lowest bit of the first says so.
std::optional<Frame> parse(std::span<const uint8_t> bytes) {
    constexpr size_t short_header = 3;
    if (bytes.size() < short_header + checksum_size) {
        return std::nullopt;
    }
    Frame frame;
    frame.dlci = bytes[0] >> 2;
    frame.control = static_cast<uint8_t>(bytes[1] & ~rfcomm_poll_final);
    const bool is_short = (bytes[2] & 1) != 0;
    const bool has_credits = frame.control == rfcomm_data && (bytes[1] & rfcomm_poll_final) != 0;
    const size_t length = is_short ? bytes[2] >> 1 : get_16(bytes, 2) >> 1;
    const size_t header = short_header + (is_short ? 0 : 1) + (has_credits ? 1 : 0);
    if (bytes.size() != header + length + checksum_size) {
        return std::nullopt;
    }
    frame.data = bytes.subspan(header, length);
    return frame;
}

} // namespace

bool Rfcomm::carries_data(std::span<const uint8_t> bytes) {
    const std::optional<Frame> frame = parse(bytes);
    return frame && (bytes[0] & 1) != 0 && frame->control == rfcomm_data && frame->dlci >= first_dlci;
}

void Rfcomm::take(End sender, std::span<const uint8_t> bytes) {
    const std::optional<Frame> frame = parse(bytes);
    if (!frame) {
        lose(sender, "a frame of RFCOMM has another length than it announces");
        return;
    }
    if (frame->dlci < first_dlci) {
        if (frame->control == rfcomm_disconnect) {
            close(sender);
        }
        return;
    }
    if (frame->control == rfcomm_data) {
        const auto [found, is_new] =
            conversations_.try_emplace(frame->dlci, queue_, Channel::Kind::rfcomm, uint16_t{0}, std::nullopt, false);
        found->second.take(sender, frame->data);
    } else if (frame->control == rfcomm_connect) {
        close_channel(frame->dlci, std::nullopt);
        const uint16_t port = frame->dlci >> 1;
        conversations_.try_emplace(frame->dlci, queue_, Channel::Kind::rfcomm, port, sender, port == camera_channel);
    } else if (frame->control == rfcomm_accept) {
        if (const auto found = conversations_.find(frame->dlci); found != conversations_.end()) {
            found->second.establish();
        }
    } else if (frame->control == rfcomm_disconnect || frame->control == rfcomm_refuse) {
        close_channel(frame->dlci, sender);
    }
}

void Rfcomm::close_channel(uint8_t dlci, std::optional<End> by) {
    if (const auto found = conversations_.find(dlci); found != conversations_.end()) {
        found->second.close(by);
        conversations_.erase(found);
    }
}

void Rfcomm::lose(End sender, const std::string& why) {
    for (auto& [dlci, conversation] : conversations_) {
        conversation.lose(sender, why);
    }
}

void Rfcomm::close(std::optional<End> by) {
    for (auto& [dlci, conversation] : conversations_) {
        conversation.close(by);
    }
    conversations_.clear();
}

bool Rfcomm::has_open() const {
    return std::ranges::any_of(conversations_, [](const auto& entry) { return entry.second.is_open(); });
}

} // namespace desk::capture
