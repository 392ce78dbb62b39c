#include "FuzzHost.h"

#include <cstdarg>

#include "Lab/LibraryHeap.h"
#include "Lab/LibraryState.h"

namespace fuzz {

Script script;
Heard heard;
LogLine last_line;
int log_lines = 0;
bool keeps_lines = false;

namespace {

constexpr char located_format[] = "%s: %s(%d) > %s";
constexpr char reset[] = "\033[m\n";
constexpr char dispatcher_line[] = "\033[32mADE_ShotMentor_Receive_Manager funcNum=";
constexpr size_t error_reply_size = 12;
constexpr size_t zeroed_request_size = 760;
constexpr size_t list_size = 29600; // room for 40 records of 740 bytes
constexpr int delete_flags = 42;

bool starts_with(const char* text, const char* start) {
    return std::strncmp(text, start, std::strlen(start)) == 0;
}

template<size_t size>
void keep(char (&to)[size], const char* text) {
    std::snprintf(to, size, "%s", text);
}

// The dispatcher logs before it runs a command: the buffer then holds the whole request.
void note_dispatch() {
    ++heard.dispatches;
    PROMISE(shotmentor_p_ReceiveData != nullptr);
    const auto size = std::max(static_cast<size_t>(sm_BT_total_length), zeroed_request_size);
    PROMISE(size <= library_heap::size_of(shotmentor_p_ReceiveData));
    heard.dispatched.assign(shotmentor_p_ReceiveData, shotmentor_p_ReceiveData + size);
}

// What every line of the library keeps to.
void check_line(int buffer, int priority, const char* tag, const char* text) {
    const size_t length = std::strlen(text);
    PROMISE(buffer == 3 && (priority == 4 || priority == 6));
    PROMISE(std::strcmp(tag, "ALG_SMM") == 0 || std::strcmp(tag, "ALG_SM") == 0);
    PROMISE(text[0] == '\033' && length <= 255 && length > std::strlen(reset));
    PROMISE(std::strcmp(text + length - std::strlen(reset), reset) == 0);
}

} // namespace

bool Script::knows(int custom_id) const {
    const auto is_asked_for = [custom_id](const tag_custom_info& record) { return record.custom_id == custom_id; };
    switch (known) {
    case all:
        return true;
    case odd_ids:
        return (custom_id & 1) != 0;
    case stored_ids:
        return std::any_of(records, records + stored, is_asked_for);
    case none:
        break;
    }
    return false;
}

void start_over() {
    script = {};
    heard = {};
    log_lines = 0;
    reset_library();
    library_heap::reset();
}

void silence_standard_error() {
    stderr = std::fopen("/dev/null", "w");
    PROMISE(stderr != nullptr);
}

} // namespace fuzz

using fuzz::heard;
using fuzz::script;

int __dlog_print(int buffer, int priority, const char* tag, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    ++fuzz::log_lines;
    if (fuzz::keeps_lines) {
        fuzz::LogLine& kept = fuzz::last_line;
        kept = {};
        kept.buffer = buffer;
        kept.priority = priority;
        fuzz::keep(kept.tag, tag);
        fuzz::keep(kept.format, format);
        kept.has_site = std::strcmp(format, fuzz::located_format) == 0;
        if (kept.has_site) {
            fuzz::keep(kept.file, va_arg(arguments, const char*));
            static_cast<void>(va_arg(arguments, const char*));
            kept.line = va_arg(arguments, int);
            format = "%s";
        }
        const int length = std::vsnprintf(kept.text, sizeof kept.text, format, arguments);
        PROMISE(length >= 0);
        kept.length = static_cast<size_t>(length);
    } else {
        PROMISE(std::strcmp(format, fuzz::located_format) == 0);
        static_cast<void>(va_arg(arguments, const char*));
        const char* const function = va_arg(arguments, const char*);
        static_cast<void>(va_arg(arguments, int));
        const char* const text = va_arg(arguments, const char*);
        fuzz::check_line(buffer, priority, tag, text);
        if (std::strcmp(function, "ADE_ShotMentor_Receive_Function") == 0 &&
            fuzz::starts_with(text, fuzz::dispatcher_line)) {
            fuzz::note_dispatch();
        }
    }
    va_end(arguments);
    return 0;
}

int __ui_set_shotmentor_state(int state) {
    heard.states.push_back(state);
    return 0;
}

bool __ui_get_bt_state_for_phone() {
    return script.link_up;
}

int __ui_get_custom_mode_list_info(tag_custom_info* presets, int* count) {
    PROMISE(library_heap::size_of(presets) == fuzz::list_size);
    PROMISE(*count == 0);
    ++heard.listed;
    std::copy_n(script.records, script.stored, presets);
    if (script.reports_count) {
        *count = script.reported_count;
    }
    return 0;
}

int __ui_get_linked_preseet_num_for_phone(int custom_mode) {
    PROMISE(custom_mode == heard.linked_asked % 2);
    PROMISE(heard.linked_asked < static_cast<int>(std::size(script.linked)));
    return script.linked[heard.linked_asked++];
}

bool __ui_get_preset_info(int custom_id, tag_custom_info* preset) {
    tag_custom_info expected = {};
    expected.applocal_id = preset->applocal_id;
    PROMISE(std::memcmp(preset, &expected, sizeof expected) == 0);
    heard.asked_ids.push_back(custom_id);
    if (!script.knows(custom_id)) {
        return false;
    }
    *preset = script.found;
    return true;
}

int __ui_save_downloaded_preset(tag_custom_info* preset, const void* image, int length) {
    const auto* const first = static_cast<const uint8_t*>(image);
    heard.saved.push_back({*preset, length, length > 0 ? fuzz::Bytes(first, first + length) : fuzz::Bytes()});
    if (script.save_writes_identities) {
        preset->preset_num = script.saved_preset_num;
        preset->custom_id = script.saved_custom_id;
        preset->applocal_id = script.saved_applocal_id;
    }
    return script.save_result;
}

int __ui_preset_update_comfirm(int custom_id, int server_id, const char* title) {
    heard.updated.push_back({custom_id, server_id, fuzz::Bytes(title, title + std::strlen(title))});
    return script.update_result;
}

int __ui_preset_delete_form_phone(int* flags) {
    heard.deleted.emplace_back(flags, flags + fuzz::delete_flags);
    return 0;
}

int bt_send_msgs(bt_msg_info* message) {
    bt_msg_info expected = {};
    expected.message_kind = SM_BT_MESSAGE_KIND;
    expected.data = message->data;
    expected.length = message->length;
    PROMISE(message == &shotmentor_BT_info && std::memcmp(message, &expected, sizeof expected) == 0);
    PROMISE(message->data == shotmentor_p_FullData);
    const size_t size = library_heap::size_of(message->data);
    PROMISE(message->length >= 0 && static_cast<size_t>(message->length) <= size && fuzz::error_reply_size <= size);
    const auto* const first = static_cast<const uint8_t*>(message->data);
    const auto length = message->length == 0 ? fuzz::error_reply_size : static_cast<size_t>(message->length);
    PROMISE(library_heap::first_unwritten(first, length) == nullptr);
    heard.sent.push_back({message->data, message->length, size, fuzz::Bytes(first, first + length)});
    return 0;
}

int User_Spec_Get_Value(int key) {
    PROMISE(key == SM_SPEC_KEY_ISO_STEP);
    return script.iso_step;
}
