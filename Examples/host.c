/* A host that answers one request, without a camera: the least that embeds the library. */
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include "ADE_ShotMentor.h"

/* The services that the library calls. This camera stores no preset, and prints what it would send. */

int __dlog_print(int buffer, int priority, const char* tag, const char* format, ...) {
    (void)buffer;
    (void)priority;
    (void)tag;
    (void)format;
    return 0;
}

int bt_send_msgs(bt_msg_info* message) {
    sm_frame frame;
    memcpy(&frame, message->data, sizeof frame);
    printf("reply 0x%x, %d bytes\n", (unsigned)frame.function, message->length);
    return 0;
}

int __ui_get_custom_mode_list_info(tag_custom_info* presets, int* count) {
    (void)presets;
    *count = 0;
    return 0;
}

bool __ui_get_bt_state_for_phone(void) {
    return true;
}

int __ui_set_shotmentor_state(int state) {
    (void)state;
    return 0;
}

int __ui_get_linked_preseet_num_for_phone(int custom_mode) {
    (void)custom_mode;
    return -1; /* the custom mode uses no preset */
}

bool __ui_get_preset_info(int custom_id, tag_custom_info* preset) {
    (void)custom_id;
    (void)preset;
    return false; /* there is no such preset */
}

int __ui_save_downloaded_preset(tag_custom_info* preset, const void* image, int length) {
    (void)preset;
    (void)image;
    (void)length;
    return SM_RETURN_FAIL; /* there is no room for it */
}

int __ui_preset_update_comfirm(int custom_id, int server_id, const char* title) {
    (void)custom_id;
    (void)server_id;
    (void)title;
    return SM_RETURN_LOCALN_ERR; /* there is no such preset */
}

int __ui_preset_delete_form_phone(int* flags) {
    (void)flags;
    return 0;
}

int User_Spec_Get_Value(int key) {
    return key == SM_SPEC_KEY_ISO_STEP ? 1 : 0; /* ISO is set in full steps */
}

int main(void) {
    const sm_frame request = {SM_FUNCTION_SEND_LIST, sizeof request};
    const int result = ADE_ShotMentor_Receive_Manager(&request, sizeof request); /* a packet has arrived */
    ADE_ShotMentor_Result_Manager(NULL, 0);                                      /* the reply has been sent */
    return result == SM_RETURN_TRUE ? 0 : 1;
}
