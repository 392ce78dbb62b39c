/*
 * The two preset records, the wire frames around them, the function numbers and the result codes.
 *
 * A shooting preset exists in two forms. The camera keeps it as `tag_custom_info` (740 bytes), with exposure
 * values as step codes of the camera model. The phone exchanges it as `sm_tag_custom_info` (744 bytes), with
 * exposure values as model-neutral codes and colours on a 0 to 255 scale. The phone record repeats the camera
 * record's layout in its first 740 bytes and adds one word, so both are generated from the one field list
 * below.
 *
 * Everything here is exchanged as a raw little-endian memory image: signed 32-bit words at 4-byte-aligned
 * offsets, and byte texts of fixed size. Static assertions at the end hold every offset and size.
 */
#ifndef ADE_SHOTMENTOR_RECORDS_H
#define ADE_SHOTMENTOR_RECORDS_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

enum {
    SM_TITLE_SIZE = 52,           /* bytes of `title`, the terminating NUL included */
    SM_SCREENNAIL_PATH_SIZE = 52, /* bytes of `screennail_path`, the terminating NUL included */
    SM_COLOR_TRIPLES = 13,        /* colour triples, one for each colour style 1 to 13 */
    SM_COLOR_STYLES = 14,         /* colour styles 0 to 13; the custom styles C1 to C4 are 10 to 13 */
    SM_COLOR_STYLE_C1 = 10,       /* first custom colour style */
    SM_COLOR_STYLE_C4 = 13,       /* last custom colour style, the one that holds presets made elsewhere */
    SM_PRESET_LIMIT = 40,         /* presets that a camera stores at most: preset numbers 0 to 39 */
    SM_CUSTOM_MODES = 2,          /* custom modes that a preset can be linked to: CUSTOM1 and CUSTOM2 */
    SM_DELETE_FLAGS = 42,         /* entries of the table that names the presets to delete */
    SM_MODEL_SIZE = 12,           /* bytes of the model string in a list reply, zero-filled */
    SM_LAYOUT_VERSION = 1,        /* value of `SM_STRUCT_VER` in the replies that carry it */
    SM_REQUEST_LIMIT = 600000,    /* bytes of the longest request, its 8 header bytes included */
    SM_MALLOC_SIZE = 30000        /* bytes of an ordinary reply buffer; a screennail reply sizes its own */
};

/* Shooting modes, as the phone's record names them. The camera's has a 5, too, which is manual as well. */
enum {
    SM_MODE_AUTO = 0,     /* carries neither aperture nor shutter time */
    SM_MODE_PROGRAM = 1,  /* carries neither */
    SM_MODE_APERTURE = 2, /* carries the aperture */
    SM_MODE_SHUTTER = 3,  /* carries the shutter time */
    SM_MODE_MANUAL = 4,   /* carries both */
    SM_MODES = 5          /* how many there are */
};

/* Function numbers: the first word of a request. A reply carries the request's number plus SM_REPLY. */
enum {
    SM_FUNCTION_STATE_OFF = 0,      /* the phone leaves; carries the phone's own result code; no reply */
    SM_FUNCTION_SEND_LIST = 1,      /* the phone asks for all presets */
    SM_FUNCTION_SEND_PRESET = 2,    /* the phone asks for one preset's picture */
    SM_FUNCTION_RECEIVE_PRESET = 3, /* the phone stores a preset, record and picture */
    SM_FUNCTION_UPDATE_PRESET = 4,  /* the phone changes a preset's title and server identity */
    SM_FUNCTION_DELETE_PRESET = 5,  /* the phone deletes presets */
    SM_FUNCTION_STATE_ON = 255,     /* the phone arrives; no reply */
    SM_FUNCTION_LAST = 256,         /* highest number that a first packet may carry */
    SM_REPLY = 0x1000               /* what a reply adds to the number of its request */
};

