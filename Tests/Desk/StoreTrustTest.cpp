// What may lie in a store's folder without being the store's: files that are no files, databases that are programs, and
// what is there before a store is.

#include <fcntl.h>
#include <grp.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>

#include "StoreFixture.h"

namespace {

using namespace store_test;

// A pipe that is waited for, or a program that never ends, ends the test.
class FoundStore : public StoreTest {
  protected:
    FoundStore() { ::alarm(60); }
    ~FoundStore() override { ::alarm(0); }

    void expect_damaged(const std::string& said) {
        const auto before = snapshot(folder);
        for (const bool may_create : {false, true}) {
            const Refusal refusal = refusal_of_opening(folder, may_create);
            EXPECT_EQ(refusal.code, desk::exit_store_damaged) << refusal.line;
            EXPECT_NE(refusal.line.find(said), std::string::npos) << refusal.line;
            expect_clear(refusal, folder);
            EXPECT_EQ(snapshot(folder), before);
        }
    }
};

void make_pipe(const fs::path& path) {
    fs::remove(path);
    ASSERT_EQ(::mkfifo(path.c_str(), 0666), 0);
}

// A file that takes no room and has a great size.
void make_sparse_file(const fs::path& path, off_t size) {
    write(path, "");
    ASSERT_EQ(::truncate(path.c_str(), size), 0);
}

constexpr off_t two_gigabytes = off_t{2} << 30;

// ---- Files that are no files ----------------------------------------------------------------------------------------

struct Kind {
    const char* name;
    std::function<void(const fs::path& path, const fs::path& elsewhere)> made;
    const char* said;
};

const Kind kinds[] = {
    {"a_pipe", [](const fs::path& path, const fs::path&) { make_pipe(path); }, "not a file but a pipe"},
    {"a_link",
     [](const fs::path& path, const fs::path& elsewhere) {
         if (fs::exists(path)) {
             fs::rename(path, elsewhere);
         } else {
             write(elsewhere, "somebody's own");
         }
         fs::create_symlink(elsewhere, path);
     },
     "not a file but a link"},
    {"a_folder",
     [](const fs::path& path, const fs::path&) {
         fs::remove(path);
         fs::create_directory(path);
     },
     "not a file but a folder"},
    {"a_socket",
     [](const fs::path& path, const fs::path&) {
         fs::remove(path);
         ASSERT_EQ(::mknod(path.c_str(), S_IFSOCK | 0666, 0), 0);
     },
     "not a file but a socket"},
};

class NoFile : public FoundStore, public testing::WithParamInterface<Kind> {
  protected:
    void put_in_the_place_of(const char* name) {
        create({"one"});
        GetParam().made(folder / name, parent / "elsewhere");
    }
};

TEST_P(NoFile, IsNoDatabase) {
    put_in_the_place_of("presets.sqlite");
    expect_damaged("presets.sqlite is " + std::string(GetParam().said));
}

TEST_P(NoFile, IsNoJournal) {
    put_in_the_place_of("presets.sqlite-journal");
    expect_damaged("presets.sqlite-journal is " + std::string(GetParam().said));
}

TEST_P(NoFile, IsNoLock) {
    put_in_the_place_of("lock");
    expect_damaged("lock is " + std::string(GetParam().said));
}

TEST_P(NoFile, IsNoPicture) {
    put_in_the_place_of("pictures/1.jpg");
    PresetStore store = reopen();
    const std::string fault = store.fault_of_picture(store.presets().front());
    EXPECT_NE(fault.find("pictures/1.jpg: it is " + std::string(GetParam().said)), std::string::npos) << fault;
}

INSTANTIATE_TEST_SUITE_P(Of, NoFile, testing::ValuesIn(kinds),
                         [](const auto& tested) { return std::string(tested.param.name); });

TEST_F(FoundStore, GivesOutThePicturesThatItSaved) {
    const PresetStore store = create({"one"});
    EXPECT_EQ(store.fault_of_picture(store.presets().front()), "");
}

TEST_F(FoundStore, SaysThatAPictureIsMissing) {
    const PresetStore store = create({"one"});
    fs::remove(folder / "pictures/1.jpg");
    EXPECT_NE(store.fault_of_picture(store.presets().front()).find("No such file"), std::string::npos);
}

TEST_F(FoundStore, GivesOutNoPictureThatIsLargerThanAnyRequest) {
    const PresetStore store = create({"one"});
    make_sparse_file(folder / "pictures/1.jpg",
                     599'248); // 600000 less 8 for the header and 744 for the record
    EXPECT_EQ(store.fault_of_picture(store.presets().front()), "");
    make_sparse_file(folder / "pictures/1.jpg", 599'249);
    EXPECT_NE(store.fault_of_picture(store.presets().front()).find("599249 bytes"), std::string::npos);
    make_sparse_file(folder / "pictures/1.jpg", two_gigabytes);
    EXPECT_NE(store.fault_of_picture(store.presets().front()).find("2147483648 bytes"), std::string::npos);
}

TEST_F(FoundStore, IsNoneWhereTheDatabaseIsLargerThanAnyOfItsKind) {
    create({"one"});
    ASSERT_EQ(::truncate((folder / "presets.sqlite").c_str(), two_gigabytes), 0);
    const Refusal refusal = refusal_of_opening(folder);
    EXPECT_EQ(refusal.code, desk::exit_store_damaged);
    EXPECT_NE(refusal.line.find("presets.sqlite has 2147483648 bytes"), std::string::npos) << refusal.line;
    expect_clear(refusal, folder);
}

TEST_F(FoundStore, TakesNoPicturesFromAFolderElsewhere) {
    create({"one"});
    const fs::path elsewhere = parent / "holidays";
    fs::rename(folder / "pictures", elsewhere);
    write(elsewhere / "77.jpg", "somebody's own");
    fs::create_directory_symlink(elsewhere, folder / "pictures");
    expect_damaged("pictures is not a folder");
    EXPECT_EQ(content_of(elsewhere / "77.jpg"), "somebody's own");
}

TEST_F(FoundStore, IsNotMadeAroundAFolderElsewhere) {
    const fs::path elsewhere = parent / "holidays";
    fs::create_directories(elsewhere);
    fs::create_directory(folder);
    fs::create_directory_symlink(elsewhere, folder / "pictures");
    const Refusal refusal = refusal_of_opening(folder, true);
    EXPECT_EQ(refusal.code, desk::exit_store_damaged) << refusal.line;
    EXPECT_TRUE(fs::is_empty(elsewhere));
}

TEST_F(FoundStore, RemovesNothingElsewhereForALinkAmongItsPictures) {
    create({"one"});
    write(parent / "mine.jpg", "somebody's own");
    fs::create_symlink(parent / "mine.jpg", folder / "pictures/77.jpg");
    reopen();
    EXPECT_EQ(content_of(parent / "mine.jpg"), "somebody's own");
}

TEST_F(FoundStore, WritesNothingThroughALinkWhereAPictureIsToBe) {
    PresetStore store = create();
    write(parent / "mine.jpg", "somebody's own");
    for (const char* name : {"pictures/1.jpg", "pictures/1.jpg.new"}) {
        fs::create_symlink(parent / "mine.jpg", folder / name);
    }
    EXPECT_EQ(save(store, "one"), SM_RETURN_TRUE);
    EXPECT_EQ(content_of(parent / "mine.jpg"), "somebody's own");
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(folder / "pictures/1.jpg")));
}

// ---- Databases that are programs ------------------------------------------------------------------------------------

struct Program {
    const char* name;
    const char* statements;
};

const Program programs[] = {
    {"a_trigger_that_undoes", "CREATE TRIGGER undo AFTER INSERT ON presets BEGIN "
                              "DELETE FROM presets WHERE custom_id = new.custom_id; END"},
    {"a_view_that_never_ends",
     "ALTER TABLE camera RENAME TO real; CREATE VIEW camera AS WITH RECURSIVE more(next_custom_id) AS "
     "(SELECT 1 UNION ALL SELECT next_custom_id + 1 FROM more) SELECT count(*) AS next_custom_id FROM more"},
    {"a_check_that_never_ends", "DROP TABLE camera; CREATE TABLE camera (next_custom_id INTEGER NOT NULL CHECK "
                                "(randomblob(1000000) IS NOT NULL)); INSERT INTO camera VALUES (9)"},
    {"a_table_more", "CREATE TABLE mine (what)"},
    {"an_index_more", "CREATE INDEX mine ON presets (record)"},
    {"a_column_more", "ALTER TABLE presets ADD COLUMN mine"},
    {"statistics", "ANALYZE"},
};

class ProgramStore : public FoundStore, public testing::WithParamInterface<Program> {};

TEST_P(ProgramStore, IsRefusedAndNeverRun) {
    create({"one", "two"});
    Intruder(folder).run(GetParam().statements);
    const auto begun = std::chrono::steady_clock::now();
    expect_damaged("declares other things than a store's tables");
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(5));
}

