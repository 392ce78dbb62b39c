#include "Forecast.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <fmt/format.h>
#include <string_view>

#include "Steps.h"
#include "Wire/Record.h"
#include "Words/Describe.h"

namespace desk {
namespace {

constexpr int32_t no_compensation = 50;

// ---- Colours --------------------------------------------------------------------------------------------------------

constexpr size_t phone_colors = 256;
using ColorList = std::array<int32_t, phone_colors>;

// The words of all colour triples, one behind the other.
constexpr size_t colors_of_record = size_t{SM_COLOR_TRIPLES} * 3;

int32_t& color_word(sm_cs_info& styles, size_t word) {
    sm_color& color = styles.cs_color[word / 3];
    const std::array<int32_t*, 3> parts = {&color.cs_color_r, &color.cs_color_g, &color.cs_color_b};
    return *parts[word % 3];
}

// What lists show of each colour that a phone can send: asked of the conversion, a record full of colours at a time.
ColorList listed_colors() {
    ColorList listed = {};
    for (size_t first = 0; first < phone_colors; first += colors_of_record) {
        const size_t count = std::min(colors_of_record, phone_colors - first);
        sm_tag_custom_info record = {};
        for (size_t word = 0; word < count; ++word) {
            color_word(record.cs_info, word) = static_cast<int32_t>(first + word);
        }
        record = listed_record(stored_record(record, SM_MODE_AUTO), IsoSteps::full);
        for (size_t word = 0; word < count; ++word) {
            listed[first + word] = color_word(record.cs_info, word);
        }
    }
    return listed;
}

// The colour to send so that lists show the wanted one, or the nearest that they can show.
int32_t sendable_color(int32_t wanted) {
    static const ColorList listed = listed_colors();
    const auto distance = [wanted](int32_t color) { return std::llabs(int64_t{color} - wanted); };
    const auto* const nearest = std::min_element(
        listed.begin(), listed.end(), [&](int32_t left, int32_t right) { return distance(left) < distance(right); });
    return static_cast<int32_t>(nearest - listed.begin());
}

// ---- States ---------------------------------------------------------------------------------------------------------

// All that a camera may be in as far as is known. Of its modes only the shutter mode matters.
std::vector<CameraState> possible(const CameraState& state) {
    std::vector<CameraState> states = {state};
    if (state.iso_steps == IsoSteps::unknown) {
        states = {{IsoSteps::full, state.last_listed_mode}, {IsoSteps::third, state.last_listed_mode}};
    }
    if (!state.last_listed_mode) {
        for (size_t k = 0, count = states.size(); k < count; ++k) {
            states[k].last_listed_mode = SM_MODE_AUTO;
            states.push_back({states[k].iso_steps, SM_MODE_SHUTTER});
        }
    }
    return states;
}

// What a list shows of a preset and is not of the preset: nobody can ask for it.
constexpr std::array<std::string_view, 3> cameras_own = {"preset_num", "custom_id", "screennail_path"};

bool is_cameras_own(const Field& field) {
    return std::find(cameras_own.begin(), cameras_own.end(), field.name) != cameras_own.end();
}

std::optional<Difference> difference_of_preset(const Field& field, const Bytes& expected, const Bytes& found) {
    return is_cameras_own(field) ? std::nullopt : difference_of(field, expected, found);
}

// ---- Reasons --------------------------------------------------------------------------------------------------------

struct Circumstances {
    const sm_tag_custom_info& wanted;
    const sm_tag_custom_info& sent;
    const sm_tag_custom_info& expected;
    const CameraState& state;
};

bool always(const Circumstances& /*all*/) {
    return true;
}

bool mode_has_no_aperture(const Circumstances& all) {
    return !carries_aperture(all.expected.mode);
}

bool mode_has_no_shutter(const Circumstances& all) {
    return !carries_shutter(all.expected.mode);
}

bool aperture_was_forgotten(const Circumstances& all) {
    return all.state.last_listed_mode == SM_MODE_SHUTTER && all.expected.av_index == 0;
}

bool full_steps_round(const Circumstances& all) {
    return all.state.iso_steps == IsoSteps::full && is_step(third_iso_steps(), all.wanted.iso);
}

bool third_steps_are_in_force(const Circumstances& all) {
    return all.state.iso_steps == IsoSteps::third && all.wanted.iso != all.wanted.iso_1_3;
}

bool number_was_sent_for_position(const Circumstances& all) {
    return !iso_at_position(all.sent.iso_1_3);
}

bool is_in_manual_mode(const Circumstances& all) {
    return is_manual(all.expected.mode);
}

bool is_not_kt_made(const Circumstances& all) {
    return (all.sent.made_id & SM_MADE_FAMILY) != SM_MADE_FAMILY_KT;
}

constexpr const char* no_such_step = "the camera has no such step";
constexpr const char* style_of_others = "presets that were not made on a KT camera get style C4";
constexpr const char* style_of_korvel = "presets of the maker korvel without a smart filter get style C4";

struct Rule {
    std::string_view entry;
    bool (*holds)(const Circumstances& all);
    const char* reason;
};

// The first one of an entry that holds.
constexpr Rule rules[] = {
    {"mode", always, "the camera has no such mode"},
    {"av_index", mode_has_no_aperture, "a preset in this mode carries no aperture"},
    {"av_index", aperture_was_forgotten,
     "the camera stores no aperture while the last preset of its list is in "
     "shutter mode"},
    {"av_index", always, no_such_step},
    {"tv_index", mode_has_no_shutter, "a preset in this mode carries no shutter time"},
    {"tv_index", always, no_such_step},
    {"iso", full_steps_round, "the camera is set to full ISO steps"},
    {"iso", third_steps_are_in_force, "the camera is set to third ISO steps"},
    {"iso", always, no_such_step},
    {"iso_1_3", number_was_sent_for_position, "sent as it stands it is read as a position 0 to 30, not as a number"},
    {"iso_1_3", always, no_such_step},
    {"ev_step", is_in_manual_mode, "lists show no compensation in manual mode"},
    {"ev_step", always, no_such_step},
    {"type", always, "presets that were not made on a KT camera are set to their colour temperature"},
    {"color_style", is_not_kt_made, style_of_others},
    {"color_style", always, style_of_korvel},
    {"cs_color_off_color", is_not_kt_made, style_of_others},
    {"cs_color_off_color", always, style_of_korvel},
    {"cs_color", always, "the camera's scale of colours has 199 steps"},
    {"made_id", always, "presets of the maker korvel with a smart filter lose the last digit of their origin"},
    {"linked_custom_mode", always, "the camera gives its own"},
};

std::string reason_for(const std::string& entry, const Circumstances& all) {
    const auto* const rule = std::find_if(std::begin(rules), std::end(rules),
                                          [&](const Rule& one) { return one.entry == entry && one.holds(all); });
    return rule == std::end(rules) ? "the camera converts it" : rule->reason;
}

// In which of the possible states a change comes about. Only these two entries depend on it.
std::string condition_of(const std::string& entry, const CameraState& state) {
    if (entry == "iso") {
        return fmt::format("if the camera is set to {} ISO steps",
                           state.iso_steps == IsoSteps::full ? "full" : "third");
    }
    return "if the last preset that the camera listed is in shutter mode";
}

// What comes out where the camera is in a state.
struct Outcome {
    CameraState state;
    sm_tag_custom_info expected;
    Bytes record; // the same
};

std::vector<Outcome> outcomes_of(const sm_tag_custom_info& sent, const CameraState& state) {
    std::vector<Outcome> outcomes;
    for (const CameraState& one : possible(state)) {
        const sm_tag_custom_info expected = forecast(sent, one);
        outcomes.push_back({one, expected, encode(expected)});
    }
    return outcomes;
}

// An entry's changes: one for each way that it may come out.
std::vector<Change> changes_of(const Field& field, const sm_tag_custom_info& wanted, const sm_tag_custom_info& sent,
                               const std::vector<Outcome>& outcomes) {
    std::vector<Change> found;
    size_t count = 0; // of the outcomes that change it
    for (const Outcome& outcome : outcomes) {
        const std::optional<Difference> difference = difference_of_preset(field, encode(wanted), outcome.record);
        if (!difference) {
            continue;
        }
        ++count;
        const bool is_known = std::any_of(found.begin(), found.end(),
                                          [&](const Change& one) { return one.expected == difference->found; });
        if (!is_known) {
            found.push_back({difference->entry, difference->expected, difference->found,
                             reason_for(field.name, {wanted, sent, outcome.expected, outcome.state}),
                             condition_of(field.name, outcome.state)});
        }
    }
    if (found.size() == 1 && count == outcomes.size()) {
        found.front().condition.clear();
    }
    return found;
}

} // namespace

CameraState state_of(const std::vector<sm_tag_custom_info>& listed) {
    const auto shows_full_steps = [](const sm_tag_custom_info& preset) { return preset.iso != preset.iso_1_3; };
    const auto shows_third_steps = [](const sm_tag_custom_info& preset) {
        return is_step(third_iso_steps(), preset.iso) && !is_step(full_iso_steps(), preset.iso);
    };
    CameraState state;
    if (std::any_of(listed.begin(), listed.end(), shows_full_steps)) {
        state.iso_steps = IsoSteps::full;
    } else if (std::any_of(listed.begin(), listed.end(), shows_third_steps)) {
        state.iso_steps = IsoSteps::third;
    }
    if (!listed.empty()) {
        state.last_listed_mode = listed.back().mode;
    }
    return state;
}

sm_tag_custom_info sendable(const sm_tag_custom_info& as_listed) {
    sm_tag_custom_info sent = as_listed;
    if (sent.av_index > 0) {
        sent.av_index = nearest_step(aperture_steps(), sent.av_index);
    }
    if (sent.iso > 0) {
        sent.iso = nearest_step(full_iso_steps(), sent.iso);
    }
    if (sent.iso_1_3 > 0) {
        sent.iso_1_3 = position_of_iso(nearest_step(third_iso_steps(), sent.iso_1_3)).value_or(0);
    }
    if (is_manual(sent.mode) && sent.ev_step == no_compensation_in_manual_lists) {
        sent.ev_step = no_compensation;
    }
    if (sent.mode == SM_MODE_AUTO && sent.tv_index == 0) {
        sent.tv_index = shutter_stored_as_zero(); // the camera would take position 0 for 60 s, and not tell
    }
    for (size_t word = 0; word < colors_of_record; ++word) {
        int32_t& color = color_word(sent.cs_info, word);
        color = sendable_color(color);
    }
    sent.preset_num = 0;
    sent.custom_id = 0;
    std::ranges::fill(sent.screennail_path, '\0');
    sent.linked_custom_mode = 0;
    return sent;
}

sm_tag_custom_info meant_by(const sm_tag_custom_info& sent) {
    sm_tag_custom_info meant = sent;
    meant.iso_1_3 = iso_at_position(sent.iso_1_3).value_or(sent.iso_1_3);
    if (is_manual(sent.mode) && sent.ev_step == no_compensation) {
        meant.ev_step = no_compensation_in_manual_lists;
    }
    return meant;
}

sm_tag_custom_info forecast(const sm_tag_custom_info& sent, const CameraState& state) {
    const IsoSteps steps = state.iso_steps == IsoSteps::third ? IsoSteps::third : IsoSteps::full;
    sm_tag_custom_info listed =
        listed_record(stored_record(sent, state.last_listed_mode.value_or(SM_MODE_AUTO)), steps);
    listed.preset_num = 0;
    listed.custom_id = 0;
    std::ranges::fill(listed.screennail_path, '\0');
    return listed;
}

std::vector<sm_tag_custom_info> forecasts(const sm_tag_custom_info& sent, const CameraState& state) {
    std::vector<sm_tag_custom_info> all;
    for (const Outcome& outcome : outcomes_of(sent, state)) {
        all.push_back(outcome.expected);
    }
    return all;
}

bool loses_aperture(const sm_tag_custom_info& sent, const CameraState& state) {
    const CameraState keeping = {state.iso_steps, SM_MODE_AUTO};
    const CameraState losing = {state.iso_steps, SM_MODE_SHUTTER};
    return state.last_listed_mode.value_or(SM_MODE_SHUTTER) == SM_MODE_SHUTTER &&
           forecast(sent, keeping).av_index != forecast(sent, losing).av_index;
}

std::string line_of(const Change& change) {
    return fmt::format("{} {} -> {}{}{}", change.entry, change.wanted, change.expected,
                       change.condition.empty() ? ": " : " ",
                       change.condition.empty() ? change.reason : change.condition);
}

std::vector<Change> changes(const sm_tag_custom_info& wanted, const sm_tag_custom_info& sent,
                            const CameraState& state) {
    const std::vector<Outcome> outcomes = outcomes_of(sent, state);
    std::vector<Change> all;
    for (const Field& field : fields()) {
        const std::vector<Change> found = changes_of(field, wanted, sent, outcomes);
        all.insert(all.end(), found.begin(), found.end());
    }
    return all;
}

std::vector<Difference> differences(const sm_tag_custom_info& expected, const sm_tag_custom_info& found) {
    const Bytes before = encode(expected);
    const Bytes after = encode(found);
    std::vector<Difference> all;
    for (const Field& field : fields()) {
        if (const std::optional<Difference> difference = difference_of_preset(field, before, after)) {
            all.push_back(*difference);
        }
    }
    return all;
}

} // namespace desk
