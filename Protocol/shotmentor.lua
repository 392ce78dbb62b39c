-- Shows what a phone and a camera say to each other in Wireshark and tshark. Docs/captures.md tells how to use it.
--
-- It is read from the top: what the words of a message mean, how a message becomes a tree, which reply belongs to which
-- request, how messages are put together from packets, and on which links all that happens.
--
-- Bytes are read only after it is known that they are there: whatever a capture holds, no line here may fail on it.

local shotmentor = Proto("shotmentor", "ShotMentor")

-- ---- What tools/make_protocol.py takes from the sources -------------------------------------------------------------

-- begin of the tables
local record_size = 744
local model_size = 12
local layout_version = 1
local preset_limit = 40
local request_limit = 600000
local last_function = 256
local reply_bit = 4096

local results = {
    [1] = { "SM_RETURN_TRUE", "success" },
    [0] = { "SM_RETURN_SYSTEM_DATA_ERR", "the UI service reported an impossible custom-mode link in a deletion" },
    [-1] = { "SM_RETURN_FAIL", "no result: nothing was done, or the function number is unknown" },
    [-2] = { "SM_RETURN_DATA_ERR", "the request's data was refused" },
    [-3] = { "SM_RETURN_STRUCT_ERR", "the payload is too short for its record, or an entry is faulty" },
    [-4] = { "SM_RETURN_JPG_ERR", "the picture of a received preset is missing or too short" },
    [-5] = { "SM_RETURN_PRESETN_ERR", "the requested preset identifier is not positive" },
    [-6] = { "SM_RETURN_LOCALN_ERR", "the camera holds no preset with the requested identifier" },
    [-7] = { "SM_RETURN_OPENED_ERR", "a preset asked for deletion is linked to a custom mode and was kept" },
    [-8] = { "SM_RETURN_OPENED_BOTH_ERR", "presets linked to both custom modes were asked for and kept" },
    [-10] = { "SM_RETURN_BT_RES_ERR", "reported by the phone" },
    [-11] = { "SM_RETURN_BT_DATA_ERR", "reported by the phone" },
    [-12] = { "SM_RETURN_BT_STRUCT_ERR", "reported by the phone" },
}

local mode_names = {
    [0] = "Auto", [1] = "Program", [2] = "Aperture", [3] = "Shutter", [4] = "Manual",
}

local white_balance_names = {
    [0] = "auto", [1] = "auto tungsten", [2] = "daylight", [3] = "cloudy", [4] = "fluorescent white",
    [5] = "fluorescent neutral", [6] = "fluorescent daylight", [7] = "tungsten", [8] = "flash", [9] = "custom",
    [10] = "Kelvin",
}

local custom_mode_names = {
    [0] = "-", [1] = "CUSTOM1", [2] = "CUSTOM2",
}

local color_style_names = {
    [0] = "style 0", [1] = "style 1", [2] = "style 2", [3] = "style 3", [4] = "style 4", [5] = "style 5",
    [6] = "style 6", [7] = "style 7", [8] = "style 8", [9] = "style 9", [10] = "C1", [11] = "C2", [12] = "C3",
    [13] = "C4",
}

local shutter_times = {
    [1] = "60 s", [2] = "30 s", [7] = "25 s", [12] = "20 s", [17] = "15 s", [19] = "13 s", [22] = "10 s",
    [24] = "8 s", [26] = "6 s", [27] = "5 s", [28] = "4 s", [38] = "3.2 s", [43] = "2.5 s", [48] = "2 s",
    [52] = "1.6 s", [55] = "1.3 s", [58] = "1 s", [60] = "0.8 s", [62] = "0.6 s", [63] = "0.5 s", [64] = "0.4 s",
    [65] = "0.3 s", [69] = "1/4 s", [70] = "1/5 s", [71] = "1/6 s", [72] = "1/8 s", [73] = "1/10 s",
    [74] = "1/13 s", [75] = "1/15 s", [76] = "1/20 s", [77] = "1/25 s", [78] = "1/30 s", [79] = "1/40 s",
    [80] = "1/50 s", [81] = "1/60 s", [82] = "1/80 s", [83] = "1/100 s", [84] = "1/125 s", [85] = "1/160 s",
    [87] = "1/200 s", [88] = "1/250 s", [89] = "1/320 s", [90] = "1/400 s", [91] = "1/500 s", [92] = "1/640 s",
    [93] = "1/800 s", [94] = "1/1000 s", [95] = "1/1250 s", [96] = "1/1600 s", [97] = "1/2000 s", [98] = "1/2500 s",
    [99] = "1/3200 s", [100] = "1/4000 s", [101] = "1/5000 s", [102] = "1/6400 s", [108] = "1/8000 s",
    [109] = "1/10000 s",
}

local iso_numbers = {
    [0] = 0, [1] = 50, [2] = 80, [3] = 100, [4] = 125, [5] = 160, [6] = 200, [7] = 250, [8] = 320, [9] = 400,
    [10] = 500, [11] = 640, [12] = 800, [13] = 1000, [14] = 1250, [15] = 1600, [16] = 2000, [17] = 2500,
    [18] = 3200, [19] = 4000, [20] = 5000, [21] = 6400, [22] = 8000, [23] = 10000, [24] = 12800, [25] = 16000,
    [26] = 20000, [27] = 25600, [28] = 32000, [29] = 40000, [30] = 51200,
}

