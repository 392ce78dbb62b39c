/*
 * ShotMentor: exchanges shooting presets between a phone and the camera over a Bluetooth link.
 *
 * How a host uses it
 *   1. It provides the services of ADE_ShotMentor_Services.h.
 *   2. It calls ADE_ShotMentor_Receive_Manager with every packet that the phone sends for this feature.
 *   3. It calls ADE_ShotMentor_Result_Manager once for each EVT_BT_APP_SEND_RESULT that its Bluetooth service raises
 *      for a reply of this feature.
 *   4. It calls ADE_ShotMentor_Return_To_Idle when the link drops.
 * There is nothing to initialise and nothing to shut down. All state is process-wide and unprotected: make one call at
 * a time, from one thread. The library starts no thread and keeps no pointer that it was handed.
 *
 * What a phone can send: a request is an sm_frame and a payload, cut into packets in any way that leaves the sm_frame
 * in the first one. Requests follow each other; a packet never holds bytes of two.
 *
 *   function                payload                                      reply
 *     0  link state off     result word of the phone                     none
 *     1  preset list        none                                         0x1001  sm_list_reply, records
 *     2  picture            custom_id, the phone's own id                0x1002  sm_screennail_reply, picture
 *     3  store a preset     sm_tag_custom_info, picture                  0x1003  sm_receive_reply
 *     4  update a preset    sm_tag_custom_info, of which custom_id,      0x1004  sm_update_reply
 *                           server_id and title are used
 *     5  delete presets     sm_delete_pair for each                      0x1005  sm_delete_reply, records
 *   255  link state on      none                                         none
 *
 * Memory: whatever a phone sends, a service answers or the allocator refuses, the library touches only its own memory
 * and what it was handed. Where a function reads a fixed number of bytes whatever the length says, its comment says so.
 * Null pointers are not tested, except as the packet of a call that is refused for its length.
 *
 * In the comments below, [in] is read during the call only and [out] is written during the call; both stay the
 * caller's.
 */
#ifndef ADE_SHOTMENTOR_H
#define ADE_SHOTMENTOR_H

#include <stdlib.h>

#include "ADE_ShotMentor_Records.h"
#include "ADE_ShotMentor_Services.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The shared object is built with hidden visibility; what stands here is exported. */
#pragma GCC visibility push(default)

/* ---- Entries for the host ---------------------------------------------------------------------------------------- */

/*
 * Takes one packet of the phone in. The first packet of a request announces its total length; packets are collected
 * until exactly that many bytes have arrived, and the request then runs before the call returns.
 *
 *   data    [in] the packet: readable for `length` bytes, and for at least 8 while no request is in reassembly, as both
 *           header words are read whatever the length
 *   length  bytes of the packet
 *
 * Result
 *   the command's result, 1 to -12 or whatever the UI service answered, when this packet completed a request
 *   -1  when the request is incomplete, and when the packet or the request was refused: these cannot be told apart
 *
 * Refused, with an error in the log
 *   a length of 0 or below                          no change of state
 *   a first packet with a function not in 0 to 256  no change of state
 *   a request that announces a negative total       at once, idle again; its further packets are read as requests
 *   a request that announces over SM_REQUEST_LIMIT  when its last byte has arrived, so that the next one is read from
 *                                                   its start
 *
 * Bytes that nobody announced: a packet that carries a request beyond its total stalls the intake; that request never
 * completes, and every later packet is appended to it until the host returns the library to idle. A total of 0 to 7
 * stalls at once, for the header alone has 8 bytes. Bytes in a packet of their own, behind the one that completed a
 * request, are read as the next request.
 */
int ADE_ShotMentor_Receive_Manager(const void* data, int length);

/*
 * Handles the confirmation of one send.
 *
 *   data, length  the event's data, ignored
 *
 * Result
 *    1  the oldest reply that the library holds was freed
 *   -1  there is no current reply: nothing was freed
 *
 * When each send is confirmed once, before the next request, the reply freed is the one confirmed. They come apart when
 * confirmations are late, in three cases; a host that lets no request in while a reply is being sent meets none of
 * them:
 *   a reply whose buffer was refused    the replies before it wait in the queue, without a current one: confirmations
 *                                       answer -1 and free nothing until the next reply has been sent
 *   an eleventh unconfirmed reply       takes the place of the newest one in the queue, which is never freed
 *   an error reply to a picture         takes the place of the current reply, which is never freed
 * After the last two each confirmation frees the reply behind the one that it is meant for.
 */
