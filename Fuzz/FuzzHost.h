// A host that answers the library's services from a script and remembers the calls that matter, without the cost of a
// transcript: the conversations that a fuzzer makes up are checked thousands of times a second.
#pragma once

#include "ADE_ShotMentor.h"
#include "Input.h"
#include "Message.h"

namespace fuzz {

struct Script {
    bool link_up = true;
    int stored = 0; // records that a list writes, 0 to 40
    tag_custom_info records[SM_PRESET_LIMIT] = {};
    bool reports_count = true;
    int reported_count = 0;
    int linked[4] = {-1, -1, -1, -1}; // the answers of one command, in the order in which it asks
    enum Known { none, all, odd_ids, stored_ids } known = none;
    tag_custom_info found = {}; // what a look-up fills in
    int save_result = 1;
    int saved_preset_num = 0, saved_custom_id = 0, saved_applocal_id = 0;
    bool save_writes_identities = true;
    int update_result = 1;
    int iso_step = 1;

    bool knows(int custom_id) const; // whether a look-up of this identity finds a preset
};

struct Sent {
    const void* data;
    int length;
    size_t buffer_size; // of the buffer that the library owned at that time
    Bytes bytes;        // those sent; of an error reply the 12 of its head
};

struct Saved {
    tag_custom_info record;
    int length;
    Bytes bytes; // the picture; empty when the length is negative
};

struct Updated {
    int custom_id, server_id;
    Bytes title; // up to its NUL
};

// What the library did since this was emptied.
struct Heard {
    int dispatches = 0;
    Bytes dispatched; // the first bytes of the buffer when the dispatcher began
    std::vector<int> states;
    std::vector<Sent> sent;
    std::vector<Saved> saved;
    std::vector<Updated> updated;
    std::vector<std::vector<int>> deleted;
    std::vector<int> asked_ids; // of look-ups
    int linked_asked = 0;
    int listed = 0;
};

// One call of __dlog_print.
struct LogLine {
    int buffer = 0, priority = 0;
    char tag[16] = {};
    char format[32] = {};
    bool has_site = false;
    char file[32] = {};
    int line = 0;
    char text[1024] = {};
    size_t length = 0; // of the text
};

extern Script script;
extern Heard heard;
extern LogLine last_line;
extern int log_lines;
extern bool keeps_lines; // whether `last_line` is filled in

// Returns script, record and library to their first state. Nothing that the library owns is freed.
void start_over();

// Sends the copies of error lines that go to standard error nowhere.
void silence_standard_error();

} // namespace fuzz
