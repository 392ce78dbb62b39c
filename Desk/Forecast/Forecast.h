// What a camera makes of a preset that it is sent, and what to send so that it shows again what was listed before.
// Foretold with the library's own conversion; what a camera's preset store does on its own account is not foreseen.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Conversion.h"
#include "Differences.h"

namespace desk {

// What the conversion of a preset depends on in the camera.
struct CameraState {
    IsoSteps iso_steps = IsoSteps::unknown;
    std::optional<int32_t> last_listed_mode; // of the last preset of its last list that was not empty; or unknown
};

// What a list tells of the camera that sent it, right after it.
CameraState state_of(const std::vector<sm_tag_custom_info>& listed);

// The record to send so that the camera lists `as_listed` as far as can be. What the camera gives of its own (number,
// id, the picture's path, the custom mode) is 0.
sm_tag_custom_info sendable(const sm_tag_custom_info& as_listed);

// The other way round: what the codes that are sent mean in the codes of a list, as far as the two differ.
sm_tag_custom_info meant_by(const sm_tag_custom_info& sent);

// The record that the camera will list, but for its number, id and path, which are 0. Unknown ISO steps count as full,
// an unknown mode as none that takes the aperture away.
sm_tag_custom_info forecast(const sm_tag_custom_info& sent, const CameraState& state);

// The forecasts for all states that the camera may be in, one at least.
std::vector<sm_tag_custom_info> forecasts(const sm_tag_custom_info& sent, const CameraState& state);

// Whether the camera would, or may, lose the aperture of a preset for what it listed last.
bool loses_aperture(const sm_tag_custom_info& sent, const CameraState& state);

// An entry of a preset that the camera will show differently.
struct Change {
    std::string entry; // the field's name
    std::string wanted;
    std::string expected;
    std::string reason;    // a sentence without a full stop
    std::string condition; // "if ..."; empty when it is certain
};

// "iso 500 -> 400: the camera is set to full ISO steps"
std::string line_of(const Change& change);

// What changes of a preset `wanted` in a list when `sent` is sent, in the order of the record. The number, the id and
// the path are not compared: every camera gives its own.
std::vector<Change> changes(const sm_tag_custom_info& wanted, const sm_tag_custom_info& sent, const CameraState& state);

// What differs, in the order of the record; the number, the id and the path are not compared.
std::vector<Difference> differences(const sm_tag_custom_info& expected, const sm_tag_custom_info& found);

} // namespace desk