int ADE_ShotMentor_Result_Manager(const void* data, int length);

/* ---- Steps of the entries, exported for direct calls ------------------------------------------------------------- */

/*
 * Appends one packet to the request in reassembly. What does not fit SM_REQUEST_LIMIT bytes is counted, not stored.
 *
 *   data    [in] the packet, readable for `length` bytes
 *   length  bytes of the packet; 0 appends nothing
 *
 * Result
 *    1  all bytes were stored
 *   -1  not all were: they do not fit, no request is in reassembly, or the length is negative; a packet that would
 *       carry the sum past the largest int is dropped whole
 */
int ADE_ShotMentor_Combine_BTData(const void* data, int length);

/*
 * Runs one complete request.
 *
 *   data    [in] the request, header included; readable for 760 bytes at least, whatever the length
 *   length  bytes of the whole request
 *
 * Result
 *   the command's result
 *   -1  for SM_FUNCTION_STATE_ON and for unknown function numbers
 */
int ADE_ShotMentor_Receive_Function(const void* data, int length);

/*
 * Function 0: logs the result code that the phone reports on leaving.
 *
 *   data    [in] the payload; readable for 4 bytes at least, whatever the length
 *   length  bytes of the payload
 *
 * Result
 *    1  for the codes 1, -10, -11 and -12
 *   -1  for any other code, and for fewer than 4 bytes
 */
int ADE_SM_State_Off(const void* data, int length);

/*
 * Function 1: sends all presets (reply 0x1001).
 *
 * Result
 *    1  the list was sent
 *   -1  nothing was sent: the phone link is down, or the allocator refused a working array or the reply
 */
int ADE_SM_Send_List(void);

/*
 * Function 2: sends the screennail picture of a preset (reply 0x1002), cut before its third JPEG stream. A picture that
 * cannot be read is sent as an empty one.
 *
 *   custom_ID    the preset's custom_id; 0 and below are refused
 *   applocal_ID  the phone's own identity of the preset, handed to the UI service in the record
 *
 * Result
 *   1  always; the outcome is in the reply
 *
 * The two error replies, for a refused custom_ID and for a preset that the UI service does not have, are handed to the
 * Bluetooth service with length 0, so that the phone gets none.
 */
int ADE_SM_Send_Preset(int custom_ID, int applocal_ID);

/*
 * Function 3: stores a preset that the phone sent (reply 0x1003).
 *
 *   data    [in] the payload: an sm_tag_custom_info and at least 100 bytes of picture
 *   length  bytes of the payload, compared as an unsigned number: a negative one counts as long
 *
 * Result
 *   what the UI service answers
 *   -4  the payload is shorter than 844 bytes
 */
int ADE_SM_Receive_Preset(const void* data, int length);

/*
 * Function 4: changes a preset's title and server identity (reply 0x1004).
 *
 *   data    [in] the payload: an sm_tag_custom_info; readable for 744 bytes, whatever the length
 *   length  bytes of the payload, compared as an unsigned number: a negative one counts as long
 *
 * Result
 *   what the UI service answers
 *   -3  the payload is shorter than 744 bytes
 *   -2  custom_id is negative
 */
int ADE_SM_Update_Preset(const void* data, int length);

/*
 * Function 5: deletes presets and sends the list that is left (reply 0x1005). Presets that a custom mode uses are kept.
 *
 *   data    [in] the payload: sm_delete_pair entries
 *   length  bytes of the payload, taken as an unsigned number; bytes of an incomplete entry are ignored. More than
 *           74999 entries, which only a negative length makes, are refused unread
 *
 * Result
 *    1  all were deleted
 *    0  the UI service reported an impossible link for CUSTOM2, or for CUSTOM1 where CUSTOM2 kept none; the presets
 *       were deleted, but for one that CUSTOM1 uses
 *   -2  no entry: nothing was deleted
 *   -3  a faulty entry: nothing was deleted
 *   -7  the preset of one custom mode was kept, the others were deleted
 *   -8  the presets of both custom modes were kept, the others were deleted
 * When the allocator refuses a working array or the reply, the presets are deleted and the result is the one above, but
 * nothing is sent. What the UI service answers to the deletion itself is not looked at.
 */
int ADE_SM_Delete_Preset(const void* data, int length);

/* ---- State of the reassembly ------------------------------------------------------------------------------------- */

