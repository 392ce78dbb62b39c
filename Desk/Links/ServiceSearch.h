// The question on which RFCOMM channel a service listens, as a device's directory of services (SDP, L2CAP PSM 1)
// answers it. Long answers come in parts, each of which has to be asked for.
#pragma once

#include "Enquiry.h"

namespace desk {

class ServiceSearch : public Enquiry {
  public:
    static constexpr uint16_t psm = 1;

    explicit ServiceSearch(const Uuid& service) : service_(service) {}
    std::vector<uint8_t> first_packet() const override { return request({}); }
    Finding take(std::span<const uint8_t> packet) override;

  private:
    std::vector<uint8_t> request(std::span<const uint8_t> continuation) const;
    Finding take_part(std::span<const uint8_t> parameters);
    Finding finding() const;

    Uuid service_;
    uint16_t transaction_ = 1;
    std::vector<uint8_t> records_; // as far as they have come
};

} // namespace desk
