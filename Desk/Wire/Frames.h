// Requests and replies as they travel.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Record.h"

namespace desk {

// The most bytes that a request has room for behind a preset's record.
constexpr size_t longest_picture = SM_REQUEST_LIMIT - sizeof(sm_frame) - sizeof(sm_tag_custom_info);

// A whole request: the header with the right total length, then the payload.
Bytes request(int32_t function, std::span<const uint8_t> payload = {});

// The payloads of the requests that have one.
Bytes picture_payload(int32_t custom_id, int32_t applocal_id);
Bytes store_payload(const sm_tag_custom_info& preset, std::span<const uint8_t> picture);
Bytes delete_payload(std::span<const sm_delete_pair> pairs);

// Collects the bytes of one frame after another, whatever pieces they arrive in.
class FrameReader {
  public:
    // Takes bytes in.
    void feed(std::span<const uint8_t> bytes);
    // The next whole frame, header included, or nothing yet. Throws Failure (exit_protocol) when the header
    // announces fewer than 8 bytes or more than `longest` bytes.
    std::optional<Bytes> next();
    // Bytes of the frame in progress that have arrived, and bytes that it has in all (0 while unknown).
    size_t arrived() const;
    size_t expected() const;

    static constexpr size_t longest = size_t{1} << 30;

  private:
    size_t waiting() const;
    void drop_taken();

    Bytes bytes_;
    size_t taken_ = 0; // bytes of frames that `next` has given out
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

// Each takes a whole frame apart. Throws Failure (exit_protocol) that says what was expected and what came
// when the function number, the length, the layout or the number of presets is not what the reply has.
ListReply parse_list_reply(std::span<const uint8_t> frame);
PictureReply parse_picture_reply(std::span<const uint8_t> frame);
StoreReply parse_store_reply(std::span<const uint8_t> frame);
int32_t parse_update_reply(std::span<const uint8_t> frame);
DeleteReply parse_delete_reply(std::span<const uint8_t> frame);

} // namespace desk
