// Every system call of the preset store fails in turn, and no promise is broken.
//
// A store is made, opened, opened behind a camera that died in a change, and changed in every way. In each of these
// tasks each call that the store makes fails once, and then it and all later ones of its kind, with each error that it
// may have. After each run these must fit each other:
//
// - what the store answers: done, refused, or that it cannot tell;
// - what it then serves, and a further change that it makes;
// - what is found when it is opened again, at once and after a loss of power: the change when it was done,
// none of it
//   when it was refused, one or the other, wholly, when the store could not tell.
//
// Calls that were interrupted or cut short are not seen at all. No descriptor is lost, and nothing hangs.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>

#include "PowerLoss.h"

namespace {

namespace fs = std::filesystem;
using desk::camera::PresetStore;
using system_calls::Call;
using system_calls::Fault;
using system_calls::Kind;

const fs::path place = "store"; // of the store, in the watched folder

// The errors that a kind of call may have on a disk, apart from interruptions.
struct Errors {
    Kind kind;
    std::vector<int> errors;
};
const Errors failures[] = {
    {Kind::open, {EIO, ENOSPC, EMFILE, EACCES}},
    {Kind::close, {EIO}},
    {Kind::read, {EIO}},
    {Kind::pread, {EIO}},
    {Kind::write, {EIO, ENOSPC}},
    {Kind::pwrite, {EIO, ENOSPC}},
    {Kind::fsync, {EIO, ENOSPC}},
    {Kind::fdatasync, {EIO, ENOSPC, EINTR}}, // to SQLite a flush that was interrupted has failed
    {Kind::ftruncate, {EIO}},
    {Kind::rename, {EIO, ENOSPC, EACCES}},
    {Kind::link, {EIO}},
    {Kind::unlink, {EIO, EACCES}},
    {Kind::mkdir, {EIO, ENOSPC, EACCES}},
    {Kind::rmdir, {EIO}},
    {Kind::chmod, {EIO}},
    {Kind::flock, {EIO, ENOLCK}},
    {Kind::fcntl, {EIO, ENOLCK}},
    {Kind::stat, {EIO, EACCES}},
    {Kind::access, {EIO, EACCES}},
    {Kind::opendir, {EIO, EMFILE, EACCES}},
    {Kind::readdir, {EIO}},
};
// What a program must take in its stride.
const Errors interruptions[] = {
    {Kind::open, {EINTR}},
    {Kind::close, {EINTR}},
    {Kind::read, {EINTR, Fault::cut_short}},
    {Kind::pread, {EINTR, Fault::cut_short}},
    {Kind::write, {EINTR, Fault::cut_short}},
    {Kind::pwrite, {EINTR, Fault::cut_short}},
    {Kind::ftruncate, {EINTR}},
    {Kind::fsync, {EINTR}},
};

// SQLite waits for locks in steps of this kind, and counts them; the tests need not wait.
extern "C" int usleep(useconds_t) {
    return 0;
}

// What is tried, for the message of an alarm or a crash.
std::string current_run;

void die_of(int signal) {
    const auto told = ::write(STDERR_FILENO, current_run.data(), current_run.size());
    static_cast<void>(told);
    ::signal(signal, SIG_DFL);
    ::raise(signal);
}

size_t open_descriptors() {
    return static_cast<size_t>(std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()));
}

bool is_one_line(const std::string& text) {
    return !text.empty() && text.find('\n') == std::string::npos;
}

std::string describe(const Fault& fault) {
    const std::string error = fault.error == Fault::cut_short ? "short" : strerrorname_np(fault.error);
    return std::string(system_calls::name_of(fault.kind)) + " " + std::to_string(fault.nth) + " " + error +
           (fault.from_then_on ? " and all from then on" : "");
}

// A failure of this machine; but a file that the disk cannot read is damaged, and SQLite cannot tell locks that the
// system does not give from those that another program has.
bool is_right_code(int code, const Fault& fault) {
    const bool is_reading = fault.kind == Kind::read || fault.kind == Kind::pread;
    const bool is_locking = fault.kind == Kind::fcntl && fault.error == ENOLCK;
    return code == desk::exit_machine || (is_reading && code == desk::exit_store_damaged) ||
           (is_locking && code == desk::exit_store_in_use);
}