INSTANTIATE_TEST_SUITE_P(With, ProgramStore, testing::ValuesIn(programs),
                         [](const auto& tested) { return std::string(tested.param.name); });

// SQLite reads the file that a journal's end names as a list of journals, and deletes it when it finds none.
TEST_F(FoundStore, LeavesTheFileAloneThatAJournalNames) {
    create({"one"});
    const fs::path mine = parent / "mine";
    write(mine, "somebody's own");
    const std::string name = mine.string();
    uint32_t sum = 0;
    for (const char byte : name) {
        sum += static_cast<uint32_t>(static_cast<int>(byte));
    }
    const auto number = [](uint32_t value) { // most significant byte first
        return std::string{static_cast<char>(value >> 24), static_cast<char>(value >> 16),
                           static_cast<char>(value >> 8), static_cast<char>(value)};
    };
    const std::string mark = "\xd9\xd5\x05\xf9\x20\xa1\x63\xd7";
    const uint32_t pages = static_cast<uint32_t>(fs::file_size(folder / "presets.sqlite") / 4096);
    std::string journal = mark + number(0) + number(0) + number(pages) + number(512) + number(4096);
    journal.resize(512);
    const uint32_t lock_page = 0x40000000 / 4096 + 1;
    write(folder / "presets.sqlite-journal",
          journal + number(lock_page) + name + number(static_cast<uint32_t>(name.size())) + number(sum) + mark);
    expect_damaged("presets.sqlite-journal names a file of another program");
    EXPECT_EQ(content_of(mine), "somebody's own");
}

