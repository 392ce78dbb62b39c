#include "FakeHost.h"

#include <algorithm>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>

#include "ADE_ShotMentor_Log.h"
#include "Lab/LibraryHeap.h"
#include "Lab/LibraryState.h"

namespace {

constexpr size_t smallest_packet_memory = 8; // the host's promise to the packet entry
constexpr size_t list_size = 29600;          // room for 40 records of 740 bytes
constexpr int delete_flags = 42;
constexpr int iso_step_key = 272;
constexpr size_t title_size = 53; // with the NUL behind a title that fills its field
constexpr const char* located_format = "%s: %s(%d) > %s";
constexpr const char* color_reset = "\033[m\n";

FakeHost* current = nullptr;
std::map<std::string, int> addresses; // as printed, numbered in the order in which the log showed them
int addresses_named = 0;
std::vector<bool> reply_is_freed;

std::string printed(const void* address) {
    char text[32];
    std::snprintf(text, sizeof text, "%p", address);
    return text;
}

void note_freed(const void* block) {
    addresses.erase(printed(block)); // the allocator may give the address again, to another block
    for (size_t index = current->replies.size(); index-- > 0;) {
        if (current->replies[index].message.data == block && !reply_is_freed[index]) {
            reply_is_freed[index] = true;
            current->freed.push_back(static_cast<int>(index));
            return;
        }
    }
}

std::string text_of(const char* format, va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    std::string text(static_cast<size_t>(length) + 1, '\0');
    std::vsnprintf(text.data(), text.size(), format, arguments);
    text.pop_back();
    return text;
}

bool starts_with(const std::string& text, const std::string& start) {
    return text.rfind(start, 0) == 0;
}

std::string level_of(const LogLine& line) {
    if (starts_with(line.text, "\033[m")) {
        return "PLAIN";
    }
    if (starts_with(line.text, "\033[32m")) {
        return "GREEN";
    }
    if (starts_with(line.text, "\033[33m")) {
        return "YELLOW";
    }
    if (starts_with(line.text, "\033[36m")) {
        return "CYAN";
    }
    if (starts_with(line.text, "\033[31m")) {
        return line.priority == 6 ? "ERROR" : "WARN";
    }
    return "UNCOLORED";
}

// The message without the colour in front of it and the colour reset behind it.
std::string message_of(const std::string& text) {
    const size_t first = text.find('m');
    const size_t end = text.rfind(color_reset);
    if (text.empty() || text[0] != '\033' || first == std::string::npos || end == std::string::npos || end <= first) {
        return text;
    }
    return text.substr(first + 1, end - first - 1);
}

std::string name_of_address(const std::string& printed) {
    if (printed == "(nil)") {
        return "null";
    }
    const auto [entry, is_new] = addresses.emplace(printed, addresses_named + 1);
    addresses_named += is_new ? 1 : 0;
    return "#" + std::to_string(entry->second);
}

std::string with_named_addresses(std::string message) {
    const size_t label = message.find("add=");
    if (label == std::string::npos) {
        return message;
    }
    const size_t first = label + 4;
    const size_t end = std::min(message.find_first_of(", ", first), message.size());
    return message.replace(first, end - first, name_of_address(message.substr(first, end - first)));
}

std::mutex noting; // lines may come from several threads

void note(const std::string& event) {
    {
        const std::lock_guard<std::mutex> lock(noting);
        current->transcript.push_back(event);
    }
    if (current->watch) {
        current->watch(event);
    }
}

template<class... Arguments>
void note_call(const char* name, const Arguments&... arguments) {
    std::ostringstream line;
    line << name << '(';
    [[maybe_unused]] const char* separator = "";
    ((line << separator << arguments, separator = ", "), ...);
    line << ')';
    note(line.str());
}

bool is_call(const std::string& event) {
    const size_t blank = event.find(' ');
    const size_t bracket = event.find('(');
    return bracket != std::string::npos && (blank == std::string::npos || bracket < blank);
}

bool is_cleared(const void* memory, size_t size) {
    const auto* const first = static_cast<const unsigned char*>(memory);
    return std::all_of(first, first + size, [](unsigned char byte) { return byte == 0; });
}

// What holds of the library's state between any two calls.
void expect_sound_state() {
    EXPECT_GE(sm_BT_total_length, -1);
    if (sm_BT_total_length == -1) {
        EXPECT_EQ(sm_BT_combine_length, 0);
        EXPECT_EQ(shotmentor_p_ReceiveData, nullptr);
    }
    EXPECT_TRUE(shotmentor_p_FullData == nullptr || library_heap::size_of(shotmentor_p_FullData) > 0);
    ASSERT_GE(shotmentor_p_Full_Q_NUM, 0);
    ASSERT_LE(shotmentor_p_Full_Q_NUM, 10);
    for (int index = 0; index < shotmentor_p_Full_Q_NUM; ++index) {
        EXPECT_GT(library_heap::size_of(shotmentor_p_Full_Q[index]), 0U) << "slot " << index << " holds no reply";
    }
}

tag_custom_info* stored_preset(int custom_id) {
    for (tag_custom_info& stored : current->presets) {
        if (stored.custom_id == custom_id) {
            return &stored;
        }
    }
    return nullptr;
}

// The number that a preset has after a deletion, or -1 when it is gone.
int number_after(const int* flags, int number) {
    if (number < 0 || number >= delete_flags) {
        return number;
    }
    return flags[number] == 1 ? -1 : number - static_cast<int>(std::count(flags, flags + number, 1));
}

void delete_presets(const int* flags) {
    std::vector<tag_custom_info> kept;
    for (size_t number = 0; number < current->presets.size(); ++number) {
        if (flags[number] != 1) {
            kept.push_back(current->presets[number]);
            kept.back().preset_num = static_cast<int32_t>(kept.size()) - 1;
        }
    }
    current->presets = kept;
    for (int& number : current->linked) {
        number = number_after(flags, number);
    }
}

// ---- Transcripts on file --------------------------------------------------------------------------------------------

// Stands for a reply's bytes, which would fill hundreds of megabytes (FNV-1a, 64 bits).
uint64_t digest(const Bytes& bytes) {
    uint64_t sum = 0xCBF29CE484222325;
    for (const unsigned char byte : bytes) {
        sum = (sum ^ byte) * 0x100000001B3;
    }
    return sum;
}

// The file of the running test in the folder that SHOTMENTOR_TRANSCRIPTS names; builds are compared by these files.
// Null without such a folder.
std::FILE* transcript_file() {
    static std::string last_test;
    const char* const folder = std::getenv("SHOTMENTOR_TRANSCRIPTS");
    const testing::TestInfo* const test = testing::UnitTest::GetInstance()->current_test_info();
    if (folder == nullptr || test == nullptr) {
        return nullptr;
    }
    std::string name = std::string(test->test_suite_name()) + "." + test->name();
    std::replace(name.begin(), name.end(), '/', '.');
    std::FILE* const file = std::fopen((std::string(folder) + "/" + name).c_str(), name == last_test ? "a" : "w");
    EXPECT_NE(file, nullptr) << "SHOTMENTOR_TRANSCRIPTS names a folder that cannot be written to";
    last_test = name;
    return file;
}

std::string with_named_folder(std::string event, const std::string& folder) {
    const size_t first = folder.empty() ? std::string::npos : event.find(folder);
    return first == std::string::npos ? event : event.replace(first, folder.size(), "FOLDER");
}

// Appends what has been noted since the host was made or forgot.
void keep_transcript(const FakeHost& host) {
    std::FILE* const file = host.is_on_file ? transcript_file() : nullptr;
    if (file == nullptr) {
        return;
    }
    std::fprintf(file, "--\n");
    for (const std::string& event : host.transcript) {
        std::fprintf(file, "%s\n", with_named_folder(event, host.folder).c_str());
    }
    for (const Reply& reply : host.replies) {
        std::fprintf(file, "reply of %zu bytes, digest %016" PRIx64 "\n", reply.bytes.size(), digest(reply.bytes));
    }
    std::fclose(file);
}

} // namespace

