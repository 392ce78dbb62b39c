#include "Recognition.h"

#include <algorithm>

#include "Wire/Frames.h"

namespace desk::capture {
namespace {

constexpr int32_t header = sizeof(sm_frame);
constexpr int32_t record = sizeof(sm_tag_custom_info);
constexpr int32_t pair = sizeof(sm_delete_pair);

// The totals that each message has: from the least to the most, and how far one lies from the next.
struct Totals {
    int32_t function;
    Beginning beginning;
    int32_t least;
    int32_t most;
    int32_t step;
};

constexpr Totals totals[] = {
    {SM_FUNCTION_STATE_OFF, Beginning::request, header, header + 4, 4},
    {SM_FUNCTION_SEND_LIST, Beginning::request, header, header, 1},
    {SM_FUNCTION_SEND_PRESET, Beginning::request, header + 8, header + 8, 1},
    {SM_FUNCTION_RECEIVE_PRESET, Beginning::request, header + record + static_cast<int32_t>(smallest_picture),
     SM_REQUEST_LIMIT, 1},
    {SM_FUNCTION_UPDATE_PRESET, Beginning::request, header + record, header + record, 1},
    {SM_FUNCTION_DELETE_PRESET, Beginning::request, header + pair, header + SM_PRESET_LIMIT* pair, pair},
    {SM_FUNCTION_STATE_ON, Beginning::request, header, header, 1},
    {SM_REPLY + SM_FUNCTION_SEND_LIST, Beginning::reply, sizeof(sm_list_reply), longest_list_reply, record},
    {SM_REPLY + SM_FUNCTION_SEND_PRESET, Beginning::reply, sizeof(sm_screennail_reply), longest_picture_reply, 1},
    {SM_REPLY + SM_FUNCTION_RECEIVE_PRESET, Beginning::reply, longest_store_reply, longest_store_reply, 1},
    {SM_REPLY + SM_FUNCTION_UPDATE_PRESET, Beginning::reply, longest_update_reply, longest_update_reply, 1},
    {SM_REPLY + SM_FUNCTION_DELETE_PRESET, Beginning::reply, sizeof(sm_delete_reply), longest_delete_reply, pair},
    {busy_function, Beginning::reply, header + 4, header + 4, 1},
};

} // namespace

Beginning beginning_of(std::span<const uint8_t> bytes) {
    if (bytes.size() < sizeof(sm_frame)) {
        return Beginning::nothing;
    }
    const Totals* const found = std::ranges::find(totals, get_word(bytes, 0), &Totals::function);
    const int32_t total = get_word(bytes, 4);
    const bool fits = found != std::end(totals) && total >= found->least && total <= found->most &&
                      (total - found->least) % found->step == 0;
    return fits ? found->beginning : Beginning::nothing;
}

} // namespace desk::capture