TEST_F(FoundStore, IsNoneBesideAnotherKindOfJournal) {
    create({"one"});
    write(folder / "presets.sqlite-wal", "not a store's");
    expect_damaged("there is a file presets.sqlite-wal, which no store has");
}

// ---- Making a store -------------------------------------------------------------------------------------------------

void fill(PresetStore& store) {
    ASSERT_EQ(save(store, "first"), SM_RETURN_TRUE);
    ASSERT_EQ(save(store, "second"), SM_RETURN_TRUE);
    ASSERT_EQ(store.link(1, 0), SM_RETURN_TRUE);
}

void expect_filled(const PresetStore& store, const fs::path& folder) {
    EXPECT_EQ(titles(store), (std::vector<std::string>{"first", "second"}));
    EXPECT_EQ(store.linked(1), 0);
    EXPECT_EQ(files_in_pictures(folder), (std::vector<std::string>{"1.jpg", "2.jpg"}));
    EXPECT_EQ(content_of(folder / "pictures/2.jpg"), picture_of("second"));
}

TEST_F(FoundStore, IsMadeWithWhatItIsFilledWith) {
    expect_filled(PresetStore::open(folder, true, fill), folder);
    expect_filled(reopen(), folder);
}

TEST_F(FoundStore, IsNotFilledTwice) {
    PresetStore::open(folder, true, fill);
    expect_filled(PresetStore::open(folder, true, fill), folder);
}

