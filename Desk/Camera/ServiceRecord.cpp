#include "ServiceRecord.h"

#include <fmt/format.h>

#include "Links/ServiceUuids.h"

namespace desk::camera {
namespace {

std::string escaped(const std::string& text) {
    std::string xml;
    for (const char character : text) {
        switch (character) {
        case '&':
            xml += "&amp;";
            break;
        case '<':
            xml += "&lt;";
            break;
        case '>':
            xml += "&gt;";
            break;
        case '"':
            xml += "&quot;";
            break;
        default:
            xml += character;
        }
    }
    return xml;
}

// L2CAP alone with a PSM, or RFCOMM over it with a channel.
std::string protocols(const Endpoint& endpoint) {
    constexpr const char* l2cap = R"(<uuid value="0x0100"/>)";
    if (endpoint.kind == Endpoint::Kind::l2cap) {
        return fmt::format(R"(<sequence>{}<uint16 value="0x{:04x}"/></sequence>)", l2cap, endpoint.port);
    }
    return fmt::format(R"(<sequence>{}</sequence><sequence><uuid value="0x0003"/><uint8 value="0x{:02x}"/></sequence>)",
                       l2cap, endpoint.port);
}

} // namespace

const char* record_uuid(Endpoint::Kind kind) {
    switch (kind) {
    case Endpoint::Kind::rfcomm:
        return service_uuid;
    case Endpoint::Kind::l2cap:
        return l2cap_service_uuid;
    default:
        return nullptr;
    }
}

// The service's UUID, the protocols, the group that browsers list, the language of the name (English, in UTF-8), and
// the name.
std::string record_xml(const Endpoint& endpoint, const std::string& name) {
    return fmt::format(R"(<?xml version="1.0" encoding="UTF-8"?><record>)"
                       R"(<attribute id="0x0001"><sequence><uuid value="{}"/></sequence></attribute>)"
                       R"(<attribute id="0x0004"><sequence>{}</sequence></attribute>)"
                       R"(<attribute id="0x0005"><sequence><uuid value="0x1002"/></sequence></attribute>)"
                       R"(<attribute id="0x0006"><sequence><uint16 value="0x656e"/><uint16 value="0x006a"/>)"
                       R"(<uint16 value="0x0100"/></sequence></attribute>)"
                       R"(<attribute id="0x0100"><text value="{}"/></attribute></record>)",
                       record_uuid(endpoint.kind), protocols(endpoint), escaped(name));
}

} // namespace desk::camera
