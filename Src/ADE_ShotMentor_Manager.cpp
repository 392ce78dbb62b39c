// Phone message manager: reassembles requests, runs them against the camera's preset store, and keeps every reply until
// its send has been confirmed.

#define LOG_SOURCE kManagerSource

#include "ADE_ShotMentor.h"
#include "ADE_ShotMentor_LogLine.h"
#include "ADE_ShotMentor_Words.h"

#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

int32_t sm_BT_total_length = -1;
int32_t sm_BT_combine_length = 0;
unsigned char* shotmentor_p_ReceiveData = nullptr;

bt_msg_info shotmentor_BT_info = {};
unsigned char* shotmentor_p_FullData = nullptr;
unsigned char* shotmentor_p_Full_Q[SM_REPLY_QUEUE] = {};
int32_t shotmentor_p_Full_Q_NUM = 0;

namespace {

constexpr char kModel[SM_MODEL_SIZE] = "KT7";

// A request that is too short for its command reads zeros, the same on every run: as many as the longest fixed layout
// needs, a header and a phone record, with some slack.
constexpr size_t kZeroedRequestBytes = 760;
static_assert(kZeroedRequestBytes >= sizeof(sm_frame) + sizeof(sm_tag_custom_info));

const unsigned char* payload_of(const void* request) {
    return static_cast<const unsigned char*>(request) + sizeof(sm_frame);
}

// Lengths come from the phone: a request may announce fewer bytes than its header has.
int length_without(int length, unsigned bytes) {
    return static_cast<int>(static_cast<unsigned>(length) - bytes);
}

// Returns cleared memory, so that no byte that nobody wrote can reach the phone; null when it was refused.
void* allocate_cleared(int size) {
    void* const memory = malloc(static_cast<size_t>(size));
    return memory != nullptr ? memset(memory, 0, static_cast<size_t>(size)) : nullptr;
}

void log_refused_allocation(int size) {
    ALG_LOG_ERROR("malloc ERR size=%d\n", size);
}

} // namespace

// ---- Requests -------------------------------------------------------------------------------------------------------

namespace {

void log_refused_total() {
    ALG_LOG_ERROR("ERR : RESULT ADE_ShotMentor_Receive_Manager sm_total_length=%d\n", sm_BT_total_length);
}

void allocate_request() {
    shotmentor_p_ReceiveData = static_cast<unsigned char*>(malloc(SM_REQUEST_LIMIT));
    if (shotmentor_p_ReceiveData != nullptr) {
        memset(shotmentor_p_ReceiveData, 0, kZeroedRequestBytes);
    }
    ALG_LOG_PLAIN("shotmentor_p_ReceiveData add=%p\n", static_cast<void*>(shotmentor_p_ReceiveData));
}

// Reads the header of a first packet. Returns false, and stays idle, when the request is refused at once.
bool begin_request(const void* packet) {
    const int function = word_at(packet, offsetof(sm_frame, function));
    if (function < 0 || function > SM_FUNCTION_LAST) {
        ALG_LOG_ERROR("ERR : RESULT ADE_ShotMentor_Receive_Manager funcN=%d\n", function);
        return false;
    }
    ALG_LOG_PLAIN("ADE_ShotMentor_Receive_Manager funcN=%d\n", function);
    sm_BT_total_length = word_at(packet, offsetof(sm_frame, total_length));
    ALG_LOG_PLAIN("ADE_ShotMentor_Receive_Manager sm_total_length=%d\n", sm_BT_total_length);
    if (sm_BT_total_length < 0) {
        log_refused_total();
        sm_BT_total_length = -1;
        return false;
    }
    allocate_request();
    return true;
}

// Runs the request that has arrived, unless its buffer could not hold it.
int run_request() {
    if (shotmentor_p_ReceiveData == nullptr || sm_BT_total_length > SM_REQUEST_LIMIT) {
        log_refused_total();
        return SM_RETURN_FAIL;
    }
    return ADE_ShotMentor_Receive_Function(shotmentor_p_ReceiveData, sm_BT_total_length);
}

void end_request() {
    sm_BT_total_length = -1;
    sm_BT_combine_length = 0;
    if (shotmentor_p_ReceiveData != nullptr) {
        ALG_LOG_PLAIN("free Receive add=%p\n", static_cast<void*>(shotmentor_p_ReceiveData));
        free(shotmentor_p_ReceiveData);
        shotmentor_p_ReceiveData = nullptr;
    }
}

// Bytes that the reassembly buffer still takes, at most `length`. The count runs on when the buffer is full.
int storable(int length) {
    const int room = sm_BT_combine_length < SM_REQUEST_LIMIT ? SM_REQUEST_LIMIT - sm_BT_combine_length : 0;
    return length < room ? length : room;
}

} // namespace

