#include "StoreSeveral.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <string_view>
#include <utility>

#include "Options.h"
#include "Output.h"
#include "Presets.h"
#include "Progress.h"
#include "Words/Results.h"

namespace desk::phone {
namespace {

using Json = nlohmann::ordered_json;
using Fate = PresetToStore::Fate;

std::atomic<bool> is_stopped{false};

void note_signal(int /*number*/) {
    is_stopped = true;
}

// The first signal lets the preset that is under way come to its end, the second one does not.
void heed_signals() {
    struct sigaction action = {};
    action.sa_handler = note_signal;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    for (const int number : {SIGINT, SIGTERM}) {
        sigaction(number, &action, nullptr);
    }
}

struct FateText {
    Fate fate;
    const char* name; // in JSON
};
constexpr FateText fate_texts[] = {
    {Fate::waiting, "not stored"}, {Fate::held, "held already"}, {Fate::left_out, "left out"},
    {Fate::stored, "stored"},      {Fate::refused, "refused"},   {Fate::in_doubt, "in doubt"},
};

const char* name_of(Fate fate) {
    return std::ranges::find(fate_texts, fate, &FateText::fate)->name;
}

bool is_in_camera(Fate fate) {
    return fate == Fate::held || fate == Fate::stored;
}

// One run.
class StoreSeveral {
  public:
    StoreSeveral(const Options& options, CarefulStore& store, std::vector<PresetToStore> presets, WordsOfRun words)
        : options_(options), store_(store), presets_(std::move(presets)), words_(std::move(words)) {}

    int run();
    // All that a run has found out.
    Json document() const;

  private:
    size_t count(Fate fate) const;
    std::string counts() const;
    void require_room() const;
    void tell(const PresetToStore& preset) const;
    void foresee();
    void store_waiting();
    void store(PresetToStore& preset);
    void compare();
    Failure broken_off(int code, const std::string& why) const;