local record_fields = {
    { name = "title", offset = 0, kind = "text", size = 52, count = 1,
      meaning = "Title, opaque bytes in any encoding. It may fill all 52 bytes: bound every read." },
    { name = "mode", offset = 52, kind = "word", size = 4, count = 1,
      meaning = "Shooting mode, SM_MODE_AUTO to SM_MODE_MANUAL. Camera: 0 to 5 (5 gives the phone 4, " ..
          "unknown values give 1). The mode says which exposure values the record carries." },
    { name = "av_index", offset = 56, kind = "word", size = 4, count = 1,
      meaning = "Aperture. Camera: step code of `tKT7_APEX_AV`. Phone: f-number times ten, a value of " ..
          "`tPRO_COMMON_AV`. 0 where the mode carries no aperture." },
    { name = "tv_index", offset = 60, kind = "word", size = 4, count = 1,
      meaning = "Shutter time. Camera: step code of `tKT7_APEX_TV`. Phone: position 0 to 109 in that table." ..
          " 0 where the mode carries no shutter time." },
    { name = "iso", offset = 64, kind = "word", size = 4, count = 1,
      meaning = "Sensitivity. Camera: full-step code of `tKT7_APEX_SV`. Phone: ISO number of " ..
          "`tPRO_COMMON_SV`, 0 automatic, taken from whichever of the camera's two settings is in " ..
          "force." },
    { name = "iso_1_3", offset = 68, kind = "word", size = 4, count = 1,
      meaning = "Sensitivity in third steps. Camera: code of `tKT7_APEX_SV_1_3`. To the phone: ISO number " ..
          "of `tPRO_COMMON_SV`. From the phone: position 0 to 30 in `tKT7_APEX_SV_1_3`, not an ISO " ..
          "number." },
    { name = "ev_step", offset = 72, kind = "word", size = 4, count = 1,
      meaning = "Exposure compensation. Camera: third steps 0 to 30, 15 none. Phone: 0 to 100, 50 none, a " ..
          "value of `tPRO_COMMON_EV`; the bare number 15 in mode 4." },
    { name = "metering", offset = 76, kind = "word", size = 4, count = 1,
      meaning = "Metering." },
    { name = "drive", offset = 80, kind = "word", size = 4, count = 1,
      meaning = "Drive." },
    { name = "hdr", offset = 84, kind = "word", size = 4, count = 1,
      meaning = "HDR." },
    { name = "type", offset = 88, kind = "word", size = 4, count = 1,
      meaning = "White-balance type; 10 is Kelvin, forced on the way to the camera for presets that were " ..
          "not made on a KT camera and name a colour temperature." },
    { name = "k_value", offset = 92, kind = "word", size = 4, count = 1,
      meaning = "Colour temperature of the Kelvin type; 0 none." },
    { name = "cwb_red", offset = 96, kind = "word", size = 4, count = 1,
      meaning = "Custom white balance: red." },
    { name = "cwb_green", offset = 100, kind = "word", size = 4, count = 1,
      meaning = "Custom white balance: green." },
    { name = "cwb_blue", offset = 104, kind = "word", size = 4, count = 1,
      meaning = "Custom white balance: blue." },
    { name = "auto_xy", offset = 108, kind = "word", size = 4, count = 1,
      meaning = "Fine adjustment of the white balance auto." },
    { name = "auto_tungsten_xy", offset = 112, kind = "word", size = 4, count = 1,
      meaning = "Fine adjustment of the white balance auto tungsten." },
    { name = "daylight_xy", offset = 116, kind = "word", size = 4, count = 1,
      meaning = "Fine adjustment of the white balance daylight." },
    { name = "cloudy_xy", offset = 120, kind = "word", size = 4, count = 1,
      meaning = "Fine adjustment of the white balance cloudy." },
    { name = "flu_w_xy", offset = 124, kind = "word", size = 4, count = 1,
      meaning = "Fine adjustment of the white balance fluorescent white." },
    { name = "flu_n_xy", offset = 128, kind = "word", size = 4, count = 1,
      meaning = "Fine adjustment of the white balance fluorescent neutral." },
    { name = "flu_d_xy", offset = 132, kind = "word", size = 4, count = 1,
      meaning = "Fine adjustment of the white balance fluorescent daylight." },
    { name = "tungsten_xy", offset = 136, kind = "word", size = 4, count = 1,
      meaning = "Fine adjustment of the white balance tungsten." },
    { name = "flash_xy", offset = 140, kind = "word", size = 4, count = 1,
      meaning = "Fine adjustment of the white balance flash." },
    { name = "cwb_xy", offset = 144, kind = "word", size = 4, count = 1,
      meaning = "Fine adjustment of the white balance custom." },
    { name = "k_xy", offset = 148, kind = "word", size = 4, count = 1,
      meaning = "Fine adjustment of the white balance Kelvin." },
    { name = "color_style", offset = 152, kind = "word", size = 4, count = 1, in_style = true,
      meaning = "Selected colour style, 0 to 13. Presets that were not made on a KT camera, and korvel-made" ..
          " presets without a smart filter, are put into style 13 (C4) on their way to the camera." },
    { name = "cs_color_off_color", offset = 156, kind = "word", size = 4, count = 1, in_style = true,
      meaning = "Off-colour setting of the styles; -1 whenever style 13 was forced." },
    { name = "cs_color", offset = 160, kind = "colors", size = 156, count = 13, in_style = true,
      meaning = "Colour of styles 1 to 13, style s at index s - 1 (style 0 has none): camera 0 to 200, " ..
          "phone 0 to 255." },
    { name = "cs_saturation", offset = 316, kind = "words", size = 56, count = 14, in_style = true,
      meaning = "Saturation of the styles 0 to 13, style s at index s." },
    { name = "cs_sharpness", offset = 372, kind = "words", size = 56, count = 14, in_style = true,
      meaning = "Sharpness of the styles 0 to 13, style s at index s." },
    { name = "cs_contrast", offset = 428, kind = "words", size = 56, count = 14, in_style = true,
      meaning = "Contrast of the styles 0 to 13, style s at index s." },
    { name = "cs_hue", offset = 484, kind = "words", size = 56, count = 14, in_style = true,
      meaning = "Hue of the styles 0 to 13, style s at index s." },
    { name = "smart_filter", offset = 540, kind = "word", size = 4, count = 1,
      meaning = "Smart filter; 0 none." },
    { name = "flash", offset = 544, kind = "word", size = 4, count = 1,
      meaning = "Flash." },
    { name = "flash_ev", offset = 548, kind = "word", size = 4, count = 1,
      meaning = "Flash compensation." },
    { name = "af_mode", offset = 552, kind = "word", size = 4, count = 1,
      meaning = "Autofocus: mode." },
    { name = "af_area", offset = 556, kind = "word", size = 4, count = 1,
      meaning = "Autofocus: area." },
    { name = "photosize", offset = 560, kind = "word", size = 4, count = 1,
      meaning = "Picture size." },
    { name = "touch_af", offset = 564, kind = "word", size = 4, count = 1,
      meaning = "Touch AF." },
    { name = "selection_af_pos_x", offset = 568, kind = "word", size = 4, count = 1,
      meaning = "Selection AF frame: horizontal position." },
    { name = "selection_af_pos_y", offset = 572, kind = "word", size = 4, count = 1,
      meaning = "Selection AF frame: vertical position." },
    { name = "selection_af_width", offset = 576, kind = "word", size = 4, count = 1,
      meaning = "Selection AF frame: width." },
    { name = "selection_af_height", offset = 580, kind = "word", size = 4, count = 1,
      meaning = "Selection AF frame: height." },
    { name = "selection_af_box_size", offset = 584, kind = "word", size = 4, count = 1,
      meaning = "Selection AF frame: size of its box." },
    { name = "multi_af_pos_x", offset = 588, kind = "word", size = 4, count = 1,
      meaning = "Multi AF frame: horizontal position. The phone has no use for it but carries it." },
    { name = "multi_af_pos_y", offset = 592, kind = "word", size = 4, count = 1,
      meaning = "Multi AF frame: vertical position. The phone has no use for it but carries it." },
    { name = "multi_af_width", offset = 596, kind = "word", size = 4, count = 1,
      meaning = "Multi AF frame: width. The phone has no use for it but carries it." },
    { name = "multi_af_height", offset = 600, kind = "word", size = 4, count = 1,
      meaning = "Multi AF frame: height. The phone has no use for it but carries it." },
    { name = "multi_af_box_size", offset = 604, kind = "word", size = 4, count = 1,
      meaning = "Multi AF frame: size of its box. The phone has no use for it but carries it." },
    { name = "timer_time", offset = 608, kind = "word", size = 4, count = 1,
      meaning = "Self-timer: delay." },
    { name = "timer_count", offset = 612, kind = "word", size = 4, count = 1,
      meaning = "Self-timer: number of shots." },
    { name = "timer_interval", offset = 616, kind = "word", size = 4, count = 1,
      meaning = "Self-timer: interval between shots." },
    { name = "counti_h_frame", offset = 620, kind = "word", size = 4, count = 1,
      meaning = "Continuous drive: high speed. \"counti\" is the camera's spelling." },
    { name = "counti_n_frame", offset = 624, kind = "word", size = 4, count = 1,
      meaning = "Continuous drive: normal speed." },
    { name = "burst_frame", offset = 628, kind = "word", size = 4, count = 1,
      meaning = "Continuous drive: burst." },
    { name = "drive_set_conti", offset = 632, kind = "word", size = 4, count = 1,
      meaning = "The selected continuous drive." },
    { name = "reserved_636", offset = 636, kind = "words", size = 24, count = 6,
      meaning = "Words without a meaning here, carried byte for byte." },
    { name = "quality", offset = 660, kind = "word", size = 4, count = 1,
      meaning = "Picture quality." },
    { name = "bulb", offset = 664, kind = "word", size = 4, count = 1,
      meaning = "Bulb exposure." },
    { name = "preset_num", offset = 668, kind = "word", size = 4, count = 1,
      meaning = "Position in the camera's preset list, 0 to 39. Deleting other presets renumbers it." },
    { name = "custom_id", offset = 672, kind = "word", size = 4, count = 1,
      meaning = "The camera's identity of the stored preset." },
    { name = "applocal_id", offset = 676, kind = "word", size = 4, count = 1,
      meaning = "The phone application's own identity of the preset." },
    { name = "server_id", offset = 680, kind = "word", size = 4, count = 1,
      meaning = "The preset's identity on the phone application's server." },
    { name = "made_id", offset = 684, kind = "word", size = 4, count = 1,
      meaning = "Origin, read as hexadecimal digits: SM_MADE_KIND, SM_MADE_FAMILY, SM_MADE_MAKER. When the " ..
          "camera stores a korvel-made KT preset with a smart filter, it keeps only the digits 2 to " ..
          "4." },
    { name = "screennail_path", offset = 688, kind = "text", size = 52, count = 1,
      meaning = "Path of the preset's JPEG screennail in the camera's file system; of no use to the phone." },
    { name = "linked_custom_mode", offset = 740, kind = "word", size = 4, count = 1,
      meaning = "Custom mode that uses the preset: 0 none, 1 CUSTOM1, 2 CUSTOM2. Set in replies only." },
}
-- end of the tables

