// Camera model, exposure step tables, and the search for the nearest step that a model supports.

#define ALG_LOG_TAG "ALG_SM"

#include "ADE_ShotMentor.h"
#include "ADE_ShotMentor_Log.h"
#include "ADE_ShotMentor_Steps.h"

#include <iterator>

int32_t gADE_PRO_model = SM_CAMERA_ZE;
int32_t pro_sys_mode = 0;
int32_t pro_film_mode = 0;
int32_t pro_custom04_state = 0;

// ---- Table notation ---------------------------------------------------------------------------------------

// A run of equal entries.
#define TIMES_2(entry) entry, entry
#define TIMES_3(entry) TIMES_2(entry), entry
#define TIMES_4(entry) TIMES_2(entry), TIMES_2(entry)
#define TIMES_5(entry) TIMES_4(entry), entry
#define TIMES_6(entry) TIMES_4(entry), TIMES_2(entry)
#define TIMES_7(entry) TIMES_6(entry), entry
#define TIMES_8(entry) TIMES_4(entry), TIMES_4(entry)
#define TIMES_9(entry) TIMES_8(entry), entry

// The entries of a function at consecutive positions, from `first` on.
#define EACH_5(of, first) of(first), of((first) + 1), of((first) + 2), of((first) + 3), of((first) + 4)
#define EACH_10(of, first) EACH_5(of, first), EACH_5(of, (first) + 5)
#define EACH_50(of, first)                                                                                   \
    EACH_10(of, first), EACH_10(of, (first) + 10), EACH_10(of, (first) + 20), EACH_10(of, (first) + 30),     \
        EACH_10(of, (first) + 40)
#define EACH_100(of, first) EACH_50(of, first), EACH_50(of, (first) + 50)

#define EACH_26(of) EACH_10(of, 0), EACH_10(of, 10), EACH_5(of, 20), of(25)
#define EACH_31(of) EACH_10(of, 0), EACH_10(of, 10), EACH_10(of, 20), of(30)
#define EACH_101(of) EACH_100(of, 0), of(100)
#define EACH_108(of) EACH_100(of, 0), EACH_5(of, 100), of(105), of(106), of(107)
#define EACH_110(of) EACH_100(of, 0), EACH_10(of, 100)
#define EACH_151(of) EACH_100(of, 0), EACH_50(of, 100), of(150)

namespace {

// Positions from `first` to `last`; a single position where only `first` is given.
struct Positions {
    constexpr Positions(int only) : first(only), last(only) {}
    constexpr Positions(int from, int to) : first(from), last(to) {}
    int first;
    int last;
};

// Entry of an enable table: 1 at the listed positions, 0 elsewhere.
template<size_t count>
constexpr int32_t listed(const Positions (&supported)[count], int position) {
    for (const Positions& range : supported) {
        if (range.first <= position && position <= range.last) {
            return 1;
        }
    }
    return 0;
}

} // namespace

