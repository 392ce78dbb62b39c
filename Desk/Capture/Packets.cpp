#include "Packets.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <string_view>
#include <utility>

#include "Common/Failure.h"
#include "Hci.h"

namespace desk::capture {
namespace {

// More than any packet has, and its kind before it.
constexpr uint32_t longest_packet = 0x20000;

constexpr uint32_t flag_received = 1;
constexpr uint32_t flag_command_or_event = 2;

// What the Linux monitor calls what is of use here.
enum MonitorOpcode : uint16_t { monitor_event = 3, monitor_acl_sent = 4, monitor_acl_received = 5 };

// ---- What is no btsnoop file ----------------------------------------------------------------------------------------

struct OtherKind {
    std::string_view start;
    const char* name;
    bool can_be_converted;
};

constexpr OtherKind other_kinds[] = {
    {"\x0a\x0d\x0d\x0a", "a pcapng file", true}, {"\xa1\xb2\xc3\xd4", "a pcap file", true},
    {"\xd4\xc3\xb2\xa1", "a pcap file", true},   {"\xa1\xb2\x3c\x4d", "a pcap file", true},
    {"\x4d\x3c\xb2\xa1", "a pcap file", true},   {"\x1f\x8b", "packed by gzip", false},
};

bool begins_with(std::span<const uint8_t> bytes, std::string_view start) {
    return bytes.size() >= start.size() && std::equal(start.begin(), start.end(), bytes.begin(),
                                                      [](char a, uint8_t b) { return static_cast<uint8_t>(a) == b; });
}

bool is_text(std::span<const uint8_t> bytes) {
    return std::all_of(bytes.begin(), bytes.end(),
                       [](uint8_t byte) { return byte >= ' ' || byte == '\n' || byte == '\r' || byte == '\t'; });
}

constexpr auto remedy = "give what btmon -w or a phone's Bluetooth log has written";

Failure other_kind_failure(const std::string& name, std::span<const uint8_t> start) {
    if (start.empty()) {
        return {exit_usage, fmt::format("{} is empty; {}", name, remedy)};
    }
    for (const OtherKind& kind : other_kinds) {
        if (begins_with(start, kind.start)) {
            const char* how = kind.can_be_converted ? "make a btsnoop file of its Bluetooth packets: editcap -F "
                                                      "btsnoop IT NEW.btsnoop"
                                                    : "unpack it: gunzip";
            return {exit_usage, fmt::format("{} is {}, no btsnoop file; {}", name, kind.name, how)};
        }
    }
    if (start.size() < btsnoop_header_size && begins_with(start, "btsnoop")) {
        return {exit_usage, fmt::format("{} ends within its header; {}", name, remedy)};
    }
    return {exit_usage, fmt::format("{} is {}no btsnoop file; {}", name, is_text(start) ? "text, " : "", remedy)};
}

Datalink known_datalink(const std::string& name, uint32_t datalink) {
    switch (static_cast<Datalink>(datalink)) {
    case Datalink::h1:
    case Datalink::h4:
    case Datalink::monitor:
        return static_cast<Datalink>(datalink);
    case Datalink::bcsp:
    case Datalink::h5:
        throw Failure(exit_usage, fmt::format("{} holds bytes of a serial line (datalink {}), not packets; capture "
                                              "with btmon -w instead",
                                              name, datalink));
    }
    throw Failure(exit_usage, fmt::format("{} holds packets of an unknown kind (datalink {}); datalinks 1001, 1002 and "
                                          "2001 are read, capture with btmon -w",
                                          name, datalink));
}

} // namespace

// ---- Records --------------------------------------------------------------------------------------------------------

Packets::Packets(CaptureFile file, EventQueue& queue) : file_(std::move(file)), queue_(queue) {
    std::array<uint8_t, btsnoop_header_size> header = {};
    const size_t count = file_.read(header);
    const std::optional<uint32_t> datalink = btsnoop_datalink(header);
    if (count < header.size() || !datalink) {
        throw other_kind_failure(file_.name(), std::span(header).first(count));
    }
    datalink_ = known_datalink(file_.name(), *datalink);
}

void Packets::end(const std::string& remark) {
    queue_.remark(remark);
    is_over_ = true;
}

// Whether the record is there as a whole.
bool Packets::read_record(BtsnoopRecord& record) {
    std::array<uint8_t, btsnoop_record_size> header = {};
    const size_t count = file_.read(header);
    if (count == 0) {
        is_over_ = true;
        return false;
    }
    ++number_;
    if (count < header.size()) {
        end(fmt::format("the file ends within record {}", number_));
        return false;
    }
    record = decode_btsnoop_record(header);
    queue_.set_place(record.time, number_);
    if (record.included_length > longest_packet) {
        end(fmt::format("record {} has {} bytes, more than any packet: the file is damaged, and is read no further",
                        number_, record.included_length));
        return false;
    }
    bytes_.resize(record.included_length);
    if (file_.read(bytes_) < bytes_.size()) {
        end(fmt::format("the file ends within record {}", number_));
        return false;
    }
    return true;
}

// Each record counts all that were lost so far.
void Packets::note_drops(const BtsnoopRecord& record) {
    has_lost_ = record.drops > drops_;
    if (has_lost_) {
        queue_.remark(
            fmt::format("{} packets before record {} were lost when it was captured", record.drops - drops_, number_));
    }
    drops_ = record.drops;
}

HciPacket Packets::packet_of(const BtsnoopRecord& record) {
    HciPacket packet;
    packet.bytes = bytes_;
    packet.received = (record.flags & flag_received) != 0;
    if (datalink_ == Datalink::h1) {
        const uint8_t control = packet.received ? hci_event : hci_command;
        packet.kind = (record.flags & flag_command_or_event) != 0 ? control : hci_acl;
    } else if (datalink_ == Datalink::monitor) {
        const auto opcode = static_cast<uint16_t>(record.flags);
        packet.adapter = static_cast<uint16_t>(record.flags >> 16);
        packet.received = opcode != monitor_acl_sent;
        packet.kind = opcode == monitor_event                                        ? hci_event
                      : opcode == monitor_acl_sent || opcode == monitor_acl_received ? hci_acl
                                                                                     : uint8_t{0};
    } else if (!bytes_.empty()) {
        packet.kind = bytes_.front();
        packet.bytes = packet.bytes.subspan(1);
    } else {
        queue_.remark(fmt::format("record {} holds no byte of its packet", number_));
    }
    return packet;
}

std::optional<HciPacket> Packets::next() {
    BtsnoopRecord record;
    if (is_over_ || !read_record(record)) {
        return std::nullopt;
    }
    note_drops(record);
    return packet_of(record);
}

} // namespace desk::capture
