#include "ConversationModel.h"

#include <climits>
#include <map>

#include "Lab/LibraryHeap.h"
#include "Pictures.h"

namespace fuzz {
namespace {

constexpr size_t zeroed_request_size = 760;
constexpr int reply_size = 30000;
constexpr int picture_head = 12;
constexpr int picture_extra = 50;
constexpr int error_reply_size = 20;

// What precedes the third FF D8 FF DB; zeros follow the picture.
Bytes sent_part(const Bytes& picture) {
    const Bytes start = {0xFF, 0xD8, 0xFF, 0xDB};
    auto from = picture.begin();
    for (int stream = 1; from != picture.end(); ++stream) {
        from = std::search(from, picture.end(), start.begin(), start.end());
        if (stream == 3) {
            return {picture.begin(), from};
        }
        from += from == picture.end() ? 0 : 1;
    }
    return picture;
}

} // namespace

void Model::refuse(int n, bool for_good) {
    library_heap::refuse(n, for_good);
    refuse_at_ = n;
    refuse_for_good_ = for_good;
    asked_ = 0;
}

bool Model::granted() {
    ++asked_;
    return refuse_at_ == 0 || (asked_ != refuse_at_ && !(refuse_for_good_ && asked_ > refuse_at_));
}

void Model::go_idle() {
    total_ = -1;
    sum_ = 0;
    has_buffer_ = false;
    stored_.clear();
}

void Model::park() {
    if (!current_) {
        return;
    }
    if (queue_.size() == 10) {
        lost_.push_back(queue_.back());
        queue_.pop_back();
    }
    queue_.push_back(*current_);
    current_.reset();
}

bool Model::begin_reply() {
    park();
    return granted();
}

void Model::send(Expected& expected, Bytes bytes) {
    const int length = static_cast<int>(bytes.size());
    expected.sent = {length, reply_size, std::move(bytes)};
}

bool Model::allocate_lists() {
    return granted() && granted();
}

Expected Model::state_off(const Bytes& request, int total) {
    PROMISE(heard.states == std::vector<int>{0});
    const int code = word_at(request, 8);
    const bool known = code == SM_RETURN_TRUE || (code <= -10 && code >= -12);
    return {known && total >= 12 ? SM_RETURN_TRUE : SM_RETURN_FAIL, {}};
}

static int within_limit(int count) {
    return std::clamp(count, 0, 40);
}

static int listed_count() {
    return script.reports_count ? within_limit(script.reported_count) : 0;
}

static const tag_custom_info& listed(int number) {
    static constexpr tag_custom_info cleared = {};
    return number < script.stored ? script.records[number] : cleared;
}

// The conversion itself has a target of its own; here it is enough that each record holds what it gives.
Bytes Model::converted_presets(int count, int first_linked_answer) {
    std::vector<sm_tag_custom_info> phone(40);
    for (int number = 0; number < count; ++number) {
        ADE_PRO_CreateProFilm(&listed(number), &phone[static_cast<size_t>(number)]);
    }
    for (int mode = 0; mode < 2; ++mode) {
        const int number = script.linked[first_linked_answer + mode];
        if (number >= 0 && number <= 39) {
            phone[static_cast<size_t>(number)].linked_custom_mode = mode + 1;
        }
    }
    const auto* const first = reinterpret_cast<const uint8_t*>(phone.data());
    return {first, first + static_cast<size_t>(count) * sizeof phone[0]};
}

Expected Model::list() {
    PROMISE(heard.states == std::vector<int>{1});
    if (!script.link_up || !allocate_lists()) {
        PROMISE(heard.listed == 0 && heard.linked_asked == 0);
        return {};
    }
    PROMISE(heard.listed == 1 && heard.linked_asked == 2);
    if (!begin_reply()) {
        return {};
    }
    const int count = listed_count();
    Expected expected;
    expected.result = SM_RETURN_TRUE;
    const Bytes model = {'K', 'T', '7', 0, 0, 0, 0, 0, 0, 0, 0, 0};
    send(expected, words({0x1001, 28 + 744 * count}) + model + words({1, count}) + converted_presets(count, 0));
    return expected;
}

// An error reply takes the place of an unconfirmed one.
Expected Model::picture_error(int result) {
    if (current_) {
        lost_.push_back(*current_);
        current_.reset();
    }
    Expected expected;
    expected.result = SM_RETURN_TRUE;
    if (granted()) {
        expected.sent = {0, error_reply_size, words({0x1002, 12, result})};
    }
    return expected;
}

Expected Model::picture(int custom_id) {
    if (custom_id <= 0) {
        PROMISE(heard.asked_ids.empty());
        return picture_error(SM_RETURN_PRESETN_ERR);
    }
    PROMISE(heard.asked_ids == std::vector<int>{custom_id});
    if (!script.knows(custom_id)) {
        return picture_error(SM_RETURN_LOCALN_ERR);
    }
    const Bytes file = is_picture_path(script.found) ? picture_content() : Bytes();
    Expected expected;
    expected.result = SM_RETURN_TRUE;
    if (begin_reply()) {
        const Bytes part = sent_part(file);
        const int length = picture_head + static_cast<int>(part.size());
        expected.sent = {length, file.size() + picture_extra, words({0x1002, length, script.found.custom_id}) + part};
    }
    return expected;
}

Expected Model::store(const Bytes& request, int total) {
    // Lengths count as unsigned: one that is negative counts as long.
    const auto length = static_cast<uint32_t>(total) - 8;
    tag_custom_info camera = {};
    if (length >= 744) {
        sm_tag_custom_info phone;
        std::memcpy(&phone, request.data() + 8, sizeof phone);
        ADE_PRO_CreateSysCustom(&phone, &camera);
    }
    Expected expected;
    expected.result = SM_RETURN_JPG_ERR;
    if (length >= 844) {
        PROMISE(heard.saved.size() == 1);
        const fuzz::Saved& saved = heard.saved[0];
        PROMISE(std::memcmp(&saved.record, &camera, sizeof camera) == 0);
        PROMISE(saved.length == total - 752);
        PROMISE(saved.length < 0 || Bytes(request.begin() + 752, request.begin() + total) == saved.bytes);
        expected.result = script.save_result;
        if (script.save_writes_identities) {
            camera.preset_num = script.saved_preset_num;
            camera.custom_id = script.saved_custom_id;
            camera.applocal_id = script.saved_applocal_id;
        }
    } else {
        PROMISE(heard.saved.empty());
    }
    if (begin_reply()) {
        send(expected, words({0x1003, 24, expected.result, camera.preset_num, camera.custom_id, camera.applocal_id}));
    }
    return expected;
}

Expected Model::update(const Bytes& request, int total) {
    sm_tag_custom_info phone;
    std::memcpy(&phone, request.data() + 8, sizeof phone);
    Expected expected;
    expected.result = SM_RETURN_STRUCT_ERR;
    if (static_cast<uint32_t>(total) - 8 >= 744) {
        expected.result = phone.custom_id < 0 ? SM_RETURN_DATA_ERR : script.update_result;
    }
    if (static_cast<uint32_t>(total) - 8 >= 744 && phone.custom_id >= 0) {
        PROMISE(heard.updated.size() == 1);
        const fuzz::Updated& updated = heard.updated[0];
        const auto* const end = std::find(std::begin(phone.title), std::end(phone.title), '\0');
        PROMISE(updated.custom_id == phone.custom_id && updated.server_id == phone.server_id);
        PROMISE(updated.title == Bytes(static_cast<const char*>(phone.title), end));
    } else {
        PROMISE(heard.updated.empty());
    }
    if (begin_reply()) {
        send(expected, words({0x1004, 12, expected.result}));
    }
    return expected;
}

// The whole of a deletion in the order of its steps. NOLINTNEXTLINE(readability-function-cognitive-complexity)
Expected Model::remove(const Bytes& request, int total) {
    const uint32_t pairs = (static_cast<uint32_t>(total) - 8) / 8;
    Expected expected;
    std::vector<int> flags(42);
    std::map<int, int> id_given; // the last one for each number
    std::vector<int> asked;
    bool faulty = pairs > 74999;
    for (uint32_t k = 0; !(pairs > 74999) && k < pairs; ++k) {
        const int number = word_at(request, 8 + 8 * size_t{k});
        const int id = word_at(request, 12 + 8 * size_t{k});
        faulty = faulty || id == 0 || number < 0 || number > 39 || !script.knows(id);
        if (number >= 0 && number <= 39) {
            flags[static_cast<size_t>(number)] = 1;
        }
        id_given[number] = id;
        asked.push_back(id);
    }
    PROMISE(heard.asked_ids == asked);
    int count = 0;
    int kept_number[2] = {-1, -1};
    int kept_id[2] = {-1, -1};
    Bytes presets;
    if (faulty || pairs == 0) {
        expected.result = faulty ? SM_RETURN_STRUCT_ERR : SM_RETURN_DATA_ERR;
        PROMISE(heard.deleted.empty() && heard.listed == 0 && heard.linked_asked == 0);
    } else {
        expected.result = SM_RETURN_TRUE;
        for (size_t mode = 0; mode < 2; ++mode) {
            const int number = script.linked[mode];
            if (number < -1 || number > 40) {
                kept_number[mode] = number;
                expected.result = SM_RETURN_SYSTEM_DATA_ERR;
            } else if (number >= 0 && flags[static_cast<size_t>(number)] == 1) {
                flags[static_cast<size_t>(number)] = 0;
                kept_number[mode] = number;
                kept_id[mode] = id_given.at(number);
                expected.result = mode == 1 && expected.result == SM_RETURN_OPENED_ERR ? SM_RETURN_OPENED_BOTH_ERR
                                                                                       : SM_RETURN_OPENED_ERR;
            }
        }
        PROMISE(heard.deleted == std::vector<std::vector<int>>{flags});
        if (!allocate_lists()) {
            PROMISE(heard.listed == 0);
            return expected;
        }
        PROMISE(heard.listed == 1 && heard.linked_asked == 4);
        count = listed_count();
        for (int number = 0; number < count; ++number) {
            for (size_t mode = 0; mode < 2; ++mode) {
                if (listed(number).custom_id == kept_id[mode]) {
                    kept_number[mode] = listed(number).preset_num;
                }
            }
        }
        presets = converted_presets(count, 2);
    }
    if (!begin_reply()) {
        return expected;
    }
    // Eight bytes for each kept preset are counted but never written.
    const size_t trailing = 8 * static_cast<size_t>((kept_number[0] != -1) + (kept_number[1] != -1));
    const int length = 20 + 744 * count + static_cast<int>(trailing);
    send(expected, words({0x1005, length, expected.result, 1, count}) + presets + Bytes(trailing));
    return expected;
}

Expected Model::run(const Bytes& request, int total) {
    switch (word_at(request, 0)) {
    case SM_FUNCTION_STATE_OFF:
        return state_off(request, total);
    case SM_FUNCTION_SEND_LIST:
        return list();
    case SM_FUNCTION_SEND_PRESET:
        return picture(word_at(request, 8));
    case SM_FUNCTION_RECEIVE_PRESET:
        return store(request, total);
    case SM_FUNCTION_UPDATE_PRESET:
        return update(request, total);
    case SM_FUNCTION_DELETE_PRESET:
        return remove(request, total);
    case SM_FUNCTION_STATE_ON:
        PROMISE(heard.states == std::vector<int>{1});
        return {};
    default:
        PROMISE(heard.states.empty());
        return {};
    }
}

// Compares what was sent with what the model expects, and makes it the current reply.
void Model::settle(const Expected& expected) {
    PROMISE(heard.sent.size() == (expected.sent ? 1U : 0U));
    if (!expected.sent) {
        return;
    }
    const fuzz::Sent& sent = heard.sent[0];
    PROMISE(sent.length == expected.sent->length);
    PROMISE(sent.buffer_size == expected.sent->buffer_size);
    PROMISE(sent.bytes == expected.sent->bytes);
    PROMISE(!current_);
    current_ = Reply{sent.data, sent.buffer_size, sent.bytes};
}

bool Model::append(const Bytes& packet, int length) {
    if (!has_buffer_ || length < 0 || length > INT_MAX - sum_) {
        return false;
    }
    const int64_t room = std::max<int64_t>(600000 - sum_, 0);
    const int64_t kept = std::min<int64_t>(length, room);
    stored_.insert(stored_.end(), packet.begin(), packet.begin() + static_cast<std::ptrdiff_t>(kept));
    sum_ += length;
    return kept == length;
}

void Model::receive(const Bytes& packet, int length) {
    heard = {};
    const int result = ADE_ShotMentor_Receive_Manager(packet.data(), length);
    Expected expected;
    bool dispatched = false;
    const bool starts = total_ < 0;
    const int function = word_at(packet, 0);
    if (length > 0 && (!starts || (function >= 0 && function <= 256 && word_at(packet, 4) >= 0))) {
        if (starts) {
            total_ = word_at(packet, 4);
            has_buffer_ = granted();
        }
        append(packet, length);
        if (total_ == sum_) {
            dispatched = has_buffer_ && total_ <= 600000;
            Bytes request = stored_;
            request.resize(std::max(request.size(), zeroed_request_size));
            const int total = static_cast<int>(total_);
            PROMISE(heard.dispatches == (dispatched ? 1 : 0));
            PROMISE(!dispatched || heard.dispatched == request);
            go_idle();
            if (dispatched) {
                expected = run(request, total);
            }
        }
    }
    PROMISE(heard.dispatches == (dispatched ? 1 : 0));
    PROMISE(result == expected.result);
    settle(expected);
    PROMISE(library_heap::asked() == asked_);
    check_reassembly();
    check_replies();
}

void Model::combine(const Bytes& packet, int length) {
    heard = {};
    const int result = ADE_ShotMentor_Combine_BTData(packet.data(), length);
    PROMISE(result == (append(packet, length) ? SM_RETURN_TRUE : SM_RETURN_FAIL));
    check_reassembly();
    check_replies();
}

void Model::confirm() {
    heard = {};
    const int result = ADE_ShotMentor_Result_Manager(nullptr, 0);
    PROMISE(result == (current_ ? SM_RETURN_TRUE : SM_RETURN_FAIL));
    if (current_ && !queue_.empty()) {
        queue_.pop_front();
    } else {
        current_.reset();
    }
    check_reassembly();
    check_replies();
}

void Model::drop_link() {
    ADE_ShotMentor_Return_To_Idle();
    go_idle();
    check_reassembly();
    check_replies();
}

void Model::check_reassembly() const {
    PROMISE(sm_BT_total_length == total_);
    PROMISE(sm_BT_combine_length == sum_);
    PROMISE((shotmentor_p_ReceiveData != nullptr) == has_buffer_);
    if (has_buffer_) {
        PROMISE(library_heap::size_of(shotmentor_p_ReceiveData) == 600000);
    }
    PROMISE(sm_BT_total_length >= 0 || (!has_buffer_ && sum_ == 0));
}

// Every block that the library owns has its place in the model, and what was sent stays untouched.
void Model::check_replies() {
    PROMISE(shotmentor_p_Full_Q_NUM >= 0 && shotmentor_p_Full_Q_NUM <= 10);
    PROMISE(queue_.size() == static_cast<size_t>(shotmentor_p_Full_Q_NUM));
    PROMISE(shotmentor_p_FullData == (current_ ? current_->data : nullptr));
    const auto check = [](const Reply& reply) {
        PROMISE(library_heap::size_of(reply.data) == reply.size);
        PROMISE(std::memcmp(reply.data, reply.bytes.data(), reply.bytes.size()) == 0);
    };
    for (size_t index = 0; index < queue_.size(); ++index) {
        PROMISE(shotmentor_p_Full_Q[index] == queue_[index].data);
        check(queue_[index]);
    }
    if (current_) {
        check(*current_);
    }
    std::for_each(lost_.begin(), lost_.end(), check);
    const size_t owned = queue_.size() + lost_.size() + (current_ ? 1U : 0U) + (has_buffer_ ? 1U : 0U);
    PROMISE(library_heap::blocks() == owned);
    constexpr size_t most_lost = 20; // the heap's watcher has room for 64 blocks
    if (lost_.size() > most_lost) {
        for (const Reply& reply : lost_) {
            free(const_cast<void*>(reply.data));
        }
        lost_.clear();
    }
}

void Model::give_back() {
    refuse(0, false);
    drop_link();
    while (current_) {
        confirm();
    }
    // Without a current reply the library no longer gives up what is queued.
    for (const Reply& reply : queue_) {
        free(const_cast<void*>(reply.data));
    }
    for (const Reply& reply : lost_) {
        free(const_cast<void*>(reply.data));
    }
    PROMISE(library_heap::blocks() == 0 && library_heap::overruns() == 0);
    fuzz::start_over();
}

} // namespace fuzz
