// Requests and replies as they travel.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Record.h"

namespace desk {

// What a camera takes as a preset's picture: at most what a request has room for behind the preset's record.
constexpr size_t smallest_picture = 100;
constexpr size_t longest_picture = SM_REQUEST_LIMIT - sizeof(sm_frame) - sizeof(sm_tag_custom_info);

// A whole request: the header with the right total length, then the payload.
Bytes request(int32_t function, std::span<const uint8_t> payload = {});

// The payloads of the requests that have one.
Bytes picture_payload(int32_t custom_id, int32_t applocal_id);
Bytes store_payload(const sm_tag_custom_info& preset, std::span<const uint8_t> picture);
Bytes delete_payload(std::span<const sm_delete_pair> pairs);

// The most bytes that each reply has, its header included. A camera that announces more breaks the protocol.
constexpr size_t longest_list_reply = sizeof(sm_list_reply) + SM_PRESET_LIMIT * sizeof(sm_tag_custom_info);
constexpr size_t longest_store_reply = sizeof(sm_receive_reply);
constexpr size_t longest_update_reply = sizeof(sm_update_reply);
constexpr size_t longest_delete_tail = 2 * sizeof(sm_delete_pair); // bytes without a meaning
constexpr size_t longest_delete_reply =
    sizeof(sm_delete_reply) + SM_PRESET_LIMIT * sizeof(sm_tag_custom_info) + longest_delete_tail;
// The protocol sets no bound to a picture. A camera sends the small streams at the start of a picture file, and even a
// whole file of 24 megapixels seldom has more than this.
constexpr size_t longest_picture_reply = size_t{16} << 20;

// Collects the bytes of one frame after another, whatever pieces they arrive in. It holds one frame at most.
class FrameReader {
  public:
    // Takes what the frame in progress lacks from the start of `bytes`; what is left there belongs to the frames that
    // follow. Returns the frame, header included, once it is whole. Throws Failure (exit_protocol) as soon as the
    // header announces fewer bytes than its own 8, or more than `longest`.
    std::optional<Bytes> take(std::span<const uint8_t>& bytes, size_t longest);
    // Bytes of the frame in progress that have arrived, and bytes that it has in all (0 while unknown).
    size_t arrived() const { return frame_.size(); }
    size_t expected() const { return expected_; }

  private:
    void fill(std::span<const uint8_t>& bytes, size_t size);
    void read_header(size_t longest);

    Bytes frame_;
    size_t expected_ = 0;
};

// The desk's camera sends this to a second phone and closes the link. A real camera never does.
constexpr int32_t busy_function = SM_REPLY + SM_FUNCTION_STATE_ON;
Bytes busy_frame();

struct ListReply {
    std::string model;
    int32_t layout = 0;
    std::vector<sm_tag_custom_info> presets;
};

struct PictureReply {
    int32_t custom_id = 0;
    Bytes picture;
};

struct StoreReply {
    int32_t result = 0;
    int32_t preset_num = 0;
    int32_t custom_id = 0;
    int32_t applocal_id = 0;
};

struct DeleteReply {
    int32_t result = 0;
    int32_t layout = 0;
    std::vector<sm_tag_custom_info> presets; // what is left
};

// Each takes a whole frame apart. Throws Failure (exit_protocol) that says what was expected and what came when the
// function number, the length, the layout or the number of presets is not what the reply has. The picture stays in the
// memory that the frame came in.
ListReply parse_list_reply(std::span<const uint8_t> frame);
PictureReply parse_picture_reply(Bytes frame);
StoreReply parse_store_reply(std::span<const uint8_t> frame);
int32_t parse_update_reply(std::span<const uint8_t> frame);
DeleteReply parse_delete_reply(std::span<const uint8_t> frame);

} // namespace desk
