// Whole conversations: packets cut anywhere, confirmations, services that answer anything, refused allocations and
// dropped links. A second, plain model of intake, commands and reply queue says before each step what must come out of
// it, down to the bytes of every reply.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <climits>
#include <deque>
#include <map>
#include <optional>
#include <string>

#include "FuzzHost.h"
#include "Lab/LibraryHeap.h"

namespace {

using fuzz::Bytes;
using fuzz::heard;
using fuzz::Input;
using fuzz::script;

constexpr int most_steps = 30;
constexpr int64_t most_bytes_of_a_run = 1000000; // keeps a run short
constexpr size_t zeroed_request_size = 760;
constexpr int reply_size = 30000;
constexpr int picture_head = 12;
constexpr int picture_extra = 50;
constexpr int error_reply_size = 20;
constexpr size_t filled_size = 32768; // of a new block: every reply without a picture, not all of a request's 600000

int32_t word_at(const Bytes& bytes, size_t offset) {
    int32_t word;
    std::memcpy(&word, bytes.data() + offset, sizeof word);
    return word;
}

void append_word(Bytes& bytes, int32_t word) {
    const auto* const first = reinterpret_cast<const uint8_t*>(&word);
    bytes.insert(bytes.end(), first, first + sizeof word);
}

Bytes words(std::initializer_list<int32_t> values) {
    Bytes bytes;
    for (const int32_t value : values) {
        append_word(bytes, value);
    }
    return bytes;
}

Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

// ---- Pictures that a preset's path leads to -------------------------------------------------------------------------

int picture_file = -1; // in memory, reached through /proc
Bytes picture_content;

void set_picture(const Bytes& content) {
    picture_content = content;
    PROMISE(ftruncate(picture_file, 0) == 0);
    PROMISE(pwrite(picture_file, content.data(), content.size(), 0) == static_cast<ssize_t>(content.size()));
}

std::string path_of(int choice) {
    switch (choice) {
    case 0:
        return "";
    case 1:
        return "/proc/self"; // a folder
    case 2:
        return std::string(SM_SCREENNAIL_PATH_SIZE, 'x'); // no NUL, and no such file
    case 3:
        return "/dev/null";
    default:
        return "/proc/self/fd/" + std::to_string(picture_file);
    }
}

bool is_picture_path(const tag_custom_info& preset) {
    const auto* const end = std::find(std::begin(preset.screennail_path), std::end(preset.screennail_path), '\0');
    return std::string(std::begin(preset.screennail_path), end) == path_of(INT_MAX);
}

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

// ---- The model ------------------------------------------------------------------------------------------------------

// A reply that the library keeps for the Bluetooth service.
struct Reply {
    const void* data = nullptr;
    size_t size = 0;
    Bytes bytes; // from the start of the buffer, as they were handed over
};

// What a dispatched request must lead to.
struct Expected {
    int result = SM_RETURN_FAIL;
    struct Sent {
        int length;
        size_t buffer_size;
        Bytes bytes;
    };
    std::optional<Sent> sent;
};

class Model {
  public:
    void refuse(int n, bool for_good) {
        library_heap::refuse(n, for_good);
        refuse_at_ = n;
        refuse_for_good_ = for_good;
        asked_ = 0;
    }

    void receive(const Bytes& packet, int length);
    void combine(const Bytes& packet, int length);
    void confirm();
    void drop_link();
    void give_back();

  private:
    bool granted() {
        ++asked_;
        return refuse_at_ == 0 || (asked_ != refuse_at_ && !(refuse_for_good_ && asked_ > refuse_at_));
    }
    bool append(const Bytes& packet, int length);
    void check_reassembly() const;
    void check_replies();
    void settle(const Expected& expected);
    void go_idle() {
        total_ = -1;
        sum_ = 0;
        has_buffer_ = false;
        stored_.clear();
    }

    void park();
    bool begin_reply() {
        park();
        return granted();
    }
    void send(Expected& expected, Bytes bytes) {
        const int length = static_cast<int>(bytes.size());
        expected.sent = {length, reply_size, std::move(bytes)};
    }