local header_size = 8
local busy_function = reply_bit + 255 -- the desk's camera says so to a second phone
local longest_reply = 16 * 1024 * 1024 -- no picture of a camera comes near; a larger one is a broken header
local shortest_picture = 100 -- of a preset to be stored
local delete_tails = { [0] = true, [8] = true, [16] = true } -- bytes without a meaning behind a deletion's records

local request_names = {
    [0] = "link state off",
    [1] = "preset list",
    [2] = "picture",
    [3] = "store",
    [4] = "update",
    [5] = "delete",
    [255] = "link state on",
}

local function is_reply(number)
    return number >= reply_bit and number <= reply_bit + last_function
end

local function name_of_function(number)
    if number == busy_function then
        return "busy"
    end
    return request_names[is_reply(number) and number - reply_bit or number] or "unknown function"
end

local function kind_of_function(number)
    return is_reply(number) and "reply" or "request"
end

local function function_names()
    local names = { [busy_function] = "busy" }
    for number, name in pairs(request_names) do
        names[number] = name
        if number >= 1 and number <= 5 then
            names[reply_bit + number] = name .. " (reply)"
        end
    end
    return names
end

-- ---- What the values of a record are called -------------------------------------------------------------------------

local nothing = "-" -- what the camera decides

-- The modes that leave a value to the photographer, by their codes.
local with_aperture = { [2] = true, [4] = true }
local with_shutter = { [3] = true, [4] = true }
local without_compensation = { [4] = true }
local kelvin = 10 -- the white balance that has a colour temperature

local function aperture_text(value, record)
    if not with_aperture[record.mode] or value == 0 then
        return nothing
    elseif value < 0 then
        return "code " .. value
    end
    local tenths = value % 10
    local whole = string.format("%d", (value - tenths) / 10)
    return tenths == 0 and "f/" .. whole or string.format("f/%s.%d", whole, tenths)
end

local function shutter_text(value, record)
    if not with_shutter[record.mode] then
        return nothing
    end
    return shutter_times[value] or "step " .. value
end

local function iso_text(value)
    return value == 0 and "ISO auto" or "ISO " .. value
end

-- A phone sends a position on the scale, a camera the number itself.
local function third_iso_text(value, record)
    if record.is_in_reply then
        return iso_text(value)
    end
    return iso_numbers[value] and iso_text(iso_numbers[value]) or "step " .. value
end

-- Codes 0 to 100 stand for -5 to +5, in thirds.
local function compensation_text(value, record)
    if without_compensation[record.mode] then
        return nothing
    elseif value < 0 or value > 100 then
        return "code " .. value
    end
    local thirds = math.floor((math.abs(value - 50) * 3 + 5) / 10)
    local fraction = ({ [0] = "", "1/3", "2/3" })[thirds % 3]
    local whole = (thirds - thirds % 3) / 3
    local number = fraction
    if fraction == "" or whole > 0 then
        number = string.format("%d%s%s", whole, fraction == "" and "" or " ", fraction)
    end
    return (thirds == 0 and "" or value < 50 and "-" or "+") .. number .. " EV"
end

local function temperature_text(value, record)
    return record.type == kelvin and value .. " K" or nothing
end

-- The hexadecimal digits of an origin: its maker, and the camera's family.
local function origin_text(value)
    local family = math.floor(value / 0x10) % 0x10
    local maker = math.floor(value / 0x100) % 0x10
    local place = family == 4 and "made on a KT camera" or "not made on a KT camera"
    return string.format("0x%x, %s%s", value % 0x100000000, maker == 1 and "korvel, " or "", place)
end

local texts = {
    av_index = aperture_text,
    tv_index = shutter_text,
    iso = iso_text,
    iso_1_3 = third_iso_text,
    ev_step = compensation_text,
    k_value = temperature_text,
    made_id = origin_text,
}

-- Codes that have a name each, which filters may use, too.
local names_of_codes = {
    mode = mode_names,
    type = white_balance_names,
    color_style = color_style_names,
    linked_custom_mode = custom_mode_names,
}