// ---- The services that the library imports --------------------------------------------------------------------------

int __dlog_print(int buffer, int priority, const char* tag, const char* format, ...) {
    LogLine line = {buffer, priority, tag, format, "", "", 0, ""};
    va_list arguments;
    va_start(arguments, format);
    if (line.format == located_format) {
        line.file = va_arg(arguments, const char*);
        line.function = va_arg(arguments, const char*);
        line.line = va_arg(arguments, int);
        const char* const text = va_arg(arguments, const char*);
        library_heap::forget_stack(text, ALG_LOG_LINE_SIZE);
        line.text = text;
    } else {
        line.text = text_of(format, arguments);
    }
    va_end(arguments);
    std::string event;
    {
        const std::lock_guard<std::mutex> lock(noting);
        event = level_of(line) + " " + line.tag + " " + with_named_addresses(message_of(line.text));
        current->lines.push_back(std::move(line));
    }
    note(event);
    return 0;
}

int __ui_set_shotmentor_state(int state) {
    EXPECT_TRUE(state == 0 || state == 1);
    note_call(__func__, state);
    return 0;
}

bool __ui_get_bt_state_for_phone() {
    note_call(__func__);
    return current->link_up;
}

int __ui_get_custom_mode_list_info(tag_custom_info* presets, int* count) {
    EXPECT_EQ(library_heap::size_of(presets), list_size);
    EXPECT_TRUE(is_cleared(presets, list_size));
    EXPECT_EQ(*count, 0);
    note_call(__func__);
    std::copy(current->presets.begin(), current->presets.end(), presets);
    if (current->reports_count) {
        *count = current->reported_count.value_or(static_cast<int>(current->presets.size()));
    }
    return 0;
}

