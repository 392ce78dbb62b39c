// Power losses at every moment of a recorded session with a preset store.
#pragma once

#include <filesystem>
#include <functional>
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

// The calls that a session made, and what had to be expected from which call on.
struct Session {
    std::vector<system_calls::Call> calls;
    std::map<size_t, Expectation> expectations; // by the number of calls before
    std::filesystem::path root;                 // the folder that was watched
    std::filesystem::path store;                // from the root on
    Tree durable;                               // in the root before the first call

    const Expectation& expected_after(size_t calls_made) const {
        return std::prev(expectations.upper_bound(calls_made))->second;
    }
};

// Makes sessions: changes a store and notes what is confirmed when.
class Recorder {
  public:
    // Watches the folder `root`, which holds the store or will hold it. `known` is what a store holds that is
    // there already.
    Recorder(const std::filesystem::path& root, const std::filesystem::path& store,
             const std::optional<Contents>& known = {});

    // Opens the store; `create` makes it with these presets.
    void make(const std::vector<std::string>& titles);
    void open();
    void close();
    void change(const Change& change);
    Session finish();

  private:
    void expect(const std::string& step, const std::vector<Contents>& allowed, bool may_be_missing = false);

    Session session_;
    std::optional<desk::PresetStore> store_;
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
    std::filesystem::path folder_; // in memory where there is such a place
    std::unordered_map<size_t, Finding> findings_;
};

// Calls `see` with disks that a power loss may leave at this moment: with nothing of what is not durable,
// with all of it, with each piece alone, with all but each piece, and with so many random choices of pieces
// and sectors. Stops when `see` answers false.
void each_power_loss(const Disk& disk, int random_choices, std::mt19937& dice,
                     const std::function<bool(const Tree&)>& see);