/* Result codes: what a command returns to its caller and writes into the result word of its reply. */
enum {
    SM_RETURN_TRUE = 1,             /* success */
    SM_RETURN_SYSTEM_DATA_ERR = 0,  /* the UI service reported an impossible custom-mode link in a deletion */
    SM_RETURN_FAIL = -1,            /* no result: nothing was done, or the function number is unknown */
    SM_RETURN_DATA_ERR = -2,        /* the request's data was refused */
    SM_RETURN_STRUCT_ERR = -3,      /* the payload is too short for its record, or an entry is faulty */
    SM_RETURN_JPG_ERR = -4,         /* the picture of a received preset is missing or too short */
    SM_RETURN_PRESETN_ERR = -5,     /* the requested preset identifier is not positive */
    SM_RETURN_LOCALN_ERR = -6,      /* the camera holds no preset with the requested identifier */
    SM_RETURN_OPENED_ERR = -7,      /* a preset asked for deletion is linked to a custom mode and was kept */
    SM_RETURN_OPENED_BOTH_ERR = -8, /* presets linked to both custom modes were asked for and kept */
    SM_RETURN_BT_RES_ERR = -10,     /* reported by the phone */
    SM_RETURN_BT_DATA_ERR = -11,    /* reported by the phone */
    SM_RETURN_BT_STRUCT_ERR = -12   /* reported by the phone */
};

/* clang-format off */

/*
 * The colour-style block, nested in both records as `cs_info`. Offsets count from the start of the record.
 *
 *   WORD(name, offset)            one signed 32-bit word
 *   COLORS(name, offset, count)   count triples of words, red, green, blue
 *   WORDS(name, offset, count)    count words
 */
#define SM_CS_INFO_FIELDS(WORD, COLORS, WORDS)                                                                    \
    /* Selected colour style, 0 to 13. Presets that were not made on a KT camera, and korvel-made presets   */    \
    /* without a smart filter, are put into style 13 (C4) on their way to the camera.                       */    \
    WORD(color_style, 152)                                                                                        \
    /* Off-colour setting of the styles; -1 whenever style 13 was forced.                                   */    \
    WORD(cs_color_off_color, 156)                                                                                 \
    /* Colour of styles 1 to 13, style s at index s - 1 (style 0 has none): camera 0 to 200, phone 0 to 255. */   \
    COLORS(cs_color, 160, SM_COLOR_TRIPLES)                                                                       \
    /* Per-style settings of styles 0 to 13, style s at index s; the camera's own codes.                    */    \
    WORDS(cs_saturation, 316, SM_COLOR_STYLES)                                                                    \
    WORDS(cs_sharpness, 372, SM_COLOR_STYLES)                                                                     \
    WORDS(cs_contrast, 428, SM_COLOR_STYLES)                                                                      \
    WORDS(cs_hue, 484, SM_COLOR_STYLES)

/*
 * The fields of both preset records, in order. Where the two records encode a field differently the comment says
 * so; all other fields are the camera's own codes and pass through both conversions unchanged.
 *
 *   TEXT(name, offset, size)      size bytes of NUL-terminated text
 *   WORD(name, offset)            one signed 32-bit word
 *   WORDS(name, offset, count)    count words
 *   BLOCK(name, offset, type)     a nested block
 */