    Expected run(const Bytes& request, int total);
    Expected state_off(const Bytes& request, int total);
    Expected list();
    Expected picture(int custom_id);
    Expected picture_error(int result);
    Expected store(const Bytes& request, int total);
    Expected update(const Bytes& request, int total);
    Expected remove(const Bytes& request, int total);
    bool allocate_lists() { return granted() && granted(); }
    Bytes converted_presets(int count, int first_linked_answer);

    int64_t total_ = -1, sum_ = 0;
    bool has_buffer_ = false;
    Bytes stored_;

    std::optional<Reply> current_;
    std::deque<Reply> queue_;
    std::vector<Reply> lost_; // never freed: replaced in a full queue, or by an error reply

    int refuse_at_ = 0, asked_ = 0;
    bool refuse_for_good_ = false;
};

void Model::park() {
    if (!current_) {
        return;
    }
    if (queue_.size() == SM_REPLY_QUEUE) {
        lost_.push_back(queue_.back());
        queue_.pop_back();
    }
    queue_.push_back(*current_);
    current_.reset();
}

Expected Model::state_off(const Bytes& request, int total) {
    PROMISE(heard.states == std::vector<int>{0});
    const int code = word_at(request, 8);
    const bool known = code == 1 || (code <= -10 && code >= -12);
    return {known && total >= 12 ? 1 : -1, {}};
}

int within_limit(int count) {
    return std::clamp(count, 0, 40);
}

int listed_count() {
    return script.reports_count ? within_limit(script.reported_count) : 0;
}

const tag_custom_info& listed(int number) {
    static constexpr tag_custom_info cleared = {};
    return number < script.stored ? script.records[number] : cleared;
}

// The conversion itself has a target of its own; here it is enough that each record holds what it gives.
Bytes Model::converted_presets(int count, int first_linked_answer) {
    std::vector<sm_tag_custom_info> phone(SM_PRESET_LIMIT);
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
    expected.result = 1;
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
    expected.result = 1;
    if (granted()) {
        expected.sent = {0, error_reply_size, words({0x1002, 12, result})};
    }
    return expected;
}

Expected Model::picture(int custom_id) {
    if (custom_id <= 0) {
        PROMISE(heard.asked_ids.empty());
        return picture_error(-5);
    }
    PROMISE(heard.asked_ids == std::vector<int>{custom_id});
    if (!script.knows(custom_id)) {
        return picture_error(-6);
    }
    const Bytes file = is_picture_path(script.found) ? picture_content : Bytes();
    Expected expected;
    expected.result = 1;
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
    expected.result = -4;
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
    expected.result = -3;
    if (static_cast<uint32_t>(total) - 8 >= 744) {
        expected.result = phone.custom_id < 0 ? -2 : script.update_result;
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

Expected Model::remove(const Bytes& request, int total) {
    const uint32_t pairs = (static_cast<uint32_t>(total) - 8) / 8;
    Expected expected;
    std::vector<int> flags(SM_DELETE_FLAGS);
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
    int kept_number[2] = {-1, -1}, kept_id[2] = {-1, -1};
    Bytes presets;
    if (faulty || pairs == 0) {
        expected.result = faulty ? -3 : -2;
        PROMISE(heard.deleted.empty() && heard.listed == 0 && heard.linked_asked == 0);
    } else {
        expected.result = 1;
        for (size_t mode = 0; mode < 2; ++mode) {
            const int number = script.linked[mode];
            if (number < -1 || number > 40) {
                kept_number[mode] = number;
                expected.result = 0;
            } else if (number >= 0 && flags[static_cast<size_t>(number)] == 1) {
                flags[static_cast<size_t>(number)] = 0;
                kept_number[mode] = number;
                kept_id[mode] = id_given.at(number);
                expected.result = mode == 1 && expected.result == -7 ? -8 : -7;
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
    case 0:
        return state_off(request, total);
    case 1:
        return list();
    case 2:
        return picture(word_at(request, 8));
    case 3:
        return store(request, total);
    case 4:
        return update(request, total);
    case 5:
        return remove(request, total);
    case 255:
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
    PROMISE(result == (append(packet, length) ? 1 : -1));
    check_reassembly();
    check_replies();
}

void Model::confirm() {
    heard = {};
    const int result = ADE_ShotMentor_Result_Manager(nullptr, 0);
    PROMISE(result == (current_ ? 1 : -1));
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
        PROMISE(library_heap::size_of(shotmentor_p_ReceiveData) == SM_REQUEST_LIMIT);
    }
    PROMISE(sm_BT_total_length >= 0 || (!has_buffer_ && sum_ == 0));
}

// Every block that the library owns has its place in the model, and what was handed over stays untouched.
void Model::check_replies() {
    PROMISE(shotmentor_p_Full_Q_NUM >= 0 && shotmentor_p_Full_Q_NUM <= SM_REPLY_QUEUE);
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

// ---- One run --------------------------------------------------------------------------------------------------------

class Conversation {
  public:
    explicit Conversation(Input& input) : input_(input) {}

    void run() {
        for (int step = 0; step < most_steps && bytes_ < most_bytes_of_a_run && !input_.empty(); ++step) {
            take_step();
        }
        model_.give_back();
    }

  private:
    void take_step() {
        switch (input_.below(16)) {
        default:
            return send_request(payload());
        case 8:
            return send_announcing();
        case 9:
            return packet(input_.bytes(input_.size_below(2000)));
        case 10:
            return model_.confirm();
        case 11:
            return answer_list();
        case 12:
            return answer_others();
        case 13: {
            const int nth = input_.below(8);
            return model_.refuse(nth, input_.flag());
        }
        case 14:
            return rarely();
        case 15:
            return set_pictures();
        }
    }

    void rarely() {
        switch (input_.below(5)) {
        case 0:
            return model_.drop_link();
        case 1: { // a length that no packet has
            const int32_t length = input_.number();
            return model_.receive(memory({}), length < 0 ? length : 0);
        }
        case 2:
            return combine();
        case 3:
            return flood();
        default:
            for (int confirmations = input_.below(16); confirmations > 0; --confirmations) {
                model_.confirm();
            }
        }
    }

    // At least 8 bytes are readable, and not one more than the packet has.
    static Bytes memory(const Bytes& packet) {
        Bytes exact(std::max<size_t>(packet.size(), 8));
        std::copy(packet.begin(), packet.end(), exact.begin());
        exact.shrink_to_fit();
        return exact;
    }

    void packet(const Bytes& packet) {
        bytes_ += static_cast<int64_t>(packet.size());
        model_.receive(memory(packet), static_cast<int>(packet.size()));
    }

    void combine() {
        const int32_t length = input_.number();
        const int bounded = std::min(length, 3000);
        model_.combine(memory(input_.bytes(static_cast<size_t>(std::max(bounded, 0)))), bounded);
    }

    // Long packets, as many as it takes to reach the end of the buffer.
    void flood() {
        const int count = 1 + input_.below(3);
        const uint8_t value = input_.byte();
        for (int k = 0; k < count; ++k) {
            packet(Bytes(200000 + static_cast<size_t>(input_.byte()), value));
        }
    }

    // Cut where the input says; an empty piece is refused and disturbs nothing.
    void send_in_pieces(const Bytes& request) {
        size_t first = 0;
        for (int cuts = input_.below(4); cuts > 0; --cuts) {
            const size_t size = std::min(input_.size_below(1024), request.size() - first);
            const auto from = request.begin() + static_cast<std::ptrdiff_t>(first);
            packet(Bytes(from, from + static_cast<std::ptrdiff_t>(size)));
            first += size;
        }
        packet(Bytes(request.begin() + static_cast<std::ptrdiff_t>(first), request.end()));
    }

    void send_request(const Bytes& payload) {
        send_in_pieces(words({function_, 8 + static_cast<int32_t>(payload.size())}) + payload);
    }

    void send_announcing() {
        const int32_t function = input_.number();
        const int32_t total = input_.number();
        send_in_pieces(words({function, total}) + input_.bytes(input_.size_below(900)));
    }

    Bytes payload() {
        static constexpr int32_t functions[] = {1, 2, 3, 4, 5, 0, 255, 256, 6, 2, 5, 3};
        function_ = functions[input_.below(std::size(functions))];
        switch (function_) {
        case 0:
            return input_.bytes(input_.size_below(9));
        case 2:
            return words({input_.number(), input_.number()});
        case 3: {
            const Bytes preset = record();
            return preset + picture();
        }
        case 4:
            return record();
        case 5:
            return pairs();
        default:
            return input_.bytes(input_.size_below(12));
        }
    }

    // A whole record, mostly, from a few bytes that are repeated: the fields matter more than their number.
    Bytes record() {
        const bool whole = input_.below(8) != 0;
        Bytes bytes(whole ? 744 : input_.size_below(744));
        const Bytes seed = input_.bytes(1 + input_.size_below(64));
        for (size_t k = 0; k < bytes.size(); ++k) {
            bytes[k] = seed[k % seed.size()];
        }
        for (int changes = input_.below(8); changes > 0 && bytes.size() >= 4; --changes) {
            const size_t offset = input_.size_below(bytes.size() - 3);
            const int32_t value = input_.number();
            std::memcpy(bytes.data() + offset, &value, sizeof value);
        }
        return bytes;
    }

    // One whose first bytes are made up; a short one leaves the rest as it was.
    tag_custom_info camera_record(tag_custom_info changed) {
        const Bytes bytes = record();
        std::copy_n(bytes.begin(), std::min(bytes.size(), sizeof changed), reinterpret_cast<uint8_t*>(&changed));
        return changed;
    }

    Bytes picture() {
        const Bytes seed = input_.bytes(input_.size_below(32));
        Bytes bytes = seed;
        bytes.resize(input_.below(4) == 0 ? input_.size_below(50000) : 90 + input_.size_below(20));
        return bytes;
    }

    Bytes pairs() {
        Bytes bytes;
        for (int count = input_.below(6); count > 0; --count) {
            append_word(bytes, input_.flag() ? input_.below(42) : input_.number());
            append_word(bytes, input_.flag() ? 2 * input_.below(8) + 1 : input_.number());
        }
        const Bytes rest = input_.bytes(input_.size_below(8));
        return bytes + rest;
    }

    // Long lists are rare: each record costs two traces.
    void answer_list() {
        script.link_up = input_.below(8) != 0;
        script.reports_count = input_.below(8) != 0;
        script.stored = input_.below(16) == 0 ? input_.below(41) : input_.below(3);
        script.reported_count = input_.below(8) == 0 ? input_.number() : script.stored;
        tag_custom_info changed = camera_record({});
        for (int number = 0; number < script.stored; ++number) {
            changed.preset_num = input_.empty() ? number : input_.number();
            changed.custom_id = input_.empty() ? number : input_.number();
            script.records[number] = changed;
        }
        for (int& linked : script.linked) {
            linked = input_.flag() ? input_.below(43) - 1 : input_.number();
        }
        script.iso_step = input_.below(4) == 0 ? input_.number() : input_.below(3);
    }

    void answer_others() {
        script.known = static_cast<fuzz::Script::Known>(input_.below(3));
        script.found = camera_record(script.found);
        set_path();
        script.found.custom_id = input_.number();
        script.save_result = input_.number();
        script.save_writes_identities = input_.flag();
        script.saved_preset_num = input_.number();
        script.saved_custom_id = input_.number();
        script.saved_applocal_id = input_.number();
        script.update_result = input_.number();
    }

    void set_path() {
        const std::string path = path_of(input_.below(8));
        std::memset(script.found.screennail_path, 0, sizeof script.found.screennail_path);
        std::memcpy(script.found.screennail_path, path.data(), path.size());
    }

    // Bytes and beginnings of JPEG streams, in any order, whole or cut off.
    void set_pictures() {
        static constexpr uint8_t start[] = {0xFF, 0xD8, 0xFF, 0xDB};
        Bytes content;
        for (int parts = input_.below(8); parts > 0; --parts) {
            const size_t kept = 1 + static_cast<size_t>(input_.below(6));
            content.insert(content.end(), start, start + std::min(kept, sizeof start));
            content = content + input_.bytes(input_.size_below(24));
        }
        set_picture(content);
        script.known = fuzz::Script::all;
        set_path();
    }

    Input& input_;
    Model model_;
    int32_t function_ = 0;
    int64_t bytes_ = 0;
};

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::silence_standard_error();
    library_heap::fill_at_most(filled_size);
    picture_file = memfd_create("picture", MFD_CLOEXEC);
    PROMISE(picture_file >= 0);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    set_picture({});
    fuzz::start_over();
    Conversation(input).run();
    return 0;
}