int ADE_ShotMentor_Receive_Manager(const void* data, int length) {
    if (length <= 0) {
        ALG_LOG_ERROR("ERR : RESULT ADE_ShotMentor_Receive_Manager length=%d\n", length);
        return SM_RETURN_FAIL;
    }
    if (sm_BT_total_length < 0 && !begin_request(data)) {
        return SM_RETURN_FAIL;
    }
    ADE_ShotMentor_Combine_BTData(data, length);
    if (sm_BT_total_length != sm_BT_combine_length) {
        return SM_RETURN_FAIL;
    }
    const int result = run_request();
    end_request();
    return result;
}

int ADE_ShotMentor_Combine_BTData(const void* data, int length) {
    if (shotmentor_p_ReceiveData == nullptr || length < 0 || length > INT_MAX - sm_BT_combine_length) {
        ALG_LOG_ERROR("ERR ADE_ShotMentor_Combine_BTData \n");
        return SM_RETURN_FAIL;
    }
    const int stored = storable(length);
    if (stored > 0) {
        memcpy(shotmentor_p_ReceiveData + sm_BT_combine_length, data, static_cast<size_t>(stored));
    }
    sm_BT_combine_length += length;
    if (stored < length) {
        ALG_LOG_ERROR("ERR ADE_ShotMentor_Combine_BTData \n");
        return SM_RETURN_FAIL;
    }
    // The one line that every packet costs, so it does without the formatter.
    char text[ALG_LOG_LINE_SIZE];
    char* at = alg_log_begin(text, ALG_LOG_LEVEL_GREEN);
    at = put_decimal(put_text(at, "ADE_ShotMentor_Combine_BTData length="), length);
    at = put_decimal(put_text(at, ", sm_BT_combine_length="), sm_BT_combine_length);
    alg_log_end(at);
    print_line(log_site(LOG_SOURCE, ALG_LOG_LEVEL_GREEN, __LINE__), __func__, text);
    return SM_RETURN_TRUE;
}

int ADE_ShotMentor_Receive_Function(const void* data, int length) {
    const int function = word_at(data, offsetof(sm_frame, function));
    const unsigned char* const payload = payload_of(data);
    const int payload_length = length_without(length, sizeof(sm_frame));
    ALG_LOG_GREEN("ADE_ShotMentor_Receive_Manager funcNum=%X, length=%d\n", static_cast<unsigned>(function), length);
    switch (function) {
    case SM_FUNCTION_STATE_OFF:
        __ui_set_shotmentor_state(0);
        return ADE_SM_State_Off(payload, payload_length);
    case SM_FUNCTION_SEND_LIST:
        __ui_set_shotmentor_state(1);
        return ADE_SM_Send_List();
    case SM_FUNCTION_SEND_PRESET:
        return ADE_SM_Send_Preset(word_at(payload, 0), word_at(payload, sizeof(int32_t)));
    case SM_FUNCTION_RECEIVE_PRESET:
        return ADE_SM_Receive_Preset(payload, payload_length);
    case SM_FUNCTION_UPDATE_PRESET:
        return ADE_SM_Update_Preset(payload, payload_length);
    case SM_FUNCTION_DELETE_PRESET:
        return ADE_SM_Delete_Preset(payload, payload_length);
    case SM_FUNCTION_STATE_ON:
        __ui_set_shotmentor_state(1);
        return SM_RETURN_FAIL;
    default:
        ALG_LOG_ERROR("ERROR ADE_ShotMentor_Receive_Function funcN=%d\n", function);
        return SM_RETURN_FAIL;
    }
}

// ---- Replies --------------------------------------------------------------------------------------------------------

