#include "Comparison.h"

#include <algorithm>
#include <cstddef>
#include <fmt/format.h>
#include <optional>

#include "Boundaries.h"
#include "Common/Failure.h"
#include "Common/Text.h"
#include "Forecast/Differences.h"
#include "MessageWords.h"
#include "Wire/Frames.h"
#include "Words/Describe.h"
#include "Words/Results.h"

namespace desk::capture {
namespace {

using Lines = Comparison::Lines;
using Message = std::span<const uint8_t>;
using Presets = std::vector<sm_tag_custom_info>;

constexpr size_t header_size = sizeof(sm_frame);
constexpr size_t record_size = sizeof(sm_tag_custom_info);
constexpr size_t nobody = static_cast<size_t>(-1);

std::string was_is(const std::string& before, const std::string& now) {
    return fmt::format("was {}, is {}", before, now);
}

void compare_words(const char* name, int32_t before, int32_t now, Lines& lines) {
    if (before != now) {
        lines.push_back(fmt::format("{} {}", name, was_is(std::to_string(before), std::to_string(now))));
    }
}

std::string result_text(int32_t result) {
    return fmt::format("{} ({})", result, name_of_result(result));
}

void compare_results(int32_t before, int32_t now, Lines& lines) {
    if (before != now) {
        lines.push_back("result " + was_is(result_text(before), result_text(now)));
    }
}

// What has no fields: the length, else the first byte that differs. Bytes are counted from `offset` on.
void compare_bytes(const char* name, Message before, Message now, size_t offset, Lines& lines) {
    if (before.size() != now.size()) {
        lines.push_back(
            fmt::format("{} {}", name, was_is(counted(before.size(), "byte"), counted(now.size(), "byte"))));
        return;
    }
    const auto [was, is] = std::mismatch(before.begin(), before.end(), now.begin());
    if (was != before.end()) {
        const auto at = offset + static_cast<size_t>(was - before.begin());
        lines.push_back(fmt::format("{} of {}, byte {} of it {}", name, counted(before.size(), "byte"), at,
                                    was_is(fmt::format("0x{:02x}", *was), fmt::format("0x{:02x}", *is))));
    }
}

void compare_records(const std::string& whose, const sm_tag_custom_info& before, const sm_tag_custom_info& now,
                     Lines& lines) {
    const Bytes was = encode(before);
    const Bytes is = encode(now);
    for (const Field& field : fields()) {
        if (const std::optional<Difference> difference = difference_of(field, was, is)) {
            lines.push_back(
                fmt::format("{}{} {}", whose, difference->entry, was_is(difference->expected, difference->found)));
        }
    }
}

std::string preset_in_words(size_t place, const sm_tag_custom_info& preset) {
    return fmt::format("preset {} \"{}\"", place, title_text(preset));
}

// A path with the preset's identity in it, as cameras make them: "pictures/12.jpg".
std::string translated_path(const std::string& path, int32_t id_before, int32_t id_now) {
    const auto is_digit = [](char character) { return character >= '0' && character <= '9'; };
    std::string result;
    for (auto at = path.begin(); at != path.end();) {
        const auto end = is_digit(*at) ? std::find_if_not(at, path.end(), is_digit) : at + 1;
        const std::string part(at, end);
        result += part == std::to_string(id_before) ? std::to_string(id_now) : part;
        at = end;
    }
    return result;
}

sm_tag_custom_info with_path(sm_tag_custom_info preset, int32_t id_now) {
    const std::string path =
        translated_path(text_of(preset.screennail_path, sizeof preset.screennail_path), preset.custom_id, id_now);
    if (preset.custom_id != id_now && path.size() < sizeof preset.screennail_path) {
        std::ranges::fill(preset.screennail_path, '\0');
        path.copy(preset.screennail_path, sizeof preset.screennail_path);
    }
    return preset;
}

// ---- Requests -------------------------------------------------------------------------------------------------------

void compare_picture_requests(Message before, Message now, Lines& lines) {
    if (before.size() != 2 * sizeof(int32_t) || now.size() != before.size()) {
        compare_bytes("payload", before, now, 0, lines);
        return;
    }
    compare_words("custom_id", get_word(before, 0), get_word(now, 0), lines);
    compare_words("applocal_id", get_word(before, sizeof(int32_t)), get_word(now, sizeof(int32_t)), lines);
}

void compare_requests_with_records(Message before, Message now, Lines& lines) {
    if (before.size() < record_size || now.size() < record_size) {
        compare_bytes("payload", before, now, 0, lines);
        return;
    }
    compare_records("", decode_phone_record(before), decode_phone_record(now), lines);
    compare_bytes("picture", before.subspan(record_size), now.subspan(record_size), 0, lines);
}

std::string pair_text(Message pairs, size_t at) {
    return fmt::format("preset {} (id {})", get_word(pairs, at),
                       get_word(pairs, at + offsetof(sm_delete_pair, del_id)));
}

void compare_pairs(Message before, Message now, Lines& lines) {
    constexpr size_t pair = sizeof(sm_delete_pair);
    if (before.size() != now.size() || before.size() % pair != 0) {
        compare_bytes("payload", before, now, 0, lines);
        return;
    }
    for (size_t at = 0; at < before.size(); at += pair) {
        if (!std::ranges::equal(before.subspan(at, pair), now.subspan(at, pair))) {
            lines.push_back(fmt::format("entry {} {}", at / pair, was_is(pair_text(before, at), pair_text(now, at))));
            return; // one that is missing moves all others
        }
    }
}

void compare_payloads(int32_t function, Message before, Message now, Lines& lines) {
    switch (function) {
    case SM_FUNCTION_SEND_PRESET:
        return compare_picture_requests(before, now, lines);
    case SM_FUNCTION_RECEIVE_PRESET:
    case SM_FUNCTION_UPDATE_PRESET:
        return compare_requests_with_records(before, now, lines);
    case SM_FUNCTION_DELETE_PRESET:
        return compare_pairs(before, now, lines);
    default:
        return compare_bytes("payload", before, now, 0, lines);
    }
}

// Says what keeps two messages from being compared by their fields.
bool differ_in_kind(Message before, Message now, Lines& lines) {
    if (before.size() < header_size || now.size() < header_size) {
        compare_bytes("message", before, now, 0, lines);
        return true;
    }
    if (function_of(before) != function_of(now)) {
        lines.push_back("message " + was_is(name_of_message(function_of(before)), name_of_message(function_of(now))));
        return true;
    }
    return false;
}

} // namespace

Lines Comparison::of_requests(Message before, Message now) const {
    Lines lines;
    if (differ_in_kind(before, now, lines)) {
        return lines;
    }
    const Bytes expected = translated(before);
    compare_payloads(function_of(before), Message(expected).subspan(header_size), now.subspan(header_size), lines);
    if (lines.empty()) {
        compare_words("total length", total_of(before), total_of(now), lines);
    }
    return lines;
}

// ---- Replies --------------------------------------------------------------------------------------------------------

namespace {

// A captured message that is not what its function says is compared byte by byte.
template<class Parse>
auto parsed(Message message, Parse parse) -> std::optional<decltype(parse(message))> {
    try {
        return parse(message);
    } catch (const Failure&) {
        return std::nullopt;
    }
}

// Calls `compare` with both messages taken apart. Else the bytes tell.
template<class Parse, class Compare>
void compare_parsed(Message before, Message now, Parse parse, Lines& lines, Compare compare) {
    const auto was = parsed(before, parse);
    const auto is = parsed(now, parse);
    if (was && is) {
        compare(*was, *is);
    } else {
        compare_bytes("message", before, now, 0, lines);
    }
}

} // namespace

Lines Comparison::of_replies(Message before, Message now) {
    Lines lines;
    if (differ_in_kind(before, now, lines)) {
        return lines;
    }
    switch (function_of(before)) {
    case SM_REPLY + SM_FUNCTION_SEND_LIST:
        compare_list_replies(before, now, lines);
        break;
    case SM_REPLY + SM_FUNCTION_SEND_PRESET:
        compare_pictures(before, now, lines);
        break;
    case SM_REPLY + SM_FUNCTION_RECEIVE_PRESET:
        compare_storings(before, now, lines);
        break;
    case SM_REPLY + SM_FUNCTION_UPDATE_PRESET:
        compare_updates(before, now, lines);
        break;
    case SM_REPLY + SM_FUNCTION_DELETE_PRESET:
        compare_deletions(before, now, lines);
        break;
    default:
        compare_bytes("message", before, now, 0, lines);
        break;
    }
    return lines;
}

void Comparison::compare_list_replies(Message before, Message now, Lines& lines) {
    compare_parsed(before, now, parse_list_reply, lines, [&](const ListReply& was, const ListReply& is) {
        compare_bytes("model", before.subspan(header_size, SM_MODEL_SIZE), now.subspan(header_size, SM_MODEL_SIZE), 0,
                      lines);
        compare_lists(was.presets, is.presets, lines);
    });
}

void Comparison::compare_pictures(Message before, Message now, Lines& lines) {
    constexpr size_t head = sizeof(sm_screennail_reply);
    if (before.size() < head || now.size() < head) {
        compare_bytes("message", before, now, 0, lines);
        return;
    }
    const int32_t id = get_word(before, header_size);
    compare_words("custom_id", identities_.now(id), get_word(now, header_size), lines);
    const Identities::Known* const known = identities_.find(id);
    const std::string title = known == nullptr || known->title.empty() ? "" : fmt::format(" \"{}\"", known->title);
    compare_bytes(fmt::format("picture of preset{} (id {})", title, id).c_str(), before.subspan(head),
                  now.subspan(head), 0, lines);
}

void Comparison::compare_storings(Message before, Message now, Lines& lines) {
    compare_parsed(before, now, parse_store_reply, lines, [&](const StoreReply& was, const StoreReply& is) {
        compare_results(was.result, is.result, lines);
        compare_words("applocal_id", was.applocal_id, is.applocal_id, lines);
        if (was.result == SM_RETURN_TRUE && is.result == SM_RETURN_TRUE) {
            identities_.learn(was.custom_id, {was.preset_num, is.custom_id, is.preset_num, ""});
        } else if (was.result == is.result) {
            compare_words("preset_num", was.preset_num, is.preset_num, lines);
            compare_words("custom_id", was.custom_id, is.custom_id, lines);
        }
    });
}

void Comparison::compare_updates(Message before, Message now, Lines& lines) {
    compare_parsed(before, now, parse_update_reply, lines,
                   [&](int32_t was, int32_t is) { compare_results(was, is, lines); });
}

void Comparison::compare_deletions(Message before, Message now, Lines& lines) {
    compare_parsed(before, now, parse_delete_reply, lines, [&](const DeleteReply& was, const DeleteReply& is) {
        compare_results(was.result, is.result, lines);
        compare_lists(was.presets, is.presets, lines);
        const auto tail = [](Message message, const Presets& presets) {
            return message.subspan(sizeof(sm_delete_reply) + presets.size() * record_size);
        };
        compare_bytes("end behind the presets", tail(before, was.presets), tail(now, is.presets), 0, lines);
    });
}

// ---- Lists ----------------------------------------------------------------------------------------------------------

// For each preset the place of the same one now, or nobody: by identity where that is known, else by its place.
std::vector<size_t> Comparison::partners(const Presets& before, const Presets& now) const {
    std::vector<size_t> found(before.size(), nobody);
    std::vector<bool> taken(now.size(), false);
    for (size_t place = 0; place < before.size(); ++place) {
        const Identities::Known* const known = identities_.find(before[place].custom_id);
        for (size_t other = 0; known != nullptr && other < now.size() && found[place] == nobody; ++other) {
            if (!taken[other] && now[other].custom_id == known->id_now) {
                found[place] = other;
                taken[other] = true;
            }
        }
    }
    for (size_t place = 0; place < std::min(before.size(), now.size()); ++place) {
        if (found[place] == nobody && !taken[place] && identities_.find(before[place].custom_id) == nullptr) {
            found[place] = place;
            taken[place] = true;
        }
    }
    return found;
}

void Comparison::compare_lists(const Presets& before, const Presets& now, Lines& lines) {
    const std::vector<size_t> found = partners(before, now);
    std::optional<size_t> last;
    for (size_t place = 0; place < before.size(); ++place) {
        const size_t other = found[place];
        if (other == nobody) {
            lines.push_back(preset_in_words(place, before[place]) + " was there, is not");
            continue;
        }
        if (last && other < *last) {
            lines.push_back(fmt::format("{}: place in the list {}", preset_in_words(place, before[place]),
                                        was_is(std::to_string(place), std::to_string(other))));
        }
        last = other;
        compare_presets(before[place], place, now[other], other, lines);
    }
    for (size_t other = 0; other < now.size(); ++other) {
        if (std::ranges::find(found, other) == found.end()) {
            lines.push_back(preset_in_words(other, now[other]) + " was not there, is");
        }
    }
}

void Comparison::compare_presets(const sm_tag_custom_info& before, size_t place_before, const sm_tag_custom_info& now,
                                 size_t place_now, Lines& lines) {
    sm_tag_custom_info expected = with_path(before, now.custom_id);
    expected.custom_id = now.custom_id;
    if (before.preset_num == static_cast<int32_t>(place_before)) {
        expected.preset_num = static_cast<int32_t>(place_now);
    }
    compare_records(preset_in_words(place_before, before) + ": ", expected, now, lines);
    identities_.learn(before.custom_id, {before.preset_num, now.custom_id, now.preset_num, title_text(before)});
}

} // namespace desk::capture
