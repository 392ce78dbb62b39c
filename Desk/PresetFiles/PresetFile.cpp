#include "PresetFile.h"

#include <nlohmann/json.hpp>

#include "PresetJson.h"

namespace desk {

std::string text_of_preset(const sm_tag_custom_info& preset, Form /*form*/) {
    constexpr int indentation = 2;
    return to_json(preset).dump(indentation) + "\n";
}

PresetFile preset_from_text(std::string_view text, const std::string& name) {
    return {phone_record_from_json(text, name), Form::raw};
}

} // namespace desk
