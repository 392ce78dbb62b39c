// The preset store keeps what it has confirmed, and nothing in half, whenever the power goes.
//
// A session with a store (made with presets, saves, updates and deletes with and without a growing database, links,
// refused changes, reopening) is recorded call by call. After each call the disk may be in many states: Disk.h says
// what is durable and what may be lost. Each state is put into a folder in memory, and the store is opened there: it
// must hold what was confirmed by then, with every picture, the change in flight wholly or not at all, and nothing
// else; and it must take a further preset. The same is done with cameras that are killed, and lose power while the next
// one starts, or after it has; and with power that is lost once more while the store recovers.
//
// The judgement is tested itself: each flush is left out in turn, and then some power loss must break the promise.
// Those that can be left out are listed with the reason.

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <random>
#include <set>
#include <tuple>

#include "PowerLoss.h"

namespace {

namespace fs = std::filesystem;
using system_calls::Call;
using system_calls::Kind;

constexpr unsigned seed = 20261121;
const fs::path place = fs::path("camera") / "store"; // of the store, in a folder that is made with it
const std::vector<std::string> made_with = {"first", "second"};

bool is_flush(const Call& call) {
    return call.kind == Kind::fsync || call.kind == Kind::fdatasync;
}

class PowerLoss : public testing::Test {
  protected:
    ~PowerLoss() override { fs::remove_all(root); }

    // Everything that a store is asked for, from an empty folder on.
    Session whole_session() {
        Recorder recorder(Disk(root), place, {"beginning", true, {}, 0});
        recorder.start(made_with);
        recorder.change(saving("third"));
        recorder.change(saving("fourth"));
        recorder.change(updating(2, 7, "renamed"));
        recorder.change(linking(0, 1));
        recorder.change(saving_a_picture_of_negative_length());
        recorder.change(linking(1, 3));
        recorder.stop();
        recorder.start({});
        for (const char* title : {"fifth", "sixth", "seventh"}) { // the database grows
            recorder.change(saving(title));
        }
        recorder.change(updating_nothing());
        recorder.change(deleting({0, 1, 4}));
        recorder.change(unlinking(1));
        recorder.stop();
        recorder.start({});
        recorder.change(saving("eighth"));
        recorder.change(updating(0, -3, "renamed again"));
        recorder.change(deleting({0, 1, 2, 3, 4}));
        recorder.change(saving("ninth"));
        return recorder.finish();
    }

    // A camera that starts on this disk.
    Session start_on(const Disk& disk, const Expectation& expected) {
        Recorder recorder(disk, place, expected);
        recorder.start(made_with);
        return recorder.finish();
    }

    // Cuts the power after each call of a session, `left_out` of which were not made. `see` gets what breaks the
    // promise, or nothing, and says whether to go on.
    void lose_power_everywhere(const Session& session, const std::set<size_t>& left_out, int random_choices,
                               const std::function<bool(size_t calls_made, const Tree&, const std::string&)>& see) {
        Disk disk = session.before;
        Disk whole = session.before;
        bool goes_on = true;
        for (size_t made = 0; made <= session.calls.size() && goes_on; ++made) {
            if (made > 0) {
                follow(disk, whole, session.calls[made - 1], left_out.contains(made - 1));
            }
            // Before the first flush that is left out, and once later ones have made up for all, nothing is new.
            const bool lacks = disk.unflushed() > whole.unflushed();
            if (!session.is_new_moment(made) || (!left_out.empty() && !lacks)) {
                continue;
            }
            each_power_loss(disk, random_choices, dice, [&](const Tree& tree) {
                ++losses;
                goes_on = see(made, tree, judge.violation(tree, session.store, session.expected_after(made)));
                return goes_on;
            });
        }
    }

    static void follow(Disk& disk, Disk& whole, const Call& call, bool is_left_out) {
        whole.follow(call);
        if (!is_left_out) {
            disk.follow(call);
        }
    }

    // The first violation, with the moment; empty where there is none.
    std::string violation_in(const Session& session, const std::set<size_t>& left_out, int random_choices) {
        std::string found;
        lose_power_everywhere(session, left_out, random_choices,
                              [&](size_t made, const Tree&, const std::string& violation) {
                                  found = violation.empty() ? "" : session.moment(made) + ": " + violation;
                                  return violation.empty();
                              });
        return found;
    }

