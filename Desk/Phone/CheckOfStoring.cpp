// Storing presets, and what comes back of them.
#include <algorithm>
#include <fmt/format.h>
#include <set>

#include "CheckPictures.h"
#include "CheckSession.h"
#include "CheckSteps.h"
#include "CheckTable.h"
#include "Words/Describe.h"

namespace desk::phone {
namespace {

constexpr size_t whole_picture = 60000;
constexpr size_t stream_sizes[] = {300, 400, 500};
constexpr size_t sent_streams = 2; // of the three, as the phone gets a picture up to its third stream

// Fields that the camera writes by itself, those that stand for exposure values, and the multi AF frame, which is the
// camera's alone.
const std::set<std::string> not_carried = {"preset_num",
                                           "custom_id",
                                           "applocal_id",
                                           "screennail_path",
                                           "linked_custom_mode",
                                           "mode",
                                           "av_index",
                                           "tv_index",
                                           "iso",
                                           "iso_1_3",
                                           "ev_step",
                                           "multi_af_pos_x",
                                           "multi_af_pos_y",
                                           "multi_af_width",
                                           "multi_af_height",
                                           "multi_af_box_size"};

// Colours that are the same after they have gone to the camera's scale of 200 and back to 255.
constexpr int32_t lasting_colors[] = {0, 64, 128, 255};

// A small number in each word that is carried. `variant` makes records that differ.
sm_tag_custom_info rich_record(size_t variant) {
    Bytes bytes = encode(plain_record(SM_MODE_PROGRAM));
    size_t count = variant;
    for (const Field& field : fields()) {
        if (not_carried.contains(field.name) || field.name == "made_id") {
            continue;
        }
        for (size_t word = 0; word < field.words(); ++word, ++count) {
            const auto small = static_cast<int32_t>(1 + count * (variant + 3) % 11);
            const int32_t color = lasting_colors[(count + count / 4) % std::size(lasting_colors)];
            put_word(bytes, field.offset + word * sizeof(int32_t), field.kind == Field::Kind::colors ? color : small);
        }
    }
    sm_tag_custom_info record = decode_phone_record(bytes);
    record.applocal_id = static_cast<int32_t>(7000 + variant);
    record.server_id = static_cast<int32_t>(-100 - static_cast<int32_t>(variant));
    return record;
}

Bytes three_streams() {
    Bytes streams;
    int seed = 0;
    for (const size_t size : stream_sizes) {
        const Bytes one = picture_of(size, ++seed);
        streams.insert(streams.end(), one.begin(), one.end());
    }
    return streams;
}

Bytes picture_number(size_t number) {
    switch (number) {
    case 0:
        return picture_of(smallest_picture, 0);
    case 1:
        return picture_of(whole_picture, 1);
    default:
        return three_streams();
    }
}

// The preset of a list that has the title of one that was sent, or null.
const sm_tag_custom_info* find_sent(const Presets& list, const SentPreset& sent) {
    const std::string title = text_of(sent.record.title, SM_TITLE_SIZE);
    const auto found =
        std::ranges::find_if(list, [&](const auto& preset) { return text_of(preset.title, SM_TITLE_SIZE) == title; });
    return found == list.end() ? nullptr : &*found;
}

// The same where it has to be there.
const sm_tag_custom_info& listed(const Presets& list, const SentPreset& sent) {
    const sm_tag_custom_info* const found = find_sent(list, sent);
    if (found == nullptr) {
        throw Finding{fmt::format("no preset \"{}\" in the list", title_text(sent.record)),
                      "the preset that the camera answered to have stored",
                      fmt::format("{}, {}", blame::save, blame::list)};
    }
    return *found;
}

struct ListedPreset {
    SentPreset sent;
    sm_tag_custom_info now;
};

// The three presets that were stored first, with what the list says of them.
std::vector<ListedPreset> trio_of(CheckSession& session) {
    if (session.trio.size() < room_of_checks) {
        throw Skip{"the presets that this is about were not stored (store-result)"};
    }
    const Presets list = session.list().presets;
    std::vector<ListedPreset> trio;
    for (const SentPreset& sent : session.trio) {
        trio.push_back({sent, listed(list, sent)});
    }
    return trio;
}

} // namespace

void check_store_result(CheckSession& session) {
    session.list(); // what the camera makes of an aperture depends on the last preset of the last list
    try {
        for (size_t number = 0; number < room_of_checks; ++number) {
            session.trio.push_back(session.store_own(rich_record(number), picture_number(number)));
        }
    } catch (const Finding& finding) {
        if (session.trio.empty() && finding.blame == blame::save) {
            session.store_fault = "the camera stores no preset (store-result)";
        }
        throw;
    }
}

void check_store_listed(CheckSession& session) {
    const Presets list = session.list().presets;
    for (const SentPreset& sent : session.trio) {
        if (find_sent(list, sent) == nullptr) {
            session.store_fault = "what the camera stores is not listed (store-listed)";
            listed(list, sent);
        }
    }
    const size_t expected = session.presets.foreign().size() + session.trio.size();
    if (list.size() != expected) {
        throw Finding{fmt::format("{} presets after {} were stored beside {}", list.size(), session.trio.size(),
                                  session.presets.foreign().size()),
                      fmt::format("{}", expected), fmt::format("{}, {}", blame::save, blame::list)};
    }
    if (const std::string harm = session.presets.harm_in(list); !harm.empty()) {
        throw Finding{harm, "that storing a preset leaves the others as they are", blame::save};
    }
}

void check_store_identity(CheckSession& session) {
    for (const auto& [sent, now] : trio_of(session)) {
        const StoreReply& reply = sent.reply;
        if (reply.preset_num != now.preset_num || reply.custom_id != now.custom_id ||
            reply.applocal_id != now.applocal_id) {
            throw Finding{fmt::format("the reply names preset_num {}, custom_id {}, applocal_id {}; the list shows {}, "
                                      "{}, {}",
                                      reply.preset_num, reply.custom_id, reply.applocal_id, now.preset_num,
                                      now.custom_id, now.applocal_id),
                          "the same in both: the service writes the new preset's number and ids into the record",
                          blame::save};
        }
    }
}

void check_store_new_ids(CheckSession& session) {
    std::set<int32_t> ids;
    for (const sm_tag_custom_info& preset : session.presets.foreign()) {
        ids.insert(preset.custom_id);
    }
    for (const auto& [sent, now] : trio_of(session)) {
        if (now.custom_id <= 0 || !ids.insert(now.custom_id).second) {
            throw Finding{fmt::format("the new preset \"{}\" has id {}{}", title_text(now), now.custom_id,
                                      now.custom_id > 0 ? ", which another preset has as well" : ""),
                          "an id above 0 that no other preset has", blame::save};
        }
    }
}

void check_store_unlinked(CheckSession& session) {
    for (const auto& [sent, now] : trio_of(session)) {
        if (now.linked_custom_mode != 0) {
            throw Finding{
                fmt::format("linked_custom_mode {} of the new preset {}", now.linked_custom_mode, now.preset_num),
                "0: nobody has linked it", blame::links};
        }
    }
}

void check_store_fields(CheckSession& session) {
    for (const auto& [sent, now] : trio_of(session)) {
        const std::vector<std::string> changed = differing_fields(sent.record, now, not_carried);
        if (!changed.empty()) {
            throw Finding{fmt::format("other values in {}", fmt::join(changed, ", ")), "the values that were sent",
                          fmt::format("{}, {}", blame::save, blame::list)};
        }
    }
}

// ---- Exposure -------------------------------------------------------------------------------------------------------

namespace {

constexpr int32_t aperture = 28;       // f/2.8
constexpr int32_t shutter = 83;        // a position of the phone's scale that the model has
constexpr int32_t iso = 400;           // in full steps
constexpr int32_t third_position = 12; // of the phone's scale, from where a setting in third steps comes
constexpr int32_t third_iso = 800;     // what stands there
constexpr int32_t compensation = 53;   // a third of a step
constexpr int32_t no_compensation_in_manual = 15;

sm_tag_custom_info exposure_record(int32_t mode) {
    sm_tag_custom_info record = plain_record(mode);
    record.av_index = aperture;
    record.tv_index = shutter;
    record.iso = iso;
    record.iso_1_3 = third_position;
    record.ev_step = compensation;
    return record;
}

struct Exposed {
    const char* name;
    int32_t value;
    int32_t expected;
};

// A mode carries what it sets. Sensitivity comes back from the setting that is in force.
std::vector<Exposed> exposure_of(const sm_tag_custom_info& now, int32_t mode) {
    const bool has_aperture = mode == SM_MODE_APERTURE || mode == SM_MODE_MANUAL;
    const bool has_shutter = mode == SM_MODE_SHUTTER || mode == SM_MODE_MANUAL;
    return {{"mode", now.mode, mode},
            {"av_index", now.av_index, has_aperture ? aperture : 0},
            {"tv_index", now.tv_index, has_shutter ? shutter : 0},
            {"iso", now.iso, now.iso == third_iso ? third_iso : iso},
            {"iso_1_3", now.iso_1_3, third_iso},
            {"ev_step", now.ev_step, mode == SM_MODE_MANUAL ? no_compensation_in_manual : compensation}};
}

void expect_exposure(const sm_tag_custom_info& now, int32_t mode) {
    for (const Exposed& one : exposure_of(now, mode)) {
        if (one.value != one.expected) {
            throw Finding{fmt::format("{} {} in mode {}", one.name, one.value, mode),
                          fmt::format("{} {}", one.name, one.expected),
                          fmt::format("{}, {}", blame::save, blame::list)};
        }
    }
}

// The last preset of a list decides whether the camera takes the aperture of the next one that is stored: a preset of
// the program mode is put there first.
sm_tag_custom_info stored_exposure(CheckSession& session, int32_t mode) {
    session.delete_all_own();
    session.store_own(plain_record(SM_MODE_PROGRAM), picture_of(smallest_picture, 0));
    if (session.list().presets.back().mode == SM_MODE_SHUTTER) {
        throw Skip{"the list ends with a preset in shutter mode, behind which an aperture is not taken"};
    }
    const SentPreset sent = session.store_own(exposure_record(mode), picture_of(smallest_picture, 0));
    return listed(session.list().presets, sent);
}

} // namespace

void check_store_exposure(CheckSession& session) {
    for (int32_t mode = 0; mode < SM_MODES; ++mode) {
        expect_exposure(stored_exposure(session, mode), mode);
    }
}

void check_iso_step(CheckSession& session) {
    const sm_tag_custom_info once = stored_exposure(session, SM_MODE_MANUAL);
    for (int round = 0; round < 3; ++round) {
        for (const sm_tag_custom_info& again : session.list().presets) {
            if (again.custom_id == once.custom_id && again.iso != once.iso) {
                throw Finding{fmt::format("ISO {}, then ISO {} of the same preset", once.iso, again.iso),
                              "one answer for key 272: 1 for full steps, anything else for third steps", blame::model};
            }
        }
    }
}

namespace {

sm_tag_custom_info stored_and_listed(CheckSession& session) {
    const SentPreset sent = session.store_own(plain_record(SM_MODE_PROGRAM), picture_of(smallest_picture, 0));
    return listed(session.list().presets, sent);
}

} // namespace

void check_id_after_deletion(CheckSession& session) {
    session.delete_all_own();
    const int32_t before = stored_and_listed(session).custom_id;
    session.delete_all_own();
    const int32_t after = stored_and_listed(session).custom_id;
    if (after <= 0 || session.presets.is_foreign_id(after)) {
        throw Finding{
            fmt::format("the new preset has id {}{}", after, after > 0 ? ", which another preset has as well" : ""),
            "an id above 0 that no other preset has", blame::save};
    }
    if (after == before) {
        session.note = fmt::format("id {} came back: a phone that remembers it takes the new preset for the one that "
                                   "was deleted",
                                   after);
    }
}

void check_limit(CheckSession& session) {
    session.delete_all_own();
    for (size_t have = session.list().presets.size(); have < SM_PRESET_LIMIT; ++have) {
        session.store_own(plain_record(SM_MODE_PROGRAM), picture_of(smallest_picture, 0));
    }
    const Presets full = session.list().presets;
    if (full.size() != SM_PRESET_LIMIT) {
        throw Finding{fmt::format("{} presets", full.size()), "the 40 that the camera answered to have stored",
                      fmt::format("{}, {}", blame::save, blame::list)};
    }
    sm_tag_custom_info record = plain_record(SM_MODE_PROGRAM);
    session.presets.next_title().copy(record.title, sizeof record.title - 1);
    const StoreReply reply = session.store(record, picture_of(smallest_picture, 0));
    if (reply.result == SM_RETURN_TRUE) {
        session.presets.claim(reply.custom_id);
        throw Finding{"result 1 for the 41st preset", "any other result", blame::save};
    }
    if (!lost_presets(full, {}, session.list().presets).empty()) {
        throw Finding{"other presets in the list after the 41st was refused", "the same 40", blame::save};
    }
}

// ---- Pictures -------------------------------------------------------------------------------------------------------

namespace {

std::string first_difference(std::span<const uint8_t> sent, std::span<const uint8_t> came) {
    const auto [left, right] = std::ranges::mismatch(sent, came);
    return fmt::format("{} bytes, other than those that were sent from byte {} on", came.size(), left - sent.begin());
}

void expect_picture(CheckSession& session, int32_t custom_id, std::span<const uint8_t> expected) {
    const PictureReply reply = session.picture(custom_id);
    if (reply.picture.empty()) {
        throw Finding{"an empty picture: the camera could not read a file at screennail_path",
                      fmt::format("the {} bytes that were sent", expected.size()),
                      fmt::format("{}, {}", blame::info, blame::save)};
    }
    if (!std::ranges::equal(reply.picture, expected)) {
        throw Finding{first_difference(expected, reply.picture),
                      fmt::format("the {} bytes that were sent", expected.size()),
                      fmt::format("{}, {}", blame::save, blame::send)};
    }
}

void expect_picture_of_trio(CheckSession& session, size_t number) {
    const ListedPreset one = trio_of(session)[number];
    expect_picture(session, one.now.custom_id, one.sent.picture);
}

} // namespace

void check_picture_id(CheckSession& session) {
    for (const auto& [sent, now] : trio_of(session)) {
        const int32_t custom_id = session.picture(now.custom_id).custom_id;
        if (custom_id != now.custom_id) {
            throw Finding{fmt::format("the picture of the preset with id {}, when that of id {} was asked for",
                                      custom_id, now.custom_id),
                          "the id that was asked for: the service fills the whole record", blame::info};
        }
    }
}

void check_picture_smallest(CheckSession& session) {
    expect_picture_of_trio(session, 0);
}

void check_picture_whole(CheckSession& session) {
    expect_picture_of_trio(session, 1);
}

void check_picture_streams(CheckSession& session) {
    const ListedPreset one = trio_of(session)[2];
    size_t expected = 0;
    for (size_t stream = 0; stream < sent_streams; ++stream) {
        expected += stream_sizes[stream];
    }
    expect_picture(session, one.now.custom_id, std::span(one.sent.picture).first(expected));
}

void check_picture_longest(CheckSession& session) {
    session.delete_all_own();
    const SentPreset sent = session.store_own(plain_record(SM_MODE_PROGRAM), picture_of(longest_picture, 5));
    expect_picture(session, listed(session.list().presets, sent).custom_id, sent.picture);
}

} // namespace desk::phone
