#include "CameraClient.h"

#include <algorithm>
#include <fmt/format.h>
#include <optional>
#include <utility>

#include "Options.h"
#include "Output.h"
#include "Progress.h"
#include "Words/Results.h"

namespace desk::phone {
namespace {

// A camera needs no longer to see that the link is at its end.
constexpr std::chrono::milliseconds longest_farewell{1000};

// What comes unasked may be any answer but a picture.
constexpr size_t longest_stray_frame = longest_delete_reply;

// A request and its answer may take the timeout twice, and once more for so many of their bytes. With 5 s that is a
// tenth of what a Bluetooth link carries.
constexpr int64_t bytes_in_a_timeout = int64_t{64} * 1024;

constexpr const char* list_silence = "see that it runs and that its link state is up, or give a longer --timeout";
constexpr const char* picture_silence = "it answers so when it does not have the preset";
constexpr const char* change_silence =
    "list tells whether the change was made; give a longer --timeout if the camera is slow";

struct FunctionName {
    int32_t function;
    const char* name;
};
constexpr FunctionName function_names[] = {
    {SM_FUNCTION_STATE_OFF, "leave"},      {SM_FUNCTION_SEND_LIST, "list"},       {SM_FUNCTION_SEND_PRESET, "picture"},
    {SM_FUNCTION_RECEIVE_PRESET, "store"}, {SM_FUNCTION_UPDATE_PRESET, "rename"}, {SM_FUNCTION_DELETE_PRESET, "delete"},
};

// The command that sends a request or gets a reply of this number.
const char* name_of_function(int32_t function) {
    for (const FunctionName& known : function_names) {
        if (function == known.function || function == known.function + SM_REPLY) {
            return known.name;
        }
    }
    return "unknown";
}

std::string seconds(std::chrono::milliseconds time) {
    return fmt::format("{:g} s", static_cast<double>(time.count()) / 1000);
}

} // namespace

Options without_progress(const Options& options) {
    Options quiet = options;
    quiet.quiet = true;
    return quiet;
}

CameraClient::CameraClient(const Options& options)
    : quiet_(options.quiet), verbose_(options.verbose), timeout_(options.timeout),
      link_(options.camera, options.mtu, options.timeout) {}

ListReply CameraClient::list() {
    return parse_list_reply(answer_to({request(SM_FUNCTION_SEND_LIST), list_silence, longest_list_reply}, "presets"));
}

Bytes CameraClient::picture(const sm_tag_custom_info& preset) {
    const Bytes payload = picture_payload(preset.custom_id, preset.applocal_id);
    PictureReply reply = parse_picture_reply(
        answer_to({request(SM_FUNCTION_SEND_PRESET, payload), picture_silence, longest_picture_reply}, "picture"));
    if (reply.custom_id != preset.custom_id) {
        throw Failure(
            exit_protocol,
            fmt::format("asked for the picture of the preset with id {}, the camera answered with that of id {}",
                        preset.custom_id, reply.custom_id));
    }
    return std::move(reply.picture);
}

StoreReply CameraClient::store(const sm_tag_custom_info& preset, std::span<const uint8_t> picture) {
    const Bytes payload = store_payload(preset, picture);
    return parse_store_reply(
        answer_to({request(SM_FUNCTION_RECEIVE_PRESET, payload), change_silence, longest_store_reply}, "sending"));
}

int32_t CameraClient::update(const sm_tag_custom_info& preset) {
    return parse_update_reply(answer_to(
        {request(SM_FUNCTION_UPDATE_PRESET, encode(preset)), change_silence, longest_update_reply}, "sending"));
}

DeleteReply CameraClient::remove(std::span<const sm_delete_pair> pairs) {
    const Bytes payload = delete_payload(pairs);
    return parse_delete_reply(
        answer_to({request(SM_FUNCTION_DELETE_PRESET, payload), change_silence, longest_delete_reply}, "sending"));
}

void CameraClient::leave(int32_t code) {
    Bytes payload;
    append_word(payload, code);
    send_all({request(SM_FUNCTION_STATE_OFF, payload), "it does not take the request", longest_stray_frame});
    link_.finish_sending();
    wait_for_close();
}

Bytes CameraClient::answer_to(Exchange exchange, const std::string& progress_label) {
    tell("request", exchange.request);
    Progress progress(progress_label, !quiet_);
    while (true) {
        if (std::optional<Bytes> frame = next_frame(exchange.longest_answer)) {
            progress.clear();
            tell("reply", *frame);
            return *std::move(frame);
        }
        if (closed_) {
            throw early_close_failure(exchange);
        }
        move_bytes(exchange);
        if (exchange.is_sending()) {
            progress.show(exchange.sent, exchange.request.size());
        } else if (reader_.expected() > 0) {
            progress.show(reader_.arrived(), reader_.expected());
        }
    }
}

void CameraClient::send_all(Exchange exchange) {
    tell("request", exchange.request);
    while (exchange.is_sending()) {
        move_bytes(exchange);
        drop_frames();
        if (closed_) {
            throw early_close_failure(exchange);
        }
    }
}

// Waits until the link can do something, and does it. The time counts from the last byte that moved, so that a slow
// link is given as long as it needs; but single bytes do not draw an exchange out for ever.
void CameraClient::move_bytes(Exchange& exchange) {
    const Clock::time_point end = exchange.begin + longest_duration(exchange);
    if (Clock::now() >= end) {
        throw too_slow_failure(exchange);
    }
    const Clock::time_point silence_end = exchange.last_move + timeout_;
    const Link::Readiness ready = link_.wait(exchange.is_sending(), std::min(silence_end, end));
    // Reading comes first: a camera that is busy says so while we still send.
    const bool received = ready.read && receive_more();
    const bool sent = ready.write && exchange.is_sending() && !closed_ && send_more(exchange);
    if (received || sent) {
        exchange.last_move = Clock::now();
    } else if (Clock::now() >= silence_end) {
        throw no_answer_failure(exchange);
    }
}

std::chrono::milliseconds CameraClient::longest_duration(const Exchange& exchange) const {
    const auto bytes = static_cast<int64_t>(exchange.request.size() + reader_.expected());
    return 2 * timeout_ + timeout_ * bytes / bytes_in_a_timeout;
}

bool CameraClient::send_more(Exchange& exchange) {
    const auto rest = std::span<const uint8_t>(exchange.request).subspan(exchange.sent);
    const std::optional<size_t> sent = link_.send_packet(rest);
    exchange.refused = !sent; // what the camera sent before it closed the link is still to be read
    exchange.sent += sent.value_or(0);
    return sent.value_or(0) > 0;
}

// Only when the reader has taken all that came before.
bool CameraClient::receive_more() {
    const auto bytes = link_.receive();
    closed_ = !bytes;
    received_ = bytes.value_or(std::span<const uint8_t>());
    return !received_.empty();
}

std::optional<Bytes> CameraClient::next_frame(size_t longest) {
    std::optional<Bytes> frame = reader_.take(received_, longest);
    if (frame && get_word(*frame, 0) == busy_function) {
        throw Failure(exit_busy, "the camera is busy with another phone");
    }
    return frame;
}

// One line of a request or a reply, for --verbose; the time counts from the begin of the link.
void CameraClient::tell(const char* what, std::span<const uint8_t> frame) const {
    if (!verbose_) {
        return;
    }
    const std::chrono::duration<double> time = Clock::now() - start_;
    const int32_t function = get_word(frame, 0);
    say(fmt::format("{:.3f} s: {} {:#06x} ({}), {} bytes", time.count(), what, static_cast<uint32_t>(function),
                    name_of_function(function), frame.size()));
}

// Where nothing is expected.
void CameraClient::drop_frames() {
    while (next_frame(longest_stray_frame)) {
    }
}

// A link that is closed with bytes on their way may lose them.
void CameraClient::wait_for_close() {
    const Clock::time_point deadline = Clock::now() + std::min(timeout_, longest_farewell);
    while (!closed_ && Clock::now() < deadline) {
        if (link_.wait(false, deadline).read) {
            receive_more();
        }
        drop_frames();
    }
}

Failure CameraClient::early_close_failure(const Exchange& exchange) const {
    const size_t size = exchange.request.size();
    if (exchange.sent < size) {
        return {exit_protocol, fmt::format("the camera closed the link when {} of the request's {} bytes were sent",
                                           exchange.sent, size)};
    }
    const int32_t reply = get_word(exchange.request, 0) + SM_REPLY;
    const std::string expected =
        reader_.expected() == 0
            ? fmt::format("reply {:#06x} was expected, {} bytes of it came", reply, reader_.arrived())
            : fmt::format("{} of the answer's {} bytes came", reader_.arrived(), reader_.expected());
    return {exit_protocol, fmt::format("the camera closed the link before it answered: {}", expected)};
}

Failure CameraClient::no_answer_failure(const Exchange& exchange) const {
    if (exchange.sent < exchange.request.size()) {
        return {exit_timeout, fmt::format("the camera took {} of the request's {} bytes, then nothing within {}",
                                          exchange.sent, exchange.request.size(), seconds(timeout_))};
    }
    if (reader_.arrived() > 0) {
        return {exit_timeout,
                fmt::format("the camera stopped within its answer: {} of {} bytes came, then nothing within {}",
                            reader_.arrived(), reader_.expected(), seconds(timeout_))};
    }
    return {exit_timeout, fmt::format("the camera gave no answer within {}; {}", seconds(timeout_), exchange.silence)};
}

Failure CameraClient::too_slow_failure(const Exchange& exchange) const {
    return {
        exit_timeout,
        fmt::format("the camera is too slow: {} of the request's {} bytes and {} of the answer's {} moved within {}; "
                    "give a longer --timeout",
                    exchange.sent, exchange.request.size(), reader_.arrived(),
                    reader_.expected() == 0 ? "unknown number" : std::to_string(reader_.expected()),
                    seconds(longest_duration(exchange)))};
}

} // namespace desk::phone