// Whether a call fails once that makes something durable, or takes it away.
bool leaves_something_undurable(const Fault& fault) {
    constexpr std::array kinds = {Kind::open,   Kind::opendir,   Kind::fsync, Kind::fdatasync,
                                  Kind::unlink, Kind::ftruncate, Kind::rename};
    return fault.error == EIO && !fault.from_then_on && std::ranges::find(kinds, fault.kind) != kinds.end();
}

// What is done while a call fails.
struct Task {
    const char* name;
    Tree before;                  // the disk, all durable
    Expectation found;            // what is on it
    std::optional<Change> change; // made to the store that was opened without a fault; none: the opening itself
};

class StoreFaults : public testing::Test {
  protected:
    StoreFaults() {
        for (const int signal : {SIGALRM, SIGSEGV, SIGABRT, SIGBUS}) {
            ::signal(signal, die_of);
        }
    }
    ~StoreFaults() override { fs::remove_all(root); }

    // A store that was made and never changed; saving is the first change.
    Task first_change() {
        Recorder recorder(Disk(root), place, {"beginning", true, {}, 0});
        recorder.start({"first", "second"});
        recorder.finish();
        return {
            "first save", read_tree(root), {"first save", false, {made_with_first_and_second()}, 2}, saving("third")};
    }

    // A store with presets and a link, and its contents.
    std::pair<Tree, Contents> prepared() {
        Recorder recorder(Disk(root), place, {"beginning", true, {}, 0});
        recorder.start({"first", "second", "third", "fourth"});
        recorder.change(linking(0, 1));
        const Session session = recorder.finish();
        return {read_tree(root), session.expected_after(session.calls.size()).allowed.front()};
    }

    Task changing(const char* name, const Change& change) {
        const auto [tree, contents] = prepared();
        return {name, tree, {name, false, {contents}, 4}, change};
    }

    Task opening() {
        const auto [tree, contents] = prepared();
        return {"opening", tree, {"opening", false, {contents}, 4}, {}};
    }

    Task making() { return {"making", {}, {"making", true, {}, 0}, {}}; }

    // A store whose camera died when it had begun to write into the database: opening undoes the change.
    Task recovering() {
        const auto [tree, contents] = prepared();
        Recorder recorder(Disk(root, tree), place, {"beginning", false, {contents}, 4});
        recorder.start({});
        recorder.change(saving("fifth"));
        const Session session = recorder.finish();
        Disk disk = session.before;
        const Call* call = session.calls.data();
        while (call->kind != Kind::pwrite || call->path.filename() != "presets.sqlite") {
            disk.follow(*call++);
        }
        disk.follow(*call);
        return {"recovering", disk.cached(), {"recovering", false, {contents}, 4}, {}};
    }

    // ---- One run ----

    // The store as the task finds it, watched.
    void set_up(const Task& task) {
        fs::remove_all(root / place);
        write_tree(task.before, root);
        system_calls::watch(root);
    }

    PresetStore opened(const Task& task, Contents& filled) {
        return PresetStore::open(root / place, task.found.may_be_missing, [&](PresetStore& store) {
            for (const char* title : {"first", "second"}) {
                const Change change = saving(title);
                int custom_id = 0;
                if (change.make(store, custom_id) != SM_RETURN_TRUE) {
                    throw desk::Failure(desk::exit_machine, store.last_error());
                }
                change.expect(filled, custom_id);
            }
        });
    }

    // What may be found after all that was recorded: on the folder as it is, and after each loss of power.
    void expect_on_disk(const Task& task, const Expectation& expected) {
        Disk disk(root, task.before);
        for (const Call& call : system_calls::recorded()) {
            disk.follow(call);
        }
        EXPECT_EQ(judge.violation(disk.cached(), place, expected), "") << "when it is opened again";
        each_power_loss(disk, 2, dice, [&](const Tree& tree) {
            const std::string violation = judge.violation(tree, place, expected);
            EXPECT_EQ(violation, "") << "after a loss of power";
            return violation.empty();
        });
    }

