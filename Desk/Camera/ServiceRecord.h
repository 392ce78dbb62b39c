// The service records that tell phones the channel of RFCOMM, or the PSM of L2CAP.
#pragma once

#include <string>

#include "Links/Endpoint.h"

namespace desk::camera {

// The UUID by which the record of a link of this kind is found; null for one that has none. L2CAP's is not that of
// RFCOMM: who asks for that one is to find a channel.
const char* record_uuid(Endpoint::Kind kind);

// The record as the Bluetooth daemon takes it, in XML.
std::string record_xml(const Endpoint& endpoint, const std::string& name);

} // namespace desk::camera
