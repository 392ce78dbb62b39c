#include "PsmQuery.h"

#include <utility>

namespace desk {
namespace {

using Bytes = std::vector<uint8_t>;
using View = std::span<const uint8_t>;

enum class Operation : uint8_t {
    error_response = 0x01,
    mtu_request = 0x02,
    mtu_response = 0x03,
    find_information = 0x04,
    find_by_value = 0x06,
    read_by_type = 0x08,
    read_by_type_response = 0x09,
    read_by_group = 0x10,
    indication = 0x1D,
    confirmation = 0x1E
};

enum class Fault : uint8_t {
    insufficient_authentication = 0x05,
    request_not_supported = 0x06,
    insufficient_authorization = 0x08,
    attribute_not_found = 0x0A,
    key_too_short = 0x0C,
    insufficient_encryption = 0x0F
};

constexpr uint16_t least_mtu = 23; // what each side takes without having agreed on more
constexpr uint8_t command_mark = 0x40;
constexpr uint8_t last_psm = 255;

Finding finding_of(Finding::Kind kind) {
    return {kind, 0, {}};
}

Finding answered(Bytes packet) {
    return {Finding::Kind::nothing_yet, 0, std::move(packet)};
}

// The device's own questions have even numbers; what wants no answer has a mark, or is an answer itself.
bool is_request(uint8_t operation) {
    return operation % 2 == 0 && (operation & command_mark) == 0 &&
           operation != static_cast<uint8_t>(Operation::confirmation);
}

// Most requests name the first attribute that they are about, and so does the error.
Finding nothing_there(View packet) {
    const auto operation = static_cast<Operation>(packet[0]);
    const bool is_search = operation == Operation::find_information || operation == Operation::find_by_value ||
                           operation == Operation::read_by_type || operation == Operation::read_by_group;
    const Fault fault = is_search ? Fault::attribute_not_found : Fault::request_not_supported;
    const bool has_handle = is_search && packet.size() > 2;
    return answered({static_cast<uint8_t>(Operation::error_response), packet[0], has_handle ? packet[1] : uint8_t{0},
                     has_handle ? packet[2] : uint8_t{0}, static_cast<uint8_t>(fault)});
}

// operation that failed, attribute (two bytes), fault
Finding finding_of_error(View error) {
    constexpr size_t size = 4;
    if (error.size() != size || error[0] != static_cast<uint8_t>(Operation::read_by_type)) {
        return finding_of(Finding::Kind::faulty);
    }
    switch (static_cast<Fault>(error[3])) {
    case Fault::attribute_not_found:
        return finding_of(Finding::Kind::absent);
    case Fault::insufficient_authentication:
    case Fault::insufficient_authorization:
    case Fault::insufficient_encryption:
    case Fault::key_too_short:
        return finding_of(Finding::Kind::for_paired);
    default:
        return finding_of(Finding::Kind::refused);
    }
}

// The size of each entry; entries, of which the first counts: attribute (two bytes), PSM (two bytes).
Finding finding_of_values(View values) {
    constexpr uint8_t entry_size = 4;
    if (values.empty() || values[0] != entry_size || values.size() == 1 || (values.size() - 1) % entry_size != 0) {
        return finding_of(Finding::Kind::faulty);
    }
    const auto psm = static_cast<uint16_t>(values[3] | values[4] << 8);
    if (psm == 0 || psm > last_psm) {
        return finding_of(Finding::Kind::faulty);
    }
    return {Finding::Kind::found, psm, {}};
}

} // namespace

Bytes PsmQuery::first_packet() const {
    Bytes packet = {static_cast<uint8_t>(Operation::read_by_type), 0x01, 0x00, 0xFF, 0xFF}; // among all attributes
    packet.insert(packet.end(), characteristic_.rbegin(), characteristic_.rend());
    return packet;
}

Finding PsmQuery::take(View packet) {
    if (packet.empty()) {
        return finding_of(Finding::Kind::faulty);
    }
    switch (static_cast<Operation>(packet[0])) {
    case Operation::read_by_type_response:
        return finding_of_values(packet.subspan(1));
    case Operation::error_response:
        return finding_of_error(packet.subspan(1));
    case Operation::mtu_request:
        return answered({static_cast<uint8_t>(Operation::mtu_response), least_mtu, 0});
    case Operation::indication:
        return answered({static_cast<uint8_t>(Operation::confirmation)});
    default:
        return is_request(packet[0]) ? nothing_there(packet) : finding_of(Finding::Kind::nothing_yet);
    }
}

} // namespace desk