namespace {

// Moves a reply that is still unconfirmed into the queue. A full queue loses its newest entry, which is never freed:
// the service may still be reading it, and the queue does not grow.
void park_reply() {
    if (shotmentor_p_FullData == nullptr) {
        return;
    }
    if (shotmentor_p_Full_Q_NUM > SM_REPLY_QUEUE - 1) {
        shotmentor_p_Full_Q_NUM = SM_REPLY_QUEUE - 1;
    }
    unsigned char** const slot = &shotmentor_p_Full_Q[shotmentor_p_Full_Q_NUM];
    *slot = shotmentor_p_FullData;
    shotmentor_p_FullData = nullptr;
    ALG_LOG_ERROR("not receive EVT_BT_APP_SEND_RESULT => save add=%p at QUEUE, sum # of QUEUE=%d\n",
                  static_cast<void*>(*slot), shotmentor_p_Full_Q_NUM + 1);
    ++shotmentor_p_Full_Q_NUM;
}

// Makes a cleared buffer the current reply. When it was refused there is no current reply.
void allocate_reply(int size) {
    shotmentor_p_FullData = static_cast<unsigned char*>(allocate_cleared(size));
}

// Whether the buffer of so many bytes is there. Without it there is nothing to send.
bool has_reply(int size) {
    if (shotmentor_p_FullData == nullptr) {
        log_refused_allocation(size);
        return false;
    }
    return true;
}

// Begins a reply of at most SM_MALLOC_SIZE bytes. Returns false when there is no memory for it.
bool begin_reply() {
    park_reply();
    allocate_reply(SM_MALLOC_SIZE);
    ALG_LOG_PLAIN("malloc(SM_MALLOC_SIZE) add=%p\n", static_cast<void*>(shotmentor_p_FullData));
    return has_reply(SM_MALLOC_SIZE);
}

// The frame of a reply to a request with this function number.
sm_frame reply_frame(int function, int total_length) {
    return {SM_REPLY + function, total_length};
}

// Writes a reply's head, or the whole of a short reply, to the start of the current reply.
template<class Head>
void write_head(const Head& head) {
    memcpy(shotmentor_p_FullData, &head, sizeof head);
}

// Hands the first `length` bytes of the current reply to the Bluetooth service.
void send_reply(int length) {
    memset(&shotmentor_BT_info, 0, sizeof shotmentor_BT_info);
    shotmentor_BT_info.message_kind = SM_BT_MESSAGE_KIND;
    shotmentor_BT_info.data = shotmentor_p_FullData;
    shotmentor_BT_info.length = length;
    bt_send_msgs(&shotmentor_BT_info);
}

// Frees the oldest queued reply and closes the gap. The last slot keeps its pointer; only the count tells what is
// queued.
void release_oldest_queued_reply() {
    --shotmentor_p_Full_Q_NUM;
    ALG_LOG_ERROR("late receive EVT_BT_APP_SEND_RESULT => add=%p, sum # of QUEUE=%d\n",
                  static_cast<void*>(shotmentor_p_Full_Q[0]), shotmentor_p_Full_Q_NUM);
    free(shotmentor_p_Full_Q[0]);
    memmove(&shotmentor_p_Full_Q[0], &shotmentor_p_Full_Q[1], (SM_REPLY_QUEUE - 1) * sizeof shotmentor_p_Full_Q[0]);
}

} // namespace

int ADE_ShotMentor_Result_Manager(const void*, int) {
    ALG_LOG_GREEN("ADE_ShotMentor_Result_Manager result\n");
    if (shotmentor_p_FullData == nullptr) {
        ALG_LOG_ERROR("ERR ADE_ShotMentor_Result_Manager NULL pointer \n");
        return SM_RETURN_FAIL;
    }
    if (shotmentor_p_Full_Q_NUM > 0) {
        release_oldest_queued_reply();
        return SM_RETURN_TRUE;
    }
    ALG_LOG_PLAIN("free shotmentor_p_FullData add=%p\n", static_cast<void*>(shotmentor_p_FullData));
    free(shotmentor_p_FullData);
    shotmentor_p_FullData = nullptr;
    return SM_RETURN_TRUE;
}

// ---- Function 0: link state off -------------------------------------------------------------------------------------

int ADE_SM_State_Off(const void* data, int length) {
    const int return_BT = word_at(data, 0);
    ALG_LOG_CYAN("ADE_SM_Off() length=%d, return_BT=%d\n", length, return_BT);
    if (length < static_cast<int>(sizeof return_BT)) {
        return SM_RETURN_FAIL;
    }
    switch (return_BT) {
    case SM_RETURN_BT_STRUCT_ERR:
        ALG_LOG_ERROR("SM_RETURN_BT_STRUCT_ERR\n");
        return SM_RETURN_TRUE;
    case SM_RETURN_BT_DATA_ERR:
        ALG_LOG_ERROR("SM_RETURN_BT_DATA_ERR\n");
        return SM_RETURN_TRUE;
    case SM_RETURN_BT_RES_ERR:
        ALG_LOG_ERROR("SM_RETURN_BT_RES_ERR\n");
        return SM_RETURN_TRUE;
    case SM_RETURN_TRUE:
        ALG_LOG_PLAIN("SM_RETURN_TRUE\n");
        return SM_RETURN_TRUE;
    default:
        return SM_RETURN_FAIL;
    }
}

// ---- Function 1: preset list ----------------------------------------------------------------------------------------

namespace {

enum CustomMode { kCustom1, kCustom2 };

// The stored presets as the camera and as the phone sees them: working arrays of one command.
struct PresetLists {
    tag_custom_info* camera = nullptr;
    sm_tag_custom_info* phone = nullptr;
    int count = 0;