extern int32_t sm_BT_total_length;              /* total of the request in reassembly; -1 for none, as at the start */
extern int32_t sm_BT_combine_length;            /* bytes counted so far, 0 at the start; may exceed what is stored */
extern unsigned char* shotmentor_p_ReceiveData; /* malloc'ed, SM_REQUEST_LIMIT bytes; null while idle */

/*
 * Ends a request in reassembly, if there is one, and logs nothing. To be called when the link drops: without it the
 * next phone's first packet would be appended to what the last phone left. Replies stay, confirm them as ever.
 *
 * Not exported: the state variables are the library's, and any host may do this by hand.
 */
static inline void ADE_ShotMentor_Return_To_Idle(void) {
    free(shotmentor_p_ReceiveData);
    shotmentor_p_ReceiveData = NULL;
    sm_BT_total_length = -1;
    sm_BT_combine_length = 0;
}

/* ---- State of the replies ---------------------------------------------------------------------------------------- */

/* Entries that the queue of unconfirmed replies has. */
enum { SM_REPLY_QUEUE = 10 };

extern bt_msg_info shotmentor_BT_info;                     /* the record of every send, zeroed before each */
extern unsigned char* shotmentor_p_FullData;               /* the current reply: sent last, not freed; null at start */
extern unsigned char* shotmentor_p_Full_Q[SM_REPLY_QUEUE]; /* older unconfirmed replies, the oldest first */
extern int32_t shotmentor_p_Full_Q_NUM;                    /* entries in the queue, 0 (at start) to 10 */

/* ---- Conversion, camera to phone --------------------------------------------------------------------------------- */

/*
 * Converts a camera record into a phone record.
 *
 *   camera  [in] the record to convert
 *   phone   [out] bytes 0 to 739; `linked_custom_mode` is left as it is
 *
 * Sets gADE_PRO_model to 2, pro_sys_mode from the record and pro_custom04_state to 0, and logs both records.
 */
void ADE_PRO_CreateProFilm(const tag_custom_info* camera, sm_tag_custom_info* phone);

/*
 * The copy that the conversion starts with: 740 bytes as they are, and two log lines. Result: always 1.
 *
 *   camera  [in] the record to convert
 *   phone   [out] bytes 0 to 739
 */
int ADE_ShotMentor_Conv2ProFilmStruct(const tag_custom_info* camera, sm_tag_custom_info* phone);

/*
 * Sets pro_sys_mode from the record and pro_custom04_state to 0.
 *
 *   camera  [in] the record to convert
 */
void ADE_PRO_InitializeProFilm(const tag_custom_info* camera);

/* Aperture: code of tKT7_APEX_AV to value of tPRO_COMMON_AV; 0 when unknown, or in a mode other than 2 and 4. */
int ADE_PRO_Convert2ProFilmAV(int camera_code);

/* Shutter time: code of tKT7_APEX_TV to its first position; 0 when unknown, or in a mode other than 3 and 4. */
int ADE_PRO_Convert2ProFilmTV(int camera_code);

/* Sensitivity: code of tKT7_APEX_SV to ISO number of tPRO_COMMON_SV; 0 when unknown. */
int ADE_PRO_Convert2ProFilmSV(int camera_code);

/* Sensitivity in third steps: code of tKT7_APEX_SV_1_3 to ISO number of tPRO_COMMON_SV; 0 when unknown. */
int ADE_PRO_Convert2ProFilmSV_1_3(int camera_code);

/* Compensation: 0 to 30 to value of tPRO_COMMON_EV; always 15 in mode 4; 50 (none) outside 0 to 30. */
int ADE_PRO_Convert2ProFilmEV(int camera_index);

/*
 * Returns the ISO number that is in force: `iso_1_3` when the model sets third steps, else `iso`.
 *
 *   iso      the ISO number of the full steps
 *   iso_1_3  the ISO number of the third steps
 */
int ADE_PRO_Convert2ProFilmIsoStep(int iso, int iso_1_3);

/* ---- Conversion, phone to camera --------------------------------------------------------------------------------- */

/*
 * Converts a phone record into a camera record, exposure values to the nearest step that the model supports.
 *
 *   phone   [in] the record to convert
 *   camera  [out] written whole
 *
 * Sets gADE_PRO_model to 2, pro_film_mode and pro_custom04_state, and logs both records. It reads pro_sys_mode as the
 * last conversion to the phone left it: 3 there gives aperture code 0.
 */
