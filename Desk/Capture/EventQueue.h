// The events that the packets read so far have brought and nobody has asked for yet.
#pragma once

#include <deque>
#include <optional>
#include <span>
#include <string>

#include "Reader.h"
#include "Wire/Record.h"

namespace desk::capture {

class EventQueue {
  public:
    // When and where what follows happens.
    void set_place(int64_t time, uint64_t record);

    uint32_t next_number() { return ++channels_; }
    void opened(const Channel& channel);
    void data(const Channel& channel, Side sender, std::span<const uint8_t> bytes);
    void gap(const Channel& channel, Side sender, const std::string& why);
    void closed(const Channel& channel, std::optional<Side> by);
    // A file can be wrong in any number of places: beyond a hundred they are counted.
    void remark(const std::string& line);
    void count_left_out();

    bool is_empty() const { return waiting_.empty(); }
    std::optional<Event> next();

  private:
    struct Entry {
        Event event;
        Bytes bytes;
    };
    void add(Event::Kind kind, const Channel& channel, Side sender);

    std::deque<Entry> waiting_;
    Bytes current_; // the bytes of the event that was given last
    int64_t time_ = 0;
    uint64_t record_ = 0;
    uint32_t channels_ = 0;
    uint64_t remarks_ = 0;
};

} // namespace desk::capture
