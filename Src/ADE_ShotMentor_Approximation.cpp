// Camera model, and the search for the nearest step that a model supports. The step tables are defined here, in their
// own header.

#define LOG_SOURCE kApproximationSource

#include "ADE_ShotMentor.h"
#include "ADE_ShotMentor_LogLine.h"
#include "ADE_ShotMentor_Steps.h"
#include "ADE_ShotMentor_Tables.h"

#include <iterator>

int32_t gADE_PRO_model = SM_CAMERA_ZE;
int32_t pro_sys_mode = 0;
int32_t pro_film_mode = 0;
int32_t pro_custom04_state = 0;

// ---- Camera model ---------------------------------------------------------------------------------------------------

int ADE_PRO_GetModel() {
    return gADE_PRO_model;
}

void ADE_PRO_SetModel() {
    gADE_PRO_model = SM_CAMERA_KT7;
}

int ADE_PRO_GetSysMode(const tag_custom_info* camera) {
    switch (camera->mode) {
    case SM_MODE_AUTO:
    case SM_MODE_PROGRAM:
    case SM_MODE_APERTURE:
    case SM_MODE_SHUTTER:
        return camera->mode;
    case SM_MODE_MANUAL:
    case SM_MODE_MANUAL + 1: // manual, too
        return SM_MODE_MANUAL;
    default:
        return SM_MODE_PROGRAM;
    }
}

int ADE_PRO_GetSysIsoStep() {
    return User_Spec_Get_Value(SM_SPEC_KEY_ISO_STEP) == 1 ? 0 : 1;
}

int ADE_PRO_GetEnable_Custom04() {
    return pro_custom04_state;
}

// ---- The search -----------------------------------------------------------------------------------------------------

namespace {

constexpr int kUnknownModel = -1;
constexpr int kAutomaticSensitivity = 0;

// An enable table and the number of its positions that are searched.
struct EnableTable {
    const int32_t* supported = nullptr; // null for an unknown model
    int count = 0;
};

// Distance from a position down to the nearest supported one. `count`, more than any real distance, when there is none;
// 0 when there is nothing below.
int distance_down(EnableTable table, int position) {
    for (int distance = 1; distance <= position; ++distance) {
        if (table.supported[position - distance] == 1) {
            return distance;
        }
    }
    return position > 0 ? table.count : 0;
}

// The same upwards, with the search's log lines. Not asked for the last position: every table supports some position,
// which then lies below it, and the search has ended there.
int distance_up(EnableTable table, int position) {
    const int last = table.count - 1;
    for (int distance = 1; position + distance <= last; ++distance) {
        const int reached = position + distance;
        if (table.supported[reached] == 1) {
            ALG_LOG_CYAN("rstartpt(%d)rstep:%d\t result:%d", distance == 1 ? 1 : 2, distance, reached);
            return distance;
        }
        if (reached == last) {
            ALG_LOG_CYAN("rstartpt(3)rstep:%d\t result:%d", distance, reached);
        }
    }
    return table.count;
}

// Picks the nearer of two steps, `down` below and `up` above; the lower one when both are equally near.
int nearer_step(int position, int down, int up) {
    if (down != 0 && up > down) {
        ALG_LOG_YELLOW("fstep:%d\t result:%d", down, position - down);
        return position - down;
    }
    if (up == down) {
        ALG_LOG_YELLOW("fstep:%d\t rstep:%d", down, up);
        return position - down;
    }
    ALG_LOG_YELLOW("rstep:%d\t result:%d", up, position + up);
    return position + up;
}

// Returns the supported position nearest to `position`, which lies in the table. An immediate neighbour is taken
// without weighing, the lower one first.
int ADE_PRO_ConvertApproxValue(EnableTable table, int position) {
    if (table.supported[position] == 1) {
        return position;
    }
    const int down = distance_down(table, position);
    const bool found_below = down > 0 && down < table.count;
    if (down == 1 || (found_below && position == table.count - 1)) {
        return position - down;
    }
    ALG_LOG_CYAN("TotalSize:%d", table.count);
    const int up = distance_up(table, position);
    if (up == 1) {
        return position + 1;
    }
    return nearer_step(position, down, up);
}

template<size_t count>
EnableTable all_of(const int32_t (&supported)[count]) {
    return {supported, static_cast<int>(count)};
}

// Picks the table of the model in force.
EnableTable for_model(EnableTable ze, EnableTable rh, EnableTable kt7) {
    switch (ADE_PRO_GetModel()) {
    case SM_CAMERA_ZE:
        return ze;
    case SM_CAMERA_RH:
        return rh;
    case SM_CAMERA_KT7:
        return kt7;
    default:
        return {};
    }
}

// Shutter positions that no model sets and that are not searched for.
constexpr int kFixedShutterFirst = 103;
constexpr int kFixedShutter[] = {80, 83, 89, 93, 96};
constexpr int kFixedShutterLast = kFixedShutterFirst + static_cast<int>(std::size(kFixedShutter)) - 1;
static_assert(kFixedShutterLast == 107);

int approximate_sensitivity(EnableTable table, int position) {
    if (table.supported == nullptr) {
        return kAutomaticSensitivity;
    }
    // An ISO number in the place of a position has no step near it: the camera is left to choose.
    const bool is_position = position >= 0 && position < SM_SV_STEPS;
    const int converted =
        is_position ? ADE_PRO_ConvertApproxValue(table, clamped(position, table.count)) : kAutomaticSensitivity;
    ALG_LOG_CYAN("Converted SV :(%d)\n", converted);
    return converted;
}

} // namespace

