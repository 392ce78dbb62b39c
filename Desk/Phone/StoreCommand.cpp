#include "StoreCommand.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "CameraClient.h"
#include "CarefulStore.h"
#include "Options.h"
#include "Output.h"
#include "PresetFiles/PresetFile.h"
#include "Presets.h"
#include "Reporting.h"
#include "StandardFiles.h"
#include "StorablePicture.h"
#include "Words/Describe.h"

namespace desk::phone {
namespace {

using Json = nlohmann::ordered_json;

constexpr const char* full_camera = "the camera holds 40 presets, as many as a camera takes: delete one first";

PresetFile preset_from(const Options& options) {
    const Bytes text = read_input(options.preset_file, longest_preset_file);
    const MissingSteps missing = options.takes_nearest ? MissingSteps::nearest : MissingSteps::refused;
    PresetFile file = preset_from_text({reinterpret_cast<const char*>(text.data()), text.size()},
                                       name_of_input(options.preset_file), missing);
    for (const std::string& taken : file.taken) {
        mention(options, fmt::format("{}: {}", name_of_input(options.preset_file), taken));
    }
    return file;
}

void print_stored(const StoreReply& reply) {
    if (reply.result == SM_RETURN_TRUE) {
        print(fmt::format("stored as preset {} with id {}\n", reply.preset_num, reply.custom_id));
    }
}

// Sends the one request and nothing else.
int store_unchecked(const Options& options, const PresetFile& file, const SentPicture& picture) {
    const sm_tag_custom_info sent = file.form == Form::raw ? file.preset : sendable(file.preset);
    const StoreReply reply = CameraClient(options).store(sent, picture.jpeg);
    if (!picture.change.empty()) {
        say(picture.change);
    }
    if (options.json) {
        print_json(json_of(reply));
    } else {
        print_stored(reply);
    }
    return report_result(reply.result);
}

int foresee_store(const Options& options, const CarefulStore& camera, const Planned& planned) {
    if (options.json) {
        print_json({{"forecast", json_of(planned.changes)}});
        return exit_done;
    }
    for (const Change& change : planned.changes) {
        print(line_of(planned, change) + "\n");
    }
    if (planned.changes.empty()) {
        print(fmt::format("\"{}\" will be as it is\n", title_text(planned.wanted)));
    }
    if (camera.room() == 0) {
        mention(options, full_camera);
    }
    return exit_done;
}

// What was stored is on standard output even where it cannot be compared any more.
int finish_store(const Options& options, CarefulStore& camera, const Planned& planned, const StoreReply& reply) {
    Json json = json_of(reply);
    json["forecast"] = json_of(planned.changes);
    json["differences"] = nullptr; // until they are known
    if (!options.json) {
        print_stored(reply);
    }
    std::vector<Surprise> surprises;
    try {
        surprises = camera.finish();
    } catch (const Failure&) {
        if (options.json) {
            print_json(json);
        }
        throw;
    }
    json["differences"] = json_of(surprises);
    if (options.json) {
        print_json(json);
    }
    for (const Surprise& surprise : surprises) {
        complain(line_of(surprise));
    }
    const int code = report_result(reply.result);
    return code == exit_done && !surprises.empty() ? int{exit_not_as_forecast} : code;
}

} // namespace

int store(const Options& options) {
    if (is_standard(options.preset_file) && is_standard(options.picture_file)) {
        throw Failure(exit_usage, "the preset and its picture cannot both be standard input; name a file for one");
    }
    const PresetFile file = preset_from(options);
    const SentPicture picture = picture_from(options.picture_file, options.fits_picture);
    if (options.unchecked) {
        return store_unchecked(options, file, picture);
    }
    CameraClient client(options);
    CarefulStore camera(client, options.quiet);
    const Planned planned = camera.plan(file.preset, file.form, picture.jpeg);
    if (options.dry_run) {
        return foresee_store(options, camera, planned);
    }
    const StoreReply reply = camera.store(planned, picture.jpeg);
    if (!picture.change.empty()) {
        say(picture.change);
    }
    return finish_store(options, camera, planned, reply);
}

} // namespace desk::phone
