// What the camera is called on the air, so that phones find it among other things.
#pragma once

namespace desk {

// Of the service record that tells the channel of RFCOMM, and of the service that Low Energy advertises.
constexpr const char* service_uuid = "252a3c13-cb4c-4ac9-aec8-24e715743b86";

// Of the service record that tells the PSM of L2CAP. Nobody who looks for a channel finds it.
constexpr const char* l2cap_service_uuid = "2a439abd-ff15-4e0c-96b2-786370ca3683";

// Of the characteristic of Low Energy's service that tells its PSM, two bytes, little-endian. It is the one for which
// iOS has a name of its own, CBUUIDL2CAPPSMCharacteristicString.
constexpr const char* psm_characteristic_uuid = "abdd3056-28fa-441d-a470-55a75a52553a";

} // namespace desk