    PresetLists() = default;
    PresetLists(const PresetLists&) = delete;
    PresetLists& operator=(const PresetLists&) = delete;
    ~PresetLists() {
        free(camera);
        free(phone);
    }
};

// Allocates room for SM_PRESET_LIMIT records. Returns null when it was refused.
template<class Record>
Record* allocate_records() {
    constexpr int size = SM_PRESET_LIMIT * static_cast<int>(sizeof(Record));
    void* const records = allocate_cleared(size);
    if (records == nullptr) {
        log_refused_allocation(size);
    }
    return static_cast<Record*>(records);
}

// Returns false when there is no memory for the lists.
bool allocate_lists(PresetLists& lists) {
    lists.camera = allocate_records<tag_custom_info>();
    if (lists.camera == nullptr) {
        return false;
    }
    lists.phone = allocate_records<sm_tag_custom_info>();
    return lists.phone != nullptr;
}

int within_preset_limit(int count) {
    if (count < 0) {
        return 0;
    }
    return count < SM_PRESET_LIMIT ? count : int{SM_PRESET_LIMIT};
}

// Fetches the stored presets and converts them, none of them linked to a custom mode.
void fetch_presets(PresetLists& lists) {
    __ui_get_custom_mode_list_info(lists.camera, &lists.count);
    ALG_LOG_PLAIN("__ui_get_custom_mode_list_info() - list number: %d\n", lists.count);
    lists.count = within_preset_limit(lists.count);
    for (int number = 0; number < lists.count; ++number) {
        ADE_PRO_CreateProFilm(&lists.camera[number], &lists.phone[number]);
        lists.phone[number].linked_custom_mode = 0;
    }
}

// Marks the presets that the custom modes use. A preset that both use ends with CUSTOM2. The number is not compared
// with the count: a mark beyond the list falls on a working record that is not sent.
void mark_linked_presets(PresetLists& lists) {
    for (int mode = kCustom1; mode < SM_CUSTOM_MODES; ++mode) {
        const int number = __ui_get_linked_preseet_num_for_phone(mode);
        ALG_LOG_PLAIN("LIST- CUSTOM%d MODE index: %d\n", mode + 1, number);
        if (number >= 0 && number < SM_PRESET_LIMIT) {
            lists.phone[number].linked_custom_mode = mode + 1;
        }
    }
}

// Copies the phone's list to an offset of the current reply.
void write_presets(const PresetLists& lists, size_t offset) {
    if (lists.count > 0) {
        memcpy(shotmentor_p_FullData + offset, lists.phone, static_cast<size_t>(lists.count) * sizeof *lists.phone);
    }
}

template<class Head>
constexpr int length_with_presets(int count) {
    return static_cast<int>(sizeof(Head)) + count * static_cast<int>(sizeof(sm_tag_custom_info));
}
static_assert(length_with_presets<sm_list_reply>(SM_PRESET_LIMIT) <= SM_MALLOC_SIZE);

int send_list(const PresetLists& lists) {
    if (!begin_reply()) {
        return SM_RETURN_FAIL;
    }
    sm_list_reply head = {};
    head.frame = reply_frame(SM_FUNCTION_SEND_LIST, length_with_presets<sm_list_reply>(lists.count));
    memcpy(head.SM_MODEL, kModel, sizeof head.SM_MODEL);
    head.SM_STRUCT_VER = SM_LAYOUT_VERSION;
    head.num_Preset = lists.count;
    write_head(head);
    write_presets(lists, sizeof head);
    ALG_LOG_PLAIN("ADE_ShotMentor_SEND funcNum=%X, length=%d, SM_MODEL=%s, SM_STRUCT_VER=%d, num_Preset=%d\n",
                  static_cast<unsigned>(head.frame.function), head.frame.total_length, head.SM_MODEL,
                  head.SM_STRUCT_VER, head.num_Preset);
    send_reply(head.frame.total_length);
    return SM_RETURN_TRUE;
}

} // namespace

int ADE_SM_Send_List() {
    ALG_LOG_CYAN("ADE_SM_Send_List()\n");
    if (!__ui_get_bt_state_for_phone()) {
        ALG_LOG_WARN("BT state : off\n");
        return SM_RETURN_FAIL;
    }
    PresetLists lists;
    if (!allocate_lists(lists)) {
        return SM_RETURN_FAIL;
    }
    fetch_presets(lists);
    mark_linked_presets(lists);
    return send_list(lists);
}

// ---- Function 2: picture of a preset --------------------------------------------------------------------------------

namespace {

// Behind the picture the reply buffer has spare bytes, into which the search for JPEG streams may look.
constexpr int kScreennailSpareBytes = 38;
constexpr int kScreennailExtraBytes = static_cast<int>(sizeof(sm_screennail_reply)) + kScreennailSpareBytes;
constexpr int kScreennailErrorBytes = 20;

// JPEG streams in a screennail file that the phone does not get: all from this one on.
constexpr int kFirstUnsentStream = 3;

// The screennail file of a preset, open as long as this is.
struct Screennail {
    char path[SM_SCREENNAIL_PATH_SIZE + 1] = {}; // the record's path may fill its field without a NUL
    FILE* file = nullptr;                        // null when it could not be opened
    int size = 0;                                // bytes of the picture
    bool failed = false;