int __ui_get_linked_preseet_num_for_phone(int custom_mode) {
    EXPECT_TRUE(custom_mode == 0 || custom_mode == 1);
    note_call(__func__, custom_mode);
    if (current->linked_answers.empty()) {
        return current->linked[custom_mode];
    }
    const int answer = current->linked_answers.front();
    current->linked_answers.pop_front();
    return answer;
}

bool __ui_get_preset_info(int custom_id, tag_custom_info* preset) {
    tag_custom_info asked = *preset;
    asked.applocal_id = 0;
    EXPECT_TRUE(is_cleared(&asked, sizeof asked)) << "a look-up passes on more than the phone's identity";
    note_call(__func__, custom_id, preset->applocal_id);
    const tag_custom_info* const stored = stored_preset(custom_id);
    const bool known = current->preset_info_answer.value_or(stored != nullptr);
    if (known && stored != nullptr) {
        *preset = *stored;
    }
    if (known && current->fill_preset_info) {
        current->fill_preset_info(*preset);
    }
    return known;
}

int __ui_save_downloaded_preset(tag_custom_info* preset, const void* image, int length) {
    note_call(__func__, length);
    const auto* const first = static_cast<const unsigned char*>(image);
    current->saved.push_back({*preset, length > 0 ? Bytes(first, first + length) : Bytes(), length});
    return current->save ? current->save(*preset) : SM_RETURN_TRUE;
}

int __ui_preset_update_comfirm(int custom_id, int server_id, const char* title) {
    note_call(__func__, custom_id, server_id, '"' + std::string(title) + '"');
    const auto* const first = reinterpret_cast<const unsigned char*>(title);
    EXPECT_EQ(first[title_size - 1], 0);
    current->updated_titles.emplace_back(first, first + title_size);
    return current->update_answer;
}

int __ui_preset_delete_form_phone(int* flags) {
    std::string marked;
    for (int number = 0; number < delete_flags; ++number) {
        EXPECT_TRUE(flags[number] == 0 || (flags[number] == 1 && number < 40)) << number << ": " << flags[number];
        if (flags[number] != 0) {
            marked += (marked.empty() ? "" : " ") + std::to_string(number);
        }
    }
    note_call(__func__, marked);
    if (current->deletes) {
        delete_presets(flags);
    }
    return 0;
}

