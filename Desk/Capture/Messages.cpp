#include "Messages.h"

#include <algorithm>
#include <fmt/format.h>
#include <iterator>
#include <utility>

#include "Recognition.h"
#include "Wire/Frames.h"

namespace desk::capture {
namespace {

constexpr size_t header = sizeof(sm_frame);
constexpr size_t most_waiting = 64;
constexpr size_t kept_of_waiting = header + 2 * sizeof(int32_t); // what tells a request from another

// What a header begins.
Message::Fate fate_of(int32_t function, int32_t total) {
    const bool is_of_reply = is_reply(function);
    if (!is_of_reply && (function < 0 || function > SM_FUNCTION_LAST || total < 0)) {
        return Message::Fate::lost_with_packet;
    }
    if (total < static_cast<int32_t>(header)) {
        return Message::Fate::too_short;
    }
    const size_t longest = is_of_reply ? longest_picture_reply : size_t{SM_REQUEST_LIMIT};
    return static_cast<size_t>(total) > longest ? Message::Fate::too_long : Message::Fate::whole;
}

bool is_lost_with_packet(const Message& message) {
    return message.fate == Message::Fate::lost_with_packet || message.fate == Message::Fate::too_short;
}

size_t index_of(Side side) {
    return side == Side::phone ? 0 : 1;
}

size_t total_of(const Message& message) {
    return static_cast<size_t>(message.total);
}

// The first word of a payload, 0 where it is not there.
int32_t id_in(const Message& message) {
    return message.bytes.size() >= header + sizeof(int32_t) ? get_word(message.bytes, header) : 0;
}

bool answers(const Message& reply, const Message& request) {
    return reply.function == request.function + SM_REPLY &&
           (request.function != SM_FUNCTION_SEND_PRESET || id_in(request) == id_in(reply));
}

} // namespace

bool is_reply(int32_t function) {
    return function >= SM_REPLY && function <= SM_REPLY + SM_FUNCTION_LAST;
}

std::string why_unanswered(const Message& request) {
    switch (request.fate) {
    case Message::Fate::too_long:
        return fmt::format("a request has at most {} bytes", +SM_REQUEST_LIMIT);
    case Message::Fate::too_short:
        return "it is shorter than its own header";
    case Message::Fate::lost_with_packet:
        return request.total < 0 ? "its length is negative" : "there is no such function";
    default:
        break;
    }
    if (request.jams_camera) {
        return "bytes of another request stand in its packet";
    }
    const bool is_known =
        (request.function >= SM_FUNCTION_STATE_OFF && request.function <= SM_FUNCTION_DELETE_PRESET) ||
        request.function == SM_FUNCTION_STATE_ON;
    if (!is_known) {
        return "there is no such function";
    }
    return request.function == SM_FUNCTION_SEND_PRESET && id_in(request) <= 0 ? "ids are above 0" : "";
}

bool expects_reply(const Message& request) {
    return request.fate == Message::Fate::whole && !request.is_unheard && why_unanswered(request).empty() &&
           request.function != SM_FUNCTION_STATE_OFF && request.function != SM_FUNCTION_STATE_ON;
}

std::vector<Message> Messages::take(const Event& event) {
    switch (event.kind) {
    case Event::Kind::opened:
        conversations_[event.channel.number] = {};
        break;
    case Event::Kind::data:
        take_packet(event);
        break;
    case Event::Kind::gap: {
        Direction& direction = conversations_[event.channel.number].directions[index_of(event.sender)];
        cut_off(direction, event.text);
        direction.is_lost = true;
        break;
    }
    case Event::Kind::closed:
        end(conversations_[event.channel.number], "the channel was closed");
        conversations_.erase(event.channel.number);
        break;
    case Event::Kind::remark:
        break;
    }
    return std::exchange(done_, {});
}

std::vector<Message> Messages::finish() {
    for (auto& [number, conversation] : conversations_) {
        end(conversation, "the capture ends");
    }
    conversations_.clear();
    return std::exchange(done_, {});
}

void Messages::end(Conversation& conversation, const std::string& why) {
    for (Direction& direction : conversation.directions) {
        cut_off(direction, why);
    }
    give_up_waiting(conversation, conversation.waiting.size());
}

// ---- From packets to messages ---------------------------------------------------------------------------------------

// Bytes behind a request that has jammed the camera begin another one only if they hold its header.
bool Messages::are_nobodys(const Conversation& conversation, const Event& event, std::span<const uint8_t> bytes) {
    return conversation.is_jammed && event.sender == Side::phone && event.channel.keeps_message_boundaries() &&
           !bytes.empty() && bytes.size() < header;
}

void Messages::take_packet(const Event& event) {
    Conversation& conversation = conversations_[event.channel.number];
    Direction& direction = conversation.directions[index_of(event.sender)];
    if (direction.is_lost && !finds_beginning(direction, event)) {
        return;
    }
    std::span<const uint8_t> bytes = event.bytes;
    while (!bytes.empty()) {
        bytes = take_piece(direction, event, bytes);
        if (is_complete(*direction.message)) {
            check_end(*direction.message, !bytes.empty());
            complete(conversation, direction);
            if (are_nobodys(conversation, event, bytes)) {
                take_piece(direction, event, bytes);
                cut_off(direction, "the packet ends");
                return;
            }
        }
    }
}

Message Messages::begun(const Event& event) {
    Message message;
    message.channel = event.channel;
    message.sender = event.sender;
    message.began = event.time;
    message.first_record = event.record;
    return message;
}

// Takes what belongs to the message under way, or begins one; what is left belongs to the next.
std::span<const uint8_t> Messages::take_piece(Direction& direction, const Event& event,
                                              std::span<const uint8_t> bytes) const {
    if (!direction.message) {
        direction.message = begun(event);
    }
    Message& message = *direction.message;
    size_t size = std::min(bytes.size(), header - std::min(header, message.arrived));
    add(message, bytes.first(size));
    if (size > 0 && message.arrived == header) {
        message.function = get_word(message.bytes, 0);
        message.total = get_word(message.bytes, 4);
        message.fate = fate_of(message.function, message.total);
    }
    if (message.arrived >= header) {
        const size_t left = bytes.size() - size;
        const size_t more = is_lost_with_packet(message) ? left : std::min(left, total_of(message) - message.arrived);
        add(message, bytes.subspan(size, more));
        size += more;
    } else if (event.channel.keeps_message_boundaries()) {
        message.fault = fmt::format("its first packet has {} bytes, and its header 8", size);
    }
    note_packet(message, event, size);
    return bytes.subspan(size);
}

bool Messages::is_complete(const Message& message) {
    return message.arrived >= header && (is_lost_with_packet(message) || message.arrived == total_of(message));
}

void Messages::add(Message& message, std::span<const uint8_t> bytes) const {
    const size_t room = kept(message) - std::min(kept(message), message.bytes.size());
    const auto part = bytes.first(std::min(room, bytes.size()));
    message.bytes.insert(message.bytes.end(), part.begin(), part.end());
    message.arrived += bytes.size();
}

void Messages::note_packet(Message& message, const Event& event, size_t size) {
    message.ended = event.time;
    message.last_record = event.record;
    ++message.packets;
    if (message.packet_sizes.size() < most_packet_sizes) {
        message.packet_sizes.push_back(static_cast<uint32_t>(size));
    }
}

// Of what is thrown away, as much as a record is of use to a person.
size_t Messages::kept(const Message& message) const {
    if (message.arrived < header) {
        return header;
    }
    if (message.fate != Message::Fate::whole) {
        return header + sizeof(sm_tag_custom_info);
    }
    if (!options_.keeps_pictures && message.function == SM_FUNCTION_RECEIVE_PRESET) {
        return header + sizeof(sm_tag_custom_info);
    }
    if (!options_.keeps_pictures && message.function == SM_REPLY + SM_FUNCTION_SEND_PRESET) {
        return sizeof(sm_screennail_reply);
    }
    return total_of(message);
}

// Where packets keep the boundaries of messages, bytes of two in one jam a camera.
void Messages::check_end(Message& message, bool is_followed) {
    const bool is_surplus =
        is_followed && message.channel.keeps_message_boundaries() && message.fate != Message::Fate::too_long;
    if (is_surplus) {
        message.fault = "bytes of another message follow in its packet";
    }
    message.jams_camera = message.sender == Side::phone && (is_surplus || message.fate == Message::Fate::too_short);
}

void Messages::complete(Conversation& conversation, Direction& direction) {
    Message message = std::move(*direction.message);
    direction.message.reset();
    message.is_unheard = conversation.is_jammed && message.sender == Side::phone;
    conversation.is_jammed = conversation.is_jammed || message.jams_camera;
    if (message.sender == Side::phone && expects_reply(message)) {
        note_request(conversation, message);
    } else if (message.sender == Side::camera) {
        note_reply(conversation, message);
    }
    done_.push_back(std::move(message));
}

// ---- Where bytes are missing ----------------------------------------------------------------------------------------

void Messages::cut_off(Direction& direction, const std::string& why) {
    if (!direction.message) {
        return;
    }
    Message message = std::move(*direction.message);
    direction.message.reset();
    if (message.fate != Message::Fate::uncertain) {
        message.fate = Message::Fate::cut_off;
        message.fault = why;
    }
    done_.push_back(std::move(message));
}

// Whether a message begins here, as far as anybody can tell. Other bytes are counted.
bool Messages::finds_beginning(Direction& direction, const Event& event) {
    const Beginning wanted = event.sender == Side::phone ? Beginning::request : Beginning::reply;
    if (beginning_of(event.bytes) == wanted) {
        cut_off(direction, "");
        direction.is_lost = false;
        return true;
    }
    if (!direction.message) {
        direction.message = begun(event);
        direction.message->fate = Message::Fate::uncertain;
        direction.message->fault = "bytes before these are missing";
    }
    direction.message->arrived += event.bytes.size();
    note_packet(*direction.message, event, event.bytes.size());
    return false;
}

// ---- Which reply belongs to which request ---------------------------------------------------------------------------

void Messages::note_request(Conversation& conversation, const Message& request) {
    if (conversation.waiting.size() >= most_waiting) {
        give_up_waiting(conversation, 1);
    }
    Message waiting = begun({});
    waiting.channel = request.channel;
    waiting.fate = Message::Fate::unanswered;
    waiting.function = request.function;
    waiting.total = request.total;
    waiting.arrived = request.arrived;
    waiting.began = request.began;
    waiting.ended = request.ended;
    waiting.first_record = request.first_record;
    waiting.last_record = request.last_record;
    const auto start = std::span(request.bytes).first(std::min(request.bytes.size(), kept_of_waiting));
    waiting.bytes.assign(start.begin(), start.end());
    conversation.waiting.push_back(std::move(waiting));
}

// A phone has one request on its way. Where several wait, the newest is meant, and the older ones got no reply.
void Messages::note_reply(Conversation& conversation, Message& reply) {
    std::deque<Message>& waiting = conversation.waiting;
    const auto found =
        std::find_if(waiting.rbegin(), waiting.rend(), [&](const Message& request) { return answers(reply, request); });
    if (found == waiting.rend()) {
        return;
    }
    // Both times are the file's own, and may be any number.
    reply.waited = static_cast<int64_t>(static_cast<uint64_t>(reply.ended) - static_cast<uint64_t>(found->ended));
    reply.request_record = found->last_record;
    give_up_waiting(conversation, static_cast<size_t>(std::distance(found, waiting.rend())) - 1);
    waiting.pop_front();
}

void Messages::give_up_waiting(Conversation& conversation, size_t count) {
    for (; count > 0; --count) {
        done_.push_back(std::move(conversation.waiting.front()));
        conversation.waiting.pop_front();
    }
}

} // namespace desk::capture