    // The power may go in a change in which a call has failed already.
    void expect_wholly_or_not_at_all_on_disk(const Task& task, size_t begin) {
        const std::vector<Contents> either = {task.found.allowed.front(), after_with_any_id(task)};
        const Expectation expected{task.name, false, either, task.found.highest_custom_id};
        Disk disk(root, task.before);
        for (size_t call = 0; call < system_calls::recorded().size(); ++call) {
            disk.follow(system_calls::recorded()[call]);
            if (call >= begin && may_change_a_disk(system_calls::recorded()[call])) {
                each_power_loss(disk, 0, dice, [&](const Tree& tree) {
                    const std::string violation = judge.violation(tree, place, expected);
                    EXPECT_EQ(violation, "") << "after a loss of power in the change, after call " << call;
                    return violation.empty();
                });
            }
        }
    }

    // A preset more on a store that works again.
    void expect_to_work(PresetStore& store, Expectation expected) {
        const Change change = saving("further");
        int custom_id = 0;
        EXPECT_EQ(change.make(store, custom_id), SM_RETURN_TRUE) << store.last_error();
        EXPECT_GT(custom_id, expected.highest_custom_id);
        for (Contents& contents : expected.allowed) {
            change.expect(contents, custom_id);
        }
        expect_served(store, expected);
        const PresetStore closed = std::move(store);
    }

    // Returns whether the fault occurred.
    bool run_change(const Task& task, const Fault& fault, bool may_fail) {
        set_up(task);
        const size_t descriptors = open_descriptors();
        bool occurred = false;
        {
            Contents none;
            std::optional<PresetStore> store = opened(task, none);
            const Contents before = task.found.allowed.front();
            Contents after = before;
            int custom_id = 0;

            const size_t begin = system_calls::recorded().size();
            system_calls::plan(fault);
            const int answer = task.change->make(*store, custom_id);
            occurred = system_calls::fault_occurred();
            const std::string said = store->last_error();
            task.change->expect(after, custom_id);
            Expectation expected{task.name, false, {}, task.found.highest_custom_id};
            if (answer == SM_RETURN_TRUE) {
                expected.allowed = {after};
                expected.highest_custom_id = std::max(custom_id, expected.highest_custom_id);
                ++done;
            } else {
                EXPECT_TRUE(may_fail) << "answers " << answer << ": " << said;
                EXPECT_EQ(answer, SM_RETURN_FAIL);
                EXPECT_TRUE(is_one_line(said)) << said;
                const bool is_unsettled = said.find("cannot tell whether the change was made") != std::string::npos;
                expected.allowed = {before};
                if (is_unsettled) {
                    expect_no_change_while_unsettled(*store);
                    expected.allowed = {before, after_with_any_id(task)};
                }
                ++(is_unsettled ? unsettled : refused);
            }
            system_calls::forget_fault();
            if (fault.kind != Kind::readdir) { // the test reads the pictures itself
                expect_served(*store, expected);
            }
            expect_on_disk(task, expected);
            if (leaves_something_undurable(fault)) {
                expect_wholly_or_not_at_all_on_disk(task, begin);
            }
            expect_to_work(*store, expected);
        }
        system_calls::stop();
        EXPECT_EQ(open_descriptors(), descriptors);
        return occurred;
    }

    // A save that was not confirmed told no custom_id; it would have been the next one.
    static Contents after_with_any_id(const Task& task) {
        Contents after = task.found.allowed.front();
        task.change->expect(after, task.found.highest_custom_id + 1);
        return after;
    }

    void expect_no_change_while_unsettled(PresetStore& store) {
        int custom_id = 0;
        EXPECT_EQ(saving("while unsettled").make(store, custom_id), SM_RETURN_FAIL) << "unsettled";
    }