    void tell() const {
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began;
        std::printf("%zu power losses, %zu different disks, %.1f s\n", losses, judge.looked_at(), took.count());
    }

    const fs::path root = temporary_folder();
    Judge judge;
    std::mt19937 dice{seed};
    size_t losses = 0;
    const std::chrono::steady_clock::time_point began = std::chrono::steady_clock::now();
};

// The disks after each call that may change one, in one step of the session. `see` gets the calls made so far.
void each_disk_in(const Session& session, const std::string& step,
                  const std::function<void(size_t calls_made, const Disk&)>& see) {
    Disk disk = session.before;
    for (size_t made = 1; made <= session.calls.size(); ++made) {
        disk.follow(session.calls[made - 1]);
        if (session.is_new_moment(made) && session.expected_after(made).step == step) {
            see(made, disk);
        }
    }
}

const char* const steps_in_which_cameras_die[] = {"making", "saving third", "saving seventh", "updating 2",
                                                  "deleting 0 1 4"};

// ---- The promise ----------------------------------------------------------------------------------------------------

TEST_F(PowerLoss, IsFollowedByADiskThatKnowsEveryByteOfTheFolder) {
    const Session session = whole_session();
    Disk disk = session.before;
    for (const Call& call : session.calls) {
        disk.follow(call);
    }
    EXPECT_EQ(disk.cached(), read_tree(root));
}

TEST_F(PowerLoss, CostsNothingThatWasConfirmedAtAnyMoment) {
    constexpr int random_choices = 12;
    const Session session = whole_session();
    std::map<std::string, std::string> violations; // the first of each moment
    lose_power_everywhere(session, {}, random_choices, [&](size_t made, const Tree&, const std::string& violation) {
        if (!violation.empty()) {
            violations.try_emplace(session.moment(made), violation);
        }
        return true;
    });
    for (const auto& [moment, violation] : violations) {
        ADD_FAILURE() << moment << ": " << violation;
    }
    tell();
    EXPECT_GT(judge.looked_at(), 2000U);
}

TEST_F(PowerLoss, WhileACameraStartsAfterOneThatWasKilledCostsNothingEither) {
    constexpr int random_choices = 2;
    constexpr size_t share = 15; // at one of so many moments a camera is killed
    const Session session = whole_session();
    size_t moments = 0;
    for (const char* step : steps_in_which_cameras_die) {
        each_disk_in(session, step, [&](size_t made, const Disk& disk) {
            if (++moments % share != 0) {
                return;
            }
            const Session restart = start_on(disk, session.expected_after(made));
            EXPECT_EQ(violation_in(restart, {}, random_choices), "") << "killed in " << session.moment(made);
        });
    }
    tell();
    EXPECT_GT(judge.looked_at(), 500U);
}

TEST_F(PowerLoss, WhileAStoreRecoversFromOneCostsNothingEither) {
    constexpr int random_choices = 2;
    constexpr int share = 500; // one of so many disks is lost once more
    const Session session = whole_session();
    std::vector<std::pair<size_t, Tree>> lost;
    lose_power_everywhere(session, {}, random_choices, [&](size_t made, const Tree& tree, const std::string&) {
        if (losses % share == 0) {
            lost.emplace_back(made, tree);
        }
        return true;
    });
    for (const auto& [made, tree] : lost) {
        const Session restart = start_on(Disk(root, tree), session.expected_after(made));
        EXPECT_EQ(violation_in(restart, {}, random_choices), "") << "lost first in " << session.moment(made);
    }
    tell();
    EXPECT_GT(lost.size(), 15U);
}

// ---- Each flush is needed -------------------------------------------------------------------------------------------

// A flush, by what the camera does, the file, and which flush of this file it is in that step.
using Flush = std::tuple<std::string, std::string, int>;

std::string kind_of(const std::string& step) {
    return step == "making" || step == "opening" ? step : "change";
}

// All flushes of a session, each with its call.
std::vector<std::pair<size_t, Flush>> flushes_in(const Session& session) {
    std::vector<std::pair<size_t, Flush>> flushes;
    std::map<std::string, int> count;
    std::string step;
    for (size_t call = 0; call < session.calls.size(); ++call) {
        if (session.expected_after(call).step != step) {
            step = session.expected_after(call).step;
            count.clear();
        }
        if (is_flush(session.calls[call])) {
            const std::string file = session.file_of(call);
            flushes.push_back({call, {kind_of(step), file, ++count[file]}});
        }
    }
    return flushes;
}

// The flushes of the same file in the same step.
std::set<size_t> flushes_like(size_t call, const Session& session) {
    std::set<size_t> alike;
    for (const auto& [other, flush] : flushes_in(session)) {
        if (session.file_of(other) == session.file_of(call) &&
            session.expected_after(other).step == session.expected_after(call).step) {
            alike.insert(other);
        }
    }
    return alike;
}

// Flushes without which a power loss does no harm in the whole session.
struct Spare {
    Flush flush;
    int needed; // how often the session needs it all the same
    int spare;
    enum class Reason {
        unnamed,  // it belongs to a database that is no store before it is renamed
        repeated, // a further flush of the same file in the step makes up for it, but without all of them
                  // there is harm
        already,  // an earlier step has made durable what this one would
        found     // it is for what the last camera, killed, or somebody else has left; it is needed then, see
                  // below
    } reason;
};

const Spare spares[] = {
    {{"making", "../..", 1}, 0, 1, Spare::Reason::repeated},
    {{"making", "../..", 2}, 0, 1, Spare::Reason::repeated},
    {{"making", "..", 1}, 0, 1, Spare::Reason::repeated},
    {{"making", "..", 2}, 0, 1, Spare::Reason::repeated},
    // The folder: `pictures` in it, the journal's name (three times), and the database's name (twice).
    {{"making", ".", 1}, 0, 1, Spare::Reason::repeated},
    {{"making", ".", 2}, 0, 1, Spare::Reason::repeated},
    {{"making", ".", 3}, 0, 1, Spare::Reason::repeated},
    {{"making", ".", 4}, 0, 1, Spare::Reason::repeated},
    {{"making", ".", 5}, 0, 1, Spare::Reason::repeated},
    {{"making", ".", 6}, 0, 1, Spare::Reason::repeated},
    {{"making", ".", 7}, 0, 1, Spare::Reason::repeated},
    {{"making", "pictures", 1}, 0, 1, Spare::Reason::repeated},
    {{"making", "presets.sqlite.new", 1}, 0, 1, Spare::Reason::repeated},
    {{"making", "presets.sqlite.new", 2}, 0, 1, Spare::Reason::repeated},
    // Three transactions with three flushes of the journal each.
    {{"making", "presets.sqlite.new-journal", 1}, 0, 1, Spare::Reason::unnamed},
    {{"making", "presets.sqlite.new-journal", 2}, 0, 1, Spare::Reason::unnamed},
    {{"making", "presets.sqlite.new-journal", 3}, 0, 1, Spare::Reason::unnamed},
    {{"making", "presets.sqlite.new-journal", 4}, 0, 1, Spare::Reason::unnamed},
    {{"making", "presets.sqlite.new-journal", 5}, 0, 1, Spare::Reason::unnamed},
    {{"making", "presets.sqlite.new-journal", 6}, 0, 1, Spare::Reason::unnamed},
    {{"making", "presets.sqlite.new-journal", 7}, 0, 1, Spare::Reason::unnamed},
    {{"making", "presets.sqlite.new-journal", 8}, 0, 1, Spare::Reason::unnamed},
    {{"making", "presets.sqlite.new-journal", 9}, 0, 1, Spare::Reason::unnamed},
    {{"making", "presets.sqlite", 1}, 0, 1, Spare::Reason::already},
    {{"making", "presets.sqlite-journal", 1}, 0, 1, Spare::Reason::already}, // its name is flushed, and it is empty
    // SQLite flushes the folder in each transaction; the journal's name is durable since the store was opened.
    {{"change", ".", 1}, 0, 14, Spare::Reason::already},
    {{"opening", "presets.sqlite", 1}, 0, 2, Spare::Reason::found},
    {{"opening", "presets.sqlite-journal", 1}, 0, 2, Spare::Reason::found},
    {{"opening", ".", 1}, 0, 2, Spare::Reason::found},
    {{"opening", "..", 1}, 0, 2, Spare::Reason::found},
    {{"opening", "../..", 1}, 0, 2, Spare::Reason::found},
};

std::string line_of(const Flush& flush, int needed, int spare) {
    const auto& [step, file, nth] = flush;
    return step + ": " + file + " " + std::to_string(nth) + ": needed " + std::to_string(needed) + ", spare " +
           std::to_string(spare);
}

TEST_F(PowerLoss, BreaksThePromiseWhenAFlushIsLeftOutThatIsNotListed) {
    constexpr int random_choices = 4;
    const Session session = whole_session();
    std::map<Flush, std::pair<int, int>> found; // needed, spare
    for (const auto& [call, flush] : flushes_in(session)) {
        const std::string violation = violation_in(session, {call}, random_choices);
        auto& [needed, spare] = found[flush];
        ++(violation.empty() ? spare : needed);
        std::printf("%-20s %-27s %d  %s\n", session.expected_after(call).step.c_str(), session.file_of(call).c_str(),
                    std::get<int>(flush), violation.c_str());
    }
    std::set<std::string> unexpected;
    std::set<std::string> expected;
    for (const auto& [flush, count] : found) {
        if (count.second > 0) {
            unexpected.insert(line_of(flush, count.first, count.second));
        }
    }
    for (const Spare& spare : spares) {
        expected.insert(line_of(spare.flush, spare.needed, spare.spare));
    }
    EXPECT_EQ(unexpected, expected);
    tell();
}

TEST_F(PowerLoss, BreaksThePromiseWhenARepeatedFlushIsLeftOutEachTime) {
    constexpr int random_choices = 4;
    const Session session = whole_session();
    for (const auto& [call, flush] : flushes_in(session)) {
        const auto* const spare = std::ranges::find(spares, flush, &Spare::flush);
        if (spare != std::end(spares) && spare->reason == Spare::Reason::repeated) {
            EXPECT_NE(violation_in(session, flushes_like(call, session), random_choices), "")
                << line_of(flush, spare->needed, spare->spare);
        }
    }
}

// A disk on which the whole session's store is durable under another name, and has just been renamed.
Disk with_a_renamed_folder(const Tree& durable, const fs::path& root, const fs::path& renamed) {
    const std::string old = (renamed.parent_path() / "old").string();
    Tree moved;
    for (const auto& [path, bytes] : durable) {
        const bool is_inside = path == renamed || path.starts_with(renamed.string() + "/");
        moved[is_inside ? old + path.substr(renamed.string().size()) : path] = bytes;
    }
    Disk disk(root, moved);
    disk.follow({.kind = Kind::rename, .path = root / old, .to = root / renamed});
    return disk;
}

TEST_F(PowerLoss, BreaksThePromiseWhenACameraStartsWithoutTheFlushesForWhatItFinds) {
    constexpr int random_choices = 0;
    std::set<Flush> missing;
    for (const Spare& spare : spares) {
        if (spare.reason == Spare::Reason::found) {
            missing.insert(spare.flush);
        }
    }
    const auto start_without_each = [&](const Disk& disk, const Expectation& expected) {
        const Session restart = start_on(disk, expected);
        for (const auto& [call, flush] : flushes_in(restart)) {
            if (missing.contains(flush) && !violation_in(restart, {call}, random_choices).empty()) {
                missing.erase(flush);
            }
        }
    };
    const Session session = whole_session();
    const Tree durable = read_tree(root);
    for (const char* step : {"making", "saving third"}) {
        each_disk_in(session, step,
                     [&](size_t made, const Disk& disk) { start_without_each(disk, session.expected_after(made)); });
    }
    Expectation expected = session.expected_after(session.calls.size());
    expected.may_be_missing = true; // before the camera has started nobody promised that the name lasts
    start_without_each(with_a_renamed_folder(durable, root, place), expected);
    start_without_each(with_a_renamed_folder(durable, root, place.parent_path()), expected);
    for (const auto& [step, file, nth] : missing) {
        ADD_FAILURE() << "no camera needs flush " << nth << " of " << file << " in " << step;
    }
    tell();
}

} // namespace
