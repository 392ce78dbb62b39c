// A host for the library that plays every service of the camera from a script and writes down all that happens.
// Whatever a test is about, the host holds each call of a service to what that is promised, and the library's state to
// what holds between calls.
//
//     FakeHost host;                             // the library is idle, the camera stores no preset
//     host.presets = {preset(1)};                // what the camera stores
//     EXPECT_EQ(host.receive(list_request()), 1); // one packet
//     EXPECT_EQ(host.replies.back().bytes, ...); // what was sent
//     EXPECT_EQ(host.transcript, ...);           // every log line, service call and send, in order
//
// Only one host exists at a time.
#pragma once

#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "ADE_ShotMentor.h"
#include "Message.h"
#include "Requests.h"

using Transcript = std::vector<std::string>;

// One call of __dlog_print, as it arrived.
struct LogLine {
    int buffer;
    int priority;
    std::string tag;
    std::string format;
    std::string file;     // empty where the line carries no call site
    std::string function; // empty where the line carries no call site
    int line;             // 0 where the line carries no call site
    // The last string argument: colour, message, colour reset. Or, when the caller's own format arrived, what it makes
    // of its arguments.
    std::string text;
};

// One call of bt_send_msgs.
struct Reply {
    bt_msg_info message; // the record as it was sent
    Bytes bytes;         // `length` bytes from the data pointer
    Bytes buffer;        // the whole reply buffer that the data pointer leads to, sent or not
};

// One call of __ui_save_downloaded_preset.
struct SavedPreset {
    tag_custom_info record; // as the library handed it over
    Bytes image;            // empty when the length is negative
    int length;
};

class FakeHost {
  public:
    FakeHost();
    ~FakeHost(); // fails the test when the library still owns memory that `settle` cannot give back
    FakeHost(const FakeHost&) = delete;
    FakeHost& operator=(const FakeHost&) = delete;

    // ---- What the services answer -------------------------------------------------------------------------

    bool link_up = true;
    std::vector<tag_custom_info> presets;                   // at most 40
    std::optional<int> reported_count;                      // the count that the list reports, if not presets.size()
    int linked[2] = {-1, -1};                               // the preset numbers that CUSTOM1 and CUSTOM2 use
    bool reports_count = true;                              // whether the list writes a count at all
    std::deque<int> linked_answers;                         // answers given before `linked` is asked, one for each call
    std::optional<bool> preset_info_answer;                 // if not whether `presets` holds the custom_id
    std::function<void(tag_custom_info&)> fill_preset_info; // changes the record that a look-up answers
    std::function<int(tag_custom_info&)> save;              // if not 1
    int update_answer = 1;
    bool deletes = true;    // whether a deletion takes effect on `presets` (the rest is renumbered) and `linked`
    int iso_step_value = 1; // 1: full steps

    // Called with each event once it is written down, before the service answers. It may look at the library's state.
    std::function<void(const std::string& event)> watch;

    // Refuses the n-th allocation (from 1) that the library makes from now on, and with `for_good` all after it.
    void refuse_allocation(int n, bool for_good = false);
    // Allocations that the library asked for since then (or since the host was made).
    int allocations_asked() const;

    // ---- What the host does -------------------------------------------------------------------------------

    // Hands one packet over, in memory of exactly its size (but at least 8 bytes), and returns the entry's result.
    int receive(const Bytes& packet);
    // Hands a packet over with another length than it has.
    int receive_with_length(const Bytes& packet, int length);
    // Hands a request over in packets that end at these positions, and the rest of it in one more. A first packet that
    // is shorter than the header lies in memory that holds the rest of the header behind it. Returns each packet's
    // result.
    std::vector<int> receive_in_packets(const Bytes& request, const std::vector<size_t>& ends);
    // Confirms one send.
    int confirm();
    // Returns the reassembly to idle and frees every unconfirmed reply, as a host does when the link drops.
    void settle();
    // Forgets the record so far.
    void forget();

    // ---- What was written down ----------------------------------------------------------------------------

    // Every event in order, one line each. A log line is its level, tag and message without colours and without the
    // newline at its end: "GREEN ALG_SMM ADE_ShotMentor_Result_Manager result". A service call is its name and
    // arguments: "__ui_set_shotmentor_state(1)", "__ui_get_custom_mode_list_info()", "__ui_get_preset_info(7, 5)"
    // (custom id, applocal_id of the record), "__ui_save_downloaded_preset(100)" (length), "bt_send_msgs(28)",
    // "__ui_preset_update_comfirm(3, 9, \"Title\")", "__ui_preset_delete_form_phone(0 2)" (the marked numbers),
    // "__ui_get_linked_preseet_num_for_phone(0)", "__ui_get_bt_state_for_phone()", "User_Spec_Get_Value(272)".
    // Addresses in log lines ("add=...") are replaced: "#1" is the first block seen, "#2" the second, "null" null. When
    // the environment has SHOTMENTOR_TRANSCRIPTS, the transcript also goes to a file of the test's name in that folder.
    Transcript transcript;
    bool is_on_file = true;   // false for what is not the same text everywhere
    std::string folder;       // whose name differs from run to run; on file it is called FOLDER
    Transcript calls() const; // the service calls alone
    Transcript log() const;   // the log lines alone

    std::vector<LogLine> lines;
    std::vector<Reply> replies;
    std::vector<SavedPreset> saved;
    std::vector<Bytes> updated_titles; // 53 bytes each, as far as the service may read
    std::vector<int> freed;            // positions in `replies` of the buffers that were freed, in order

    // Blocks that the library has allocated and not yet freed, and their bytes.
    size_t blocks_owned() const;
    size_t bytes_owned() const;
};

// A camera record with a title "Preset <id>", custom_id `id`, preset_num `number`, origin 0x144 and all other fields 0.
tag_custom_info preset(int id, int number = 0);
