#include "Conversion.h"

#include "ADE_ShotMentor.h"

namespace {

bool full_iso_steps_are_set = true;

} // namespace

// ---- What the library imports ---------------------------------------------------------------------------------------

extern "C" {

// The conversion tells of all that it does, and there is nobody to read it.
int __dlog_print(int /*buffer*/, int /*priority*/, const char* /*tag*/, const char* /*format*/, ...) {
    return 0;
}

int User_Spec_Get_Value(int key) {
    return key == SM_SPEC_KEY_ISO_STEP && full_iso_steps_are_set ? 1 : 0;
}
}

// ---- What the forecast asks -----------------------------------------------------------------------------------------

namespace desk {

tag_custom_info stored_record(const sm_tag_custom_info& sent, int32_t last_listed_mode) {
    pro_sys_mode = last_listed_mode;
    tag_custom_info stored = {};
    ADE_PRO_CreateSysCustom(&sent, &stored);
    return stored;
}

sm_tag_custom_info listed_record(const tag_custom_info& stored, IsoSteps iso_steps) {
    full_iso_steps_are_set = iso_steps == IsoSteps::full;
    sm_tag_custom_info listed = {};
    ADE_PRO_CreateProFilm(&stored, &listed);
    return listed;
}

} // namespace desk