void ADE_PRO_CreateSysCustom(const sm_tag_custom_info* phone, tag_custom_info* camera);

/*
 * The copy that the conversion starts with: 740 bytes as they are, and two log lines. Result: always 1.
 *
 *   phone   [in] the record to convert
 *   camera  [out] written whole
 */
int ADE_ShotMentor_Conv2SysCustomStruct(const sm_tag_custom_info* phone, tag_custom_info* camera);

/*
 * Sets pro_film_mode, and the colour style, origin code and pro_custom04_state that the preset's origin demands.
 *
 *   camera  [in, out] the copy of the phone's record
 */
void ADE_PRO_InitializeSysCustom(tag_custom_info* camera);

/*
 * Sets pro_custom04_state by the origin code's last digit: below 4 to 0, 4 with colour style 13 to 1; else it stays.
 *
 *   color_style  the record's colour style
 *   made_id      the record's origin code
 */
void ADE_PRO_SetCustom04State(int color_style, int made_id);

/*
 * Aperture: f-number times ten to code of tKT7_APEX_AV; 0 when tPRO_COMMON_AV does not hold the number, when
 * pro_film_mode is 1, or when pro_sys_mode is 3.
 */
int ADE_PRO_Convert2SysCustomAV(int phone_aperture);

/* Shutter time: position in tKT7_APEX_TV to code. 0 when pro_film_mode is 1 or 2. Any number is accepted. */
int ADE_PRO_Convert2SysCustomTV(int phone_position);

/* Sensitivity: ISO number to code of tKT7_APEX_SV; 0 (automatic) for numbers that the model has no code for. */
int ADE_PRO_Convert2SysCustomSV(int phone_iso);

/* Sensitivity in third steps: position in tKT7_APEX_SV_1_3 to code; 0 (automatic) outside 0 to 30. */
int ADE_PRO_Convert2SysCustomSV_1_3(int phone_position);

/* Compensation: 0 to 100 to code of tKT7_APEX_EV_1_3. Any number is accepted. */
int ADE_PRO_Convert2SysCustomEV(int phone_code);

/*
 * The first position from `first` to `last` of tPRO_COMMON_AV or tPRO_COMMON_SV that holds `value`; 0 when none does.
 * The range is cut to the table.
 *
 *   value        an f-number times ten, or an ISO number
 *   first, last  the positions to look at, both included
 */
int ADE_PRO_SearchCommonAV(int value, int first, int last);
int ADE_PRO_SearchCommonSV(int value, int first, int last);

/* ---- Camera model ------------------------------------------------------------------------------------------------ */

/* Camera model codes. Any other code makes the approximations return their failure value. */
enum { SM_CAMERA_ZE = 0, SM_CAMERA_RH = 1, SM_CAMERA_KT7 = 2 };

extern int32_t gADE_PRO_model;     /* camera model code, 0 at start; both conversions set it to 2 */
extern int32_t pro_sys_mode;       /* mode 0 to 4 of the last record converted to the phone, 0 at start */
extern int32_t pro_film_mode;      /* mode of the last record converted to the camera, 0 at start */
extern int32_t pro_custom04_state; /* 1 when the last record converted occupies colour style C4, else 0, as at start */

/* Returns gADE_PRO_model. */
int ADE_PRO_GetModel(void);

/* Sets gADE_PRO_model to SM_CAMERA_KT7. */
void ADE_PRO_SetModel(void);

/*
 * Returns the system mode of a record: its mode 0 to 3 as it is, 4 for 4 and 5, 1 for any other.
 *
 *   camera  [in] the record
 */
int ADE_PRO_GetSysMode(const tag_custom_info* camera);

/* Returns 0 when the model sets full ISO steps, 1 when it sets third steps (any answer of the service but 1). */
int ADE_PRO_GetSysIsoStep(void);

/* Returns pro_custom04_state. */
int ADE_PRO_GetEnable_Custom04(void);

/* ---- Approximation: the nearest step that the model supports ----------------------------------------------------- */

/*
 * Each looks for the nearest supported step of the model in gADE_PRO_model, the lower one of two equally near. An
 * argument outside the model's table starts at the table's nearest end.
 */

/* Shutter time: position in tKT7_APEX_TV to position; 103 to 107 have fixed answers; -1 for an unknown model. */
int ADE_PRO_ConvertApproxTV(int position);

