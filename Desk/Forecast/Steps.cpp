#include "Steps.h"

#include <algorithm>
#include <cstddef>
#include <iterator>

#include "ADE_ShotMentor.h"
#include "ADE_ShotMentor_Steps.h"

namespace desk {
namespace {

// The positions of a table of codes that a camera can report: it reports the first position that has its code, and
// whatever has the code of position 0 as nothing.
template<size_t count>
Steps reported_positions(const int32_t (&codes)[count], int32_t missing) {
    Steps positions;
    for (int position = 1; position < static_cast<int>(count); ++position) {
        if (codes[position] != missing && find(codes, codes[position]) == position) {
            positions.push_back(position);
        }
    }
    return positions;
}

// The phone's values at the positions that a camera can report.
template<size_t count>
Steps reported_values(const int32_t (&values)[count], const int32_t (&codes)[count], int32_t missing) {
    Steps steps = reported_positions(codes, missing);
    for (int32_t& step : steps) {
        step = values[step];
    }
    return steps;
}

} // namespace

const Steps& aperture_steps() {
    static const Steps steps = reported_values(tPRO_COMMON_AV, tKT7_APEX_AV, SM_STEP_MISSING);
    return steps;
}

const Steps& shutter_steps() {
    static const Steps steps = reported_positions(tKT7_APEX_TV, SM_STEP_MISSING);
    return steps;
}

const Steps& full_iso_steps() {
    static const Steps steps = reported_values(tPRO_COMMON_SV, tKT7_APEX_SV, SM_STEP_MISSING_SIGNED);
    return steps;
}

const Steps& third_iso_steps() {
    static const Steps steps = reported_values(tPRO_COMMON_SV, tKT7_APEX_SV_1_3, SM_STEP_MISSING_SIGNED);
    return steps;
}

const Steps& compensation_steps() {
    static const Steps steps(std::begin(tPRO_COMMON_EV), std::end(tPRO_COMMON_EV));
    return steps;
}

bool is_step(const Steps& steps, int32_t code) {
    return std::binary_search(steps.begin(), steps.end(), code);
}

std::optional<int32_t> step_below(const Steps& steps, int32_t code) {
    const auto above = std::upper_bound(steps.begin(), steps.end(), code);
    return above == steps.begin() ? std::nullopt : std::optional(*(above - 1));
}

std::optional<int32_t> step_above(const Steps& steps, int32_t code) {
    const auto found = std::lower_bound(steps.begin(), steps.end(), code);
    return found == steps.end() ? std::nullopt : std::optional(*found);
}

int32_t nearest_step(const Steps& steps, int32_t code) {
    const std::optional<int32_t> below = step_below(steps, code);
    const std::optional<int32_t> above = step_above(steps, code);
    if (!below || !above) {
        return below.value_or(above.value_or(code));
    }
    return int64_t{*above} - code < int64_t{code} - *below ? *above : *below;
}

std::optional<int32_t> iso_at_position(int32_t position) {
    return position >= 0 && position < SM_SV_STEPS ? std::optional(tPRO_COMMON_SV[position]) : std::nullopt;
}

std::optional<int32_t> position_of_iso(int32_t iso) {
    const int position = find(tPRO_COMMON_SV, iso);
    return position < 0 ? std::nullopt : std::optional(position);
}

int32_t shutter_stored_as_zero() {
    return find(tKT7_APEX_TV, 0);
}

} // namespace desk