    Screennail() = default;
    Screennail(const Screennail&) = delete;
    Screennail& operator=(const Screennail&) = delete;
    ~Screennail() {
        if (file != nullptr) {
            fclose(file);
        }
    }
};

// Answers with a result code in the place of the custom id. The error reply does not park a reply that is still
// unconfirmed but takes its place, and the Bluetooth service is handed the length 0.
void send_screennail_error(int result, const char* name) {
    allocate_reply(kScreennailErrorBytes);
    if (!has_reply(kScreennailErrorBytes)) {
        return;
    }
    const sm_frame frame = reply_frame(SM_FUNCTION_SEND_PRESET, sizeof(sm_screennail_reply));
    write_head(sm_screennail_reply{frame, result});
    ALG_LOG_ERROR("%s\n", name);
    send_reply(0);
}

// Opens a preset's screennail and finds its size. A file whose reply would not fit an int counts as unreadable.
void open_screennail(Screennail& picture, const tag_custom_info& preset) {
    memcpy(picture.path, preset.screennail_path, sizeof preset.screennail_path);
    picture.file = fopen(picture.path, "rb");
    if (picture.file == nullptr) {
        picture.failed = true;
        return;
    }
    fseek(picture.file, 0, SEEK_END);
    const long size = ftell(picture.file);
    fseek(picture.file, 0, SEEK_SET);
    picture.failed = size > INT_MAX - kScreennailExtraBytes;
    picture.size = size > 0 && !picture.failed ? static_cast<int>(size) : 0;
}

// Reads an open picture into the current reply. Its bytes were not cleared before: those that a short read leaves out
// are sent as zeros.
void fill_from_file(Screennail& picture) {
    unsigned char* const image = shotmentor_p_FullData + sizeof(sm_screennail_reply);
    const auto size = static_cast<size_t>(picture.size);
    const size_t read = fread(image, 1, size, picture.file);
    memset(image + read, 0, size - read);
    picture.failed = ferror(picture.file) != 0;
}

// Reads the picture into the current reply. One that cannot be read has the size 0 from then on.
void read_screennail(Screennail& picture) {
    if (!picture.failed) {
        fill_from_file(picture);
    }
    ALG_LOG_PLAIN("open file: %s image size : %d", picture.path, picture.size);
    if (picture.failed) {
        ALG_LOG_ERROR("JPG open error\n");
        picture.size = 0;
    }
}

// Returns the offset of the first JPEG stream that is not sent, or the size when there is none. A stream starts with
// the start-of-image marker and a define-quantisation-table marker.
int trimmed_size(const unsigned char* image, int size) {
    constexpr unsigned char kStreamStart[] = {0xFF, 0xD8, 0xFF, 0xDB};
    const unsigned char* const end = image + size;
    const unsigned char* at = image;
    for (int streams = 1;; ++streams) {
        at = static_cast<const unsigned char*>(
            memmem(at, static_cast<size_t>(end - at), kStreamStart, sizeof kStreamStart));
        if (at == nullptr) {
            return size;
        }
        if (streams == kFirstUnsentStream) {
            return static_cast<int>(at - image);
        }
        at += sizeof kStreamStart;
    }
}

// Begins the reply in a buffer that the picture fits, cleared but for the picture's place. Returns false when it was
// refused.
bool begin_screennail_reply(int picture_size) {
    const int size = picture_size + kScreennailExtraBytes;
    park_reply();
    shotmentor_p_FullData = static_cast<unsigned char*>(malloc(static_cast<size_t>(size)));
    if (shotmentor_p_FullData != nullptr) {
        memset(shotmentor_p_FullData, 0, sizeof(sm_screennail_reply));
        memset(shotmentor_p_FullData + size - kScreennailSpareBytes, 0, kScreennailSpareBytes);
    }
    ALG_LOG_PLAIN("malloc(SM_MALLOC_SIZE) size=%d, add=%p\n", size, static_cast<void*>(shotmentor_p_FullData));
    return has_reply(size);
}

constexpr int kNoReply = -1;

// Begins the reply and reads a preset's picture into it. The file is sized first, then an unconfirmed reply is parked,
// then the buffer is allocated. Returns the picture's size, or kNoReply when there is no memory for it.
int read_into_reply(const tag_custom_info& preset) {
    Screennail picture;
    open_screennail(picture, preset);
    if (!begin_screennail_reply(picture.size)) {
        return kNoReply;
    }
    read_screennail(picture);
    return picture.size;
}

// Sends the picture that the current reply holds.
void send_screennail(int custom_id, int picture_size) {
    const int sent = trimmed_size(shotmentor_p_FullData + sizeof(sm_screennail_reply), picture_size);
    ALG_LOG_PLAIN("trim screennail image size : %d", sent);
    const sm_frame frame = reply_frame(SM_FUNCTION_SEND_PRESET, static_cast<int>(sizeof(sm_screennail_reply)) + sent);
    write_head(sm_screennail_reply{frame, custom_id});
    ALG_LOG_PLAIN("ADE_ShotMentor_SEND preset funcNum=%X, sendlength=%d, custom_ID=%d\n",
                  static_cast<unsigned>(frame.function), frame.total_length, custom_id);
    send_reply(frame.total_length);
    ALG_LOG_PLAIN("shotmentor_p_Full_Q_NUM : %d", shotmentor_p_Full_Q_NUM);
}

} // namespace