/*
 * Aperture: value of AV_LUT to position in AV_LUT, which is not a position of tPRO_COMMON_AV from 102 on; -1 for an
 * unknown model. A value that AV_LUT does not hold is taken for its nearest one.
 */
int ADE_PRO_ConvertApproxAV(int aperture);

/* Sensitivity: position in tPRO_COMMON_SV to position. 0 outside 0 to 30 and for an unknown model. */
int ADE_PRO_ConvertApproxSV(int position);
int ADE_PRO_ConvertApproxSV_1_3step(int position);

/* Compensation: phone code 0 to 100 to phone code. -1 for an unknown model. */
int ADE_PRO_ConvertApproxEV(int code);

/* ---- Step tables ------------------------------------------------------------------------------------------------- */

/* Lengths of the tables: the extents of the scales that they are indexed by. */
enum {
    SM_AV_STEPS = 128,     /* the phone's apertures */
    SM_AV_LUT_STEPS = 151, /* the apertures of all models */
    SM_TV_STEPS = 110,     /* the shutter times */
    SM_TV_STEPS_108 = 108, /* the shutter times of the models ZE and RH */
    SM_SV_STEPS = 31,      /* the sensitivities */
    SM_SV_STEPS_26 = 26,   /* the sensitivities of the models ZE and RH */
    SM_EV_STEPS = 31,      /* the compensations, in third steps from -5 to +5 */
    SM_EV_CODES = 101      /* the phone's compensation codes, 0 to 100 */
};

/* Marks of a step that the camera has no code for. */
enum {
    SM_STEP_MISSING = 65535,    /* apertures and shutter times */
    SM_STEP_MISSING_SIGNED = -1 /* sensitivities and compensations */
};

/* The phone's scales, rising. */
extern const int32_t tPRO_COMMON_AV[SM_AV_STEPS]; /* f-number times ten; position 0 holds 0 */
extern const int32_t AV_LUT[SM_AV_LUT_STEPS];     /* f-number times ten; holds all of tPRO_COMMON_AV */
extern const int32_t tPRO_COMMON_SV[SM_SV_STEPS]; /* ISO numbers; position 0 holds 0, automatic */
extern const int32_t tPRO_COMMON_EV[SM_EV_STEPS]; /* compensation codes 0 to 100; position 15 holds 50, none */

/* The camera's codes for them on the model KT7. */
extern const int32_t tKT7_APEX_AV[SM_AV_STEPS];     /* at the positions of tPRO_COMMON_AV */
extern const int32_t tKT7_APEX_TV[SM_TV_STEPS];     /* at the phone's shutter positions; 16-bit two's complement */
extern const int32_t tKT7_APEX_SV[SM_SV_STEPS];     /* full steps, at the positions of tPRO_COMMON_SV */
extern const int32_t tKT7_APEX_SV_1_3[SM_SV_STEPS]; /* third steps, at the positions of tPRO_COMMON_SV */
extern const int32_t tKT7_APEX_EV_1_3[SM_EV_CODES]; /* third steps 0 to 30, at the phone's compensation codes */

/* What each model supports: 1 at a supported position of the scale, 0 elsewhere. */
extern const int32_t AV_SET_ENABLE_ZE[SM_AV_LUT_STEPS]; /* positions of AV_LUT */
extern const int32_t AV_SET_ENABLE_RH[SM_AV_LUT_STEPS];
extern const int32_t AV_SET_ENABLE_KT7[SM_AV_LUT_STEPS];
extern const int32_t TV_SET_ENABLE_ZE[SM_TV_STEPS_108]; /* positions of tKT7_APEX_TV */
extern const int32_t TV_SET_ENABLE_RH[SM_TV_STEPS_108];
extern const int32_t TV_SET_ENABLE_KT7[SM_TV_STEPS];
extern const int32_t SV_SET_ENABLE_ZE[SM_SV_STEPS_26]; /* positions of tPRO_COMMON_SV */
extern const int32_t SV_SET_ENABLE_RH[SM_SV_STEPS_26];
extern const int32_t SV_SET_ENABLE_KT7[SM_SV_STEPS];
extern const int32_t SV_1_3_SET_ENABLE_KT7[SM_SV_STEPS]; /* third steps, for every model */
extern const int32_t EV_SET_ENABLE_ZE[SM_EV_CODES];      /* the phone's compensation codes */
extern const int32_t EV_SET_ENABLE_RH[SM_EV_CODES];
extern const int32_t EV_SET_ENABLE_KT7[SM_EV_CODES];

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
