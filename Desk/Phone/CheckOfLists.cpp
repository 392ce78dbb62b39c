// The camera's list, before anything is changed.
#include <algorithm>
#include <fmt/format.h>
#include <map>

#include "CheckSession.h"
#include "CheckSteps.h"

namespace desk::phone {
namespace {

bool is_empty(const sm_tag_custom_info& preset) {
    return std::ranges::all_of(encode(preset), [](uint8_t byte) { return byte == 0; });
}

bool is_plain_text(const std::string& text) {
    return !text.empty() && std::ranges::all_of(text, [](char byte) { return byte >= ' ' && byte <= '~'; });
}

} // namespace

void check_answers(CheckSession& session) {
    session.ask_shortest();
}

void check_list_answered(CheckSession& session) {
    session.first_list = session.answer_to(list_question());
    session.take_first_list();
}

void check_list_layout(CheckSession& session) {
    if (!session.first_list) {
        throw Skip{"there is no list"};
    }
    try {
        session.model = parse_list_reply(*session.first_list).model;
    } catch (const Failure& failure) {
        throw Finding{failure.what(), "the reply to a list, as Docs/protocol.md has it", blame::send};
    }
    if (!is_plain_text(session.model)) {
        throw Finding{"a model's name that is empty or no plain text", "a name such as KT7", blame::send};
    }
}

void check_list_records(CheckSession& session) {
    const Presets& presets = session.presets.foreign();
    for (size_t position = 0; position < presets.size(); ++position) {
        if (is_empty(presets[position])) {
            throw Finding{fmt::format("{} presets, of which number {} is an empty record", presets.size(), position),
                          "as many presets as the service has written records",
                          fmt::format("`count` of {}", blame::list)};
        }
    }
}

void check_list_numbers(CheckSession& session) {
    const Presets& presets = session.presets.foreign();
    for (size_t position = 0; position < presets.size(); ++position) {
        if (presets[position].preset_num != static_cast<int>(position)) {
            throw Finding{
                fmt::format("{} has preset_num {}", name_of(presets[position], position), presets[position].preset_num),
                fmt::format("preset_num {}", position), blame::list};
        }
    }
}

void check_list_ids(CheckSession& session) {
    const Presets& presets = session.presets.foreign();
    std::map<int32_t, size_t> seen;
    for (size_t position = 0; position < presets.size(); ++position) {
        const int32_t custom_id = presets[position].custom_id;
        if (custom_id <= 0) {
            throw Finding{fmt::format("{}", name_of(presets[position], position)), "an id above 0", blame::list};
        }
        const auto [other, is_new] = seen.emplace(custom_id, position);
        if (!is_new) {
            throw Finding{fmt::format("presets {} and {} both have id {}", other->second, position, custom_id),
                          "an id that no other preset has", fmt::format("{}, {}", blame::save, blame::list)};
        }
    }
}

void check_list_links(CheckSession& session) {
    const Presets& presets = session.presets.foreign();
    std::map<int32_t, size_t> users;
    for (size_t position = 0; position < presets.size(); ++position) {
        const int32_t mode = presets[position].linked_custom_mode;
        if (mode < 0 || mode > SM_CUSTOM_MODES) {
            throw Finding{fmt::format("linked_custom_mode {} of preset {}", mode, position), "0, 1 or 2", blame::links};
        }
        if (mode != 0 && !users.emplace(mode, position).second) {
            throw Finding{fmt::format("CUSTOM{} uses presets {} and {}", mode, users[mode], position),
                          "one preset at most", blame::links};
        }
    }
}

void check_list_steady(CheckSession& session) {
    const ListReply again = session.list();
    const Presets& before = session.presets.foreign();
    if (again.presets.size() != before.size()) {
        throw Finding{fmt::format("{} presets, then {}", before.size(), again.presets.size()), "the same list",
                      blame::list};
    }
    for (size_t position = 0; position < before.size(); ++position) {
        const std::vector<std::string> changed = differing_fields(before[position], again.presets[position]);
        if (!changed.empty()) {
            throw Finding{fmt::format("{} has other values in {} the second time", name_of(before[position], position),
                                      fmt::join(changed, ", ")),
                          "the same list", blame::list};
        }
    }
}

} // namespace desk::phone
