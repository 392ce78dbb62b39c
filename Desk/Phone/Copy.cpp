#include "Copy.h"

#include <fmt/format.h>
#include <string_view>

#include "CameraClient.h"
#include "Common/Text.h"
#include "Jpeg.h"
#include "Options.h"
#include "PresetNames.h"
#include "Presets.h"
#include "StorablePicture.h"
#include "StoreSeveral.h"
#include "Words/Describe.h"

namespace desk::phone {
namespace {

std::string name_of(const Endpoint& camera) {
    return fmt::format("the camera at {}", printable(camera.url()));
}

// What `act` returns, its failure named after the camera.
template<typename Act>
auto with(const Endpoint& camera, const Act& act) {
    try {
        return act();
    } catch (const Failure& failure) {
        throw failure_at(name_of(camera), failure);
    }
}

// A picture that another camera takes as it is.
Bytes picture_of(CameraClient& camera, const Endpoint& endpoint, const NumberedPreset& preset) {
    Bytes picture = with(endpoint, [&] { return camera.picture(preset.preset); });
    const std::string name = fmt::format("the picture of {}", reference_to(preset));
    if (picture.empty()) {
        throw Failure(exit_missing, fmt::format("{} could not read {}", name_of(endpoint), name));
    }
    if (picture.size() > longest_picture) {
        throw Failure(exit_usage,
                      fmt::format("{} has {} bytes, and at most {} can be stored; save it with picture, and the preset "
                                  "with show --json, and give both to store --fit",
                                  name, picture.size(), longest_picture));
    }
    require_jpeg(picture, name);
    if (const std::optional<std::string> fault = fault_of_jpeg(picture)) {
        throw Failure(
            exit_usage,
            fmt::format("{} is cut off or broken: {}; save it with picture, mend it, and store it", name, *fault));
    }
    return picture;
}

std::vector<PresetToStore> presets_from(CameraClient& camera, const Options& options) {
    const std::vector<sm_tag_custom_info> listed = with(options.camera, [&] { return camera.list().presets; });
    std::vector<PresetToStore> presets;
    for (const NumberedPreset& one : presets_named(listed, options.presets)) {
        PresetToStore preset;
        preset.source = reference_to(one);
        preset.title = title_text(one.preset);
        preset.preset = one.preset;
        preset.picture = [&camera, &options, one] { return picture_of(camera, options.camera, one); };
        presets.push_back(std::move(preset));
    }
    return presets;
}

} // namespace

int copy(const Options& options) {
    const Options source_options = without_progress(options);
    Options target_options = source_options;
    target_options.camera = options.other_camera;
    const bool is_same = options.camera.url() == options.other_camera.url(); // which takes one phone at a time
    CameraClient source = with(options.camera, [&] { return CameraClient(source_options); });
    std::vector<PresetToStore> presets = presets_from(source, options);
    std::optional<CameraClient> target;
    CarefulStore store = with(options.other_camera, [&] {
        CameraClient& camera = is_same ? source : target.emplace(target_options);
        return CarefulStore(camera, options.quiet);
    });
    return store_several(options, store, std::move(presets),
                         {name_of(options.other_camera), "name the others to copy them"});
}

} // namespace desk::phone
