// What stands in the records: HCI packets, L2CAP packets inside them, RFCOMM frames inside those. Numbers in them are
// little-endian. These are the codes that are written and read here; Bluetooth has more.
#pragma once

#include <cstdint>

namespace desk::capture {

// The kinds of HCI packets, as H4 has them in front.
constexpr uint8_t hci_command = 1;
constexpr uint8_t hci_acl = 2;
constexpr uint8_t hci_event = 4;

constexpr uint8_t event_connection_complete = 0x03;
constexpr uint8_t event_disconnection_complete = 0x05;
constexpr uint8_t event_le_meta = 0x3e;

// Why a connection ended, as the adapter says whose file it is.
constexpr uint8_t reason_lost = 0x08; // it took too long
constexpr uint8_t reason_remote_user = 0x13;
constexpr uint8_t reason_remote_low_on_resources = 0x14;
constexpr uint8_t reason_remote_powers_off = 0x15;
constexpr uint8_t reason_local_host = 0x16;

// Above the 12 bits of a connection's handle in the first word of an ACL packet.
constexpr uint16_t acl_handle_mask = 0x0fff;
constexpr uint16_t acl_boundary_mask = 0x3000;
constexpr uint16_t acl_continued = 0x1000; // else the packet begins a packet of L2CAP

// Fixed channels of L2CAP.
constexpr uint16_t signalling_channel = 1;
constexpr uint16_t le_signalling_channel = 5;
constexpr uint16_t first_dynamic_channel = 0x40;

// Commands on a signalling channel.
enum class Signal : uint8_t {
    reject = 0x01,
    connection_request = 0x02,
    connection_response = 0x03,
    configuration_request = 0x04,
    configuration_response = 0x05,
    disconnection_request = 0x06,
    disconnection_response = 0x07,
    le_connection_request = 0x14,
    le_connection_response = 0x15,
    credits = 0x16,
    enhanced_connection_request = 0x17,
    enhanced_connection_response = 0x18,
};

// Options of a configuration request.
constexpr uint8_t option_mtu = 0x01;
constexpr uint8_t option_retransmission = 0x04;
constexpr uint8_t option_checksum = 0x05;

constexpr uint16_t rfcomm_psm = 3;
constexpr uint16_t camera_psm = 0x1001; // where captures of the desk's own links lead that keep message boundaries
constexpr uint8_t camera_channel = 22;  // the RFCOMM channel where those lead that carry a stream of bytes

// RFCOMM's control fields, without the P/F bit.
constexpr uint8_t rfcomm_connect = 0x2f;    // SABM
constexpr uint8_t rfcomm_accept = 0x63;     // UA
constexpr uint8_t rfcomm_refuse = 0x0f;     // DM
constexpr uint8_t rfcomm_disconnect = 0x43; // DISC
constexpr uint8_t rfcomm_data = 0xef;       // UIH
constexpr uint8_t rfcomm_poll_final = 0x10; // on UIH: a byte of credits stands before the data

} // namespace desk::capture
