// Updates and deletions.
#include <algorithm>
#include <fmt/format.h>
#include <set>

#include "CheckSession.h"
#include "CheckSteps.h"
#include "CheckTable.h"
#include "Words/Describe.h"

namespace desk::phone {
namespace {

constexpr int32_t new_server_id = 123456789;

const std::set<std::string> updated_fields = {"title", "server_id"};

void expect_result(int32_t result, const char* blamed) {
    if (result != SM_RETURN_TRUE) {
        throw Finding{result_text(result), "result 1", blamed};
    }
}

const UpdateRecord& made_update(const CheckSession& session) {
    if (!session.update) {
        throw Skip{"no update was made (update-result)"};
    }
    return *session.update;
}

const sm_tag_custom_info& preset_at(const Presets& list, size_t position) {
    if (position >= list.size()) {
        throw Finding{fmt::format("{} presets in the list", list.size()), fmt::format("preset {}", position),
                      blame::list};
    }
    return list[position];
}

// Updates the middle one of our own presets.
UpdateRecord update_own(CheckSession& session, std::string title) {
    const CheckSession::Own own = session.own(room_of_checks);
    UpdateRecord record = {own.positions[1], {}, own.list, {}};
    title.resize(std::max(title.size(), sizeof record.sent.title), '\0');
    title.copy(record.sent.title, sizeof record.sent.title);
    record.sent.custom_id = own.list[record.position].custom_id;
    if (session.presets.is_foreign_id(record.sent.custom_id)) {
        throw Skip{"the new preset has the id of another one, which might be changed instead (store-new-ids)"};
    }
    record.sent.server_id = new_server_id;
    expect_result(session.update_preset(record.sent), blame::update);
    record.after = session.list().presets;
    return record;
}

// What of a list other than the updated preset has changed, empty when nothing has.
std::string change_of_others(const UpdateRecord& record) {
    for (size_t position = 0; position < record.before.size(); ++position) {
        if (position == record.position) {
            continue;
        }
        const std::vector<std::string> changed =
            differing_fields(record.before[position], preset_at(record.after, position));
        if (!changed.empty()) {
            return fmt::format("{} has other values in {}", name_of(record.before[position], position),
                               fmt::join(changed, ", "));
        }
    }
    return record.after.size() == record.before.size()
               ? ""
               : fmt::format("{} presets instead of {}", record.after.size(), record.before.size());
}

std::string long_title(CheckSession& session, size_t size) {
    std::string title = session.presets.next_title() + " ";
    while (title.size() < size) {
        title += static_cast<char>('a' + title.size() % 26);
    }
    return title;
}

} // namespace

// ---- Updates --------------------------------------------------------------------------------------------------------

void check_update_result(CheckSession& session) {
    session.update = update_own(session, session.presets.next_title());
}

void check_update_title(CheckSession& session) {
    const UpdateRecord& record = made_update(session);
    const std::string expected = title_text(record.sent);
    const std::string found = title_text(preset_at(record.after, record.position));
    if (found != expected) {
        throw Finding{fmt::format("the title \"{}\"", found), fmt::format("\"{}\"", expected), blame::update};
    }
}

void check_update_server_id(CheckSession& session) {
    const UpdateRecord& record = made_update(session);
    const int32_t found = preset_at(record.after, record.position).server_id;
    if (found != new_server_id) {
        throw Finding{fmt::format("server_id {}", found), fmt::format("server_id {}", new_server_id), blame::update};
    }
}

void check_update_rest(CheckSession& session) {
    const UpdateRecord& record = made_update(session);
    const std::vector<std::string> changed =
        differing_fields(record.before[record.position], preset_at(record.after, record.position), updated_fields);
    if (!changed.empty()) {
        throw Finding{fmt::format("other values in {}", fmt::join(changed, ", ")),
                      "that only title and server_id change", blame::update};
    }
}

void check_update_others(CheckSession& session) {
    const std::string change = change_of_others(made_update(session));
    if (!change.empty()) {
        throw Finding{change, "that only the preset with the named id changes", blame::update};
    }
}

void check_update_long_title(CheckSession& session) {
    const std::string title = long_title(session, SM_TITLE_SIZE - 1);
    const UpdateRecord record = update_own(session, title);
    const sm_tag_custom_info& now = preset_at(record.after, record.position);
    if (text_of(now.title, SM_TITLE_SIZE) != title) {
        throw Finding{
            fmt::format("the title \"{}\", {} bytes", title_text(now), text_of(now.title, SM_TITLE_SIZE).size()),
            fmt::format("\"{}\", all {} bytes", title, title.size()), blame::update};
    }
}

// The service gets 52 bytes and a NUL, where a stored title has room for 51 and a NUL.
void check_update_full_title(CheckSession& session) {
    const UpdateRecord record = update_own(session, long_title(session, SM_TITLE_SIZE));
    const std::vector<std::string> changed =
        differing_fields(record.before[record.position], preset_at(record.after, record.position), updated_fields);
    const std::string others = change_of_others(record);
    if (!changed.empty() || !others.empty()) {
        throw Finding{changed.empty() ? others : fmt::format("other values in {}", fmt::join(changed, ", ")),
                      "that a title that is too long is cut, or refused", blame::update};
    }
}

// ---- Deletions ------------------------------------------------------------------------------------------------------

namespace {

const DeletionRecord& made_deletion(const CheckSession& session) {
    if (!session.deletion) {
        throw Skip{"no preset was deleted (delete-one)"};
    }
    return *session.deletion;
}

void expect_deleted(const DeletionRecord& record) {
    const int32_t result = record.reply.result;
    if (result == SM_RETURN_SYSTEM_DATA_ERR) {
        throw Finding{
            fmt::format("{}: the number of the preset that a custom mode uses is impossible", result_text(result)),
            "result 1", blame::links};
    }
    expect_result(result, result == SM_RETURN_OPENED_ERR || result == SM_RETURN_OPENED_BOTH_ERR ? blame::links
                          : result == SM_RETURN_STRUCT_ERR                                      ? blame::info
                                                                                                : blame::remove);
    for (const size_t position : record.removed) {
        const sm_tag_custom_info& named = record.before[position];
        if (lost_presets({named}, {}, record.after).empty()) {
            throw Finding{fmt::format("{} is still listed", name_of(named, position)), "that it is gone",
                          blame::remove};
        }
    }
}

DeletionRecord delete_and_list(CheckSession& session, const Presets& list, const std::vector<size_t>& positions) {
    DeletionRecord record = session.delete_own(list, positions);
    record.after = session.list().presets;
    return record;
}

} // namespace

// The one in the middle, so that a camera that takes its neighbour loses nobody's preset.
void check_delete_one(CheckSession& session) {
    const CheckSession::Own own = session.own(room_of_checks);
    session.deletion = delete_and_list(session, own.list, {own.positions[1]});
    expect_deleted(*session.deletion);
}

void check_delete_list(CheckSession& session) {
    const DeletionRecord& record = made_deletion(session);
    const Presets& told = record.reply.presets;
    const bool same = std::ranges::equal(
        told, record.after, [](const auto& one, const auto& other) { return differing_fields(one, other).empty(); });
    if (!same) {
        throw Finding{
            fmt::format("{} presets in the reply, {} in the list, not all the same", told.size(), record.after.size()),
            "the same list", blame::list};
    }
}

void check_delete_others(CheckSession& session) {
    const DeletionRecord& record = made_deletion(session);
    const std::vector<std::string> lost = lost_presets(record.before, record.removed, record.after);
    if (!lost.empty()) {
        throw Finding{fmt::format("gone, or with other values: {}", fmt::join(lost, ", ")),
                      "that the others stay as they are", blame::remove};
    }
}

void check_delete_numbers(CheckSession& session) {
    const Presets& after = made_deletion(session).after;
    for (size_t position = 0; position < after.size(); ++position) {
        if (after[position].preset_num != static_cast<int>(position)) {
            throw Finding{
                fmt::format("{} has preset_num {}", name_of(after[position], position), after[position].preset_num),
                fmt::format("preset_num {}: a deletion renumbers the rest", position), blame::remove};
        }
    }
}

void check_delete_several(CheckSession& session) {
    const CheckSession::Own own = session.own(room_of_checks);
    expect_deleted(delete_and_list(session, own.list, {own.positions[0], own.positions[2]}));
}

void check_delete_last(CheckSession& session) {
    const CheckSession::Own own = session.own(2);
    if (own.positions.back() + 1 != own.list.size()) {
        throw Skip{"the camera does not put a new preset at the end of its list"};
    }
    expect_deleted(delete_and_list(session, own.list, {own.positions.back()}));
}

} // namespace desk::phone