// The tables are given their lengths in the header: a missing or surplus entry does not compile. The two
// macros below write one enable table: its name, the macro that runs over its positions, and what is
// supported.
#define ENABLE_TABLE(name, each, ...)                                                                        \
    namespace {                                                                                              \
    constexpr Positions name##_POSITIONS[] = {__VA_ARGS__};                                                  \
    consteval int32_t name##_at(int position) {                                                              \
        return listed(name##_POSITIONS, position);                                                           \
    }                                                                                                        \
    }                                                                                                        \
    constexpr int32_t name[] = {each(name##_at)}

// ---- The phone's scales -----------------------------------------------------------------------------------

#define ITSELF(value) (value)
#define F_NUMBERS_UP_TO_11 0, EACH_100(ITSELF, 10), 110

// clang-format off
constexpr int32_t tPRO_COMMON_AV[] = {
    F_NUMBERS_UP_TO_11, 120, 124, 130, 139, 140, 150, 153, 160, 164, 170, 178, 180, 200, 220, 250, 290, 320, 360, 400,
    450, 500, 570, 640, 720, 800, 900};

constexpr int32_t AV_LUT[] = {
    F_NUMBERS_UP_TO_11, 113, 116, 119, 120, 122, 124, 125, 127, 129, 130, 131, 134, 136, 139, 140, 142, 145, 148, 150,
    152, 153, 156, 159, 160, 163, 164, 167, 170, 173, 176, 178, 179, 180, 182, 184, 200, 220, 250, 290, 320, 360, 400,
    450, 500, 570, 640, 720, 800, 900};

constexpr int32_t tPRO_COMMON_SV[] = {
    0, 50, 80, 100, 125, 160, 200, 250, 320, 400, 500, 640, 800, 1000, 1250, 1600, 2000, 2500, 3200, 4000, 5000, 6400,
    8000, 10000, 12800, 16000, 20000, 25600, 32000, 40000, 51200};

constexpr int32_t tPRO_COMMON_EV[] = {
    0, 4, 7, 10, 14, 17, 20, 24, 27, 30, 34, 37, 40, 44, 47, 50, 53, 56, 60, 63, 66, 70, 73, 76, 80, 83, 86, 90, 93, 96,
    100};

// ---- The camera's codes on the model KT7 ------------------------------------------------------------------

#define NONE SM_STEP_MISSING

constexpr int32_t tKT7_APEX_AV[] = {
    0, 0, 5, 11, NONE, 16, NONE, 21, NONE, 27, NONE, 32, NONE, 37, NONE, NONE, 43, NONE, NONE, 48, NONE, NONE, NONE, 53,
    NONE, NONE, 59, TIMES_4(NONE), 64, TIMES_4(NONE), 69, TIMES_4(NONE), 75, TIMES_5(NONE), 80, TIMES_6(NONE), 85,
    TIMES_7(NONE), 91, TIMES_8(NONE), 96, TIMES_9(NONE), 101, TIMES_9(NONE), 107, TIMES_9(NONE), 112, NONE, NONE, 117,
    NONE, 123, NONE, NONE, 128, TIMES_3(NONE), 133, 139, 144, 149, 155, 160, 165, 171, 176, TIMES_6(NONE)};

constexpr int32_t tKT7_APEX_TV[] = {
    NONE, 65440, 65456, TIMES_4(NONE), 65461, TIMES_4(NONE), 65467, TIMES_4(NONE), 65472, NONE, 65477, NONE, NONE,
    65483, NONE, 65488, NONE, 65493, 65499, 65504, TIMES_9(NONE), 65509, TIMES_4(NONE), 65515, TIMES_4(NONE), 65520,
    TIMES_3(NONE), 65525, NONE, NONE, 65531, NONE, NONE, 0, NONE, 5, NONE, 11, 16, 21, 27, TIMES_3(NONE), 32, 37, 43,
    48, 53, 59, 64, 69, 75, 80, 85, 91, 96, 101, 107, 112, 117, NONE, 123, 128, 133, 139, 144, 149, 155, 160, 165, 171,
    176, 181, 187, 192, 197, 203, TIMES_5(NONE), 208, 213};

#undef NONE
#define NONE SM_STEP_MISSING_SIGNED

constexpr int32_t tKT7_APEX_SV[] = {
    0, NONE, NONE, 1, NONE, NONE, 2, NONE, NONE, 3, NONE, NONE, 4, NONE, NONE, 5, NONE, NONE, 6, NONE, NONE, 7, NONE,
    NONE, 8, NONE, NONE, 9, NONE, NONE, 10};

constexpr int32_t tKT7_APEX_SV_1_3[] = {
    0, NONE, NONE, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27,
    28};

#undef NONE

namespace {

// The inverse of tPRO_COMMON_EV.
consteval int32_t compensation_step(int code) {
    static_assert(SM_STEP_MISSING_SIGNED == -1, "find answers the mark itself");
    return find(tPRO_COMMON_EV, code);
}

} // namespace

constexpr int32_t tKT7_APEX_EV_1_3[] = {EACH_101(compensation_step)};

// ---- What each model supports -----------------------------------------------------------------------------

ENABLE_TABLE(AV_SET_ENABLE_ZE, EACH_151, {0, 91}, 101, {137, 150});
ENABLE_TABLE(AV_SET_ENABLE_RH, EACH_151,
    0, 22, 24, 26, 28, 30, 35, 40, 45, 49, 54, 79, 84, 90, 96, {101, 104}, 106, {108, 110}, {112, 114}, {117, 119}, 121,
    {123, 124}, 126, 128, {130, 131}, 133, {135, 136});
ENABLE_TABLE(AV_SET_ENABLE_KT7, EACH_151,
    {0, 3}, 5, 7, 9, 11, 13, 16, 19, 23, 26, 31, 36, 41, 47, 54, 62, 71, 81, 91, 101, 104, 106, 109, {113, 121},
    {128, 130}, 135, 140, 145, 147, 150);

ENABLE_TABLE(TV_SET_ENABLE_ZE, EACH_108,
    {0, 2}, 7, 12, 17, 19, 22, 24, {26, 28}, 38, 43, 48, 52, 55, 58, 60, {62, 65}, {69, 102});
ENABLE_TABLE(TV_SET_ENABLE_RH, EACH_108,
    0, {16, 22}, 24, 26, 28, 38, 48, 53, 58, 61, 63, {68, 69}, {71, 73}, {75, 76}, 78, 81, 84, 86, 88, 91, 94, 97,
    {103, 107});
ENABLE_TABLE(TV_SET_ENABLE_KT7, EACH_110,
    {1, 2}, 7, 12, 17, 19, 22, 24, {26, 28}, 38, 43, 48, 52, 55, 58, 60, {62, 65}, {69, 85}, {87, 102}, {108, 109});

ENABLE_TABLE(SV_SET_ENABLE_ZE, EACH_26, {0, 25});
ENABLE_TABLE(SV_SET_ENABLE_RH, EACH_26, {0, 1}, 4, 7, 10, 13, 16);
ENABLE_TABLE(SV_SET_ENABLE_KT7, EACH_31, 0, 3, 6, 9, 12, 15, 18, 21, 24, 27, 30);

ENABLE_TABLE(SV_1_3_SET_ENABLE_KT7, EACH_31, 0, {3, 30});

ENABLE_TABLE(EV_SET_ENABLE_ZE, EACH_101,
    20, 24, 27, 30, 34, 37, 40, 44, 47, 50, 53, 56, 60, 63, 66, 70, 73, 76, 80);
ENABLE_TABLE(EV_SET_ENABLE_RH, EACH_101, 30, 33, 37, 40, 43, 47, 50, 53, 57, 60, 63, 67, 70);
ENABLE_TABLE(EV_SET_ENABLE_KT7, EACH_101,
    0, 4, 7, 10, 14, 17, 20, 24, 27, 30, 34, 37, 40, 44, 47, 50, 53, 56, 60, 63, 66, 70, 73, 76, 80, 83, 86, 90, 93, 96,
    100);
// clang-format on

// ---- Camera model -----------------------------------------------------------------------------------------

int ADE_PRO_GetModel() {
    return gADE_PRO_model;
}

void ADE_PRO_SetModel() {
    gADE_PRO_model = SM_CAMERA_KT7;
}

int ADE_PRO_GetSysMode(const tag_custom_info* camera) {
    switch (camera->mode) {
    case 0:
    case 1:
    case 2:
    case 3:
        return camera->mode;
    case 4:
    case 5:
        return 4;
    default:
        return 1;
    }
}

int ADE_PRO_GetSysIsoStep() {
    return User_Spec_Get_Value(SM_SPEC_KEY_ISO_STEP) == 1 ? 0 : 1;
}

int ADE_PRO_GetEnable_Custom04() {
    return pro_custom04_state;
}

// ---- The search -------------------------------------------------------------------------------------------

namespace {

constexpr int kUnknownModel = -1;
constexpr int kAutomaticSensitivity = 0;

// An enable table and the number of its positions that are searched.
struct EnableTable {
    const int32_t* supported = nullptr; // null for an unknown model
    int count = 0;
};

// Distance from a position down to the nearest supported one. `count`, more than any real distance, when
// there is none; 0 when there is nothing below.
int distance_down(EnableTable table, int position) {
    for (int distance = 1; distance <= position; ++distance) {
        if (table.supported[position - distance] == 1) {
            return distance;
        }
    }
    return position > 0 ? table.count : 0;
}

// The same upwards, with the search's log lines. Not asked for the last position: every table supports some
// position, which then lies below it, and the search has ended there.
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

// Returns the supported position nearest to `position`, which lies in the table. An immediate neighbour is
// taken without weighing, the lower one first.
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
    const int converted = is_position ? ADE_PRO_ConvertApproxValue(table, clamped(position, table.count))
                                      : kAutomaticSensitivity;
    ALG_LOG_CYAN("Converted SV :(%d)\n", converted);
    return converted;
}

} // namespace

// ---- One approximation for each quantity ------------------------------------------------------------------

int ADE_PRO_ConvertApproxTV(int position) {
    if (position >= kFixedShutterFirst && position <= kFixedShutterLast) {
        return kFixedShutter[position - kFixedShutterFirst];
    }
    const EnableTable table =
        for_model(all_of(TV_SET_ENABLE_ZE), all_of(TV_SET_ENABLE_RH), all_of(TV_SET_ENABLE_KT7));
    if (table.supported == nullptr) {
        return kUnknownModel;
    }
    const int converted = ADE_PRO_ConvertApproxValue(table, clamped(position, table.count));
    ALG_LOG_CYAN("[TV]convertedIndex::(%d)\n", converted);
    return converted;
}

int ADE_PRO_ConvertApproxAV(int aperture) {
    const EnableTable table =
        for_model(all_of(AV_SET_ENABLE_ZE), all_of(AV_SET_ENABLE_RH), all_of(AV_SET_ENABLE_KT7));
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
    const EnableTable table =
        for_model(all_of(SV_SET_ENABLE_ZE), all_of(SV_SET_ENABLE_RH), all_of(SV_SET_ENABLE_KT7));
    return approximate_sensitivity(table, position);
}

int ADE_PRO_ConvertApproxSV_1_3step(int position) {
    // Every model has the same third steps; ZE and RH end earlier.
    const EnableTable shorter = {SV_1_3_SET_ENABLE_KT7, SM_SV_STEPS_26};
    const EnableTable table = for_model(shorter, shorter, all_of(SV_1_3_SET_ENABLE_KT7));
    return approximate_sensitivity(table, position);
}

int ADE_PRO_ConvertApproxEV(int code) {
    const EnableTable table =
        for_model(all_of(EV_SET_ENABLE_ZE), all_of(EV_SET_ENABLE_RH), all_of(EV_SET_ENABLE_KT7));
    if (table.supported == nullptr) {
        return kUnknownModel;
    }
    const int converted = ADE_PRO_ConvertApproxValue(table, clamped(code, table.count));
    ALG_LOG_CYAN("Converted EV :(%d)\n", converted);
    return converted;
}
