// Stores several presets one after another with care, each with its picture, and says what became of each. Pictures
// come one at a time.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "CarefulStore.h"
#include "Common/Failure.h"

namespace desk::phone {

struct Options;

struct PresetToStore {
    enum class Fate {
        waiting,  // to be stored
        held,     // the camera has it already
        left_out, // nothing to store, which has been said
        stored,
        refused,
        in_doubt // it was sent, and no answer came
    };

    std::string source; // where it comes from, fit for a terminal: what its lines begin with
    std::string title;
    sm_tag_custom_info preset = {};
    std::function<Bytes()> picture; // throws Failure
    Fate fate = Fate::waiting;
    int32_t preset_num = 0; // in the camera, of one that is held or stored
    int32_t custom_id = 0;
    std::vector<Change> changes = {};
};

// What a run that broke off says.
struct WordsOfRun {
    std::string camera; // that stores, at the begin of a failure's line: "the camera"
    std::string remedy; // what to do then: "run it again to go on"
};

// A failure's line with `camera` in the place of "the camera", where it begins so, else before it.
Failure failure_at(const std::string& camera, const Failure& failure);

// Stores what is waiting, or with --dry-run tells what would come of it. Returns the exit code. Throws Failure whose
// line says how far it came.
int store_several(const Options& options, CarefulStore& store, std::vector<PresetToStore> presets, WordsOfRun words);

} // namespace desk::phone
