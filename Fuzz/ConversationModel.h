// A second, plain model of intake, commands and reply queue. It takes each step that the library takes, and holds what
// the library has done to what had to come of it, down to the bytes of every reply.
#pragma once

#include <deque>
#include <optional>

#include "FuzzHost.h"

namespace fuzz {

// A reply that the library keeps for the Bluetooth service.
struct Reply {
    const void* data = nullptr;
    size_t size = 0;
    Bytes bytes; // from the start of the buffer, as they were sent
};

// What a dispatched request must lead to.
struct Expected {
    int result = SM_RETURN_FAIL;
    struct Sent {
        int length;
        size_t buffer_size;
        Bytes bytes;
    };
    std::optional<Sent> sent;
};

class Model {
  public:
    void refuse(int n, bool for_good);

    void receive(const Bytes& packet, int length);
    void combine(const Bytes& packet, int length);
    void confirm();
    void drop_link();
    void give_back();

  private:
    bool granted(); // whether the library gets the memory that it asks for next
    bool append(const Bytes& packet, int length);
    void check_reassembly() const;
    void check_replies();
    void settle(const Expected& expected);
    void go_idle();

    void park();
    bool begin_reply();
    static void send(Expected& expected, Bytes bytes);

    Expected run(const Bytes& request, int total);
    Expected state_off(const Bytes& request, int total);
    Expected list();
    Expected picture(int custom_id);
    Expected picture_error(int result);
    Expected store(const Bytes& request, int total);
    Expected update(const Bytes& request, int total);
    Expected remove(const Bytes& request, int total);
    bool allocate_lists();
    Bytes converted_presets(int count, int first_linked_answer);

    int64_t total_ = -1, sum_ = 0;
    bool has_buffer_ = false;
    Bytes stored_;

    std::optional<Reply> current_;
    std::deque<Reply> queue_;
    std::vector<Reply> lost_; // never freed: replaced in a full queue, or by an error reply

    int refuse_at_ = 0, asked_ = 0;
    bool refuse_for_good_ = false;
};

} // namespace fuzz