    void expect_served(const PresetStore& store, const Expectation& expected) {
        const Contents served = contents_of(store, root / place);
        const bool is_allowed = std::ranges::find(expected.allowed, served) != expected.allowed.end();
        EXPECT_TRUE(is_allowed) << "it serves " << to_string(served);
    }

    bool run_opening(const Task& task, const Fault& fault, bool may_fail) {
        set_up(task);
        const size_t descriptors = open_descriptors();
        bool occurred = false;
        Expectation expected = task.found;
        Contents filled;
        try {
            system_calls::plan(fault);
            PresetStore store = opened(task, filled);
            occurred = system_calls::fault_occurred();
            system_calls::forget_fault();
            if (expected.may_be_missing) {
                expected = {task.name, false, {filled}, 2};
            }
            expect_served(store, expected);
            expect_on_disk(task, expected);
            expect_to_work(store, expected);
            ++done;
        } catch (const desk::Failure& failure) {
            occurred = system_calls::fault_occurred();
            system_calls::forget_fault();
            EXPECT_TRUE(may_fail) << failure.what();
            EXPECT_TRUE(is_right_code(failure.code(), fault)) << failure.code() << ": " << failure.what();
            EXPECT_TRUE(is_one_line(failure.what())) << failure.what();
            if (expected.may_be_missing) {
                expected.allowed = {made_with_first_and_second()};
            }
            expect_on_disk(task, expected);
            Contents again;
            PresetStore store = opened(task, again);
            expect_to_work(store, expected);
            ++refused;
        }
        system_calls::stop();
        EXPECT_EQ(open_descriptors(), descriptors);
        return occurred;
    }

    static Contents made_with_first_and_second() {
        Contents contents;
        saving("first").expect(contents, 1);
        saving("second").expect(contents, 2);
        return contents;
    }

    // ---- All runs of a task ----

    bool run(const Task& task, const Fault& fault, bool may_fail) {
        current_run = std::string(task.name) + ": " + describe(fault) + "\n";
        SCOPED_TRACE(current_run);
        constexpr unsigned patience = 20;
        ::alarm(patience);
        const bool occurred = task.change ? run_change(task, fault, may_fail) : run_opening(task, fault, may_fail);
        ::alarm(0);
        runs += occurred;
        return occurred;
    }

    void fail_each_call_in(const Task& task) {
        int calls = 0;
        for (const auto& [kind, errors] : failures) {
            int of_this_kind = 0;
            for (const int error : errors) {
                for (const bool from_then_on : {false, true}) {
                    if (from_then_on && error == EINTR) {
                        continue; // no call is interrupted for ever
                    }
                    int nth = 1;
                    while (run(task, {kind, nth, error, from_then_on}, true)) {
                        ++nth;
                    }
                    of_this_kind = std::max(of_this_kind, nth - 1);
                }
            }
            calls += of_this_kind;
        }
        tell(task, calls);
        EXPECT_GT(refused, 0);
    }

    void interrupt_each_call_in(const Task& task) {
        int calls = 0;
        for (const auto& [kind, errors] : interruptions) {
            for (const int error : errors) {
                int nth = 1;
                while (run(task, {kind, nth, error, false}, false)) {
                    ++nth;
                }
                calls += nth - 1;
            }
        }
        tell(task, calls);
        EXPECT_EQ(refused + unsettled, 0);
    }

    void tell(const Task& task, int calls) const {
        std::printf("%s: %d calls, %d runs with faults (%d done, %d refused, %d unsettled), %zu different disks\n",
                    task.name, calls, runs, done, refused, unsettled, judge.looked_at());
    }

    const fs::path root = temporary_folder();
    Judge judge;
    std::mt19937 dice{20261121};
    int runs = 0;
    int done = 0;
    int refused = 0;
    int unsettled = 0;
};

