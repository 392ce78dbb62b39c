#!/bin/sh
# Compares the built shared object with what it promises.
# Usage: check_object.sh LIBRARY NM READELF
set -eu
export LC_ALL=C
library=$1 nm=$2 readelf=$3
sources=$(dirname "$0")/../Src
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failed=0

# Usage: expect WHAT, with the expected lines in $work/expected and the lines found in $work/found
expect() {
    sort -o "$work/expected" "$work/expected"
    sort -o "$work/found" "$work/found"
    if diff -u "$work/expected" "$work/found"; then
        echo "ok: $1"
    else
        echo "FAILED: $1 (- expected, + found)"
        failed=1
    fi
}

grep '^[A-Za-z_]' "$sources/libshotmentor.symbols" >"$work/expected"
"$nm" -D --defined-only --format=posix "$library" | cut -d' ' -f1 >"$work/found"
expect "the exported symbols are those of the committed list"

cat >"$work/expected" <<'END'
User_Spec_Get_Value
__dlog_print
__ui_get_bt_state_for_phone
__ui_get_custom_mode_list_info
__ui_get_linked_preseet_num_for_phone
__ui_get_preset_info
__ui_preset_delete_form_phone
__ui_preset_update_comfirm
__ui_save_downloaded_preset
__ui_set_shotmentor_state
bt_send_msgs
END
# The C library's symbols carry a version.
"$nm" -D --undefined-only --format=posix "$library" | cut -d' ' -f1 | grep -v '@' >"$work/found"
expect "what is undefined, but for the C library, is the host's services"

echo libc.so.6 >"$work/expected"
"$readelf" -dW "$library" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' >"$work/found"
expect "the C library is all that is needed"

echo libshotmentor.so.1 >"$work/expected"
"$readelf" -dW "$library" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p' >"$work/found"
expect "the SONAME is libshotmentor.so.1"

cat >"$work/expected" <<'END'
gADE_PRO_model
pro_custom04_state
pro_film_mode
pro_sys_mode
shotmentor_BT_info
shotmentor_p_FullData
shotmentor_p_Full_Q
shotmentor_p_Full_Q_NUM
shotmentor_p_ReceiveData
sm_BT_combine_length
sm_BT_total_length
END
# Objects in .data or .bss, by the numbers that the section headers give these two.
"$readelf" -SW "$library" | sed -n 's/^ *\[ *\([0-9]*\)\] \(\.data\|\.bss\) .*/\1/p' >"$work/sections"
"$readelf" -sW "$library" | awk -v list="$(tr '\n' ' ' <"$work/sections")" '
    BEGIN { split(list, numbers, " "); for (n in numbers) writable[numbers[n]] = 1 }
    $4 == "OBJECT" && $7 in writable { print $8 }' | sort -u >"$work/found"
expect "the only writable data is the named variables"

exit $failed