int ADE_SM_Send_Preset(int custom_ID, int applocal_ID) {
    ALG_LOG_CYAN("ADE_SM_Send_Preset() custom_ID=%d, applocal_ID=%d\n", custom_ID, applocal_ID);
    tag_custom_info preset = {};
    preset.applocal_id = applocal_ID;
    if (custom_ID <= 0) {
        send_screennail_error(SM_RETURN_PRESETN_ERR, "SM_RETURN_PRESETN_ERR");
        return SM_RETURN_TRUE;
    }
    if (!__ui_get_preset_info(custom_ID, &preset)) {
        send_screennail_error(SM_RETURN_LOCALN_ERR, "SM_RETURN_LOCALN_ERR");
        return SM_RETURN_TRUE;
    }
    ALG_LOG_PLAIN("__ui_get_preset_info() \n");
    const int picture_size = read_into_reply(preset);
    if (picture_size != kNoReply) {
        send_screennail(preset.custom_id, picture_size);
    }
    return SM_RETURN_TRUE;
}

// ---- Function 3: store a preset -------------------------------------------------------------------------------------

namespace {

constexpr unsigned kSmallestPicture = 100;

// Lengths are compared as unsigned numbers: a negative one counts as long.
bool has_at_least(int length, unsigned bytes) {
    return static_cast<unsigned>(length) >= bytes;
}

int reply_to_receive(int result, const tag_custom_info& preset) {
    if (!begin_reply()) {
        return result;
    }
    const sm_frame frame = reply_frame(SM_FUNCTION_RECEIVE_PRESET, sizeof(sm_receive_reply));
    const sm_receive_reply reply = {frame, result, preset.preset_num, preset.custom_id, preset.applocal_id};
    write_head(reply);
    ALG_LOG_PLAIN("ADE_ShotMentor_SEND funcNum=%X, sendlength=%d, return=%d, preset_num=%d, custom_id=%d, "
                  "applocal_id=%d\n",
                  static_cast<unsigned>(frame.function), frame.total_length, reply.result, reply.preset_num,
                  reply.custom_id, reply.applocal_id);
    send_reply(frame.total_length);
    return result;
}

} // namespace

int ADE_SM_Receive_Preset(const void* data, int length) {
    constexpr unsigned record_size = sizeof(sm_tag_custom_info);
    sm_tag_custom_info phone = {};
    tag_custom_info camera = {};
    ALG_LOG_CYAN("ADE_SM_Receive_Preset() length=%d, sizeof(sm_tag_custom_info)=%d\n", length,
                 static_cast<int>(record_size));
    if (has_at_least(length, record_size)) {
        memcpy(&phone, data, record_size);
        ADE_PRO_CreateSysCustom(&phone, &camera);
    } else {
        ALG_LOG_ERROR("SM_RETURN_STRUCT_ERR\n");
    }
    // A payload too short for its record is too short for a picture, too: the phone is told of the picture, and the
    // record's fault shows in the log alone.
    int result = SM_RETURN_JPG_ERR;
    if (has_at_least(length, record_size + kSmallestPicture)) {
        const unsigned char* const picture = static_cast<const unsigned char*>(data) + record_size;
        result = __ui_save_downloaded_preset(&camera, picture, length_without(length, record_size));
    } else {
        ALG_LOG_ERROR("SM_RETURN_JPG_ERR\n");
    }
    return reply_to_receive(result, camera);
}

// ---- Function 4: update a preset ------------------------------------------------------------------------------------

namespace {

int reply_to_update(int result) {
    if (!begin_reply()) {
        return result;
    }
    const sm_frame frame = reply_frame(SM_FUNCTION_UPDATE_PRESET, sizeof(sm_update_reply));
    write_head(sm_update_reply{frame, result});
    ALG_LOG_PLAIN("ADE_ShotMentor_SEND funcNum=%X, return=%d\n", static_cast<unsigned>(frame.function), result);
    send_reply(frame.total_length);
    return result;
}

} // namespace

int ADE_SM_Update_Preset(const void* data, int length) {
    sm_tag_custom_info phone;
    memcpy(&phone, data, sizeof phone); // before the length is checked: the line below shows what there is
    char title[SM_TITLE_SIZE + 1] = {}; // with a NUL behind a title that fills its field
    memcpy(title, phone.title, sizeof phone.title);
    ALG_LOG_CYAN("ADE_SM_Update_Preset() custom_id=%d, server_id=%d, title=%s\n", phone.custom_id, phone.server_id,
                 title);
    int result = SM_RETURN_STRUCT_ERR;
    if (!has_at_least(length, sizeof phone)) {
        ALG_LOG_ERROR("SM_RETURN_STRUCT_ERR\n");
    } else if (phone.custom_id < 0) {
        result = SM_RETURN_DATA_ERR;
        ALG_LOG_ERROR("SM_RETURN_DATA_ERR\n");
    } else {
        result = __ui_preset_update_comfirm(phone.custom_id, phone.server_id, title);
    }
    return reply_to_update(result);
}

