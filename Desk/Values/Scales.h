// The exposure values: what a photographer calls them, and the steps that the camera has, from the library's tables.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace desk {

std::string aperture_text(int32_t f_number_times_ten); // 28: "f/2.8", 110: "f/11", 0: "-"
std::string shutter_text(int32_t position);            // "1/125 s", "2.5 s"; a position without a time: "step 53"
std::string iso_text(int32_t iso);                     // "ISO 400", 0: "ISO auto"
std::string compensation_text(int32_t code);           // 50: "0 EV", 53: "+1/3 EV", 43: "-2/3 EV", 101: "code 101"

// One of the values that a camera can be set to.
struct Step {
    int32_t code;     // the phone's, as a list has it
    std::string word; // "f/2.8", "1/125 s", "400", "+1/3"
    double stops;     // where it lies on its scale, in steps of exposure
};

// A scale of exposure values, from its lowest step to its highest.
class Scale {
  public:
    using Read = std::optional<double> (*)(std::string_view);

    Scale(const char* name, const std::vector<std::pair<int32_t, std::string>>& steps, Read read);

    const std::string& name() const { return name_; }
    const std::vector<Step>& steps() const { return steps_; }
    const Step* step_of(int32_t code) const;
    // Where what a person wrote lies on the scale; nothing when it is no such value.
    std::optional<double> stops_of(std::string_view written) const { return read_(written); }
    // The steps beside a place on the scale: both the same when it is that of a step, null where there is none.
    struct Neighbours {
        const Step* below;
        const Step* above;
        const Step* nearest; // the lower one when both are equally near
        bool is_step() const { return below == above; }
    };
    Neighbours around(double stops) const;

  private:
    std::string name_;
    std::vector<Step> steps_;
    Read read_;
};

const Scale& aperture_scale();
const Scale& shutter_scale();
const Scale& iso_scale(); // third steps, without automatic
const Scale& compensation_scale();

} // namespace desk