    const Options& options_;
    CarefulStore& store_;
    std::vector<PresetToStore> presets_;
    WordsOfRun words_;
    std::vector<Surprise> surprises_;
};

size_t StoreSeveral::count(Fate fate) const {
    return static_cast<size_t>(std::ranges::count(presets_, fate, &PresetToStore::fate));
}

std::string StoreSeveral::counts() const {
    std::string text = fmt::format("{} of {} stored", count(Fate::stored), presets_.size());
    for (const Fate fate : {Fate::held, Fate::left_out}) {
        text += count(fate) > 0 ? fmt::format(", {} {}", count(fate), name_of(fate)) : "";
    }
    return text;
}

void StoreSeveral::require_room() const {
    const size_t needed = count(Fate::waiting);
    if (needed > store_.room()) {
        throw Failure(exit_usage,
                      fmt::format("{} presets are to be stored, and the camera has room for {}; delete some "
                                  "there, or name fewer; nothing is stored",
                                  needed, store_.room()));
    }
}

int StoreSeveral::run() {
    require_room();
    if (options_.dry_run) {
        foresee();
        return count(Fate::left_out) > 0 ? exit_missing : exit_done;
    }
    heed_signals();
    try {
        store_waiting();
    } catch (const Failure& failure) {
        if (failure.code() >= exit_result) { // the camera still answers
            compare();
        }
        throw;
    }
    compare();
    if (!options_.json) {
        print(counts() + "\n");
    }
    return !surprises_.empty() ? exit_not_as_forecast : count(Fate::left_out) > 0 ? exit_missing : exit_done;
}

void StoreSeveral::tell(const PresetToStore& preset) const {
    if (options_.json) {
        return;
    }
    if (preset.fate == Fate::stored || preset.fate == Fate::held) {
        print(fmt::format("{}: {}, preset {} with id {}\n", preset.source, name_of(preset.fate), preset.preset_num,
                          preset.custom_id));
    }
}

void StoreSeveral::foresee() {
    for (PresetToStore& preset : presets_) {
        tell(preset);
        if (preset.fate != Fate::waiting) {
            continue;
        }
        const Planned planned = store_.plan(preset.preset, Form::words, preset.picture());
        preset.changes = planned.changes;
        for (const Change& change : planned.changes) {
            say(line_of(planned, change));
        }
        if (!options_.json) {
            print(fmt::format("{}: would be stored\n", preset.source));
        }
    }
}

void StoreSeveral::store_waiting() {
    Progress progress("", !options_.quiet);
    for (size_t number = 0; number < presets_.size(); ++number) {
        PresetToStore& preset = presets_[number];
        if (preset.fate == Fate::waiting) {
            if (is_stopped) {
                throw broken_off(exit_stopped, "stopped by a signal");
            }
            progress.show_step(number + 1, presets_.size(), preset.title);
            store(preset);
            progress.clear();
        }
        tell(preset);
    }
}

void StoreSeveral::store(PresetToStore& preset) {
    StoreReply reply;
    try {
        const Bytes picture = preset.picture();
        const Planned planned = store_.plan(preset.preset, Form::words, picture);
        preset.changes = planned.changes;
        preset.fate = Fate::in_doubt;
        reply = store_.store(planned, picture);
    } catch (const Failure& failure) {
        const bool is_of_target = preset.fate == Fate::in_doubt;
        throw broken_off(failure.code(), is_of_target ? failure_at(words_.camera, failure).what() : failure.what());
    }
    if (reply.result != SM_RETURN_TRUE) {
        preset.fate = Fate::refused;
        throw broken_off(exit_code_of_result(reply.result),
                         fmt::format("{} answered {}, {}: {}", words_.camera, reply.result,
                                     name_of_result(reply.result), meaning_of_result(reply.result)));
    }
    preset.fate = Fate::stored;
    preset.preset_num = reply.preset_num;
    preset.custom_id = reply.custom_id;
}

// What is in the camera now, as far as is known.
Failure StoreSeveral::broken_off(int code, const std::string& why) const {
    const auto doubtful = std::ranges::find(presets_, Fate::in_doubt, &PresetToStore::fate);
    const std::string doubt =
        doubtful == presets_.end() ? "" : fmt::format(", {} may be in the camera, too", doubtful->source);
    return {static_cast<ExitCode>(code), fmt::format("{}; {}{}; {}", why, counts(), doubt, words_.remedy)};
}

void StoreSeveral::compare() {
    try {
        surprises_ = store_.finish();
    } catch (const Failure& failure) {
        throw Failure(failure.code(), fmt::format("{}, but not compared with the forecast: {}", counts(),
                                                  failure_at(words_.camera, failure).what()));
    }
    for (const Surprise& surprise : surprises_) {
        complain(line_of(surprise));
    }
}

Json StoreSeveral::document() const {
    Json presets = Json::array();
    for (const PresetToStore& preset : presets_) {
        Json entry = {{"source", preset.source},
                      {"title", preset.title},
                      {"fate", name_of(preset.fate)},
                      {"forecast", json_of(preset.changes)}};
        if (is_in_camera(preset.fate)) {
            entry["preset_num"] = preset.preset_num;
            entry["custom_id"] = preset.custom_id;
        }
        presets.push_back(std::move(entry));
    }
    return {{"presets", presets}, {"differences", json_of(surprises_)}};
}

} // namespace

Failure failure_at(const std::string& camera, const Failure& failure) {
    constexpr std::string_view subject = "the camera ";
    const std::string_view what = failure.what();
    return {failure.code(), what.starts_with(subject) ? fmt::format("{} {}", camera, what.substr(subject.size()))
                            : camera == "the camera"  ? std::string(what)
                                                      : fmt::format("{}: {}", camera, what)};
}

int store_several(const Options& options, CarefulStore& store, std::vector<PresetToStore> presets, WordsOfRun words) {
    StoreSeveral several(options, store, std::move(presets), std::move(words));
    int code = exit_done;
    try {
        code = several.run();
    } catch (const Failure&) {
        if (options.json) {
            print_json(several.document());
        }
        throw;
    }
    if (options.json) {
        print_json(several.document());
    }
    return code;
}

} // namespace desk::phone