#define SM_CUSTOM_INFO_FIELDS(TEXT, WORD, WORDS, BLOCK)                                                           \
    /* Title, opaque bytes in any encoding. It may fill all 52 bytes: bound every read.                     */    \
    TEXT(title, 0, SM_TITLE_SIZE)                                                                                 \
    /* Shooting mode, SM_MODE_AUTO to SM_MODE_MANUAL. Camera: 0 to 5 (5 gives the phone 4, unknown values    */    \
    /* give 1). The mode says which exposure values the record carries.                                     */    \
    WORD(mode, 52)                                                                                                \
    /* Aperture. Camera: step code of `tKT7_APEX_AV`. Phone: f-number times ten, a value of                 */    \
    /* `tPRO_COMMON_AV`. 0 where the mode carries no aperture.                                              */    \
    WORD(av_index, 56)                                                                                            \
    /* Shutter time. Camera: step code of `tKT7_APEX_TV`. Phone: position 0 to 109 in that table.           */    \
    /* 0 where the mode carries no shutter time.                                                            */    \
    WORD(tv_index, 60)                                                                                            \
    /* Sensitivity. Camera: full-step code of `tKT7_APEX_SV`. Phone: ISO number of `tPRO_COMMON_SV`,        */    \
    /* 0 automatic, taken from whichever of the camera's two settings is in force.                          */    \
    WORD(iso, 64)                                                                                                 \
    /* Sensitivity in third steps. Camera: code of `tKT7_APEX_SV_1_3`. To the phone: ISO number of          */    \
    /* `tPRO_COMMON_SV`. From the phone: position 0 to 30 in `tKT7_APEX_SV_1_3`, not an ISO number.         */    \
    WORD(iso_1_3, 68)                                                                                             \
    /* Exposure compensation. Camera: third steps 0 to 30, 15 none. Phone: 0 to 100, 50 none, a value of    */    \
    /* `tPRO_COMMON_EV`; the bare number 15 in mode 4.                                                      */    \
    WORD(ev_step, 72)                                                                                             \
    /* Metering.                                                                                            */    \
    WORD(metering, 76)                                                                                            \
    /* Drive.                                                                                               */    \
    WORD(drive, 80)                                                                                               \
    /* HDR.                                                                                                 */    \
    WORD(hdr, 84)                                                                                                 \
    /* White-balance type; 10 is Kelvin, forced on the way to the camera for presets that were not made on  */    \
    /* a KT camera and name a colour temperature.                                                           */    \
    WORD(type, 88)                                                                                                \
    /* Colour temperature of the Kelvin type; 0 none.                                                       */    \
    WORD(k_value, 92)                                                                                             \
    /* Custom white balance.                                                                                */    \
    WORD(cwb_red, 96)                                                                                             \
    WORD(cwb_green, 100)                                                                                          \
    WORD(cwb_blue, 104)                                                                                           \
    /* Fine adjustment of each white-balance type: auto, auto tungsten, daylight, cloudy, fluorescent       */    \
    /* white, neutral and daylight, tungsten, flash, custom, Kelvin.                                        */    \
    WORD(auto_xy, 108)                                                                                            \
    WORD(auto_tungsten_xy, 112)                                                                                   \
    WORD(daylight_xy, 116)                                                                                        \
    WORD(cloudy_xy, 120)                                                                                          \
    WORD(flu_w_xy, 124)                                                                                           \
    WORD(flu_n_xy, 128)                                                                                           \
    WORD(flu_d_xy, 132)                                                                                           \
    WORD(tungsten_xy, 136)                                                                                        \
    WORD(flash_xy, 140)                                                                                           \
    WORD(cwb_xy, 144)                                                                                             \
    WORD(k_xy, 148)                                                                                               \
    /* The colour styles, a block of their own.                                                             */    \
    BLOCK(cs_info, 152, sm_cs_info)                                                                               \
    /* Smart filter; 0 none.                                                                                */    \
    WORD(smart_filter, 540)                                                                                       \
    /* Flash and its compensation.                                                                          */    \
    WORD(flash, 544)                                                                                              \
    WORD(flash_ev, 548)                                                                                           \
    /* Autofocus: mode and area.                                                                            */    \
    WORD(af_mode, 552)                                                                                            \
    WORD(af_area, 556)                                                                                            \
    /* Picture size.                                                                                        */    \
    WORD(photosize, 560)                                                                                          \
    /* Touch AF.                                                                                            */    \
    WORD(touch_af, 564)                                                                                           \
    /* Selection AF frame.                                                                                  */    \
    WORD(selection_af_pos_x, 568)                                                                                 \
    WORD(selection_af_pos_y, 572)                                                                                 \
    WORD(selection_af_width, 576)                                                                                 \
    WORD(selection_af_height, 580)                                                                                \
    WORD(selection_af_box_size, 584)                                                                              \
    /* Multi AF frame: the camera's alone. The phone has no use for it but carries it.                      */    \
    WORD(multi_af_pos_x, 588)                                                                                     \
    WORD(multi_af_pos_y, 592)                                                                                     \
    WORD(multi_af_width, 596)                                                                                     \
    WORD(multi_af_height, 600)                                                                                    \
    WORD(multi_af_box_size, 604)                                                                                  \
    /* Self-timer: delay, number of shots, interval between them.                                           */    \
    WORD(timer_time, 608)                                                                                         \
    WORD(timer_count, 612)                                                                                        \
    WORD(timer_interval, 616)                                                                                     \
    /* Continuous drive: high and normal speed, burst, selection. "counti" is the camera's spelling.        */    \
    WORD(counti_h_frame, 620)                                                                                     \
    WORD(counti_n_frame, 624)                                                                                     \
    WORD(burst_frame, 628)                                                                                        \
    /* The selected continuous drive.                                                                       */    \
    WORD(drive_set_conti, 632)                                                                                    \
    /* Words without a meaning here, carried byte for byte.                                                 */    \
    WORDS(reserved_636, 636, 6)                                                                                   \
    /* Picture quality.                                                                                     */    \
    WORD(quality, 660)                                                                                            \
    /* Bulb exposure.                                                                                       */    \
    WORD(bulb, 664)                                                                                               \
    /* Position in the camera's preset list, 0 to 39. Deleting other presets renumbers it.                  */    \
    WORD(preset_num, 668)                                                                                         \
    /* The camera's identity of the stored preset.                                                          */    \
    WORD(custom_id, 672)                                                                                          \
    /* The phone application's own identity of the preset.                                                  */    \
    WORD(applocal_id, 676)                                                                                        \
    /* The preset's identity on the phone application's server.                                             */    \
    WORD(server_id, 680)                                                                                          \
    /* Origin, read as hexadecimal digits: SM_MADE_KIND, SM_MADE_FAMILY, SM_MADE_MAKER.                     */    \
    WORD(made_id, 684)                                                                                            \
    /* Path of the preset's JPEG screennail in the camera's file system; of no use to the phone.            */    \
    TEXT(screennail_path, 688, SM_SCREENNAIL_PATH_SIZE)

