/*
 * What the shared object's own description does not hold: the services that it imports, and the records that travel.
 * A variable for each has its type described.
 */
#include "ADE_ShotMentor.h"
#include "ADE_ShotMentor_Log.h"

#define SERVICE(name) __typeof__(name)* abi_service_##name;
#define RECORD(type) type abi_record_##type;

SERVICE(__dlog_print)
SERVICE(__ui_set_shotmentor_state)
SERVICE(__ui_get_bt_state_for_phone)
SERVICE(__ui_get_custom_mode_list_info)
SERVICE(__ui_get_linked_preseet_num_for_phone)
SERVICE(__ui_get_preset_info)
SERVICE(__ui_save_downloaded_preset)
SERVICE(__ui_preset_update_comfirm)
SERVICE(__ui_preset_delete_form_phone)
SERVICE(bt_send_msgs)
SERVICE(User_Spec_Get_Value)

RECORD(tag_custom_info)
RECORD(sm_tag_custom_info)
RECORD(bt_msg_info)
RECORD(sm_frame)
RECORD(sm_delete_pair)
RECORD(sm_list_reply)
RECORD(sm_screennail_reply)
RECORD(sm_receive_reply)
RECORD(sm_update_reply)
RECORD(sm_delete_reply)
RECORD(alg_log_level)
