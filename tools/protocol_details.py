"""What the header of the records does not say of its fields, for all that is made from it.

What travels of a field, what 0 means, who writes it, and what each of several fields is that share a comment stands in
DETAILS, and nowhere else.
"""

import dataclasses

import protocol_fields

PLACE_OF_DETAILS = "tools/protocol_details.py"
HEADER = protocol_fields.HEADER.name


class Fault(Exception):
    """What keeps a file from being made, in one line."""


@dataclasses.dataclass(frozen=True)
class Detail:
    """What travels of a field, in the phone's record."""

    value: str = "the camera's own code"
    zero: str = "a code like any other"
    writer: str = "both"  # "phone", "camera" or "both", as the page explains it
    own: str = ""  # for a field that shares its comment: what this one is, instead of the comment
    more: str = ""  # what follows the comment


def of_each(prefix, names, what, detail=Detail()):
    """Details of fields that share a comment: `names` are their names behind the prefix, and what each of them is."""
    return {
        f"{prefix}{name}": dataclasses.replace(detail, own=what.format(meaning=meaning))
        for name, meaning in names.items()
    }


PLACE = {
    "pos_x": "horizontal position",
    "pos_y": "vertical position",
    "width": "width",
    "height": "height",
    "box_size": "size of its box",
}
BALANCES = {
    "auto": "auto",
    "auto_tungsten": "auto tungsten",
    "daylight": "daylight",
    "cloudy": "cloudy",
    "flu_w": "fluorescent white",
    "flu_n": "fluorescent neutral",
    "flu_d": "fluorescent daylight",
    "tungsten": "tungsten",
    "flash": "flash",
    "cwb": "custom",
    "k": "Kelvin",
}
STYLE_CODES = {"saturation": "Saturation", "sharpness": "Sharpness", "contrast": "Contrast", "hue": "Hue"}

DETAILS = {
    "title": Detail("bytes, ended by a NUL where there is room for one", "no title"),
    "mode": Detail("0 auto, 1 program, 2 aperture, 3 shutter, 4 manual", "auto"),
    "av_index": Detail("f-number × 10: 28 is f/2.8", "no aperture"),
    "tv_index": Detail("position 0 to 109 among the shutter times", "no shutter time"),
    "iso": Detail("ISO number", "automatic"),
    "iso_1_3": Detail(
        "from the camera: ISO number; from the phone: position 0 to 30 among the sensitivities", "automatic"
    ),
    "ev_step": Detail("50 + 10 × EV, its fraction cut off towards 50: 53 is +1/3 EV, 44 is -2/3 EV", "-5 EV"),
    "type": Detail("0 to 10: " + ", ".join(BALANCES.values()), "auto"),
    "k_value": Detail("kelvin", "no colour temperature"),
    **of_each("cwb_", {"red": "red", "green": "green", "blue": "blue"}, "Custom white balance: {meaning}."),
    **of_each(
        "",
        {f"{name}_xy": meaning for name, meaning in BALANCES.items()},
        "Fine adjustment of the white balance {meaning}.",
        Detail(zero="no adjustment"),
    ),
    "color_style": Detail("0 to 13; 10 to 13 are C1 to C4", "style 0"),
    "cs_color_off_color": Detail("the camera's own code; -1"),
    "cs_color": Detail("each 0 to 255", "the least of this colour"),
    **of_each("cs_", STYLE_CODES, "{meaning} of the styles 0 to 13, style s at index s."),
    "smart_filter": Detail(zero="no filter"),
    **of_each("", {"flash": "Flash", "flash_ev": "Flash compensation"}, "{meaning}."),
    **of_each("af_", {"mode": "mode", "area": "area"}, "Autofocus: {meaning}."),
    **of_each("selection_af_", PLACE, "Selection AF frame: {meaning}."),
    **of_each(
        "multi_af_",
        PLACE,
        "Multi AF frame: {meaning}. The phone has no use for it but carries it.",
        Detail(writer="camera"),
    ),
    **of_each(
        "timer_",
        {"time": "delay", "count": "number of shots", "interval": "interval between shots"},
        "Self-timer: {meaning}.",
    ),
    "counti_h_frame": Detail(own='Continuous drive: high speed. "counti" is the camera\'s spelling.'),
    "counti_n_frame": Detail(own="Continuous drive: normal speed."),
    "burst_frame": Detail(own="Continuous drive: burst."),
    "reserved_636": Detail("any", "nothing"),
    "preset_num": Detail("0 to 39", "the first preset", "camera"),
    "custom_id": Detail("above 0", "no preset", "camera"),
    "applocal_id": Detail("any number of the phone's", "a number like any other", "phone"),
    "server_id": Detail("any number of the phone's", "a number like any other", "phone"),
    "made_id": Detail(
        "lowest hexadecimal digit: kind; second: family, 4 for KT; third: maker, 1 for korvel",
        "made elsewhere",
        more="When the camera stores a korvel-made KT preset with a smart filter, it keeps only the digits 2 to 4.",
    ),
    "screennail_path": Detail("bytes, ended by a NUL where there is room for one", "no picture", "camera"),
    "linked_custom_mode": Detail("0 to 2", "no custom mode", "camera"),
}


@dataclasses.dataclass(frozen=True)
class Described:
    """A field with all that is said of it."""

    field: protocol_fields.Field
    detail: Detail
    meaning: str


def described(fields):
    """The fields with their details. One whose comment stands for several has to say which of them it is."""
    names = {field.name for field in fields}
    for name in DETAILS:
        if name not in names:
            raise Fault(
                f"{PLACE_OF_DETAILS}: DETAILS has {name}, which is no field of {HEADER}; rename it there as well"
            )
    comments = [field.meaning for field in fields]
    return [described_field(field, comments.count(field.meaning) > 1) for field in fields]


def described_field(field, shares_comment):
    detail = DETAILS.get(field.name, Detail())
    if shares_comment and not detail.own:
        fault = f"shares its comment in {HEADER} with others; say in DETAILS what it is"
    elif detail.own and not shares_comment:
        fault = f"has a comment of its own in {HEADER}; leave `own` out of its DETAILS"
    else:
        return Described(field, detail, " ".join(filter(None, [detail.own or field.meaning, detail.more])))
    raise Fault(f"{PLACE_OF_DETAILS}: {field.name} {fault}")