/* clang-format on */

/* The digits of `made_id`, as masks, and the values that the conversion to the camera looks for. */
enum {
    SM_MADE_KIND = 0x00F,         /* sub-kind */
    SM_MADE_KIND_C4 = 0x004,      /* with colour style 13: the preset occupies custom colour style C4 */
    SM_MADE_FAMILY = 0x0F0,       /* camera family */
    SM_MADE_FAMILY_KT = 0x040,    /* any other family: the preset was made elsewhere */
    SM_MADE_MAKER = 0xF00,        /* maker of the preset */
    SM_MADE_MAKER_KORVEL = 0x100, /* the camera's own maker */
    SM_MADE_LESS_KIND = 0xFFF0    /* what a korvel preset with a smart filter keeps; clears bits 16 to 31 too */
};

/* The white-balance type that has a colour temperature. */
enum { SM_WHITE_BALANCE_KELVIN = 10 };

/* How a record's struct declares the fields of a list. */
#define SM_DECLARE_TEXT(name, offset, size) char name[size];
#define SM_DECLARE_WORD(name, offset) int32_t name;
#define SM_DECLARE_WORDS(name, offset, count) int32_t name[count];
#define SM_DECLARE_COLORS(name, offset, count) sm_color name[count];
#define SM_DECLARE_BLOCK(name, offset, type) type name;

/* One colour triple: camera scale 0 to 200, phone scale 0 to 255. */
typedef struct sm_color {
    int32_t cs_color_r; /* red */
    int32_t cs_color_g; /* green */
    int32_t cs_color_b; /* blue */
} sm_color;

/* The colour-style block of both records, 388 bytes. */
typedef struct sm_cs_info {
    SM_CS_INFO_FIELDS(SM_DECLARE_WORD, SM_DECLARE_COLORS, SM_DECLARE_WORDS)
} sm_cs_info;

/* The camera's preset record, 740 bytes. Its layout belongs to the camera UI service. */
typedef struct tag_custom_info {
    SM_CUSTOM_INFO_FIELDS(SM_DECLARE_TEXT, SM_DECLARE_WORD, SM_DECLARE_WORDS, SM_DECLARE_BLOCK)
} tag_custom_info;

/* The phone's preset record, 744 bytes: a wire format. Lists are records back to back. */
typedef struct sm_tag_custom_info {
    SM_CUSTOM_INFO_FIELDS(SM_DECLARE_TEXT, SM_DECLARE_WORD, SM_DECLARE_WORDS, SM_DECLARE_BLOCK)
    /* Custom mode that uses the preset: 0 none, 1 CUSTOM1, 2 CUSTOM2. Set in replies only. */
    int32_t linked_custom_mode;
} sm_tag_custom_info;

/* Start of every request and every reply. The payload or body follows at byte 8. */
typedef struct sm_frame {
    int32_t function;     /* function number; replies: the request's plus SM_REPLY */
    int32_t total_length; /* bytes of the whole request or reply, these 8 included */
} sm_frame;

