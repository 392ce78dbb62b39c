// What the checks of a camera share: the link to it, its presets, and what has come out so far.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "CameraLog.h"
#include "CheckPresets.h"
#include "Probe.h"
#include "Wire/Frames.h"

namespace desk::phone {

// What a check throws when something does not hold.
struct Finding {
    std::string found;
    std::string expected;
    std::string blame; // the service or the obligation of the host
};

// What a check throws when it cannot tell.
struct Skip {
    std::string why;
};

// A request with a reply.
struct Question {
    // What it may mean that there is none, while the camera goes on answering other requests.
    enum class Unanswered { no_memory, link_state, no_preset };
    Bytes bytes;
    std::string what;
    const char* blame; // who gives the reply its content
    Unanswered unanswered = Unanswered::no_memory;
    bool may_repeat = false; // it changes nothing the second time
};

// The camera serves another phone: it has said so before it has answered anything.
struct Busy {};

// The services and obligations that checks blame.
namespace blame {
constexpr auto list = "__ui_get_custom_mode_list_info";
constexpr auto links = "__ui_get_linked_preseet_num_for_phone";
constexpr auto link_state = "__ui_get_bt_state_for_phone";
constexpr auto info = "__ui_get_preset_info";
constexpr auto save = "__ui_save_downloaded_preset";
constexpr auto update = "__ui_preset_update_comfirm";
constexpr auto remove = "__ui_preset_delete_form_phone";
constexpr auto send = "bt_send_msgs";
constexpr auto model = "User_Spec_Get_Value";
constexpr auto log = "__dlog_print";
constexpr auto memory = "the memory of the camera's process";
constexpr auto delivery = "handing packets to ADE_ShotMentor_Receive_Manager";
constexpr auto idle = "ADE_ShotMentor_Return_To_Idle when the link drops";
constexpr auto confirmation = "ADE_ShotMentor_Result_Manager once for each send";
} // namespace blame

// A preset of our own, as it was sent.
struct SentPreset {
    sm_tag_custom_info record = {};
    Bytes picture;
    StoreReply reply;
};

struct UpdateRecord {
    size_t position; // of the updated preset
    sm_tag_custom_info sent;
    Presets before;
    Presets after;
};

struct DeletionRecord {
    std::vector<size_t> removed; // positions
    Presets before;
    DeleteReply reply;
    Presets after;
};

// What a preset's number is taken from: from what the camera says it is, or from its place in the list.
enum class NamedBy { told_number, position };

struct Cleanup {
    bool done = false;        // the list was looked at
    std::vector<size_t> left; // positions of presets of this run that are still there
    std::string harm;         // what happened to the others
    std::string why;          // presets were left, or nothing is known
};

class CheckSession {
  public:
    explicit CheckSession(const Options& options);

    std::optional<CameraLog> log; // opened before the camera writes what this run causes
    Probe probe;
    CheckPresets presets;

    // ---- What has come out so far ----
    std::optional<Bytes> first_list; // the frame
    std::string model;
    std::string store_fault;    // why nothing can be stored and found again
    std::string deletion_fault; // why nothing is to be deleted any more
    std::string idle_fault;     // why bytes too many would end the run
    std::string silence;        // why the camera is not asked any more
    std::vector<std::string> refused_memory;
    std::vector<SentPreset> trio;
    std::optional<UpdateRecord> update;
    std::optional<DeletionRecord> deletion;
    std::optional<Cleanup> cleanup;
    std::string note; // of the check that runs: what holds, but could be better
    enum class Confirmations { unknown, in_time, late, missing } confirmations = Confirmations::unknown;

    // ---- Requests with replies: Finding when there is none, or not the right one ----
    // A question without bytes has been sent already.
    Bytes answer_to(const Question& question);
    ListReply list();
    PictureReply picture(int32_t custom_id);
    StoreReply store(const sm_tag_custom_info& record, std::span<const uint8_t> picture);
    int32_t update_preset(const sm_tag_custom_info& record);
    DeleteReply remove(std::span<const sm_delete_pair> pairs);
    // The shortest request of all. The library answers it by itself: no service has a part in it.
    void ask_shortest();

    // What is not answered, or not yet.
    void send(std::span<const uint8_t> bytes, const Cut& cut = {});
    void connect();
    // The reply to the shortest request on a new link, or whatever frame comes first there: an empty one stands for
    // bytes that are none.
    std::optional<Bytes> first_reply_on_new_link();
    // The camera answers the shortest request next: what was sent before it had no reply.
    void expect_silence(const std::string& what, const char* blame_for_reply);

    // ---- Presets of our own ----
    // A preset that is called by the next title, its picture and what the camera answered, which has to be 1.
    SentPreset store_own(sm_tag_custom_info record, Bytes picture);
    // The list, and the positions of our own presets in it: at least so many, and stored if need be.
    struct Own {
        Presets list;
        std::vector<size_t> positions;
    };
    Own own(size_t least);
    // Deletes presets of ours, and nothing else: Finding when the camera has deleted others.
    DeletionRecord delete_own(const Presets& list, const std::vector<size_t>& positions,
                              NamedBy named_by = NamedBy::told_number);
    // Skip when the camera keeps some.
    void delete_all_own();

    // After a check that failed: a new link. False when the camera answers nothing on it.
    bool recover();
    // Deletes what is left of our own presets, and looks what became of the others.
    Cleanup clean_up();
    void take_first_list();

  private:
    std::string delete_what_is_left();
    std::optional<Bytes> try_to_ask(const Bytes& bytes);
    bool answers_on_new_link();
    Finding finding_of(const Question& question, const Failure& failure);
    // Whether a request that had no reply has one the second time: then memory was refused once.
    bool is_answered_again(const Question& question);
    Finding silence_finding(const Question& question, const std::string& what_came);
    Finding unanswered_finding(const Question& question, const std::string& what_came);
    Finding stalled_finding(const Question& question, const std::string& what_came);
    template<class Parse>
    auto parsed(const Question& question, Parse parse);

    bool has_answered_ = false;
    bool deletion_is_proven_ = false; // once what was named has gone, and nothing else
};

// ---- Requests -------------------------------------------------------------------------------------------------------

Question list_question();
Question shortest_question();
Question picture_question(int32_t custom_id);
Question store_question(const sm_tag_custom_info& record, std::span<const uint8_t> picture);
Question update_question(const sm_tag_custom_info& record);
Question delete_question(std::span<const sm_delete_pair> pairs);
bool is_answer_to_shortest(std::span<const uint8_t> frame);

// "result -2, SM_RETURN_DATA_ERR: ..."
std::string result_text(int32_t result);
// "a frame of function 0x1002 with 12 bytes"
std::string frame_text(std::span<const uint8_t> frame);

// A preset that was made on a KT camera, so that the camera keeps its colour style.
sm_tag_custom_info plain_record(int32_t mode);

} // namespace desk::phone
