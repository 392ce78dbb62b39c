// Power losses at every moment of a recorded session with a preset store.
#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "Disk.h"
#include "StoreModel.h"

// What may be found after a power loss, by somebody who knows what was confirmed until then.
struct Expectation {
    std::string step;              // what was going on
    bool may_be_missing = false;   // the store was not made yet
    std::vector<Contents> allowed; // what was confirmed, and what would be with the change in flight
    int highest_custom_id = 0;     // that was ever confirmed
};

// A new folder in memory, where flushes take no time, or where temporary files go if there is no such place.
std::filesystem::path temporary_folder();

bool may_change_a_disk(const system_calls::Call& call);

// The calls that a session made, and what had to be expected from which call on.
struct Session {
    Disk before;                 // the disk when it began
    std::filesystem::path store; // from the disk's root on
    std::vector<system_calls::Call> calls;
    std::map<size_t, Expectation> expectations; // by the number of calls before

    const Expectation& expected_after(size_t calls_made) const {
        return std::prev(expectations.upper_bound(calls_made))->second;
    }
    // Whether a power loss after so many calls may leave something else than one call before.
    bool is_new_moment(size_t calls_made) const;
    // The step, and the call that was made last.
    std::string moment(size_t calls_made) const;
    // The file that a call is about, from the store on, its numbers replaced by N: "pictures/N.jpg".
    std::string file_of(size_t call) const;
};

// Makes sessions: uses a store as a camera does, and notes what is confirmed when. `step`s of equal name belong
// together.
class Recorder {
  public:
    // The disk's root gets what running programs see on `disk`, a store among it where `expected` says so.
    Recorder(const Disk& disk, const std::filesystem::path& store, const Expectation& expected);

    // Opens the store as a camera does that starts; where there is none, it is made with these presets.
    void start(const std::vector<std::string>& titles);
    void stop();
    void change(const Change& change);
    Session finish();

  private:
    Contents filled_with(const std::vector<std::string>& titles, desk::camera::PresetStore& store);
    void expect(const Expectation& expected);
    void expect_confirmed(const std::string& step);

    Session session_;
    std::optional<desk::camera::PresetStore> store_;
    Contents confirmed_;
    int highest_custom_id_ = 0;
};

// Judges what power losses leave. Equal disks are looked at once.
class Judge {
  public:
    Judge();
    ~Judge();
    Judge(const Judge&) = delete;
    Judge& operator=(const Judge&) = delete;

    // What breaks the promise on a disk with this content: empty where nothing does.
    std::string violation(const Tree& tree, const std::filesystem::path& store, const Expectation& expected);
    size_t looked_at() const { return findings_.size(); }

  private:
    std::filesystem::path folder_;
    std::unordered_map<size_t, Finding> findings_;
};

// Calls `see` with disks that a power loss may leave at this moment: with nothing of what is not durable, with all of
// it, with each piece alone, with all but each piece, and with so many random choices of pieces and sectors. Stops when
// `see` answers false.
void each_power_loss(const Disk& disk, int random_choices, std::mt19937& dice,
                     const std::function<bool(const Tree&)>& see);
