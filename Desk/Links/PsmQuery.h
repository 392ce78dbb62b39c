// The question on which PSM of Low Energy a camera listens: a characteristic tells it to whoever reads attributes (ATT,
// the fixed channel 4). The device may ask at the same time what attributes we have; there are none.
#pragma once

#include "Enquiry.h"

namespace desk {

class PsmQuery : public Enquiry {
  public:
    static constexpr uint16_t channel_id = 4;

    explicit PsmQuery(const Uuid& characteristic) : characteristic_(characteristic) {}
    std::vector<uint8_t> first_packet() const override;
    Finding take(std::span<const uint8_t> packet) override;

  private:
    Uuid characteristic_;
};

} // namespace desk