int bt_send_msgs(bt_msg_info* message) {
    bt_msg_info expected = {};
    expected.message_kind = 9;
    expected.data = shotmentor_p_FullData;
    expected.length = message->length;
    EXPECT_EQ(message, &shotmentor_BT_info);
    EXPECT_EQ(std::memcmp(message, &expected, sizeof expected), 0)
        << "the record holds more than kind, reply and length";
    EXPECT_LE(static_cast<size_t>(message->length), library_heap::size_of(message->data));
    note_call(__func__, message->length);
    const auto* const first = static_cast<const unsigned char*>(message->data);
    EXPECT_EQ(library_heap::first_unwritten(first, static_cast<size_t>(message->length)), nullptr)
        << "a byte is sent that nobody wrote";
    current->replies.push_back(
        {*message, Bytes(first, first + message->length), Bytes(first, first + library_heap::size_of(message->data))});
    reply_is_freed.push_back(false);
    return 0;
}

int User_Spec_Get_Value(int key) {
    EXPECT_EQ(key, iso_step_key);
    note_call(__func__, key);
    return current->iso_step_value;
}

// ---- The host -------------------------------------------------------------------------------------------------------

FakeHost::FakeHost() {
    EXPECT_EQ(current, nullptr) << "only one host exists at a time";
    current = this;
    addresses.clear();
    addresses_named = 0;
    reply_is_freed.clear();
    reset_library();
    library_heap::reset();
    library_heap::on_free(note_freed);
}

FakeHost::~FakeHost() {
    keep_transcript(*this);
    settle();
    EXPECT_EQ(library_heap::blocks(), 0U) << "the library lost track of memory that it owns";
    EXPECT_EQ(library_heap::overruns(), 0U) << "the library wrote behind a block of its own";
    library_heap::on_free(nullptr);
    library_heap::reset();
    reset_library();
    current = nullptr;
}

void FakeHost::refuse_allocation(int n, bool for_good) {
    library_heap::refuse(n, for_good);
}

int FakeHost::allocations_asked() const {
    return library_heap::asked();
}

int FakeHost::receive(const Bytes& packet) {
    return receive_with_length(packet, static_cast<int>(packet.size()));
}

int FakeHost::receive_with_length(const Bytes& packet, int length) {
    // Memory of exactly the packet's size, so that a sanitizer sees every read beyond it.
    const size_t size = std::max(packet.size(), smallest_packet_memory);
    const std::unique_ptr<unsigned char[]> memory(new unsigned char[size]());
    std::copy(packet.begin(), packet.end(), memory.get());
    const int result = ADE_ShotMentor_Receive_Manager(memory.get(), length);
    expect_sound_state();
    return result;
}

std::vector<int> FakeHost::receive_in_packets(const Bytes& request, const std::vector<size_t>& ends) {
    std::vector<int> results;
    in_packets(request, ends, [&](size_t first, size_t end) {
        const size_t readable = first == 0 ? std::max(end, sizeof(sm_frame)) : end;
        results.push_back(receive_with_length(slice(request, first, readable - first), static_cast<int>(end - first)));
    });
    return results;
}

int FakeHost::confirm() {
    const int result = ADE_ShotMentor_Result_Manager(nullptr, 0);
    expect_sound_state();
    return result;
}

void FakeHost::settle() {
    ADE_ShotMentor_Return_To_Idle();
    for (int index = 0; index < shotmentor_p_Full_Q_NUM; ++index) {
        std::free(shotmentor_p_Full_Q[index]);
    }
    shotmentor_p_Full_Q_NUM = 0;
    std::free(shotmentor_p_FullData);
    shotmentor_p_FullData = nullptr;
}

void FakeHost::forget() {
    keep_transcript(*this);
    transcript.clear();
    lines.clear();
    replies.clear();
    saved.clear();
    updated_titles.clear();
    freed.clear();
    reply_is_freed.clear();
}

Transcript FakeHost::calls() const {
    Transcript calls;
    std::copy_if(transcript.begin(), transcript.end(), std::back_inserter(calls), is_call);
    return calls;
}

Transcript FakeHost::log() const {
    Transcript log;
    std::copy_if(transcript.begin(), transcript.end(), std::back_inserter(log), std::not_fn(is_call));
    return log;
}

size_t FakeHost::blocks_owned() const {
    return library_heap::blocks();
}

size_t FakeHost::bytes_owned() const {
    return library_heap::bytes();
}

tag_custom_info preset(int id, int number) {
    tag_custom_info record = {};
    std::snprintf(record.title, sizeof record.title, "Preset %d", id);
    record.custom_id = id;
    record.preset_num = number;
    record.made_id = 0x144;
    return record;
}
