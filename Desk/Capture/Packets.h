// The HCI packets of a btsnoop file, one after another.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "Btsnoop.h"
#include "CaptureFile.h"
#include "EventQueue.h"
#include "Wire/Record.h"

namespace desk::capture {

struct HciPacket {
    uint8_t kind = 0;      // as in Hci.h; 0 for what else a file may hold
    bool received = false; // by the host whose packets these are
    uint16_t adapter = 0;  // of several
    std::span<const uint8_t> bytes;
};

class Packets {
  public:
    // Throws Failure (exit_usage) for what is no btsnoop file of HCI packets.
    Packets(CaptureFile file, EventQueue& queue);

    // Until the next call; nothing at the end. Whatever is wrong with the file is remarked.
    std::optional<HciPacket> next();
    // Whether packets were lost before the last one.
    bool has_lost() const { return has_lost_; }

  private:
    bool read_record(BtsnoopRecord& record);
    void note_drops(const BtsnoopRecord& record);
    HciPacket packet_of(const BtsnoopRecord& record);
    void end(const std::string& remark);

    CaptureFile file_;
    EventQueue& queue_;
    Datalink datalink_ = Datalink::h4;
    uint64_t number_ = 0;
    uint32_t drops_ = 0;
    bool has_lost_ = false;
    bool is_over_ = false;
    Bytes bytes_;
};

} // namespace desk::capture
