/*
 * What the host must provide. These functions stay undefined in the shared object; the process that loads it (or a
 * library that it loads) defines them. The library calls them on the host's thread only, from inside the entries of
 * ADE_ShotMentor.h, and never two at a time.
 *
 * A service must not call back into the library. bt_send_msgs may complete a send at once, but the confirmation belongs
 * after the entry that caused the send has returned.
 *
 * In the comments, [in] is the library's and may be read during the call only; [out] is the library's and is written by
 * the service, during the call only. The names are kept exactly as the camera's services spell them.
 */
#ifndef ADE_SHOTMENTOR_SERVICES_H
#define ADE_SHOTMENTOR_SERVICES_H

#include <stdbool.h>
#include <stddef.h>

#include "ADE_ShotMentor_Records.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- System log -------------------------------------------------------------------------------------------------- */

/*
 * Writes one line to the system log.
 *
 *   buffer    the log buffer's identifier, always 3
 *   priority  4 for ordinary lines and warnings, 6 for errors
 *   tag       [in] "ALG_SMM" (requests and replies) or "ALG_SM" (conversion and approximation)
 *   format    [in] printf style. The library passes "%s: %s(%d) > %s" with the source file's base name, the function,
 *             the line and the message: at most 255 characters, in a terminal colour, ending in "\033[m\n"
 *
 * Result: ignored.
 *
 * An error is written to the process's standard error as well, by the library itself.
 */
int __dlog_print(int buffer, int priority, const char* tag, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

/* ---- Camera user-interface service: the stored presets ----------------------------------------------------------- */

/*
 * Records whether the phone uses the feature.
 *
 *   state  1 yes, 0 no
 *
 * Result: ignored.
 */
int __ui_set_shotmentor_state(int state);

/* Whether the phone link is up. While it is not, a list request gets no reply. */
bool __ui_get_bt_state_for_phone(void);

/*
 * Reports all stored presets, in the order of their preset numbers.
 *
 *   presets  [out] room for SM_PRESET_LIMIT records, cleared; the service must not write more
 *   count    [out] the number of presets, 0 before the call. Below 0 is taken as 0, above 40 as 40
 *
 * Result: ignored.
 */
int __ui_get_custom_mode_list_info(tag_custom_info* presets, int* count);

/*
 * Tells which preset a custom mode uses.
 *
 *   custom_mode  0 for CUSTOM1, 1 for CUSTOM2
 *
 * Result
 *   the preset number, 0 to 39
 *   -1  it uses none
 * A list marks nothing for any other number. A deletion treats a number below -1 or above 40 as a fault of the service:
 * it reports SM_RETURN_SYSTEM_DATA_ERR and goes on.
 */
int __ui_get_linked_preseet_num_for_phone(int custom_mode);

/*
 * Looks one stored preset up.
 *
 *   custom_id  the preset's identity; may be any number that a phone sent
 *   preset     [out] the record; cleared before the call but for `applocal_id`, which holds the phone's own identity of
 *              the preset, or -1 when the library only asks whether the preset exists
 *
 * Result
 *   true   the preset exists and the whole record was filled, `custom_id` and `screennail_path` included. The library
 *          opens that path as it is and reads it to its end: it must name a plain file
 *   false  there is no such preset
 */
bool __ui_get_preset_info(int custom_id, tag_custom_info* preset);

/*
 * Stores a preset that the phone sent.
 *
 *   preset  [in, out] the converted record. The service may write the new preset's `preset_num`, `custom_id` and
 *           `applocal_id` into it; they travel back to the phone
 *   image   [in] the preset's JPEG picture, as the phone sent it; nothing checked that it is one
 *   length  bytes of the picture. Refuse a negative length: a request that announced fewer than 8 bytes makes it
 *           negative, and there is then no picture
 *
 * Result: any number; the phone gets it unchanged and reads 1 as success.
 */
int __ui_save_downloaded_preset(tag_custom_info* preset, const void* image, int length);

/*
 * Changes a stored preset's title and server identity.
 *
 *   custom_id  the preset's identity, 0 or more
 *   server_id  the new server identity, any number
 *   title      [in] the new title, NUL-terminated, with at most 52 bytes before the NUL: a stored title has room for 51
 *
 * Result: any number; the phone gets it unchanged and reads 1 as success.
 */
int __ui_preset_update_comfirm(int custom_id, int server_id, const char* title);

/*
 * Deletes stored presets and renumbers the rest.
 *
 *   flags  [in] SM_DELETE_FLAGS entries; entry k is 1 when preset number k goes, else 0. Entries 40 and 41 are 0
 *
 * Result: ignored; the list that the library asks for next shows what was deleted.
 */
int __ui_preset_delete_form_phone(int* flags);

/* ---- Bluetooth application service ------------------------------------------------------------------------------- */

/* The message kind of this feature. */
enum { SM_BT_MESSAGE_KIND = 9 };

/* One message to send. The layout is the service's: 100 bytes where a pointer has 4. */
typedef struct bt_msg_info {
    int message_kind;     /* SM_BT_MESSAGE_KIND */
    char reserved_4[76];  /* other fields of the service, zero */
    void* data;           /* the reply; see bt_send_msgs for how long it stays valid */
    int length;           /* bytes to send; 0 for the two error replies to a picture request */
    char reserved_88[12]; /* other fields of the service, zero */
} bt_msg_info;

static_assert(offsetof(bt_msg_info, data) == 80, "the data pointer lies at byte 80");
static_assert(offsetof(bt_msg_info, length) == 80 + sizeof(void*), "the length follows the data pointer");
static_assert(sizeof(void*) != 4 || sizeof(bt_msg_info) == 100, "100 bytes on a 32-bit system");

/*
 * Queues one reply for sending.
 *
 *   message  [in] the library uses the one record again for its next send. The bytes behind `data` are the library's
 *            and stay untouched until the send has been confirmed
 *
 * Result: ignored.
 *
 * The service raises EVT_BT_APP_SEND_RESULT once for every message, also for one of length 0, and the host then calls
 * ADE_ShotMentor_Result_Manager. Confirmations must come in the order of the sends; one that never comes leaves its
 * reply allocated.
 */
int bt_send_msgs(bt_msg_info* message);

/* ---- Model-specification service --------------------------------------------------------------------------------- */

/* The one key that the library asks for: the camera's ISO step setting. */
enum { SM_SPEC_KEY_ISO_STEP = 272 };

/*
 * Returns the model's value for a key. For SM_SPEC_KEY_ISO_STEP 1 means full steps, anything else third steps.
 *
 *   key  SM_SPEC_KEY_ISO_STEP
 */
int User_Spec_Get_Value(int key);

#ifdef __cplusplus
}
#endif

#endif