/* Head of reply 0x1001, before num_Preset phone records. */
typedef struct sm_list_reply {
    sm_frame frame;               /* function 0x1001 */
    char SM_MODEL[SM_MODEL_SIZE]; /* "KT7", zero-filled */
    int32_t SM_STRUCT_VER;        /* SM_LAYOUT_VERSION */
    int32_t num_Preset;           /* 0 to 40 */
} sm_list_reply;

/* Head of reply 0x1002, before the picture's bytes; an error reply is this head alone. */
typedef struct sm_screennail_reply {
    sm_frame frame;    /* function 0x1002 */
    int32_t custom_id; /* the preset's custom_id; in an error reply -5 or -6 */
} sm_screennail_reply;

/* Reply 0x1003. The identity words are those of the record after the UI service saved it. */
typedef struct sm_receive_reply {
    sm_frame frame;      /* function 0x1003 */
    int32_t result;      /* what the UI service answered, or SM_RETURN_JPG_ERR */
    int32_t preset_num;  /* its position in the camera's list */
    int32_t custom_id;   /* the camera's identity of it */
    int32_t applocal_id; /* the phone's own identity of it */
} sm_receive_reply;

/* Reply 0x1004. */
typedef struct sm_update_reply {
    sm_frame frame; /* function 0x1004 */
    int32_t result; /* result code */
} sm_update_reply;

/*
 * Head of reply 0x1005, before num_Preset phone records. The total length counts 8 further bytes behind the
 * records for each custom mode whose link is reported; these bytes are zero.
 */
typedef struct sm_delete_reply {
    sm_frame frame;        /* function 0x1005 */
    int32_t result;        /* result code */
    int32_t SM_STRUCT_VER; /* SM_LAYOUT_VERSION */
    int32_t num_Preset;    /* presets left after the deletion, 0 to 40 */
} sm_delete_reply;

/* One entry of a delete request's payload. */
typedef struct sm_delete_pair {
    int32_t del_preset; /* preset number, 0 to 39 */
    int32_t del_id;     /* the preset's custom_id, not 0 */
} sm_delete_pair;

/* clang-format off */

/* Both records are held by the one list of offsets above; a field that moves in either does not compile. */
#define SM_ASSERT_OFFSET(record, name, offset) \
    static_assert(offsetof(record, name) == (offset), #record "." #name " has moved");
#define SM_ASSERT_WORD(name, offset) \
    SM_ASSERT_OFFSET(tag_custom_info, name, offset) SM_ASSERT_OFFSET(sm_tag_custom_info, name, offset)
#define SM_ASSERT_FIELD(name, offset, extent) SM_ASSERT_WORD(name, offset)
#define SM_ASSERT_STYLE_WORD(name, offset) SM_ASSERT_WORD(cs_info.name, offset)
#define SM_ASSERT_STYLE_FIELD(name, offset, count) SM_ASSERT_WORD(cs_info.name, offset)

SM_CUSTOM_INFO_FIELDS(SM_ASSERT_FIELD, SM_ASSERT_WORD, SM_ASSERT_FIELD, SM_ASSERT_FIELD)
SM_CS_INFO_FIELDS(SM_ASSERT_STYLE_WORD, SM_ASSERT_STYLE_FIELD, SM_ASSERT_STYLE_FIELD)

/* clang-format on */

static_assert(sizeof(sm_color) == 12, "a colour triple is three words");
static_assert(sizeof(sm_cs_info) == 388, "the colour-style block has 388 bytes");
static_assert(sizeof(tag_custom_info) == 740, "the camera record has 740 bytes");
static_assert(sizeof(sm_tag_custom_info) == 744, "the phone record has 744 bytes");
static_assert(offsetof(sm_tag_custom_info, linked_custom_mode) == 740, "the phone's own word comes last");
static_assert(sizeof(sm_frame) == 8, "a frame has 8 bytes");
static_assert(sizeof(sm_list_reply) == 28, "the head of a list reply has 28 bytes");
static_assert(sizeof(sm_screennail_reply) == 12, "the head of a screennail reply has 12 bytes");
static_assert(sizeof(sm_receive_reply) == 24, "a receive reply has 24 bytes");
static_assert(sizeof(sm_update_reply) == 12, "an update reply has 12 bytes");
static_assert(sizeof(sm_delete_reply) == 20, "the head of a delete reply has 20 bytes");
static_assert(sizeof(sm_delete_pair) == 8, "a delete pair has two words");

#endif
