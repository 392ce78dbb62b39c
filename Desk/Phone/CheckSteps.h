// What each check does. Throws Finding when something does not hold, Skip when it cannot tell.
#pragma once

namespace desk::phone {

class CheckSession;

// ---- Lists ----
void check_answers(CheckSession& session);
void check_list_answered(CheckSession& session);
void check_list_layout(CheckSession& session);
void check_list_records(CheckSession& session);
void check_list_numbers(CheckSession& session);
void check_list_ids(CheckSession& session);
void check_list_links(CheckSession& session);
void check_list_steady(CheckSession& session);

// ---- Storing ----
void check_store_result(CheckSession& session);
void check_store_listed(CheckSession& session);
void check_store_identity(CheckSession& session);
void check_store_new_ids(CheckSession& session);
void check_store_unlinked(CheckSession& session);
void check_store_fields(CheckSession& session);
void check_store_exposure(CheckSession& session);
void check_iso_step(CheckSession& session);
void check_id_after_deletion(CheckSession& session);
void check_limit(CheckSession& session);

// ---- Pictures ----
void check_picture_id(CheckSession& session);
void check_picture_smallest(CheckSession& session);
void check_picture_whole(CheckSession& session);
void check_picture_streams(CheckSession& session);
void check_picture_longest(CheckSession& session);

// ---- Updates ----
void check_update_result(CheckSession& session);
void check_update_title(CheckSession& session);
void check_update_server_id(CheckSession& session);
void check_update_rest(CheckSession& session);
void check_update_others(CheckSession& session);
void check_update_long_title(CheckSession& session);
void check_update_full_title(CheckSession& session);

// ---- Deletions ----
void check_delete_one(CheckSession& session);
void check_delete_list(CheckSession& session);
void check_delete_others(CheckSession& session);
void check_delete_numbers(CheckSession& session);
void check_delete_several(CheckSession& session);
void check_delete_last(CheckSession& session);

// ---- Refusals and silence ----
void check_refuse_short_picture(CheckSession& session);
void check_refuse_short_update(CheckSession& session);
void check_refuse_negative_id(CheckSession& session);
void check_refuse_unknown_id(CheckSession& session);
void check_refuse_empty_delete(CheckSession& session);
void check_refuse_faulty_delete(CheckSession& session);
void check_silent_picture(CheckSession& session);
void check_silent_functions(CheckSession& session);
void check_refuse_functions(CheckSession& session);
void check_refuse_negative_total(CheckSession& session);
void check_refuse_too_long(CheckSession& session);

// ---- Packets ----
void check_cut_list(CheckSession& session);
void check_cut_update(CheckSession& session);
void check_cut_store(CheckSession& session);
void check_requests_together(CheckSession& session);
void check_pipelined(CheckSession& session);
void check_replies_apart(CheckSession& session);

// ---- Links ----
void check_leave(CheckSession& session);
void check_drop_in_request(CheckSession& session);
void check_drop_in_reply(CheckSession& session);
void check_stall_short_total(CheckSession& session);
void check_stall_too_many_bytes(CheckSession& session);

// ---- The end, and the camera's log ----
void check_store_as_before(CheckSession& session);
void check_log_written(CheckSession& session);
void check_confirm_all(CheckSession& session);
void check_confirm_in_time(CheckSession& session);
void check_confirm_once(CheckSession& session);
void check_memory(CheckSession& session);
void check_pictures_opened(CheckSession& session);

} // namespace desk::phone