TEST_F(FoundStore, IsNotThereWhenFillingItFailed) {
    const auto half = [](PresetStore& store) {
        fill(store);
        throw desk::Failure(desk::exit_machine, "no more");
    };
    EXPECT_THROW(PresetStore::open(folder, true, half), desk::Failure);
    EXPECT_TRUE(files_in_pictures(folder).empty());
    EXPECT_EQ(refusal_of_opening(folder).code, desk::exit_missing);
    expect_filled(PresetStore::open(folder, true, fill), folder);
}

TEST_F(FoundStore, IsMadeAnewWhenMakingItWasInterrupted) {
    PresetStore::open(folder, true, fill);
    fs::rename(folder / "presets.sqlite", folder / "presets.sqlite.new");
    write(folder / "pictures/3.jpg.new", "half a picture");
    EXPECT_EQ(refusal_of_opening(folder).code, desk::exit_missing);
    expect_filled(PresetStore::open(folder, true, fill), folder);
    EXPECT_FALSE(fs::exists(folder / "presets.sqlite.new"));
}

TEST_F(FoundStore, IsMadeInAFolderThatALinkLeadsTo) {
    fs::create_directory(parent / "real");
    fs::create_directory_symlink(parent / "real", folder);
    expect_filled(PresetStore::open(folder, true, fill), parent / "real");
    EXPECT_TRUE(fs::is_symlink(folder));
}

TEST_F(FoundStore, IsMadeInAMountPoint) {
    fs::create_directory(folder);
    if (::mount("none", folder.c_str(), "tmpfs", 0, "size=1m") != 0) {
        GTEST_SKIP() << "cannot mount: " << std::strerror(errno);
    }
    expect_filled(PresetStore::open(folder, true, fill), folder);
    ::umount2(folder.c_str(), MNT_DETACH);
}

// Runs in a process of its own, and returns its exit code.
int in_another_process(const std::function<void()>& work) {
    const pid_t process = ::fork();
    if (process == 0) {
        try {
            work();
            ::_exit(testing::Test::HasFailure() ? 1 : 0);
        } catch (const desk::Failure& failure) {
            std::fprintf(stderr, "%s\n", failure.what());
            ::_exit(failure.code());
        }
    }
    int status = 0;
    ::waitpid(process, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(FoundStore, IsMadeInOnesOwnFolderBelowOneThatIsClosed) {
    constexpr uid_t nobody = 65534;
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can become somebody else";
    }
    fs::create_directory(folder);
    ASSERT_EQ(::chown(folder.c_str(), nobody, nobody), 0);
    fs::permissions(parent, fs::perms::owner_all | fs::perms::others_exec); // may be passed, not read
    EXPECT_EQ(in_another_process([&] {
                  ASSERT_EQ(::setgroups(0, nullptr) + ::setgid(nobody) + ::setuid(nobody), 0);
                  expect_filled(PresetStore::open(folder, true, fill), folder);
              }),
              0);
}

TEST_F(FoundStore, IsMadeByOneOfTwoCamerasThatStartAtOnce) {
    for (int round = 0; round < 30 && !HasFailure(); ++round) {
        fs::remove_all(folder);
        std::array<pid_t, 2> cameras{};
        for (pid_t& camera : cameras) {
            camera = ::fork();
            if (camera == 0) {
                try {
                    const PresetStore store = PresetStore::open(folder, true, fill);
                    ::usleep(20'000); // as a camera that goes on
                    ::_exit(store.presets().size() == 2 ? 0 : 1);
                } catch (const desk::Failure& failure) {
                    ::_exit(failure.code());
                }
            }
        }
        std::array<int, 2> codes{};
        for (size_t k = 0; k < cameras.size(); ++k) {
            int status = 0;
            ::waitpid(cameras[k], &status, 0);
            codes[k] = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        }
        // One after the other is right as well: a loaded machine may start the second one late.
        for (const int code : codes) {
            EXPECT_TRUE(code == 0 || code == desk::exit_store_in_use) << code;
        }
        EXPECT_TRUE(codes[0] == 0 || codes[1] == 0);
        expect_filled(reopen(), folder);
    }
}

} // namespace
