meta:
  id: shotmentor
  title: What travels between the phone and the camera
  endian: le
  ks-version: '0.10'
doc: |
  One direction of a link: frames, one behind the other. Docs/protocol.md says what is sent when, and what becomes of
  it. Made by tools/make_protocol.py from ADE_ShotMentor_Records.h; changes go there.
seq:
  - id: frames
    type: frame
    repeat: eos
    doc: |
      Requests of a phone, or replies of a camera.
types:
  frame:
    seq:
      - id: function
        type: s4
        enum: function
        doc: |
          Function number; replies: the request's plus SM_REPLY.
      - id: total_length
        type: s4
        valid:
          min: 8
        doc: |
          Bytes of the whole request or reply, these 8 included.
      - id: body
        size: total_length - 8
        type:
          switch-on: function
          cases:
            "function::state_off": state_off_request
            "function::send_list": send_list_request
            "function::send_preset": send_preset_request
            "function::receive_preset": receive_preset_request
            "function::update_preset": update_preset_request
            "function::delete_preset": delete_preset_request
            "function::state_on": state_on_request
            "function::send_list_reply": send_list_reply
            "function::send_preset_reply": send_preset_reply
            "function::receive_preset_reply": receive_preset_reply
            "function::update_preset_reply": update_preset_reply
            "function::delete_preset_reply": delete_preset_reply
            "function::busy_reply": busy_reply
            _: unknown_body
        doc: |
          What follows the 8 header bytes.
    doc: |
      A request or a reply.
  state_off_request:
    seq:
      - id: code
        type: s4
        enum: result
        doc: |
          The phone's own result code: 1, -10, -11 or -12.
        if: "_io.size >= 4"
      - id: unread
        size-eos: true
        doc: |
          Nobody reads it.
    doc: |
      The phone leaves. No reply.
  send_list_request:
    seq:
      - id: unread
        size-eos: true
        doc: |
          Nobody reads it.
    doc: |
      The phone asks for all presets.
  send_preset_request:
    seq:
      - id: custom_id
        type: s4
        doc: |
          The camera's identity of the preset, above 0.
        if: "_io.size >= 4"
      - id: applocal_id
        type: s4
        doc: |
          The phone's own identity of the preset.
        if: "_io.size >= 8"
      - id: unread
        size-eos: true
        doc: |
          Nobody reads it.
    doc: |
      The phone asks for a picture.
  receive_preset_request:
    seq:
      - id: preset
        type: phone_record
        doc: |
          The preset's record.
        if: "_io.size >= 744"
      - id: picture
        size-eos: true
        doc: |
          A JPEG of at least 100 bytes.
    doc: |
      The phone stores a preset.
  update_preset_request:
    seq:
      - id: preset
        type: phone_record
        doc: |
          The record, of which `custom_id`, `server_id` and `title` are used.
        if: "_io.size >= 744"
      - id: unread
        size-eos: true
        doc: |
          Nobody reads it.
    doc: |
      The phone renames a preset.
  delete_preset_request:
    seq:
      - id: pairs
        type: delete_pair
        doc: |
          The presets to delete.
        repeat: expr
        repeat-expr: _io.size / 8
      - id: unread
        size-eos: true
        doc: |
          Nobody reads it.
    doc: |
      The phone deletes presets.
  state_on_request:
    seq:
      - id: unread
        size-eos: true
        doc: |
          Nobody reads it.
    doc: |
      The phone is there. No reply.
  delete_pair:
    seq:
      - id: del_preset
        type: s4
        doc: |
          Preset number, 0 to 39.
      - id: del_id
        type: s4
        doc: |
          The preset's custom_id, not 0.
    doc: |
      A preset to delete.
  unknown_body:
    seq:
      - id: raw
        size-eos: true
        doc: |
          Its bytes.
    doc: |
      What has a function number that there is not.
  send_list_reply:
    seq:
      - id: sm_model
        size: 12
        doc: |
          "KT7", zero-filled.
      - id: sm_struct_ver
        type: s4
        valid: 1
        doc: |
          SM_LAYOUT_VERSION.
      - id: num_preset
        type: s4
        valid:
          min: 0
          max: 40
        doc: |
          0 to 40.
      - id: presets
        type: phone_record
        doc: |
          The presets' records.
        repeat: expr
        repeat-expr: num_preset
    doc: |
      Reply 0x1001: the presets.
  send_preset_reply:
    seq:
      - id: custom_id
        type: s4
        doc: |
          The preset's custom_id; in an error reply -5 or -6.
      - id: picture
        size-eos: true
        doc: |
          The picture; empty when the camera cannot read it.
    doc: |
      Reply 0x1002: a picture.
  receive_preset_reply:
    seq:
      - id: result
        type: s4
        enum: result
        doc: |
          What the UI service answered, or SM_RETURN_JPG_ERR.
      - id: preset_num
        type: s4
        doc: |
          Its position in the camera's list.
      - id: custom_id
        type: s4
        doc: |
          The camera's identity of it.
      - id: applocal_id
        type: s4
        doc: |
          The phone's own identity of it.
    doc: |
      Reply 0x1003: what became of a store.
  update_preset_reply:
    seq:
      - id: result
        type: s4
        enum: result
        doc: |
          Result code.
    doc: |
      Reply 0x1004: what became of an update.
  delete_preset_reply:
    seq:
      - id: result
        type: s4
        enum: result
        doc: |
          Result code.
      - id: sm_struct_ver
        type: s4
        valid: 1
        doc: |
          SM_LAYOUT_VERSION.
      - id: num_preset
        type: s4
        valid:
          min: 0
          max: 40
        doc: |
          Presets left after the deletion, 0 to 40.
      - id: presets
        type: phone_record
        doc: |
          The presets' records.
        repeat: expr
        repeat-expr: num_preset
      - id: kept
        size-eos: true
        doc: |
          8 zero bytes for each custom mode that kept a preset.
    doc: |
      Reply 0x1005: what became of a deletion, and the presets that are left.
  busy_reply:
    seq:
      - id: busy
        type: s4
        doc: |
          Always 1.
    doc: |
      What the desk's camera sends to a second phone before it closes the link.
  phone_record:
    seq:
      - id: title
        size: 52
        doc: |
          Title, opaque bytes in any encoding. It may fill all 52 bytes: bound every read. As it travels: bytes, ended
          by a NUL where there is room for one; 0 means: no title.
      - id: mode
        type: s4
        enum: mode
        doc: |
          Shooting mode, SM_MODE_AUTO to SM_MODE_MANUAL. Camera: 0 to 5 (5 gives the phone 4, unknown values give 1).
          The mode says which exposure values the record carries. As it travels: 0 auto, 1 program, 2 aperture, 3
          shutter, 4 manual; 0 means: auto.
      - id: av_index
        type: s4
        doc: |
          Aperture. Camera: step code of `tKT7_APEX_AV`. Phone: f-number times ten, a value of `tPRO_COMMON_AV`. 0 where
          the mode carries no aperture. As it travels: f-number × 10: 28 is f/2.8; 0 means: no aperture.
      - id: tv_index
        type: s4
        doc: |
          Shutter time. Camera: step code of `tKT7_APEX_TV`. Phone: position 0 to 109 in that table. 0 where the mode
          carries no shutter time. As it travels: position 0 to 109 among the shutter times; 0 means: no shutter time.
      - id: iso
        type: s4
        doc: |
          Sensitivity. Camera: full-step code of `tKT7_APEX_SV`. Phone: ISO number of `tPRO_COMMON_SV`, 0 automatic,
          taken from whichever of the camera's two settings is in force. As it travels: ISO number; 0 means: automatic.
      - id: iso_1_3
        type: s4
        doc: |
          Sensitivity in third steps. Camera: code of `tKT7_APEX_SV_1_3`. To the phone: ISO number of `tPRO_COMMON_SV`.
          From the phone: position 0 to 30 in `tKT7_APEX_SV_1_3`, not an ISO number. As it travels: from the camera: ISO
          number; from the phone: position 0 to 30 among the sensitivities; 0 means: automatic.
      - id: ev_step
        type: s4
        doc: |
          Exposure compensation. Camera: third steps 0 to 30, 15 none. Phone: 0 to 100, 50 none, a value of
          `tPRO_COMMON_EV`; the bare number 15 in mode 4. As it travels: 50 + 10 × EV, its fraction cut off towards 50:
          53 is +1/3 EV, 44 is -2/3 EV; 0 means: -5 EV.
      - id: metering
        type: s4
        doc: |
          Metering. As it travels: the camera's own code; 0 means: a code like any other.
      - id: drive
        type: s4
        doc: |
          Drive. As it travels: the camera's own code; 0 means: a code like any other.
      - id: hdr
        type: s4
        doc: |
          HDR. As it travels: the camera's own code; 0 means: a code like any other.
      - id: type
        type: s4
        doc: |
          White-balance type; 10 is Kelvin, forced on the way to the camera for presets that were not made on a KT
          camera and name a colour temperature. As it travels: 0 to 10: auto, auto tungsten, daylight, cloudy,
          fluorescent white, fluorescent neutral, fluorescent daylight, tungsten, flash, custom, Kelvin; 0 means: auto.
      - id: k_value
        type: s4
        doc: |
          Colour temperature of the Kelvin type; 0 none. As it travels: kelvin; 0 means: no colour temperature.
      - id: cwb_red
        type: s4
        doc: |
          Custom white balance: red. As it travels: the camera's own code; 0 means: a code like any other.
      - id: cwb_green
        type: s4
        doc: |
          Custom white balance: green. As it travels: the camera's own code; 0 means: a code like any other.
      - id: cwb_blue
        type: s4
        doc: |
          Custom white balance: blue. As it travels: the camera's own code; 0 means: a code like any other.
      - id: auto_xy
        type: s4
        doc: |
          Fine adjustment of the white balance auto. As it travels: the camera's own code; 0 means: no adjustment.
      - id: auto_tungsten_xy
        type: s4
        doc: |
          Fine adjustment of the white balance auto tungsten. As it travels: the camera's own code; 0 means: no
          adjustment.
      - id: daylight_xy
        type: s4
        doc: |
          Fine adjustment of the white balance daylight. As it travels: the camera's own code; 0 means: no adjustment.
      - id: cloudy_xy
        type: s4
        doc: |
          Fine adjustment of the white balance cloudy. As it travels: the camera's own code; 0 means: no adjustment.
      - id: flu_w_xy
        type: s4
        doc: |
          Fine adjustment of the white balance fluorescent white. As it travels: the camera's own code; 0 means: no
          adjustment.
      - id: flu_n_xy
        type: s4
        doc: |
          Fine adjustment of the white balance fluorescent neutral. As it travels: the camera's own code; 0 means: no
          adjustment.
      - id: flu_d_xy
        type: s4
        doc: |
          Fine adjustment of the white balance fluorescent daylight. As it travels: the camera's own code; 0 means: no
          adjustment.
      - id: tungsten_xy
        type: s4
        doc: |
          Fine adjustment of the white balance tungsten. As it travels: the camera's own code; 0 means: no adjustment.
      - id: flash_xy
        type: s4
        doc: |
          Fine adjustment of the white balance flash. As it travels: the camera's own code; 0 means: no adjustment.
      - id: cwb_xy
        type: s4
        doc: |
          Fine adjustment of the white balance custom. As it travels: the camera's own code; 0 means: no adjustment.
      - id: k_xy
        type: s4
        doc: |
          Fine adjustment of the white balance Kelvin. As it travels: the camera's own code; 0 means: no adjustment.
      - id: cs_info
        type: cs_info
        doc: |
          The colour styles.
      - id: smart_filter
        type: s4
        doc: |
          Smart filter; 0 none. As it travels: the camera's own code; 0 means: no filter.
      - id: flash
        type: s4
        doc: |
          Flash. As it travels: the camera's own code; 0 means: a code like any other.
      - id: flash_ev
        type: s4
        doc: |
          Flash compensation. As it travels: the camera's own code; 0 means: a code like any other.
      - id: af_mode
        type: s4
        doc: |
          Autofocus: mode. As it travels: the camera's own code; 0 means: a code like any other.
      - id: af_area
        type: s4
        doc: |
          Autofocus: area. As it travels: the camera's own code; 0 means: a code like any other.
      - id: photosize
        type: s4
        doc: |
          Picture size. As it travels: the camera's own code; 0 means: a code like any other.
      - id: touch_af
        type: s4
        doc: |
          Touch AF. As it travels: the camera's own code; 0 means: a code like any other.
      - id: selection_af_pos_x
        type: s4
        doc: |
          Selection AF frame: horizontal position. As it travels: the camera's own code; 0 means: a code like any other.
      - id: selection_af_pos_y
        type: s4
        doc: |
          Selection AF frame: vertical position. As it travels: the camera's own code; 0 means: a code like any other.
      - id: selection_af_width
        type: s4
        doc: |
          Selection AF frame: width. As it travels: the camera's own code; 0 means: a code like any other.
      - id: selection_af_height
        type: s4
        doc: |
          Selection AF frame: height. As it travels: the camera's own code; 0 means: a code like any other.
      - id: selection_af_box_size
        type: s4
        doc: |
          Selection AF frame: size of its box. As it travels: the camera's own code; 0 means: a code like any other.
      - id: multi_af_pos_x
        type: s4
        doc: |
          Multi AF frame: horizontal position. The phone has no use for it but carries it. As it travels: the camera's
          own code; 0 means: a code like any other.
      - id: multi_af_pos_y
        type: s4
        doc: |
          Multi AF frame: vertical position. The phone has no use for it but carries it. As it travels: the camera's own
          code; 0 means: a code like any other.
      - id: multi_af_width
        type: s4
        doc: |
          Multi AF frame: width. The phone has no use for it but carries it. As it travels: the camera's own code; 0
          means: a code like any other.
      - id: multi_af_height
        type: s4
        doc: |
          Multi AF frame: height. The phone has no use for it but carries it. As it travels: the camera's own code; 0
          means: a code like any other.
      - id: multi_af_box_size
        type: s4
        doc: |
          Multi AF frame: size of its box. The phone has no use for it but carries it. As it travels: the camera's own
          code; 0 means: a code like any other.
      - id: timer_time
        type: s4
        doc: |
          Self-timer: delay. As it travels: the camera's own code; 0 means: a code like any other.
      - id: timer_count
        type: s4
        doc: |
          Self-timer: number of shots. As it travels: the camera's own code; 0 means: a code like any other.
      - id: timer_interval
        type: s4
        doc: |
          Self-timer: interval between shots. As it travels: the camera's own code; 0 means: a code like any other.
      - id: counti_h_frame
        type: s4
        doc: |
          Continuous drive: high speed. "counti" is the camera's spelling. As it travels: the camera's own code; 0
          means: a code like any other.
      - id: counti_n_frame
        type: s4
        doc: |
          Continuous drive: normal speed. As it travels: the camera's own code; 0 means: a code like any other.
      - id: burst_frame
        type: s4
        doc: |
          Continuous drive: burst. As it travels: the camera's own code; 0 means: a code like any other.
      - id: drive_set_conti
        type: s4
        doc: |
          The selected continuous drive. As it travels: the camera's own code; 0 means: a code like any other.
      - id: reserved_636
        type: s4
        doc: |
          Words without a meaning here, carried byte for byte. As it travels: any; 0 means: nothing.
        repeat: expr
        repeat-expr: 6
      - id: quality
        type: s4
        doc: |
          Picture quality. As it travels: the camera's own code; 0 means: a code like any other.
      - id: bulb
        type: s4
        doc: |
          Bulb exposure. As it travels: the camera's own code; 0 means: a code like any other.
      - id: preset_num
        type: s4
        doc: |
          Position in the camera's preset list, 0 to 39. Deleting other presets renumbers it. As it travels: 0 to 39; 0
          means: the first preset.
      - id: custom_id
        type: s4
        doc: |
          The camera's identity of the stored preset. As it travels: above 0; 0 means: no preset.
      - id: applocal_id
        type: s4
        doc: |
          The phone application's own identity of the preset. As it travels: any number of the phone's; 0 means: a
          number like any other.
      - id: server_id
        type: s4
        doc: |
          The preset's identity on the phone application's server. As it travels: any number of the phone's; 0 means: a
          number like any other.
      - id: made_id
        type: s4
        doc: |
          Origin, read as hexadecimal digits: SM_MADE_KIND, SM_MADE_FAMILY, SM_MADE_MAKER. When the camera stores a
          korvel-made KT preset with a smart filter, it keeps only the digits 2 to 4. As it travels: lowest hexadecimal
          digit: kind; second: family, 4 for KT; third: maker, 1 for korvel; 0 means: made elsewhere.
      - id: screennail_path
        size: 52
        doc: |
          Path of the preset's JPEG screennail in the camera's file system; of no use to the phone. As it travels:
          bytes, ended by a NUL where there is room for one; 0 means: no picture.
      - id: linked_custom_mode
        type: s4
        doc: |
          Custom mode that uses the preset: 0 none, 1 CUSTOM1, 2 CUSTOM2. Set in replies only. As it travels: 0 to 2; 0
          means: no custom mode.
    doc: |
      A preset as it travels, 744 bytes. Codes without a range are the camera's own.
  camera_record:
    seq:
      - id: title
        size: 52
        doc: |
          Title, opaque bytes in any encoding. It may fill all 52 bytes: bound every read. As it travels: bytes, ended
          by a NUL where there is room for one; 0 means: no title.
      - id: mode
        type: s4
        enum: mode
        doc: |
          Shooting mode, SM_MODE_AUTO to SM_MODE_MANUAL. Camera: 0 to 5 (5 gives the phone 4, unknown values give 1).
          The mode says which exposure values the record carries. As it travels: 0 auto, 1 program, 2 aperture, 3
          shutter, 4 manual; 0 means: auto.
      - id: av_index
        type: s4
        doc: |
          Aperture. Camera: step code of `tKT7_APEX_AV`. Phone: f-number times ten, a value of `tPRO_COMMON_AV`. 0 where
          the mode carries no aperture. As it travels: f-number × 10: 28 is f/2.8; 0 means: no aperture.
      - id: tv_index
        type: s4
        doc: |
          Shutter time. Camera: step code of `tKT7_APEX_TV`. Phone: position 0 to 109 in that table. 0 where the mode
          carries no shutter time. As it travels: position 0 to 109 among the shutter times; 0 means: no shutter time.
      - id: iso
        type: s4
        doc: |
          Sensitivity. Camera: full-step code of `tKT7_APEX_SV`. Phone: ISO number of `tPRO_COMMON_SV`, 0 automatic,
          taken from whichever of the camera's two settings is in force. As it travels: ISO number; 0 means: automatic.
      - id: iso_1_3
        type: s4
        doc: |
          Sensitivity in third steps. Camera: code of `tKT7_APEX_SV_1_3`. To the phone: ISO number of `tPRO_COMMON_SV`.
          From the phone: position 0 to 30 in `tKT7_APEX_SV_1_3`, not an ISO number. As it travels: from the camera: ISO
          number; from the phone: position 0 to 30 among the sensitivities; 0 means: automatic.
      - id: ev_step
        type: s4
        doc: |
          Exposure compensation. Camera: third steps 0 to 30, 15 none. Phone: 0 to 100, 50 none, a value of
          `tPRO_COMMON_EV`; the bare number 15 in mode 4. As it travels: 50 + 10 × EV, its fraction cut off towards 50:
          53 is +1/3 EV, 44 is -2/3 EV; 0 means: -5 EV.
      - id: metering
        type: s4
        doc: |
          Metering. As it travels: the camera's own code; 0 means: a code like any other.
      - id: drive
        type: s4
        doc: |
          Drive. As it travels: the camera's own code; 0 means: a code like any other.
      - id: hdr
        type: s4
        doc: |
          HDR. As it travels: the camera's own code; 0 means: a code like any other.
      - id: type
        type: s4
        doc: |
          White-balance type; 10 is Kelvin, forced on the way to the camera for presets that were not made on a KT
          camera and name a colour temperature. As it travels: 0 to 10: auto, auto tungsten, daylight, cloudy,
          fluorescent white, fluorescent neutral, fluorescent daylight, tungsten, flash, custom, Kelvin; 0 means: auto.
      - id: k_value
        type: s4
        doc: |
          Colour temperature of the Kelvin type; 0 none. As it travels: kelvin; 0 means: no colour temperature.
      - id: cwb_red
        type: s4
        doc: |
          Custom white balance: red. As it travels: the camera's own code; 0 means: a code like any other.
      - id: cwb_green
        type: s4
        doc: |
          Custom white balance: green. As it travels: the camera's own code; 0 means: a code like any other.
      - id: cwb_blue
        type: s4
        doc: |
          Custom white balance: blue. As it travels: the camera's own code; 0 means: a code like any other.
      - id: auto_xy
        type: s4
        doc: |
          Fine adjustment of the white balance auto. As it travels: the camera's own code; 0 means: no adjustment.
      - id: auto_tungsten_xy
        type: s4
        doc: |
          Fine adjustment of the white balance auto tungsten. As it travels: the camera's own code; 0 means: no
          adjustment.
      - id: daylight_xy
        type: s4
        doc: |
          Fine adjustment of the white balance daylight. As it travels: the camera's own code; 0 means: no adjustment.
      - id: cloudy_xy
        type: s4
        doc: |
          Fine adjustment of the white balance cloudy. As it travels: the camera's own code; 0 means: no adjustment.
      - id: flu_w_xy
        type: s4
        doc: |
          Fine adjustment of the white balance fluorescent white. As it travels: the camera's own code; 0 means: no
          adjustment.
      - id: flu_n_xy
        type: s4
        doc: |
          Fine adjustment of the white balance fluorescent neutral. As it travels: the camera's own code; 0 means: no
          adjustment.
      - id: flu_d_xy
        type: s4
        doc: |
          Fine adjustment of the white balance fluorescent daylight. As it travels: the camera's own code; 0 means: no
          adjustment.
      - id: tungsten_xy
        type: s4
        doc: |
          Fine adjustment of the white balance tungsten. As it travels: the camera's own code; 0 means: no adjustment.
      - id: flash_xy
        type: s4
        doc: |
          Fine adjustment of the white balance flash. As it travels: the camera's own code; 0 means: no adjustment.
      - id: cwb_xy
        type: s4
        doc: |
          Fine adjustment of the white balance custom. As it travels: the camera's own code; 0 means: no adjustment.
      - id: k_xy
        type: s4
        doc: |
          Fine adjustment of the white balance Kelvin. As it travels: the camera's own code; 0 means: no adjustment.
      - id: cs_info
        type: cs_info
        doc: |
          The colour styles.
      - id: smart_filter
        type: s4
        doc: |
          Smart filter; 0 none. As it travels: the camera's own code; 0 means: no filter.
      - id: flash
        type: s4
        doc: |
          Flash. As it travels: the camera's own code; 0 means: a code like any other.
      - id: flash_ev
        type: s4
        doc: |
          Flash compensation. As it travels: the camera's own code; 0 means: a code like any other.
      - id: af_mode
        type: s4
        doc: |
          Autofocus: mode. As it travels: the camera's own code; 0 means: a code like any other.
      - id: af_area
        type: s4
        doc: |
          Autofocus: area. As it travels: the camera's own code; 0 means: a code like any other.
      - id: photosize
        type: s4
        doc: |
          Picture size. As it travels: the camera's own code; 0 means: a code like any other.
      - id: touch_af
        type: s4
        doc: |
          Touch AF. As it travels: the camera's own code; 0 means: a code like any other.
      - id: selection_af_pos_x
        type: s4
        doc: |
          Selection AF frame: horizontal position. As it travels: the camera's own code; 0 means: a code like any other.
      - id: selection_af_pos_y
        type: s4
        doc: |
          Selection AF frame: vertical position. As it travels: the camera's own code; 0 means: a code like any other.
      - id: selection_af_width
        type: s4
        doc: |
          Selection AF frame: width. As it travels: the camera's own code; 0 means: a code like any other.
      - id: selection_af_height
        type: s4
        doc: |
          Selection AF frame: height. As it travels: the camera's own code; 0 means: a code like any other.
      - id: selection_af_box_size
        type: s4
        doc: |
          Selection AF frame: size of its box. As it travels: the camera's own code; 0 means: a code like any other.
      - id: multi_af_pos_x
        type: s4
        doc: |
          Multi AF frame: horizontal position. The phone has no use for it but carries it. As it travels: the camera's
          own code; 0 means: a code like any other.
      - id: multi_af_pos_y
        type: s4
        doc: |
          Multi AF frame: vertical position. The phone has no use for it but carries it. As it travels: the camera's own
          code; 0 means: a code like any other.
      - id: multi_af_width
        type: s4
        doc: |
          Multi AF frame: width. The phone has no use for it but carries it. As it travels: the camera's own code; 0
          means: a code like any other.
      - id: multi_af_height
        type: s4
        doc: |
          Multi AF frame: height. The phone has no use for it but carries it. As it travels: the camera's own code; 0
          means: a code like any other.
      - id: multi_af_box_size
        type: s4
        doc: |
          Multi AF frame: size of its box. The phone has no use for it but carries it. As it travels: the camera's own
          code; 0 means: a code like any other.
      - id: timer_time
        type: s4
        doc: |
          Self-timer: delay. As it travels: the camera's own code; 0 means: a code like any other.
      - id: timer_count
        type: s4
        doc: |
          Self-timer: number of shots. As it travels: the camera's own code; 0 means: a code like any other.
      - id: timer_interval
        type: s4
        doc: |
          Self-timer: interval between shots. As it travels: the camera's own code; 0 means: a code like any other.
      - id: counti_h_frame
        type: s4
        doc: |
          Continuous drive: high speed. "counti" is the camera's spelling. As it travels: the camera's own code; 0
          means: a code like any other.
      - id: counti_n_frame
        type: s4
        doc: |
          Continuous drive: normal speed. As it travels: the camera's own code; 0 means: a code like any other.
      - id: burst_frame
        type: s4
        doc: |
          Continuous drive: burst. As it travels: the camera's own code; 0 means: a code like any other.
      - id: drive_set_conti
        type: s4
        doc: |
          The selected continuous drive. As it travels: the camera's own code; 0 means: a code like any other.
      - id: reserved_636
        type: s4
        doc: |
          Words without a meaning here, carried byte for byte. As it travels: any; 0 means: nothing.
        repeat: expr
        repeat-expr: 6
      - id: quality
        type: s4
        doc: |
          Picture quality. As it travels: the camera's own code; 0 means: a code like any other.
      - id: bulb
        type: s4
        doc: |
          Bulb exposure. As it travels: the camera's own code; 0 means: a code like any other.
      - id: preset_num
        type: s4
        doc: |
          Position in the camera's preset list, 0 to 39. Deleting other presets renumbers it. As it travels: 0 to 39; 0
          means: the first preset.
      - id: custom_id
        type: s4
        doc: |
          The camera's identity of the stored preset. As it travels: above 0; 0 means: no preset.
      - id: applocal_id
        type: s4
        doc: |
          The phone application's own identity of the preset. As it travels: any number of the phone's; 0 means: a
          number like any other.
      - id: server_id
        type: s4
        doc: |
          The preset's identity on the phone application's server. As it travels: any number of the phone's; 0 means: a
          number like any other.
      - id: made_id
        type: s4
        doc: |
          Origin, read as hexadecimal digits: SM_MADE_KIND, SM_MADE_FAMILY, SM_MADE_MAKER. When the camera stores a
          korvel-made KT preset with a smart filter, it keeps only the digits 2 to 4. As it travels: lowest hexadecimal
          digit: kind; second: family, 4 for KT; third: maker, 1 for korvel; 0 means: made elsewhere.
      - id: screennail_path
        size: 52
        doc: |
          Path of the preset's JPEG screennail in the camera's file system; of no use to the phone. As it travels:
          bytes, ended by a NUL where there is room for one; 0 means: no picture.
    doc: |
      A preset as the camera keeps it, 740 bytes. It does not travel; `shotmentor-camera add` takes it.
  cs_info:
    seq:
      - id: color_style
        type: s4
        doc: |
          Selected colour style, 0 to 13. Presets that were not made on a KT camera, and korvel-made presets without a
          smart filter, are put into style 13 (C4) on their way to the camera. As it travels: 0 to 13; 10 to 13 are C1
          to C4; 0 means: style 0.
      - id: cs_color_off_color
        type: s4
        doc: |
          Off-colour setting of the styles; -1 whenever style 13 was forced. As it travels: the camera's own code; -1; 0
          means: a code like any other.
      - id: cs_color
        type: color
        doc: |
          Colour of styles 1 to 13, style s at index s - 1 (style 0 has none): camera 0 to 200, phone 0 to 255. As it
          travels: each 0 to 255; 0 means: the least of this colour.
        repeat: expr
        repeat-expr: 13
      - id: cs_saturation
        type: s4
        doc: |
          Saturation of the styles 0 to 13, style s at index s. As it travels: the camera's own code; 0 means: a code
          like any other.
        repeat: expr
        repeat-expr: 14
      - id: cs_sharpness
        type: s4
        doc: |
          Sharpness of the styles 0 to 13, style s at index s. As it travels: the camera's own code; 0 means: a code
          like any other.
        repeat: expr
        repeat-expr: 14
      - id: cs_contrast
        type: s4
        doc: |
          Contrast of the styles 0 to 13, style s at index s. As it travels: the camera's own code; 0 means: a code like
          any other.
        repeat: expr
        repeat-expr: 14
      - id: cs_hue
        type: s4
        doc: |
          Hue of the styles 0 to 13, style s at index s. As it travels: the camera's own code; 0 means: a code like any
          other.
        repeat: expr
        repeat-expr: 14
    doc: |
      The colour styles, 388 bytes.
  color:
    seq:
      - id: cs_color_r
        type: s4
        doc: |
          Red.
      - id: cs_color_g
        type: s4
        doc: |
          Green.
      - id: cs_color_b
        type: s4
        doc: |
          Blue.
    doc: |
      A colour.
