// What phones may take of this process. No phone, however many there are and whatever they send, gets more than these
// numbers say, and what the served phone needs is set aside for it.
#pragma once

#include <chrono>
#include <cstddef>

#include "ADE_ShotMentor.h"

namespace desk::camera::budget {

using std::chrono::milliseconds;
using std::chrono::seconds;

// ---- Phones ---------------------------------------------------------------------------------------------------------

// Phones that wait for their turn, because all before them have closed and are only to be answered yet. One whose time
// is up is told that the camera is busy.
constexpr size_t waiting_phones = 4;
constexpr milliseconds waiting_time{2000};

// Phones that were told that the camera is busy: how many may linger until they have read it, and how long. The oldest
// goes first. What one still sends is read, so that it is not cut off from the answer, up to this.
constexpr size_t turned_away_phones = 16;
constexpr milliseconds turned_away_time{1000};
constexpr size_t turned_away_bytes = size_t{1} << 20;

// A phone that leaves a reply untaken, or a request in half, for so long is let go as soon as another one asks.
constexpr seconds stalled_time{10};

// A phone that takes nothing of a reply for so long is told of, and how often it is looked at.
constexpr seconds stall_told{3};
constexpr milliseconds uptake_look{500};

// How often a phone is looked at that may have been idle for too long.
constexpr milliseconds idle_look{500};

// ---- Time -----------------------------------------------------------------------------------------------------------

// Between two looks at everybody else: phones taken in or turned away, and packets handed to the library. A single
// request takes as long as it takes: the longest, a deletion of 74999 presets, a fraction of a second.
constexpr int accepts_of_a_turn = 32;
constexpr int packets_of_a_turn = 64;

// ---- Descriptors ----------------------------------------------------------------------------------------------------

// The standard streams, the event loop, the store, the log, the capture, up to eight listening sockets, the control
// socket and its clients, the bus.
constexpr size_t descriptors_of_the_camera = 26;
// The picture, the database's journal, the folder that is flushed.
constexpr size_t descriptors_of_a_request = 8;
// One phone is served, one is just being accepted.
constexpr size_t descriptors_of_phones = 1 + waiting_phones + turned_away_phones + 1;
constexpr size_t descriptors = descriptors_of_the_camera + descriptors_of_a_request + descriptors_of_phones;

// ---- Memory ---------------------------------------------------------------------------------------------------------

// One packet, or piece of a stream: more than the longest request. It is received into a buffer that all links share,
// and the served phone's is kept until the library has had it.
constexpr size_t received_bytes = size_t{1} << 20;

// Replies that the library holds until they are confirmed: the last one, and those that it has set aside. The camera
// confirms each before the next request, unless its options make confirmations late or lose them.
constexpr size_t unconfirmed_replies = SM_REPLY_QUEUE + 1;
// A picture reply: no longer than the request that stored it, but with some spare bytes.
constexpr size_t longest_reply = SM_REQUEST_LIMIT + 64;

// All that phones can make the camera hold: the two copies of what was received, the request in reassembly, and the
// replies.
constexpr size_t memory_of_phones = 2 * received_bytes + SM_REQUEST_LIMIT + unconfirmed_replies * longest_reply;

// ---- The control socket ---------------------------------------------------------------------------------------------

// Clients that are connected: the oldest goes for one more, and each when it has sent no command for so long. They and
// the socket are within the descriptors of the camera.
constexpr size_t control_clients = 4;
constexpr seconds control_time{10};

// A packet of a client, a command in it, and the answer. A longer packet costs the client its link.
constexpr size_t control_bytes = size_t{1} << 18;
constexpr size_t longest_command = 200;
constexpr size_t longest_answer = 4096;

// A file of commands.
constexpr size_t longest_script = size_t{1} << 16;

// ---- The system's Bluetooth daemon ----------------------------------------------------------------------------------

// Messages of the bus between two looks at everybody else.
constexpr int bus_messages_of_a_turn = 32;
// How long an answer may take, and until the daemon, or the bus, is asked again. Changes of its adapters are looked at
// together.
constexpr seconds bus_time{10};
constexpr seconds bus_retry{5};
constexpr milliseconds bus_look{50};
// For all that is put back at the end.
constexpr milliseconds bus_farewell{2000};
// More are left alone.
constexpr size_t adapters = 16;

// ---- Standard error and the log -------------------------------------------------------------------------------------

// Lines on standard error: so many at once, then so many a second. What comes on top is counted.
constexpr int lines_at_once = 200;
constexpr int lines_a_second = 50;

// A longer line is broken. As UTF-8 with each byte replaced it still is one write to a pipe.
constexpr size_t longest_line = 1200;
// The same of a line of JSON: its message, and all else. The most fields has a deletion of 40 presets of which the
// custom modes kept two: both titles, each byte of which may be six as an escape sequence, stand in the message too.
constexpr size_t longest_message = 800;
constexpr size_t longest_fields = 1600;

} // namespace desk::camera::budget
