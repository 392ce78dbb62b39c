#include "Writer.h"

#include <algorithm>
#include <exception>
#include <utility>
#include <vector>

namespace desk::capture {
namespace {

// A packet of L2CAP is cut into packets of ACL that are as long as adapters take them. There are tools that read no
// longer ones, and tools that count the bytes of a packet of L2CAP, its head included, in 16 bits.
constexpr size_t l2cap_head_size = 4;
constexpr size_t longest_l2cap_payload = 65535 - l2cap_head_size;
constexpr size_t sdu_length_size = 2; // on Low Energy in front of a packet's first part, which here is all of it
constexpr size_t longest_acl_data = 1021;
constexpr size_t longest_rfcomm_data = 32767; // of 15 bits
constexpr size_t longest_in_a_byte = 127;     // of 7 bits

constexpr uint16_t handles = 0x0eff;    // that Bluetooth has
constexpr uint16_t acl_begins = 0x2000; // a packet of L2CAP
constexpr uint8_t acl_link = 1;
constexpr uint8_t le_connection_complete = 0x01; // within event_le_meta
constexpr uint8_t role_central = 0, role_peripheral = 1;
constexpr uint16_t all_credits = 65535; // nobody counts them in a file

constexpr uint32_t flag_received = 1;
constexpr uint32_t flag_event = 2;

// Each side counts its channels of L2CAP by itself; these are different so that they are told apart.
constexpr uint16_t channel_of_phone = first_dynamic_channel;
constexpr uint16_t channel_of_camera = first_dynamic_channel + 1;

// Addresses of nobody: the second bit of the first byte says that no maker has given them. Least significant byte
// first.
constexpr std::array<uint8_t, 6> address_of_phone = {0x01, 0x00, 0x00, 0x00, 0x00, 0x02};
constexpr std::array<uint8_t, 6> address_of_camera = {0x02, 0x00, 0x00, 0x00, 0x00, 0x02};

uint8_t low(size_t value) {
    return static_cast<uint8_t>(value & 0xff);
}

uint8_t high(size_t value) {
    return static_cast<uint8_t>(value >> 8 & 0xff);
}

Side other(Side side) {
    return side == Side::phone ? Side::camera : Side::phone;
}

uint16_t channel_of(Side side) {
    return side == Side::phone ? channel_of_phone : channel_of_camera;
}

// The peer as the adapter of `own` knows it. A camera's endpoint names its own adapter, if any.
std::array<uint8_t, 6> address_of_peer(Side own, const Endpoint& endpoint) {
    if (own == Side::camera) {
        return address_of_phone;
    }
    std::array<uint8_t, 6> address = address_of_camera;
    if (endpoint.address) {
        std::reverse_copy(endpoint.address->begin(), endpoint.address->end(), address.begin());
    }
    return address;
}

// The phone begins every session, so that the direction bit of the camera's channels is 0.
uint8_t dlci_of(const Endpoint& endpoint) {
    if (endpoint.keeps_message_boundaries()) {
        return 0;
    }
    const uint16_t channel = endpoint.kind == Endpoint::Kind::rfcomm ? endpoint.port : camera_channel;
    return static_cast<uint8_t>(channel * 2);
}

uint16_t psm_of(const Endpoint& endpoint) {
    if (!endpoint.keeps_message_boundaries()) {
        return rfcomm_psm;
    }
    return endpoint.is_bluetooth() ? endpoint.port : camera_psm;
}

// Commands of the side that began the session, and answers to them, have the C/R bit.
uint8_t rfcomm_address(Side commanding, uint8_t dlci) {
    return static_cast<uint8_t>(dlci << 2 | (commanding == Side::phone ? 2 : 0) | 1);
}

// The polynomial x^8 + x^2 + x + 1, least significant bit first.
uint8_t frame_check(std::span<const uint8_t> bytes) {
    uint8_t sum = 0xff;
    for (const uint8_t byte : bytes) {
        sum ^= byte;
        for (int bit = 0; bit < 8; ++bit) {
            sum = static_cast<uint8_t>((sum & 1) != 0 ? sum >> 1 ^ 0xe0 : sum >> 1);
        }
    }
    return static_cast<uint8_t>(0xff - sum);
}

} // namespace

// ---- One link -------------------------------------------------------------------------------------------------------

LinkWriter::LinkWriter(std::shared_ptr<OutputFile> file, Side own, uint64_t number, const Endpoint& endpoint)
    : file_(std::move(file)), own_(own), handle_(static_cast<uint16_t>((number - 1) % handles + 1)),
      psm_(psm_of(endpoint)), dlci_(dlci_of(endpoint)), is_low_energy_(endpoint.kind == Endpoint::Kind::le),
      peer_(address_of_peer(own, endpoint)) {
    if (is_low_energy_) {
        open_low_energy();
    } else {
        open();
    }
}

// A capture without the end of a link is better than none of the program.
LinkWriter::~LinkWriter() {
    try {
        const End end = end_.value_or(own_ == Side::phone ? End::phone_left : End::camera_closed);
        const Side who = end == End::phone_left ? Side::phone : Side::camera;
        uint8_t reason = reason_lost;
        if (end != End::link_lost) {
            hang_up(who);
            reason = who == own_ ? reason_local_host : reason_remote_user;
        }
        event(event_disconnection_complete, std::array<uint8_t, 4>{0, low(handle_), high(handle_), reason});
    } catch (const std::exception&) { // there is no memory for it
    }
}

void LinkWriter::received(std::span<const uint8_t> bytes) {
    carry(other(own_), bytes);
}

void LinkWriter::sent(std::span<const uint8_t> bytes) {
    carry(own_, bytes);
}

void LinkWriter::ends(End how) {
    end_ = end_.value_or(how);
}

// The phone begins, as it does on Bluetooth.
void LinkWriter::open() {
    std::array<uint8_t, 11> complete = {0, low(handle_), high(handle_)};
    std::copy(peer_.begin(), peer_.end(), complete.begin() + 3);
    complete[9] = acl_link;
    event(event_connection_complete, complete);
    signal(Side::phone, Signal::connection_request, 1, {psm_, channel_of_phone});
    signal(Side::camera, Signal::connection_response, 1, {channel_of_camera, channel_of_phone, 0, 0});
    configure(Side::phone, 2);
    configure(Side::camera, 3);
    if (dlci_ != 0) {
        rfcomm_exchange(Side::phone, rfcomm_connect, 0);
        rfcomm_exchange(Side::phone, rfcomm_connect, dlci_);
    }
}

// The phone begins there as well: it has found the camera by what that advertises.
void LinkWriter::open_low_energy() {
    std::array<uint8_t, 19> complete = {le_connection_complete, 0, low(handle_), high(handle_),
                                        own_ == Side::phone ? role_central : role_peripheral};
    std::copy(peer_.begin(), peer_.end(), complete.begin() + 6); // behind the type, of a public address
    complete[12] = 24;                                           // an interval of 30 ms
    complete[16] = 42;                                           // 420 ms without a packet lose the link
    event(event_le_meta, complete);
    constexpr auto mtu = static_cast<uint16_t>(longest_l2cap_payload - sdu_length_size);
    constexpr auto mps = static_cast<uint16_t>(longest_l2cap_payload);
    signal(Side::phone, Signal::le_connection_request, 1, {psm_, channel_of_phone, mtu, mps, all_credits});
    signal(Side::camera, Signal::le_connection_response, 1, {channel_of_camera, mtu, mps, all_credits, 0});
}

// How long packets may be that the sender gets.
void LinkWriter::configure(Side sender, uint8_t identifier) {
    constexpr uint16_t option = option_mtu | sizeof(uint16_t) << 8;
    signal(sender, Signal::configuration_request, identifier,
           {channel_of(other(sender)), 0, option, static_cast<uint16_t>(longest_l2cap_payload)});
    signal(other(sender), Signal::configuration_response, identifier, {channel_of(sender), 0, 0});
}

void LinkWriter::hang_up(Side sender) {
    if (dlci_ != 0) {
        rfcomm_exchange(sender, rfcomm_disconnect, dlci_);
        rfcomm_exchange(sender, rfcomm_disconnect, 0);
    }
    constexpr uint8_t identifier = 4;
    const auto channels = {channel_of(other(sender)), channel_of(sender)};
    signal(sender, Signal::disconnection_request, identifier, channels);
    signal(other(sender), Signal::disconnection_response, identifier, channels);
}

// Also a packet without bytes is a packet.
void LinkWriter::carry(Side sender, std::span<const uint8_t> bytes) {
    const size_t most = dlci_ != 0       ? longest_rfcomm_data
                        : is_low_energy_ ? longest_l2cap_payload - sdu_length_size
                                         : longest_l2cap_payload;
    do {
        const std::span<const uint8_t> part = bytes.first(std::min(bytes.size(), most));
        bytes = bytes.subspan(part.size());
        if (dlci_ != 0) {
            rfcomm(sender, rfcomm_address(sender, dlci_), rfcomm_data, part);
        } else if (is_low_energy_) {
            const std::array<uint8_t, sdu_length_size> length = {low(part.size()), high(part.size())};
            l2cap(sender, channel_of(other(sender)), {length, part});
        } else {
            l2cap(sender, channel_of(other(sender)), {{{}, part}});
        }
    } while (!bytes.empty());
}

// ---- Its packets ----------------------------------------------------------------------------------------------------

void LinkWriter::event(uint8_t code, std::span<const uint8_t> parameters) {
    const std::array<uint8_t, 3> head = {hci_event, code, low(parameters.size())};
    file_->add(flag_received | flag_event, {head, parameters});
}

void LinkWriter::l2cap(Side sender, uint16_t channel, const OutputFile::Pieces& payload) {
    const size_t size = payload[0].size() + payload[1].size() + payload[2].size();
    std::vector<uint8_t> packet = {low(size), high(size), low(channel), high(channel)};
    packet.reserve(packet.size() + size);
    for (const std::span<const uint8_t> piece : payload) {
        packet.insert(packet.end(), piece.begin(), piece.end());
    }
    uint16_t boundary = acl_begins;
    for (std::span<const uint8_t> rest = packet; !rest.empty(); boundary = acl_continued) {
        const std::span<const uint8_t> part = rest.first(std::min(rest.size(), longest_acl_data));
        const auto handle = static_cast<uint16_t>(handle_ | boundary);
        const std::array<uint8_t, 5> head = {hci_acl, low(handle), high(handle), low(part.size()), high(part.size())};
        file_->add(sender == own_ ? 0 : flag_received, {head, part, {}});
        rest = rest.subspan(part.size());
    }
}

void LinkWriter::signal(Side sender, Signal code, uint8_t identifier, std::initializer_list<uint16_t> words) {
    const size_t size = sizeof(uint16_t) * words.size();
    std::vector<uint8_t> command = {static_cast<uint8_t>(code), identifier, low(size), high(size)};
    for (const uint16_t word : words) {
        command.insert(command.end(), {low(word), high(word)});
    }
    l2cap(sender, is_low_energy_ ? le_signalling_channel : signalling_channel, {command});
}

// A command, and that it is accepted.
void LinkWriter::rfcomm_exchange(Side sender, uint8_t command, uint8_t dlci) {
    const uint8_t address = rfcomm_address(sender, dlci);
    rfcomm(sender, address, command | rfcomm_poll_final, {});
    rfcomm(other(sender), address, rfcomm_accept | rfcomm_poll_final, {});
}

// The sum is over all that stands before it, of data without the length.
void LinkWriter::rfcomm(Side sender, uint8_t address, uint8_t control, std::span<const uint8_t> data) {
    std::vector<uint8_t> head = {address, control};
    const size_t length = data.size() << 1;
    if (data.size() <= longest_in_a_byte) {
        head.push_back(low(length | 1));
    } else {
        head.insert(head.end(), {low(length), high(length)});
    }
    const uint8_t check = frame_check(std::span(head).first(control == rfcomm_data ? 2 : 3));
    l2cap(sender, channel_of(other(sender)), {head, data, std::span(&check, 1)});
}

// ---- All links ------------------------------------------------------------------------------------------------------

Writer::Writer(const std::string& path, Side own, OutputFile::Tell tell)
    : file_(std::make_shared<OutputFile>(path, std::move(tell))), own_(own) {}

void Writer::begin() {
    if (!file_->has_begun()) {
        file_->begin();
    }
}

std::unique_ptr<LinkWriter> Writer::connect(const Endpoint& endpoint) {
    begin();
    return std::make_unique<LinkWriter>(file_, own_, ++links_, endpoint);
}

} // namespace desk::capture