TEST_F(StoreFaults, CostNothingWhileAStoreIsMade) {
    fail_each_call_in(making());
}
TEST_F(StoreFaults, CostNothingWhileAStoreIsOpened) {
    fail_each_call_in(opening());
}
TEST_F(StoreFaults, CostNothingWhileAStoreRecovers) {
    fail_each_call_in(recovering());
}
TEST_F(StoreFaults, CostNothingInTheFirstChange) {
    fail_each_call_in(first_change());
}
TEST_F(StoreFaults, CostNothingInASave) {
    fail_each_call_in(changing("saving", saving("fifth")));
}
TEST_F(StoreFaults, CostNothingInAnUpdate) {
    fail_each_call_in(changing("updating", updating(1, 9, "renamed")));
}
TEST_F(StoreFaults, CostNothingInADeletion) {
    fail_each_call_in(changing("deleting", deleting({0, 1})));
}
TEST_F(StoreFaults, CostNothingInALink) {
    fail_each_call_in(changing("linking", linking(1, 2)));
}
TEST_F(StoreFaults, CostNothingInAnUnlink) {
    fail_each_call_in(changing("unlinking", unlinking(0)));
}

TEST_F(StoreFaults, AreNotSeenWhereACallIsInterruptedOrCutShort) {
    for (const Task& task : {making(), opening(), recovering(), changing("saving", saving("fifth")),
                             changing("updating", updating(1, 9, "renamed")), changing("deleting", deleting({0, 1})),
                             changing("linking", linking(1, 2)), changing("unlinking", unlinking(0))}) {
        interrupt_each_call_in(task);
    }
}

// A deletion whose commit fails at some flush, in a store that cannot find out at once what became of it.
class DoubtfulDeletion : public StoreFaults {
  protected:
    // Returns the store, or nothing where the deletion was answered as done.
    std::optional<PresetStore> after_deleting_the_first(int failing_flush) {
        Contents filled;
        const Task task = changing("deleting", deleting({0}));
        set_up(task);
        PresetStore store = opened(task, filled);
        std::ofstream(root / place / "presets.sqlite-shm") << "no store has this, and none is opened beside it";
        system_calls::plan({Kind::fdatasync, failing_flush, EIO});
        const int result = store.remove(std::array{1, 0, 0, 0});
        system_calls::forget_fault();
        fs::remove(root / place / "presets.sqlite-shm");
        return result == SM_RETURN_TRUE ? std::nullopt : std::optional(std::move(store));
    }

    static std::map<int, std::string> titles_by_id(const PresetStore& store) {
        std::map<int, std::string> titles;
        for (const tag_custom_info& preset : store.presets()) {
            titles[preset.custom_id] = preset.title;
        }
        return titles;
    }

    static constexpr int last_flush = 6;
};

TEST_F(DoubtfulDeletion, LeavesAnUpdateWithItsPreset) {
    int doubts = 0;
    for (int flush = 1; flush <= last_flush; ++flush) {
        if (std::optional<PresetStore> store = after_deleting_the_first(flush)) {
            ++doubts;
            EXPECT_EQ(store->update(3, 7, "renamed"), SM_RETURN_TRUE) << store->last_error();
            std::map<int, std::string> expected = {{2, "second"}, {3, "renamed"}, {4, "fourth"}};
            if (store->find(1)) {
                expected[1] = "first";
            }
            EXPECT_EQ(titles_by_id(*store), expected);
        }
    }
    EXPECT_GT(doubts, 0);
}

TEST_F(DoubtfulDeletion, LeavesNoNumbersOfTheListBeforeToDeleteBy) {
    int refusals = 0;
    for (int flush = 1; flush <= last_flush; ++flush) {
        if (std::optional<PresetStore> store = after_deleting_the_first(flush)) {
            const int result = store->remove(std::array{0, 1, 0, 0}); // the second, in the list as it was
            const bool was_deleted = !store->find(1);
            EXPECT_EQ(result, was_deleted ? SM_RETURN_FAIL : SM_RETURN_TRUE);
            EXPECT_EQ(store->find(2).has_value(), was_deleted);
            EXPECT_TRUE(store->find(3) && store->find(4));
            refusals += was_deleted ? 1 : 0;
            EXPECT_EQ(store->remove(std::array{0, 0}), SM_RETURN_TRUE) << "a second look at the list";
        }
    }
    EXPECT_GT(refusals, 0);
}

} // namespace
