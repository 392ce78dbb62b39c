#include "CarefulStore.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <iterator>
#include <utility>

#include "Common/Failure.h"
#include "Output.h"
#include "Presets.h"
#include "Words/Describe.h"

namespace desk::phone {
namespace {

constexpr const char* aperture_fault = "the camera stores no aperture while the last preset of its list is in shutter "
                                       "mode";
constexpr const char* picture_entry = "picture";

// The state of a camera that keeps the aperture of what it is sent.
CameraState keeping_aperture(const CameraState& state) {
    return {state.iso_steps, SM_MODE_AUTO};
}

std::string bytes_text(size_t bytes) {
    return fmt::format("{} bytes", bytes);
}

// The differences from the forecast that comes nearest.
std::vector<Difference> fewest_differences(const std::vector<sm_tag_custom_info>& expected,
                                           const sm_tag_custom_info& found) {
    std::vector<Difference> fewest = differences(expected.front(), found);
    for (const sm_tag_custom_info& one : expected) {
        const std::vector<Difference> all = differences(one, found);
        if (all.size() < fewest.size()) {
            fewest = all;
        }
    }
    return fewest;
}

} // namespace

std::span<const uint8_t> as_fetched(std::span<const uint8_t> picture) {
    constexpr std::array<uint8_t, 4> stream_start = {0xFF, 0xD8, 0xFF, 0xDB};
    auto at = picture.begin();
    for (int streams = 1;; ++streams) {
        at = std::search(at, picture.end(), stream_start.begin(), stream_start.end());
        if (at == picture.end()) {
            return picture;
        }
        if (streams == 3) {
            return {picture.begin(), at};
        }
        at += stream_start.size();
    }
}

std::string line_of(const Planned& planned, const Change& change) {
    return fmt::format("\"{}\" will be: {}", title_text(planned.wanted), line_of(change));
}

std::string line_of(const Surprise& surprise) {
    return fmt::format("\"{}\" (id {}) is not as foretold: {} should be {}, and is {}", surprise.title,
                       surprise.custom_id, surprise.difference.entry, surprise.difference.expected,
                       surprise.difference.found);
}

CarefulStore::CarefulStore(CameraClient& camera, bool quiet) : camera_(camera), quiet_(quiet) {
    learn(camera_.list().presets);
}

size_t CarefulStore::room() const {
    const size_t held = listed_.size() + stored_since_listed_;
    return held < SM_PRESET_LIMIT ? SM_PRESET_LIMIT - held : 0;
}

Planned CarefulStore::plan(const sm_tag_custom_info& preset, Form form, std::span<const uint8_t> picture) const {
    Planned planned;
    planned.wanted = form == Form::raw ? meant_by(preset) : preset;
    planned.sent = form == Form::raw ? preset : sendable(preset);
    planned.changes = foreseen(planned, picture);
    return planned;
}

// What would change if the preset was stored now.
std::vector<Change> CarefulStore::foreseen(const Planned& planned, std::span<const uint8_t> picture) const {
    const bool is_at_stake = loses_aperture(planned.sent, state_);
    const bool stays = is_at_stake && can_store_twice();
    std::vector<Change> all = changes(planned.wanted, planned.sent, stays ? keeping_aperture(state_) : state_);
    for (Change& change : all) {
        change.reason += is_at_stake && !stays && change.entry == entry_in_words("av_index")
                             ? ", and has no room to store it twice"
                             : "";
    }
    if (const size_t fetched = as_fetched(picture).size(); fetched != picture.size()) {
        all.push_back({picture_entry, bytes_text(picture.size()), bytes_text(fetched),
                       "phones get a picture up to its third JPEG stream", ""});
    }
    return all;
}

// The preset is stored, listed, and stored again: then the last preset of the list is not in shutter mode. One preset's
// room is left over for the one that goes.
bool CarefulStore::can_store_twice() const {
    return room() >= 2;
}

StoreReply CarefulStore::store(const Planned& planned, std::span<const uint8_t> picture) {
    for (const Change& change : foreseen(planned, picture)) {
        tell(line_of(planned, change));
    }
    if (loses_aperture(planned.sent, state_) && can_store_twice()) {
        const StoreReply first = store_once(planned, picture);
        return first.result == SM_RETURN_TRUE ? store_again(planned, picture, first) : first;
    }
    return store_once(planned, picture);
}

StoreReply CarefulStore::store_once(const Planned& planned, std::span<const uint8_t> picture) {
    const StoreReply reply = camera_.store(planned.sent, picture);
    if (reply.result == SM_RETURN_TRUE) {
        ++stored_since_listed_;
        const std::span<const uint8_t> fetched = as_fetched(picture);
        stored_.push_back({planned, state_, Bytes(fetched.begin(), fetched.end()), reply.custom_id});
    }
    return reply;
}

StoreReply CarefulStore::store_again(const Planned& planned, std::span<const uint8_t> picture,
                                     const StoreReply& first) {
    const std::string title = title_text(planned.wanted);
    std::string held = fmt::format("the camera holds \"{}\" with id {}, without its aperture", title, first.custom_id);
    try {
        if (is_as_wanted_now(planned, first)) {
            return first;
        }
        tell(fmt::format("\"{}\" is stored twice and then deleted once: {}", title, aperture_fault));
        StoreReply second = store_once(planned, picture);
        if (second.result != SM_RETURN_TRUE) {
            complain(fmt::format("{}: it was not stored a second time", held));
        } else if (second.custom_id != first.custom_id) {
            held += fmt::format(", and with id {}", second.custom_id);
            take_back(planned, first, second);
        }
        return second;
    } catch (const Failure& failure) {
        throw Failure(failure.code(), fmt::format("{}; {}", failure.what(), held));
    }
}

// Lists the preset that was just stored. It may have its aperture, when the camera's state was not known. When it has
// not, and the list ends with another preset in shutter mode, a second attempt would not give it one.
bool CarefulStore::is_as_wanted_now(const Planned& planned, const StoreReply& first) {
    const int32_t aperture = forecast(planned.sent, keeping_aperture(state_)).av_index;
    learn(camera_.list().presets);
    stored_.back().state = keeping_aperture(state_);
    const sm_tag_custom_info* shown = find(listed_, first.custom_id);
    return shown == nullptr || shown->av_index == aperture || loses_aperture(planned.sent, state_);
}

// Deletes the first of two, and gives the second the number that it then has. A camera deletes by number: it is asked
// once more which number the first one has now.
void CarefulStore::take_back(const Planned& planned, const StoreReply& first, StoreReply& second) {
    learn(camera_.list().presets);
    std::erase_if(stored_, [&](const Stored& stored) { return stored.custom_id == first.custom_id; });
    if (const sm_tag_custom_info* listed = find(listed_, first.custom_id); listed != nullptr) {
        const std::array<sm_delete_pair, 1> pair = {{{listed->preset_num, first.custom_id}}};
        const DeleteReply reply = camera_.remove(pair);
        if (reply.result != SM_RETURN_TRUE || find(reply.presets, first.custom_id) != nullptr) {
            surprises_.push_back({first.custom_id,
                                  title_text(planned.wanted),
                                  {"preset", "deleted", "still there, without its aperture: delete it"}});
            return;
        }
        learn(reply.presets);
    }
    if (const sm_tag_custom_info* left = find(listed_, second.custom_id); left != nullptr) {
        second.preset_num = left->preset_num;
    }
}

std::vector<Surprise> CarefulStore::finish() {
    if (!stored_.empty()) {
        learn(camera_.list().presets);
    }
    for (const Stored& stored : stored_) {
        compare(stored);
    }
    stored_.clear();
    return std::exchange(surprises_, {});
}

void CarefulStore::compare(const Stored& stored) {
    const sm_tag_custom_info* shown = find(listed_, stored.custom_id);
    if (shown == nullptr) {
        surprise(stored, {"preset", "in the camera's list", "not there"});
        return;
    }
    for (const Difference& difference : fewest_differences(forecasts(stored.planned.sent, stored.state), *shown)) {
        surprise(stored, difference);
    }
    compare_picture(stored, *shown);
}

void CarefulStore::compare_picture(const Stored& stored, const sm_tag_custom_info& shown) {
    if (shown.custom_id <= 0) { // a camera does not answer then
        surprise(stored, {picture_entry, bytes_text(stored.picture.size()), "not to be had with this id"});
        return;
    }
    const Bytes picture = camera_.picture(shown);
    if (picture == stored.picture) {
        return;
    }
    const bool is_as_long = picture.size() == stored.picture.size();
    surprise(stored, {picture_entry, bytes_text(stored.picture.size()),
                      is_as_long ? "as many others" : bytes_text(picture.size())});
}

void CarefulStore::surprise(const Stored& stored, const Difference& difference) {
    surprises_.push_back({stored.custom_id, title_text(stored.planned.wanted), difference});
}

// Keeps what is known of the camera for sure where the list does not tell.
void CarefulStore::learn(const std::vector<sm_tag_custom_info>& listed) {
    const CameraState now = state_of(listed);
    listed_ = listed;
    stored_since_listed_ = 0;
    if (now.iso_steps != IsoSteps::unknown) {
        state_.iso_steps = now.iso_steps;
    }
    if (now.last_listed_mode) {
        state_.last_listed_mode = now.last_listed_mode;
    }
}

void CarefulStore::tell(const std::string& line) const {
    if (!quiet_) {
        say(line);
    }
}

} // namespace desk::phone
