#include "Results.h"

#include <algorithm>
#include <fmt/format.h>
#include <iterator>

#include "ADE_ShotMentor_Records.h"

namespace desk {

namespace {

struct Result {
    int32_t code;
    const char* name;
    const char* meaning;
};

#define DESK_RESULT(name, meaning)                                                                                     \
    { name, #name, meaning }

const Result results[] = {
    DESK_RESULT(SM_RETURN_TRUE, "done"),
    DESK_RESULT(SM_RETURN_SYSTEM_DATA_ERR,
                "the presets were deleted, but the camera's own links to its custom modes are damaged"),
    DESK_RESULT(SM_RETURN_FAIL, "the camera could not do it"),
    DESK_RESULT(SM_RETURN_DATA_ERR, "the camera refused the request's data, or has no room for a preset"),
    DESK_RESULT(SM_RETURN_STRUCT_ERR, "the request was incomplete or faulty, nothing was changed"),
    DESK_RESULT(SM_RETURN_JPG_ERR, "the preset or its picture was too short, or the picture too long"),
    DESK_RESULT(SM_RETURN_PRESETN_ERR, "the preset's id is not above 0"),
    DESK_RESULT(SM_RETURN_LOCALN_ERR, "the camera does not have this preset"),
    DESK_RESULT(SM_RETURN_OPENED_ERR, "a preset that a custom mode uses was kept"),
    DESK_RESULT(SM_RETURN_OPENED_BOTH_ERR, "the presets that both custom modes use were kept"),
    DESK_RESULT(SM_RETURN_BT_RES_ERR, "the phone reported a bad result"),
    DESK_RESULT(SM_RETURN_BT_DATA_ERR, "the phone reported bad data"),
    DESK_RESULT(SM_RETURN_BT_STRUCT_ERR, "the phone reported a bad record"),
};

constexpr int32_t lowest_result = SM_RETURN_BT_STRUCT_ERR; // that has an exit code of its own

const Result* find_result(int32_t code) {
    const auto* const found =
        std::find_if(std::begin(results), std::end(results), [&](const Result& result) { return result.code == code; });
    return found == std::end(results) ? nullptr : found;
}

} // namespace

std::string name_of_result(int32_t result) {
    const Result* const known = find_result(result);
    return known ? known->name : fmt::format("result {}", result);
}

std::string meaning_of_result(int32_t result) {
    const Result* const known = find_result(result);
    return known ? known->meaning : fmt::format("the camera answered {}, which has no known meaning", result);
}

int exit_code_of_result(int32_t result) {
    if (result == SM_RETURN_TRUE) {
        return exit_done;
    }
    if (result > 0 || result < lowest_result) {
        return exit_other_result;
    }
    return exit_result - result;
}

} // namespace desk