// ---- Function 5: delete presets -------------------------------------------------------------------------------------

namespace {

constexpr int kNone = -1;

// As many pairs as the longest request holds. More can only come from a negative length.
constexpr unsigned kMostDeletePairs = (SM_REQUEST_LIMIT - sizeof(sm_frame)) / sizeof(sm_delete_pair);
static_assert(kMostDeletePairs == 74999);

// A preset that was not deleted because a custom mode uses it; or the impossible number that the UI service reported.
struct KeptPreset {
    int preset_num = kNone;
    int custom_id = kNone;
};

struct Deletion {
    const unsigned char* pairs = nullptr;
    unsigned pair_count = 0;
    int result = SM_RETURN_FAIL;
    bool is_refused = false; // for a fault: nothing is deleted, and the result says which it was
    int delete_flags[SM_DELETE_FLAGS] = {};
    KeptPreset kept[SM_CUSTOM_MODES];
};

sm_delete_pair pair_at(const Deletion& deletion, unsigned index) {
    sm_delete_pair pair;
    memcpy(&pair, deletion.pairs + index * sizeof pair, sizeof pair);
    return pair;
}

void refuse_pair(Deletion& deletion) {
    deletion.is_refused = true;
    deletion.result = SM_RETURN_STRUCT_ERR;
    ALG_LOG_ERROR("SM_RETURN_STRUCT_ERR\n");
}

// Marks come before the range test. Only a request without any fault is acted on, so a fault's mark has no effect.
void mark_for_deletion(Deletion& deletion, int del_preset) {
    const int index = del_preset < 0 ? 0 : del_preset;
    if (index < SM_DELETE_FLAGS) {
        deletion.delete_flags[index] = 1;
    }
}

bool preset_exists(int custom_id) {
    tag_custom_info preset = {};
    preset.applocal_id = kNone;
    return __ui_get_preset_info(custom_id, &preset);
}

// All tests run for every pair, also for one that has failed a test already.
void check_pair(Deletion& deletion, sm_delete_pair pair) {
    if (pair.del_id == 0) {
        refuse_pair(deletion);
    }
    mark_for_deletion(deletion, pair.del_preset);
    if (pair.del_preset < 0 || pair.del_preset >= SM_PRESET_LIMIT) {
        refuse_pair(deletion);
    }
    if (!preset_exists(pair.del_id)) {
        refuse_pair(deletion);
    }
}

// Logs and checks the request.
void check_pairs(Deletion& deletion) {
    ALG_LOG_CYAN("ADE_SM_Delete_Preset() del_num=%d", static_cast<int>(deletion.pair_count));
    if (deletion.pair_count > kMostDeletePairs) {
        refuse_pair(deletion);
        return;
    }
    for (unsigned index = 0; index < deletion.pair_count; ++index) {
        const sm_delete_pair pair = pair_at(deletion, index);
        const int first_word = static_cast<int>(2 * index);
        ALG_LOG_PLAIN("%d: del_preset = %d, del_id = %d", first_word, pair.del_preset, pair.del_id);
    }
    if (deletion.pair_count < 1) {
        deletion.is_refused = true;
        deletion.result = SM_RETURN_DATA_ERR;
        ALG_LOG_ERROR("SM_RETURN_DATA_ERR\n");
    }
    for (unsigned index = 0; index < deletion.pair_count; ++index) {
        check_pair(deletion, pair_at(deletion, index));
    }
}

// Returns the identity that the phone gave for a preset number, the last one where it gave several.
int identity_given_for(const Deletion& deletion, int preset_num) {
    int identity = kNone;
    for (unsigned index = 0; index < deletion.pair_count; ++index) {
        const sm_delete_pair pair = pair_at(deletion, index);
        if (pair.del_preset == preset_num) {
            identity = pair.del_id;
        }
    }
    return identity;
}

// Keeps the preset that a custom mode uses. The highest number taken for a link is one more than a preset can have.
void keep_linked_preset(Deletion& deletion, int mode) {
    const int custom = mode + 1;
    const int number = __ui_get_linked_preseet_num_for_phone(mode);
    if (number == kNone) {
        ALG_LOG_PLAIN("CUSTOM%d DEL SUCCESS - NOT OPENED: %d\n", custom, number);
    } else if (number < kNone || number > SM_PRESET_LIMIT) {
        ALG_LOG_ERROR("CUSTOM%d DEL FAIL - SYSTEM DATA_ERR: %d\n", custom, number);
        deletion.kept[mode].preset_num = number;
        deletion.result = SM_RETURN_SYSTEM_DATA_ERR;
    } else if (deletion.delete_flags[number] == 1) {
        ALG_LOG_ERROR("CUSTOM%d DEL FAIL - BT del index: %d\n", custom, number);
        deletion.delete_flags[number] = 0;
        deletion.kept[mode] = {number, identity_given_for(deletion, number)};
        deletion.result = deletion.result == SM_RETURN_OPENED_ERR ? SM_RETURN_OPENED_BOTH_ERR : SM_RETURN_OPENED_ERR;
    } else {
        ALG_LOG_PLAIN("CUSTOM%d DEL SUCCESS - not including custom%d: %d\n", custom, custom, number);
    }
}

// Looks the kept presets' numbers up again, by identity, because the deletion renumbers the list. A mode that kept none
// looks for the identity -1 like any other.
void renumber_kept_presets(Deletion& deletion, const PresetLists& lists) {
    for (int number = 0; number < lists.count; ++number) {
        const sm_tag_custom_info& preset = lists.phone[number];
        for (KeptPreset& kept : deletion.kept) {
            if (preset.custom_id == kept.custom_id) {
                kept.preset_num = preset.preset_num;
            }
        }
    }
}

// Deletes all marked presets but those in use, and lists what is left. Returns false when there is no memory for the
// list.
bool delete_and_list(Deletion& deletion, PresetLists& lists) {
    deletion.result = SM_RETURN_TRUE;
    keep_linked_preset(deletion, kCustom1);
    keep_linked_preset(deletion, kCustom2);
    __ui_preset_delete_form_phone(deletion.delete_flags);
    if (!allocate_lists(lists)) {
        return false;
    }
    fetch_presets(lists);
    renumber_kept_presets(deletion, lists);
    mark_linked_presets(lists);
    return true;
}

// Bytes behind the records that the total length counts: two words for each kept preset. They stay zero.
int trailing_bytes(const Deletion& deletion) {
    int bytes = 0;
    for (const KeptPreset& kept : deletion.kept) {
        bytes += kept.preset_num != kNone ? 2 * static_cast<int>(sizeof(int32_t)) : 0;
    }
    return bytes;
}

// The kept-preset words: two for the first custom mode that kept one, two for CUSTOM2.
struct KeptWords {
    int32_t preset_num1, custom_id1, preset_num2, custom_id2;
};

// Writes the kept-preset words where the camera has always put them: the end of the records in bytes, taken as an index
// of words. That is beyond what is sent, and from 11 presets on beyond the buffer, where they are left out.
KeptWords write_kept_words(const Deletion& deletion, size_t end_of_records) {
    const KeptPreset& custom2 = deletion.kept[kCustom2];
    const KeptPreset& first = deletion.kept[kCustom1].preset_num != kNone ? deletion.kept[kCustom1] : custom2;
    const KeptWords kept = {first.preset_num, first.custom_id, custom2.preset_num, custom2.custom_id};
    const size_t offset = end_of_records * sizeof(int32_t);
    if (offset + sizeof kept <= SM_MALLOC_SIZE) {
        memcpy(shotmentor_p_FullData + offset, &kept, sizeof kept);
    }
    return kept;
}

int reply_to_deletion(const Deletion& deletion, const PresetLists& lists) {
    if (!begin_reply()) {
        return deletion.result;
    }
    const int end_of_records = length_with_presets<sm_delete_reply>(lists.count);
    const sm_frame frame = reply_frame(SM_FUNCTION_DELETE_PRESET, end_of_records + trailing_bytes(deletion));
    const sm_delete_reply head = {frame, deletion.result, SM_LAYOUT_VERSION, lists.count};
    write_head(head);
    write_presets(lists, sizeof head);
    const KeptWords kept = write_kept_words(deletion, static_cast<size_t>(end_of_records));
    ALG_LOG_PLAIN("ADE_ShotMentor_SEND funcNum=%X, return=%d, SM_STRUCT_VER=%d, num_Preset=%d\n",
                  static_cast<unsigned>(frame.function), head.result, head.SM_STRUCT_VER, head.num_Preset);
    ALG_LOG_PLAIN("sendlength=%d, open_preset_num1=%d, open_custom_id1=%d, open_preset_num2=%d, open_custom_id2=%d\n",
                  frame.total_length, kept.preset_num1, kept.custom_id1, kept.preset_num2, kept.custom_id2);
    send_reply(frame.total_length);
    return deletion.result;
}

} // namespace

int ADE_SM_Delete_Preset(const void* data, int length) {
    Deletion deletion;
    deletion.pairs = static_cast<const unsigned char*>(data);
    deletion.pair_count = static_cast<unsigned>(length) / unsigned{sizeof(sm_delete_pair)};
    check_pairs(deletion);
    PresetLists lists;
    if (!deletion.is_refused && !delete_and_list(deletion, lists)) {
        return deletion.result;
    }
    return reply_to_deletion(deletion, lists);
}
