#include "CheckTable.h"

#include <cctype>

#include "CheckSteps.h"

namespace desk::phone {
namespace {

constexpr Check checks[] = {
    {"answers", "a request that needs no service is answered", guide::host, needs_nothing, check_answers},
    {"list-answered", "a list is answered", guide::bluetooth, needs_nothing, check_list_answered},
    {"list-layout", "the list has layout 1, at most 40 presets, and the model's name", guide::store, needs_nothing,
     check_list_layout},
    {"list-records", "no record of the list is empty", guide::store, needs_list, check_list_records},
    {"list-numbers", "each preset's number is its position in the list", guide::store, needs_list, check_list_numbers},
    {"list-ids", "each preset has an id above 0 that no other has", guide::store, needs_list, check_list_ids},
    {"list-links", "each custom mode uses one preset at most", guide::store, needs_list, check_list_links},
    {"list-steady", "a list that is asked for twice is the same twice", guide::store, needs_list, check_list_steady},

    {"store-result", "a preset is stored with result 1", guide::store, needs_list | needs_room, check_store_result},
    {"store-listed", "what was stored is listed, and nothing else is new", guide::store, needs_own, check_store_listed},
    {"store-identity", "the reply names the number and the id that the list shows", guide::store, needs_own,
     check_store_identity},
    {"store-new-ids", "a new preset has an id that no other has", guide::store, needs_own, check_store_new_ids},
    {"store-unlinked", "no custom mode uses a new preset", guide::store, needs_own, check_store_unlinked},
    {"store-fields", "a stored preset comes back with all that the protocol carries", guide::store, needs_own,
     check_store_fields},

    {"picture-id", "a picture comes with the id of its preset", guide::store, needs_own, check_picture_id},
    {"picture-smallest", "a picture of 100 bytes comes back byte for byte", guide::files, needs_own,
     check_picture_smallest},
    {"picture-whole", "a picture of 60000 bytes comes back byte for byte", guide::files, needs_own,
     check_picture_whole},
    {"picture-streams", "a picture of three streams comes back up to the third", guide::files, needs_own,
     check_picture_streams},

    {"update-result", "an update of a stored preset has result 1", guide::store, needs_own, check_update_result},
    {"update-title", "an update changes the title", guide::store, needs_own, check_update_title},
    {"update-server-id", "an update changes the server identity", guide::store, needs_own, check_update_server_id},
    {"update-rest", "an update changes nothing else of the preset", guide::store, needs_own, check_update_rest},
    {"update-others", "an update changes no other preset", guide::store, needs_own, check_update_others},
    {"update-long-title", "a title of 51 bytes comes back whole", guide::store, needs_own, check_update_long_title},
    {"update-full-title", "a title of 52 bytes does no harm", guide::store, needs_own, check_update_full_title},

    {"refuse-short-picture", "a picture of 99 bytes is refused with -4", guide::links, needs_list,
     check_refuse_short_picture},
    {"refuse-short-update", "an update without a whole record is refused with -3", guide::links, needs_nothing,
     check_refuse_short_update},
    {"refuse-negative-id", "an update of a negative id is refused with -2", guide::links, needs_list,
     check_refuse_negative_id},
    {"refuse-unknown-id", "an update of an id that the camera does not have is refused", guide::store, needs_list,
     check_refuse_unknown_id},
    {"refuse-empty-delete", "a deletion of nothing is refused with -2", guide::links, needs_list,
     check_refuse_empty_delete},
    {"refuse-faulty-delete", "a deletion with a faulty entry is refused with -3, and deletes nothing", guide::store,
     needs_own, check_refuse_faulty_delete},

    {"delete-one", "a deletion of one preset deletes it, and nothing else", guide::store, needs_changes,
     check_delete_one},
    {"delete-list", "the reply to a deletion lists what the next list shows", guide::store, needs_changes,
     check_delete_list},
    {"delete-others", "the other presets keep their ids and all their values", guide::store, needs_changes,
     check_delete_others},
    {"delete-numbers", "a deletion closes the gap in the numbers", guide::store, needs_changes, check_delete_numbers},
    {"delete-several", "two presets are deleted with one request", guide::store, needs_changes, check_delete_several},
    {"delete-last", "the last preset of the list is deleted", guide::store, needs_changes, check_delete_last},

    {"store-exposure", "exposure values on steps of the model come back", guide::store, needs_changes,
     check_store_exposure},
    {"iso-step", "the camera sets ISO in the same steps every time", guide::model, needs_changes, check_iso_step},
    {"id-after-deletion", "an id is above 0 and nobody else's after its preset was deleted", guide::store,
     needs_changes, check_id_after_deletion},
    {"picture-longest", "a picture of 599248 bytes, the longest, comes back byte for byte", guide::files,
     needs_changes | needs_time, check_picture_longest},

    {"silent-picture", "the picture of a preset that is not there has no reply", guide::bluetooth, needs_list,
     check_silent_picture},
    {"silent-functions", "functions without a reply have none, and the next request is read", guide::links,
     needs_nothing, check_silent_functions},
    {"leave", "a phone that has said that it leaves is still served", guide::host, needs_nothing, check_leave},
    {"refuse-functions", "functions below 0 and above 256 have no reply, and the next request is read", guide::links,
     needs_nothing, check_refuse_functions},
    {"refuse-negative-total", "a negative total has no reply, and the next request is read", guide::links,
     needs_boundaries, check_refuse_negative_total},
    {"refuse-too-long", "a request of 600001 bytes has no reply, and the next request is read", guide::links,
     needs_nothing, check_refuse_too_long},

    {"cut-list", "a list in packets of one byte is answered", guide::links, needs_list, check_cut_list},
    {"cut-update", "an update that is cut in two anywhere arrives whole", guide::links, needs_list, check_cut_update},
    {"cut-store", "a preset that is stored in packets of any size arrives whole", guide::links, needs_changes,
     check_cut_store},
    {"requests-together", "requests that arrive in one piece are told apart", guide::links, needs_stream,
     check_requests_together},
    {"pipelined", "twelve requests in a row have their replies, in order and whole", guide::links, needs_list,
     check_pipelined},
    {"replies-apart", "a packet never holds bytes of two replies", guide::links, needs_boundaries, check_replies_apart},

    {"drop-in-request", "a request that the link cut off does not reach into the next link", guide::drops,
     needs_nothing, check_drop_in_request},
    {"drop-in-reply", "a reply that the link cut off does not reach into the next link", guide::drops, needs_list,
     check_drop_in_reply},
    {"stall-short-total", "a total below 8 ends the answers until the phone connects again", guide::drops,
     needs_nothing, check_stall_short_total},
    {"stall-too-many-bytes", "bytes beyond the total end the answers until the phone connects again", guide::drops,
     needs_boundaries, check_stall_too_many_bytes},

    {"limit", "a camera with 40 presets refuses another one, and keeps the 40", guide::store,
     needs_changes | needs_time, check_limit},
    {"store-as-before", "the camera holds what it held before, and nothing else", guide::store, needs_list,
     check_store_as_before},

    {"log-written", "the camera's log has the lines of this run", guide::system_log, needs_log, check_log_written},
    {"confirm-all", "every send is confirmed", guide::confirmations, needs_log, check_confirm_all},
    {"confirm-in-time", "a send is confirmed before the next request", guide::confirmations, needs_log,
     check_confirm_in_time},
    {"confirm-once", "no send is confirmed twice", guide::confirmations, needs_log, check_confirm_once},
    {"memory", "the camera has memory for all requests and replies", guide::memory, needs_nothing, check_memory},
    {"pictures-opened", "the camera opens the picture of every preset", guide::files, needs_log, check_pictures_opened},
};

} // namespace

std::span<const Check> all_checks() {
    return checks;
}

// As pages make an anchor of a heading: in lower case, blanks as hyphens, and without what is neither letter nor digit.
std::string reference_to(const std::string& heading) {
    std::string anchor;
    for (const char character : heading) {
        if (character == ' ') {
            anchor += '-';
        } else if (std::isalnum(static_cast<unsigned char>(character)) != 0) {
            anchor += static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
        }
    }
    return "Docs/integrating.md#" + anchor;
}

} // namespace desk::phone