enums:
  function:
    0:
      id: state_off
      doc: |
        The phone leaves; carries the phone's own result code; no reply.
    1:
      id: send_list
      doc: |
        The phone asks for all presets.
    2:
      id: send_preset
      doc: |
        The phone asks for one preset's picture.
    3:
      id: receive_preset
      doc: |
        The phone stores a preset, record and picture.
    4:
      id: update_preset
      doc: |
        The phone changes a preset's title and server identity.
    5:
      id: delete_preset
      doc: |
        The phone deletes presets.
    255:
      id: state_on
      doc: |
        The phone arrives; no reply.
    0x1001:
      id: send_list_reply
      doc: |
        The reply to send_list.
    0x1002:
      id: send_preset_reply
      doc: |
        The reply to send_preset.
    0x1003:
      id: receive_preset_reply
      doc: |
        The reply to receive_preset.
    0x1004:
      id: update_preset_reply
      doc: |
        The reply to update_preset.
    0x1005:
      id: delete_preset_reply
      doc: |
        The reply to delete_preset.
    0x10ff:
      id: busy_reply
      doc: |
        The desk's camera serves another phone.
  result:
    1:
      id: "true"
      doc: |
        Success.
    0:
      id: system_data_err
      doc: |
        The UI service reported an impossible custom-mode link in a deletion.
    -1:
      id: fail
      doc: |
        No result: nothing was done, or the function number is unknown.
    -2:
      id: data_err
      doc: |
        The request's data was refused.
    -3:
      id: struct_err
      doc: |
        The payload is too short for its record, or an entry is faulty.
    -4:
      id: jpg_err
      doc: |
        The picture of a received preset is missing or too short.
    -5:
      id: presetn_err
      doc: |
        The requested preset identifier is not positive.
    -6:
      id: localn_err
      doc: |
        The camera holds no preset with the requested identifier.
    -7:
      id: opened_err
      doc: |
        A preset asked for deletion is linked to a custom mode and was kept.
    -8:
      id: opened_both_err
      doc: |
        Presets linked to both custom modes were asked for and kept.
    -10:
      id: bt_res_err
      doc: |
        Reported by the phone.
    -11:
      id: bt_data_err
      doc: |
        Reported by the phone.
    -12:
      id: bt_struct_err
      doc: |
        Reported by the phone.
  mode:
    0:
      id: auto
      doc: |
        Carries neither aperture nor shutter time.
    1:
      id: program
      doc: |
        Carries neither.
    2:
      id: aperture
      doc: |
        Carries the aperture.
    3:
      id: shutter
      doc: |
        Carries the shutter time.
    4:
      id: manual
      doc: |
        Carries both.
