// The preset store keeps what it has confirmed, and nothing in half, whenever the power goes.
//
// A session with a store (made with presets, saves, updates and deletes with and without a growing database,
// links, refused changes, reopening) is recorded call by call. After each call the disk may be in many
// states: Disk.h says what is durable and what may be lost. Each state is put into a folder in memory, and
// the store is opened there: it must hold what was confirmed by then, with every picture, the change in
// flight wholly or not at all, and nothing else; and it must take a further preset.
//
// The judgement is tested itself: each flush is left out in turn, and then some power loss must break the
// promise. Those that can be left out are listed with the reason.

#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <random>
#include <regex>

#include "PowerLoss.h"

namespace {

namespace fs = std::filesystem;
using system_calls::Call;
using system_calls::Kind;

constexpr unsigned seed = 20261121;
constexpr int random_choices = 8; // at each moment

class PowerLoss : public testing::Test {
  protected:
    PowerLoss() {
        std::string path = (fs::temp_directory_path() / "session-XXXXXX").string();
        root = mkdtemp(path.data());
    }
    ~PowerLoss() override { fs::remove_all(root); }

    // Everything that a store is asked for, in a folder that is not there yet.
    Session record_all() {
        Recorder recorder(root, fs::path("camera") / "store");
        recorder.make({"first", "second"});
        recorder.change(saving("third"));
        recorder.change(saving("fourth"));
        recorder.change(updating(2, 7, "renamed"));
        recorder.change(linking(0, 1));
        recorder.change(saving_a_picture_of_negative_length());
        recorder.change(linking(1, 3));
        recorder.close();
        recorder.open();
        for (const char* title : {"fifth", "sixth", "seventh"}) { // the database grows
            recorder.change(saving(title));
        }
        recorder.change(updating_nothing());
        recorder.change(deleting({0, 1, 4}));
        recorder.change(unlinking(1));
        recorder.close();
        recorder.open();
        recorder.change(saving("eighth"));
        recorder.change(updating(0, -3, "renamed again"));
        recorder.change(deleting({0, 1, 2, 3, 4}));
        recorder.change(saving("ninth"));
        return recorder.finish();
    }

    fs::path root;
    std::mt19937 dice{seed};
};

bool is_flush(const Call& call) {
    return call.kind == Kind::fsync || call.kind == Kind::fdatasync;
}

bool changes_a_disk(const Call& call) {
    switch (call.kind) {
    case Kind::open:
    case Kind::write:
    case Kind::pwrite:
    case Kind::ftruncate:
    case Kind::mkdir:
    case Kind::rename:
    case Kind::unlink:
    case Kind::rmdir:
        return true;
    default:
        return is_flush(call);
    }
}

// The file that a call is about, without the numbers that make it one of many: "pictures/N.jpg.new".
std::string file_of(const Call& call, const Session& session) {
    const std::string path = call.path.lexically_relative(session.root / session.store).string();
    return std::regex_replace(path, std::regex("[0-9]+"), "N");
}

// Whether what a power loss may leave differs from that one call before.
bool is_new_moment(const Session& session, size_t made) {
    return made == 0 || changes_a_disk(session.calls[made - 1]) || session.expectations.contains(made);
}

std::string moment(const Session& session, size_t made) {
    const std::string step = session.expected_after(made).step;
    if (made == 0) {
        return step;
    }
    const Call& call = session.calls[made - 1];
    return step + ", after call " + std::to_string(made) + ", " + system_calls::name_of(call.kind) + " of " +
           file_of(call, session);
}

// ---- The promise ------------------------------------------------------------------------------------------

TEST_F(PowerLoss, IsFollowedByADiskThatKnowsEveryByteOfTheFolder) {
    const Session session = record_all();
    Disk disk(root, session.durable);
    for (const Call& call : session.calls) {
        disk.follow(call);
    }
    EXPECT_EQ(disk.cached(), read_tree(root));
}

TEST_F(PowerLoss, CostsNothingThatWasConfirmedAtAnyMoment) {
    const Session session = record_all();
    Judge judge;
    Disk disk(root, session.durable);
    size_t losses = 0;
    std::map<std::string, std::string> violations; // the first of each moment
    const auto began = std::chrono::steady_clock::now();
    for (size_t made = 0; made <= session.calls.size(); ++made) {
        if (made > 0) {
            disk.follow(session.calls[made - 1]);
        }
        if (!is_new_moment(session, made)) {
            continue;
        }
        const Expectation& expected = session.expected_after(made);
        each_power_loss(disk, random_choices, dice, [&](const Tree& tree) {
            ++losses;
            const std::string violation = judge.violation(tree, session.store, expected);
            if (!violation.empty()) {
                violations.try_emplace(moment(session, made), violation);
            }
            return violation.empty();
        });
    }
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began;
    std::printf("%zu calls, %zu power losses, %zu different disks, %.1f s\n", session.calls.size(), losses,
                judge.looked_at(), took.count());
    for (const auto& [when, violation] : violations) {
        ADD_FAILURE() << when << ": " << violation;
    }
    EXPECT_GT(judge.looked_at(), 1000U);
}

} // namespace