// ---- One approximation for each quantity ----------------------------------------------------------------------------

int ADE_PRO_ConvertApproxTV(int position) {
    if (position >= kFixedShutterFirst && position <= kFixedShutterLast) {
        return kFixedShutter[position - kFixedShutterFirst];
    }
    const EnableTable table = for_model(all_of(TV_SET_ENABLE_ZE), all_of(TV_SET_ENABLE_RH), all_of(TV_SET_ENABLE_KT7));
    if (table.supported == nullptr) {
        return kUnknownModel;
    }
    const int converted = ADE_PRO_ConvertApproxValue(table, clamped(position, table.count));
    ALG_LOG_CYAN("[TV]convertedIndex::(%d)\n", converted);
    return converted;
}

int ADE_PRO_ConvertApproxAV(int aperture) {
    const EnableTable table = for_model(all_of(AV_SET_ENABLE_ZE), all_of(AV_SET_ENABLE_RH), all_of(AV_SET_ENABLE_KT7));
    if (table.supported == nullptr) {
        return kUnknownModel;
    }
    ALG_LOG_YELLOW("(AV_LUT)arr_size :(%d)\n", SM_AV_LUT_STEPS);
    const int requested = find_nearest(AV_LUT, aperture, [](int) { return true; });
    const int converted = ADE_PRO_ConvertApproxValue(table, requested);
    ALG_LOG_CYAN("approx_av :(%d)\n", converted);
    ALG_LOG_CYAN("convertedIndex :(%d)\n", AV_LUT[converted]);
    return converted; // AV_LUT rises strictly, so its value has no other position
}

int ADE_PRO_ConvertApproxSV(int position) {
    const EnableTable table = for_model(all_of(SV_SET_ENABLE_ZE), all_of(SV_SET_ENABLE_RH), all_of(SV_SET_ENABLE_KT7));
    return approximate_sensitivity(table, position);
}

int ADE_PRO_ConvertApproxSV_1_3step(int position) {
    // Every model has the same third steps; ZE and RH end earlier.
    const EnableTable shorter = {SV_1_3_SET_ENABLE_KT7, SM_SV_STEPS_26};
    const EnableTable table = for_model(shorter, shorter, all_of(SV_1_3_SET_ENABLE_KT7));
    return approximate_sensitivity(table, position);
}

int ADE_PRO_ConvertApproxEV(int code) {
    const EnableTable table = for_model(all_of(EV_SET_ENABLE_ZE), all_of(EV_SET_ENABLE_RH), all_of(EV_SET_ENABLE_KT7));
    if (table.supported == nullptr) {
        return kUnknownModel;
    }
    const int converted = ADE_PRO_ConvertApproxValue(table, clamped(code, table.count));
    ALG_LOG_CYAN("Converted EV :(%d)\n", converted);
    return converted;
}