local function style_text(style)
    return color_style_names[style] or "style " .. style
end

-- ---- Fields that filters know ---------------------------------------------------------------------------------------

local field = {}
local registered = {}

local function define(key, name, kind, label, ...)
    field[key] = ProtoField[kind]("shotmentor." .. name, label, ...)
    registered[#registered + 1] = field[key]
end

local results_shown = {}
for code, result in pairs(results) do
    results_shown[code] = result[1]
end

define("number", "function", "int32", "Function", base.DEC, function_names())
define("length", "length", "int32", "Total length", base.DEC, nil, nil, "Bytes of the message, its header included")
define("response_in", "response_in", "framenum", "Reply in frame", base.NONE, frametype.RESPONSE)
define("response_to", "response_to", "framenum", "Reply to frame", base.NONE, frametype.REQUEST)
define("response_time", "response_time", "relative_time", "Time from the request")
define("begins_in", "begins_in", "framenum", "Begins in frame", base.NONE)
define("completed_in", "completed_in", "framenum", "Complete in frame", base.NONE)
define("packets", "packets", "uint32", "Packets", base.DEC, nil, nil, "Packets that the message came in")
define("part", "part", "bytes", "Part of a message")
define("skipped", "skipped", "bytes", "Bytes that are thrown away")
define("phone_result", "phone_result", "int32", "Result of the phone", base.DEC, results_shown)
define("custom_id", "custom_id", "int32", "Id on the camera (custom_id)", base.DEC)
define("applocal_id", "applocal_id", "int32", "Id on the phone (applocal_id)", base.DEC)
define("preset_num", "preset_num", "int32", "Preset number (preset_num)", base.DEC)
define("result", "result", "int32", "Result", base.DEC, results_shown)
define("model", "model", "string", "Model")
define("layout", "layout", "int32", "Record layout", base.DEC)
define("presets", "presets", "int32", "Number of presets", base.DEC)
define("busy", "busy", "int32", "Busy", base.DEC)
define("picture", "picture", "bytes", "Picture")
define("entry", "delete", "none", "Preset to delete")
define("delete_preset", "delete.preset_num", "int32", "Preset number", base.DEC)
define("delete_id", "delete.custom_id", "int32", "Id on the camera", base.DEC)
define("tail", "tail", "bytes", "Bytes without a meaning")
define("surplus", "surplus", "bytes", "Bytes that nothing asks for")
define("record", "record", "none", "Preset record")
define("styles", "record.cs_info", "none", "Colour styles (cs_info)")

local function define_record_fields(entry)
    local name = "record." .. entry.name
    if entry.kind == "text" then
        define(name, name, "string", entry.name, base.UNICODE, entry.meaning)
    elseif entry.kind == "colors" then
        define(name, name, "none", entry.name, entry.meaning)
        for _, color in ipairs({ "red", "green", "blue" }) do
            define(name .. "." .. color, name .. "." .. color, "int32", color, base.DEC, nil, nil, entry.meaning)
        end
    else
        local names = names_of_codes[entry.name] or entry.name == "tv_index" and shutter_times or nil
        define(name, name, "int32", entry.name, base.DEC, names, nil, entry.meaning)
    end
end

for _, entry in ipairs(record_fields) do
    define_record_fields(entry)
end
shotmentor.fields = registered

local remark = {
    malformed = { "malformed", "The message is not as it should be", expert.group.MALFORMED, expert.severity.ERROR },
    stuck = {
        "stuck",
        "The camera answers nothing until the phone disconnects",
        expert.group.PROTOCOL,
        expert.severity.ERROR,
    },
    unanswered = { "unanswered", "This request gets no reply", expert.group.SEQUENCE, expert.severity.WARN },
    refused = { "refused", "The camera did not do it", expert.group.RESPONSE_CODE, expert.severity.WARN },
    surplus = { "surplus_bytes", "More bytes than the message has a use for", expert.group.PROTOCOL,
        expert.severity.NOTE },
    cut = { "cut", "The capture does not hold the whole packet", expert.group.REASSEMBLE, expert.severity.NOTE },
}
local experts = {}
for key, about in pairs(remark) do
    remark[key] = ProtoExpert.new("shotmentor." .. about[1], about[2], about[3], about[4])
    experts[#experts + 1] = remark[key]
end
shotmentor.experts = experts

-- ---- From bytes to trees --------------------------------------------------------------------------------------------

-- A message while it is read: its bytes, how many of them have been, and the tree that they go into.
--   remaining(body)        bytes that have not been read
--   word(body, field)      reads a word into the tree; nil, and a remark, when there are not four bytes
local function remaining(body)
    return body.bytes:len() - body.read
end

local function next_bytes(body, size)
    local range = body.bytes(body.read, size)
    body.read = body.read + size
    return range
end

local function say(body, kind, text)
    body.has_remark = true
    body.tree:add_proto_expert_info(remark[kind], text)
end

local function word(body, key)
    if remaining(body) < 4 then
        if not body.is_short then
            say(body, "malformed", "The message ends before its " .. key:gsub("_", " "))
        end
        body.is_short = true
        return nil
    end
    local range = next_bytes(body, 4)
    return range:le_int(), body.tree:add_le(field[key], range)
end

local function result_word(body)
    local result, item = word(body, "result")
    if result and result ~= 1 then
        local known = results[result]
        item:add_proto_expert_info(remark.refused, known and known[2] or "Result " .. result .. " has no name")
    end
    if result then
        body.summary = body.summary .. ", " .. (results_shown[result] or "result " .. result)
    end
    return result
end

-- A text ends at its first zero byte, or fills its place.
local function add_text(tree, key, range)
    local size = range:bytes():raw():find("\0", 1, true)
    local text = size and range(0, size - 1) or range
    if text:len() == 0 then
        tree:add(field[key], range, "")
    else
        tree:add_packet_field(field[key], text, ENC_UTF_8 + ENC_STRING)
    end
end

local function add_word(tree, entry, range, record)
    local item = tree:add_le(field["record." .. entry.name], range)
    local text = texts[entry.name]
    if text then
        local value = range:le_int()
        item:set_text(string.format("%s: %s (%d)", entry.name, text(value, record), value))
    end
    return item
end

local function add_words(tree, entry, bytes, record)
    for index = 0, entry.count - 1 do
        local item = add_word(tree, entry, bytes(entry.offset + 4 * index, 4), record)
        if entry.in_style and entry.count > 1 then
            item:append_text(" (" .. style_text(index) .. ")")
        end
    end
end

-- Style 0 has no colour: the first triple is that of style 1.
local function add_colors(tree, entry, bytes)
    local name = "record." .. entry.name
    for index = 0, entry.count - 1 do
        local triple = bytes(entry.offset + 12 * index, 12)
        local branch = tree:add(field[name], triple)
        local values = {}
        for place, color in ipairs({ "red", "green", "blue" }) do
            local range = triple(4 * place - 4, 4)
            branch:add_le(field[name .. "." .. color], range)
            values[place] = range:le_int()
        end
        branch:set_text(string.format("%s: %d %d %d (%s)", entry.name, values[1], values[2], values[3],
            style_text(index + 1)))
    end
end

local function add_field(tree, entry, bytes, record)
    if entry.kind == "text" then
        add_text(tree, "record." .. entry.name, bytes(entry.offset, entry.size))
    elseif entry.kind == "colors" then
        add_colors(tree, entry, bytes)
    else
        add_words(tree, entry, bytes, record)
    end
end

local function styles_range(bytes)
    local first, last
    for _, entry in ipairs(record_fields) do
        if entry.in_style then
            first, last = first or entry, entry
        end
    end
    return bytes(first.offset, last.offset + last.size - first.offset)
end

local function offset_of(name)
    for _, entry in ipairs(record_fields) do
        if entry.name == name then
            return entry.offset
        end
    end
end

local mode_offset, type_offset = offset_of("mode"), offset_of("type")

-- Reads a record into the tree. False, and a remark, when there are too few bytes for it.
local function preset_record(body, label)
    if remaining(body) < record_size then
        say(body, "malformed", string.format("%d bytes are no record of %d", remaining(body), record_size))
        next_bytes(body, remaining(body))
        return false
    end
    local bytes = next_bytes(body, record_size)
    local record = {
        mode = bytes(mode_offset, 4):le_int(),
        type = bytes(type_offset, 4):le_int(),
        is_in_reply = body.is_reply,
    }
    local tree = body.tree:add(field.record, bytes)
    tree:set_text(label)
    local styles
    for _, entry in ipairs(record_fields) do
        if entry.in_style then
            styles = styles or tree:add(field.styles, styles_range(bytes))
            add_field(styles, entry, bytes, record)
        else
            add_field(tree, entry, bytes, record)
        end
    end
    return true
end

local function record_list(body)
    local layout, layout_item = word(body, "layout")
    if layout and layout ~= layout_version then
        layout_item:add_proto_expert_info(remark.malformed, "Only record layout " .. layout_version .. " is known")
    end
    local count, item = word(body, "presets")
    if not count then
        return
    end
    body.summary = body.summary .. ", " .. count .. (count == 1 and " preset" or " presets")
    if count < 0 or count > preset_limit then
        item:add_proto_expert_info(remark.malformed, "A camera has 0 to " .. preset_limit .. " presets")
    end
    for number = 1, math.min(count, preset_limit) do
        if not preset_record(body, string.format("Preset record %d of %d", number, count)) then
            return
        end
    end
end

local function picture_bytes(body)
    if remaining(body) > 0 then
        body.summary = body.summary .. ", " .. remaining(body) .. " bytes"
        body.tree:add(field.picture, next_bytes(body, remaining(body)))
    end
end

-- ---- The payload of each message ------------------------------------------------------------------------------------

local payload = {}

payload[0] = function(body)
    word(body, "phone_result")
end

payload[2] = function(body)
    local id, item = word(body, "custom_id")
    word(body, "applocal_id")
    body.id = id
    if id then
        body.summary = body.summary .. " of preset id " .. id
    end
    if id and id <= 0 then
        item:add_proto_expert_info(remark.unanswered, "An id of 0 or below gets no reply")
    end
end

payload[3] = function(body)
    if not preset_record(body, "Preset record") then
        return
    end
    local size = remaining(body)
    picture_bytes(body)
    if size < shortest_picture then
        say(body, "malformed", string.format("A picture has %d bytes at least, this one %d", shortest_picture, size))
    end
end

payload[4] = function(body)
    preset_record(body, "Preset record")
end

payload[5] = function(body)
    if remaining(body) < 8 then
        say(body, "malformed", "The request names no preset")
    end
    while remaining(body) >= 8 do
        local range = next_bytes(body, 8)
        local number, id = range(0, 4):le_int(), range(4, 4):le_int()
        local item = body.tree:add(field.entry, range)
        item:set_text(string.format("Preset to delete: number %d, id %d", number, id))
        item:add_le(field.delete_preset, range(0, 4))
        item:add_le(field.delete_id, range(4, 4))
        if number < 0 or number >= preset_limit or id == 0 then
            item:add_proto_expert_info(remark.malformed, "A faulty entry: the camera deletes nothing")
        end
    end
    if remaining(body) > 0 then
        say(body, "malformed", "The last entry is incomplete")
    end
end

payload[reply_bit + 1] = function(body)
    if remaining(body) < model_size then
        say(body, "malformed", "The message ends before its model")
        return
    end
    add_text(body.tree, "model", next_bytes(body, model_size))
    record_list(body)
end

payload[reply_bit + 2] = function(body)
    body.id = word(body, "custom_id")
    if body.id then
        body.summary = body.summary .. " of preset id " .. body.id
        picture_bytes(body)
    end
end

payload[reply_bit + 3] = function(body)
    result_word(body)
    word(body, "preset_num")
    word(body, "custom_id")
    word(body, "applocal_id")
end

payload[reply_bit + 4] = function(body)
    result_word(body)
end

payload[reply_bit + 5] = function(body)
    result_word(body)
    record_list(body)
    if remaining(body) > 0 and delete_tails[remaining(body)] then
        body.tree:add(field.tail, next_bytes(body, remaining(body)))
    end
end

payload[busy_function] = function(body)
    word(body, "busy")
    say(body, "refused", "The camera serves another phone")
end

-- ---- Which reply belongs to which request ---------------------------------------------------------------------------

local waiting = {} -- requests without a reply, by link and function
local request_of = {} -- by the key of a reply
local reply_of = {} -- by the key of a request
local is_linked = {} -- by the key of any message

local function expects_reply(number)
    return number >= 1 and number <= 5
end

-- A phone has one request on its way. Where several wait, the older ones got no reply: the newest is meant, and of
-- pictures the newest of the same preset.
local function take_request(requests, id)
    for index = #requests, 1, -1 do
        local request = requests[index]
        if not id or request.id == id then
            for _ = 1, index do
                table.remove(requests, 1)
            end
            return request
        end
    end
end

local function link_message(body, place, message)
    if is_linked[message.key] or not place then
        return
    end
    is_linked[message.key] = true
    local number = body.number
    local queue = place.link .. " " .. (is_reply(number) and number - reply_bit or number)
    if expects_reply(number) then
        waiting[queue] = waiting[queue] or {}
        table.insert(waiting[queue], message)
    elseif is_reply(number) and waiting[queue] then
        local request = take_request(waiting[queue], body.id)
        if request then
            request_of[message.key] = request
            reply_of[request.key] = message
        end
    end
end

-- Of seconds with a fraction; the frames of a capture may stand in any order.
local function duration(seconds)
    local nanoseconds = math.floor(seconds * 1e9 + 0.5)
    local whole = math.floor(nanoseconds / 1e9)
    return NSTime.new(whole, nanoseconds - whole * 1e9)
end

local function add_links(tree, message)
    local request, reply = request_of[message.key], reply_of[message.key]
    if request then
        tree:add(field.response_to, request.frame):set_generated()
        tree:add(field.response_time, duration(message.time - request.time)):set_generated()
    end
    if reply then
        tree:add(field.response_in, reply.frame):set_generated()
    end
end

-- ---- One message ----------------------------------------------------------------------------------------------------

local function add_summary(pinfo, tree, text)
    tree:append_text(", " .. text)
    if not pinfo.private.shotmentor then
        pinfo.cols.protocol = "ShotMentor"
        pinfo.cols.info = text
        pinfo.private.shotmentor = "shown"
    else
        pinfo.cols.info:append("; " .. text)
    end
end

local function add_header(body)
    body.tree:add_le(field.number, next_bytes(body, 4))
    body.tree:add_le(field.length, next_bytes(body, 4))
end

local function add_payload(body)
    local read = payload[body.number]
    if read then
        read(body)
    elseif not request_names[body.number] then
        local is_request = not body.is_reply
        say(body, is_request and "unanswered" or "malformed",
            is_request and "No camera knows this function: it takes the request in and does not answer"
                or "No camera sends this reply")
    end
    if remaining(body) > 0 then
        local item = body.tree:add(field.surplus, next_bytes(body, remaining(body)))
        if not body.has_remark then
            item:add_proto_expert_info(remark.surplus)
        end
    end
end

-- `key` is the same whenever the message is shown again.
local function show_message(bytes, pinfo, tree, place, key)
    local number = bytes(0, 4):le_int()
    local body = { bytes = bytes, read = 0, tree = tree:add(shotmentor, bytes()), number = number }
    body.is_reply = is_reply(number)
    body.summary = kind_of_function(number) .. ": " .. name_of_function(number)
    add_header(body)
    add_payload(body)
    local message = { key = key, frame = pinfo.number, time = pinfo.rel_ts, id = body.id }
    link_message(body, place, message)
    add_links(body.tree, message)
    add_summary(pinfo, body.tree, body.summary)
    return body.tree
end

-- ---- From packets to messages ---------------------------------------------------------------------------------------

-- What a header begins: "message", or
--   "overlong"  a message that is counted and thrown away
--   "refused"   one that is thrown away with its packet
--   "broken"    one after which the camera is stuck
local function judge(number, total)
    if not is_reply(number) and (number < 0 or number > last_function or total < 0) then
        return "refused"
    elseif total < header_size then
        return "broken"
    end
    return total > (is_reply(number) and longest_reply or request_limit) and "overlong" or "message"
end

-- The remark on each of them, its text, and what the list of packets says.
local what_becomes = {
    overlong = { "unanswered", "Longer than any message may be: it is counted and thrown away", "too long" },
    refused = { "unanswered", "No message begins like this: the camera refuses it with its packet", "no message" },
    broken = {
        "stuck",
        "Shorter than its own header: the camera answers nothing until the phone disconnects",
        "shorter than its header",
    },
}

-- Shows the start of what is no message, together with the bytes that are lost with it.
local function show_refused(bytes, pinfo, tree, kind)
    local body = { bytes = bytes, read = 0, tree = tree:add(shotmentor, bytes()) }
    add_header(body)
    say(body, what_becomes[kind][1], what_becomes[kind][2])
    if remaining(body) > 0 then
        body.tree:add(field.skipped, next_bytes(body, remaining(body)))
    end
    add_summary(pinfo, body.tree, what_becomes[kind][3])
    return body.tree
end

local function show_skipped(bytes, pinfo, tree)
    local item = tree:add(shotmentor, bytes())
    item:add(field.skipped, bytes())
    add_summary(pinfo, item, "rest of a message that is thrown away")
end

local function show_part(bytes, pinfo, tree, message)
    local item = tree:add(shotmentor, bytes())
    item:add(field.part, bytes())
    if message.last then
        item:add(field.completed_in, message.last):set_generated()
    end
    add_summary(pinfo, item, "part of a message")
    return item
end

local directions = {} -- what each sender has begun: { skip = bytes to throw away, message = what is collected }
local pieces_of = {} -- what a packet holds, by its key
local skipped_in = {} -- how many bytes at the start of a TCP segment are thrown away, by its key

local function direction_of(place)
    directions[place.key] = directions[place.key] or { skip = 0 }
    return directions[place.key]
end

local function word_at(bytes, at)
    local a, b, c, d = bytes:byte(at, at + 3)
    local value = a + b * 0x100 + c * 0x10000 + d * 0x1000000
    return value < 0x80000000 and value or value - 0x100000000
end

-- Adds bytes to the collected message, up to `size` of them.
local function take(message, bytes, at, size)
    local taken = bytes:sub(at + 1, at + math.max(size - message.size, 0))
    message.size = message.size + #taken
    if #taken > 0 then
        message.parts[#message.parts + 1] = taken
    end
    return at + #taken
end

local function read_header(message)
    local head = table.concat(message.parts)
    message.total = word_at(head, 5)
    message.kind = judge(word_at(head, 1), message.total)
end

-- How far the bytes of a packet belong to a message: a message that is lost with its packet has all of them.
local function size_within(message, left)
    local is_lost = message.kind == "broken" or message.kind == "refused"
    return is_lost and message.size + left or message.total
end

local function finish(direction, message, frame)
    direction.message = nil
    message.last = frame
    if message.kind == "overlong" then
        direction.skip = math.max(message.total - message.size, 0)
    end
    if message.packets > 1 then
        message.bytes = table.concat(message.parts)
    end
    message.parts = nil
end

-- Throws away what is left of a message that is too long.
local function skip_piece(direction, bytes, at)
    local size = math.min(direction.skip, #bytes - at)
    direction.skip = direction.skip - size
    return { kind = "skipped", start = at, size = size }
end

-- What lies at `at` of a packet: { kind, start, size }, with the message that it belongs to.
local function next_piece(direction, bytes, at, frame)
    if direction.skip > 0 then
        return skip_piece(direction, bytes, at)
    end
    local start = at
    local message = direction.message or { parts = {}, size = 0, first = frame, packets = 0 }
    direction.message = message
    message.packets = message.packets + 1
    at = take(message, bytes, at, header_size)
    if message.size >= header_size then
        if not message.total then
            read_header(message)
        end
        at = take(message, bytes, at, size_within(message, #bytes - at))
    end
    local piece = { kind = message.kind or "part", start = start, size = at - start, message = message }
    if piece.kind == "message" and message.size < message.total then
        piece.kind = "part"
    end
    if piece.kind ~= "part" then
        finish(direction, message, frame)
    end
    return piece
end

local function pieces_in(packet, place, frame, key)
    if not pieces_of[key] and place then
        local bytes, direction, pieces, at = packet:raw(0, packet:len()), direction_of(place), {}, 0
        while at < #bytes do
            pieces[#pieces + 1] = next_piece(direction, bytes, at, frame)
            at = at + pieces[#pieces].size
        end
        pieces_of[key] = pieces
    end
    return pieces_of[key] or {}
end

-- Where packets keep the boundaries of messages, none holds bytes of two, and a header is never cut.
local function check_boundaries(item, place, frame, pieces, index)
    local piece = pieces[index]
    if not place or place.is_stream or piece.kind == "skipped" then
        return
    end
    if piece.kind == "part" and piece.size < header_size and piece.message.first == frame then
        item:add_proto_expert_info(remark.malformed, "The first packet of a message holds its 8 header bytes")
    end
    if index < #pieces and piece.kind == "message" then
        item:add_proto_expert_info(remark.stuck, "Bytes of another message follow in the same packet")
    end
end

local function add_origin(item, message)
    if message.packets > 1 then
        item:add(field.begins_in, message.first):set_generated()
        item:add(field.packets, message.packets):set_generated()
    end
end

local function show_piece(piece, packet, pinfo, tree, place, key)
    local bytes = packet(piece.start, piece.size):tvb()
    if piece.kind == "skipped" then
        return show_skipped(bytes, pinfo, tree)
    elseif piece.kind == "part" then
        return show_part(bytes, pinfo, tree, piece.message)
    end
    if piece.message.bytes then
        bytes = ByteArray.new(piece.message.bytes, true):tvb("ShotMentor message")
    end
    local item
    if piece.kind == "message" then
        item = show_message(bytes, pinfo, tree, place, key)
    else
        item = show_refused(bytes, pinfo, tree, piece.kind)
    end
    add_origin(item, piece.message)
    return item
end

local function dissect_packet(packet, pinfo, tree, place, key)
    local pieces = pieces_in(packet, place, pinfo.number, key)
    for index, piece in ipairs(pieces) do
        local item = show_piece(piece, packet, pinfo, tree, place, key .. " " .. index)
        check_boundaries(item, place, pinfo.number, pieces, index)
    end
end

-- ---- TCP, which puts messages together by itself --------------------------------------------------------------------

local function skip_start(segment, pinfo, tree, place, key)
    if not skipped_in[key] then
        local direction = direction_of(place)
        skipped_in[key] = math.min(direction.skip, segment:len())
        direction.skip = direction.skip - skipped_in[key]
    end
    if skipped_in[key] > 0 then
        show_skipped(segment(0, skipped_in[key]):tvb(), pinfo, tree)
    end
    return skipped_in[key]
end

local function ask_for_more(pinfo, offset, missing)
    pinfo.desegment_offset = offset
    pinfo.desegment_len = missing
end

local function dissect_segment(segment, pinfo, tree, place, key)
    local at, size = skip_start(segment, pinfo, tree, place, key), segment:len()
    while at < size do
        local left = size - at
        if left < header_size then
            return ask_for_more(pinfo, at, DESEGMENT_ONE_MORE_SEGMENT)
        end
        local number, total = segment(at, 4):le_int(), segment(at + 4, 4):le_int()
        local kind = judge(number, total)
        if kind ~= "message" then
            show_refused(segment(at, left):tvb(), pinfo, tree, kind)
            if kind == "overlong" and not pinfo.visited then
                direction_of(place).skip = math.max(total - left, 0)
            end
            return
        elseif left < total then
            return ask_for_more(pinfo, at, total - left)
        end
        show_message(segment(at, total):tvb(), pinfo, tree, place, key .. " " .. at)
        at = at + total
    end
end

-- ---- Links ----------------------------------------------------------------------------------------------------------

local frame_number = Field.new("frame.number")
local adapter = Field.new("hci_mon.adapter_id")
local handle = Field.new("bthci_acl.chandle")
local channel_id = Field.new("btl2cap.cid")
local connected_in = Field.new("btl2cap.connect_in")
local dlci = Field.new("btrfcomm.dlci")

-- Fields of other protocols are there only while a tree is made. Where somebody listens to frames, Wireshark makes one
-- of each when it loads a capture, which is when messages are put together.
local _ = Listener.new("frame", nil, true)

-- The innermost value of a field, as text.
local function last_of(extractor)
    local all = { extractor() }
    return #all > 0 and tostring(all[#all].value) or ""
end

local function tcp_place(pinfo)
    local source, target = tostring(pinfo.src) .. " " .. pinfo.src_port, tostring(pinfo.dst) .. " " .. pinfo.dst_port
    local ends = source < target and { source, target } or { target, source }
    return { is_tcp = true, is_stream = true, link = table.concat(ends, " "), key = source .. " " .. target }
end

-- Which link a packet belongs to, and who sends it; nil while that cannot be told. The channel of an L2CAP connection
-- has one number for each side; the frame that it was connected in is the same for both.
local function place_of(pinfo)
    if pinfo.src_port ~= 0 then
        return tcp_place(pinfo)
    elseif not frame_number() then
        return nil
    end
    local rfcomm = last_of(dlci)
    local link = table.concat({ last_of(adapter), last_of(handle), last_of(connected_in), rfcomm }, " ")
    local key = table.concat({ link, tostring(pinfo.p2p_dir), last_of(channel_id) }, " ")
    return { is_stream = rfcomm ~= "", link = link, key = key }
end

-- A packet of which the capture holds the start alone: nothing is known of the message that follows.
local function show_cut(packet, pinfo, tree, place, key)
    if place and not pieces_of[key] then
        directions[place.key] = nil
        pieces_of[key] = {}
    end
    local item = tree:add(shotmentor, packet())
    item:add_proto_expert_info(remark.cut)
    add_summary(pinfo, item, "cut by the capture")
end

function shotmentor.dissector(packet, pinfo, tree)
    if packet:len() == 0 then
        return 0
    end
    local place = place_of(pinfo)
    -- The same whenever the packet is shown again, and another for each of several packets in a frame.
    local key = table.concat({ pinfo.number, packet:offset(), packet:len() }, " ")
    if packet:len() < packet:reported_len() or pinfo.caplen < pinfo.len then
        show_cut(packet, pinfo, tree, place, key)
    elseif place and place.is_tcp and pinfo.can_desegment > 0 then
        dissect_segment(packet, pinfo, tree, place, key)
    else
        dissect_packet(packet, pinfo, tree, place, key)
    end
    return packet:len()
end

local recognised_in = {} -- the frame in which a link was taken for ours by its first message
local frames_of = {} -- how a channel that nobody saw open was taken for ours, by its sender: { first, has_lengths }
local joined_in = {} -- the packet that a frame of such a channel completes, or "part", by its key

function shotmentor.init()
    waiting, request_of, reply_of, is_linked = {}, {}, {}, {}
    directions, pieces_of, skipped_in, recognised_in = {}, {}, {}, {}
    frames_of, joined_in = {}, {}
end

-- The lengths that the messages have which begin a conversation: a phone's first request, or a reply to it.
local first_lengths = {
    [1] = { 8, 8 },
    [2] = { 16, 16 },
    [3] = { header_size + record_size + shortest_picture, request_limit },
    [4] = { header_size + record_size, header_size + record_size },
    [5] = { 16, header_size + preset_limit * 8 },
    [255] = { 8, 8 },
    [reply_bit + 1] = { 28, 28 + preset_limit * record_size },
    [reply_bit + 2] = { 12, longest_reply },
    [reply_bit + 3] = { 24, 24 },
    [reply_bit + 4] = { 12, 12 },
    [reply_bit + 5] = { 20, 20 + preset_limit * record_size + 16 },
    [busy_function] = { 12, 12 },
}

-- Other protocols begin with small numbers, too: two words must fit before a link is taken for ours.
local function begins_conversation(packet)
    if packet:len() < header_size then
        return false
    end
    local lengths, total = first_lengths[packet(0, 4):le_int()], packet(4, 4):le_int()
    return lengths and total >= lengths[1] and total <= lengths[2]
end

local function dissect_new_connection(packet, pinfo, tree)
    if not begins_conversation(packet) then
        return false
    end
    pinfo.conversation = shotmentor
    shotmentor.dissector(packet, pinfo, tree)
    return true
end

shotmentor:register_heuristic("tcp", dissect_new_connection)

-- RFCOMM has no list of those who may recognise a channel by its bytes. This one is entered for every channel, and
-- leaves to others what is not ours.
local any_channel = Proto("shotmentor_rfcomm", "ShotMentor on any RFCOMM channel")

function any_channel.dissector(packet, pinfo, tree)
    local place = place_of(pinfo)
    if not place then
        return 0
    end
    if not recognised_in[place.link] and begins_conversation(packet) then
        recognised_in[place.link] = pinfo.number
    end
    local first = recognised_in[place.link]
    return first and pinfo.number >= first and shotmentor.dissector(packet, pinfo, tree) or 0
end

-- Where Wireshark did not see a channel open, or does not understand how it was, which is so for channels of Low Energy
-- in a log of the side that accepts them, nothing puts frames together: there, each packet is cut into frames, and has
-- its length in two bytes before the first.
local any_cid = Proto("shotmentor_l2cap", "ShotMentor on an L2CAP channel that was not seen opening")
local length_size = 2

-- Whether a frame is the first of a packet that has its length in front, and a conversation may begin with it.
local function begins_with_length(packet)
    return packet:len() > length_size
        and packet(0, length_size):le_uint() >= packet:len() - length_size
        and begins_conversation(packet(length_size):tvb())
end

local function recognise_frames(packet, pinfo, key)
    if begins_conversation(packet) then
        frames_of[key] = { first = pinfo.number }
    elseif begins_with_length(packet) then
        frames_of[key] = { first = pinfo.number, has_lengths = true, left = 0 }
    end
    return frames_of[key]
end

-- Adds a frame to the packet that its sender has begun; returns that when it is whole, else "part".
local function join_frame(frames, bytes)
    if frames.left == 0 then
        if #bytes < length_size then
            return "part"
        end
        frames.left, frames.parts = bytes:byte(1) + bytes:byte(2) * 0x100, {}
        bytes = bytes:sub(length_size + 1)
    end
    frames.parts[#frames.parts + 1] = bytes:sub(1, frames.left)
    frames.left = math.max(frames.left - #bytes, 0)
    return frames.left == 0 and table.concat(frames.parts) or "part"
end

function any_cid.dissector(packet, pinfo, tree)
    local place = packet:len() > 0 and not connected_in() and place_of(pinfo)
    if not place or place.is_tcp then
        return 0
    end
    local frames = frames_of[place.key] or recognise_frames(packet, pinfo, place.key)
    if not frames or pinfo.number < frames.first then
        return 0
    elseif not frames.has_lengths or packet:len() < packet:reported_len() then
        frames.left = 0
        return shotmentor.dissector(packet, pinfo, tree)
    end
    local key = place.key .. " " .. pinfo.number
    if not joined_in[key] and begins_with_length(packet) then
        frames.left = 0 -- what was begun is lost: the link was, and nobody saw it
    end
    joined_in[key] = joined_in[key] or join_frame(frames, packet:raw(0, packet:len()))
    if joined_in[key] == "part" then
        show_part(packet, pinfo, tree, {})
    elseif #joined_in[key] > 0 then
        shotmentor.dissector(ByteArray.new(joined_in[key], true):tvb("L2CAP packet"), pinfo, tree)
    end
    return packet:len()
end

-- The channels that Low Energy opens, which are the first that others open as well.
for cid = 0x40, 0x7f do
    DissectorTable.get("btl2cap.cid"):add(cid, any_cid)
end

shotmentor.prefs.psm = Pref.uint("L2CAP PSM", 4097, "Where the camera listens on L2CAP; 0 for none")
shotmentor.prefs.channel = Pref.uint(
    "RFCOMM channel",
    0,
    "Where the camera listens on RFCOMM, 1 to 30; 0: what begins with one of our messages"
)
shotmentor.prefs.tcp_port = Pref.uint("TCP port", 0, "Where the camera listens on TCP; 0 for none")

local tables = {
    psm = DissectorTable.get("btl2cap.psm"),
    channel = DissectorTable.get("btrfcomm.dlci"),
    tcp_port = DissectorTable.get("tcp.port"),
}
for _, dissectors in pairs(tables) do
    dissectors:add_for_decode_as(shotmentor)
end
DissectorTable.get("btl2cap.cid"):add_for_decode_as(shotmentor)

local listening = {} -- what is entered into the tables now

local function listen(name, number)
    tables[name]:add(number, shotmentor)
    listening[#listening + 1] = { name = name, number = number }
end

-- The lowest bit of a DLCI says which side opened the session.
local first_dlci, last_dlci = 1 * 2, 30 * 2 + 1

local function enter_preferences()
    for _, entry in ipairs(listening) do
        tables[entry.name]:remove(entry.number, shotmentor)
    end
    listening = {}
    for number = first_dlci, last_dlci do
        tables.channel:add(number, any_channel)
    end
    local prefs = shotmentor.prefs
    if prefs.psm > 0 and prefs.psm <= 65535 then
        listen("psm", prefs.psm)
    end
    if prefs.tcp_port > 0 and prefs.tcp_port <= 65535 then
        listen("tcp_port", prefs.tcp_port)
    end
    if prefs.channel > 0 and prefs.channel <= 30 then
        listen("channel", prefs.channel * 2)
        listen("channel", prefs.channel * 2 + 1)
    end
end

shotmentor.prefs_changed = enter_preferences
enter_preferences()
