// The store of the desk's camera: what it keeps, what it refuses, and what it survives.

#include <sys/mount.h>
#include <sys/ptrace.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <functional>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "StoreFixture.h"

namespace {

using namespace store_test;

class Store : public StoreTest {};

// ---- Making and opening ---------------------------------------------------------------------------------------------

TEST_F(Store, IsMadeEmpty) {
    const PresetStore store = create();
    EXPECT_TRUE(store.presets().empty());
    EXPECT_EQ(store.linked(0), -1);
    EXPECT_EQ(store.linked(1), -1);
}

TEST_F(Store, IsMadeWithTheFoldersAboveIt) {
    folder = parent / "a" / "b" / "c" / "";
    create();
    EXPECT_TRUE(fs::exists(parent / "a" / "b" / "c" / "presets.sqlite"));
}

TEST_F(Store, IsMadeOnce) {
    create({"one"});
    create();
    EXPECT_EQ(titles(reopen()), std::vector<std::string>{"one"});
}

TEST_F(Store, IsMissingWhereThereIsNone) {
    const Refusal refusal = refusal_of_opening(folder);
    EXPECT_EQ(refusal.code, desk::exit_missing);
    expect_clear(refusal, folder);
    EXPECT_FALSE(fs::exists(folder));
}

TEST_F(Store, IsMissingInAFolderOfOtherThings) {
    fs::create_directory(folder);
    write(folder / "notes.txt", "mine");
    const auto before = snapshot(folder);
    EXPECT_EQ(refusal_of_opening(folder).code, desk::exit_missing);
    EXPECT_EQ(snapshot(folder), before);
}

TEST_F(Store, CannotBeMadeWhereAFileIsInTheWay) {
    write(parent / "file", "mine");
    for (const fs::path& place : {parent / "file", parent / "file" / "store"}) {
        const Refusal refusal = refusal_of_opening(place, true);
        EXPECT_EQ(refusal.code, desk::exit_machine);
        expect_clear(refusal, place);
    }
    EXPECT_EQ(content_of(parent / "file"), "mine");
}

TEST_F(Store, IsOpenOnceAtATime) {
    {
        const PresetStore store = create();
        const Refusal refusal = refusal_of_opening(folder);
        EXPECT_EQ(refusal.code, desk::exit_store_in_use);
        expect_clear(refusal, folder);
    }
    EXPECT_EQ(refusal_of_opening(folder).code, 0);
}

TEST_F(Store, IsInUseWhileAnotherProgramWritesToItsDatabase) {
    create();
    Intruder other(folder);
    other.run("BEGIN EXCLUSIVE");
    EXPECT_EQ(refusal_of_opening(folder).code, desk::exit_store_in_use);
}

TEST_F(Store, FollowsTheObjectThatItIsMovedTo) {
    PresetStore store = create({"one"});
    PresetStore moved = std::move(store);
    EXPECT_EQ(save(moved, "two"), SM_RETURN_TRUE);
    EXPECT_EQ(titles(moved), (std::vector<std::string>{"one", "two"}));
    EXPECT_EQ(refusal_of_opening(folder).code, desk::exit_store_in_use);
}

TEST_F(Store, DoesNotDependOnTheWorkingDirectory) {
    const fs::path started_in = fs::current_path();
    fs::current_path(parent);
    PresetStore store = PresetStore::open("store", true);
    fs::current_path("/");
    EXPECT_EQ(save(store, "one"), SM_RETURN_TRUE);
    EXPECT_EQ(content_of(folder / "pictures/1.jpg"), picture_of("one"));
    EXPECT_EQ(store.remove(flags_for({0})), SM_RETURN_TRUE);
    EXPECT_TRUE(files_in_pictures(folder).empty());
    fs::current_path(started_in);
}

TEST_F(Store, IsFinishedWhenMakingItWasInterrupted) {
    fs::create_directories(folder / "pictures");
    write(folder / "presets.sqlite.new", "half a database");
    create({"one"});
    EXPECT_EQ(titles(reopen()), std::vector<std::string>{"one"});
    EXPECT_FALSE(fs::exists(folder / "presets.sqlite.new"));
}

// ---- Saving ---------------------------------------------------------------------------------------------------------

TEST_F(Store, SavesAPresetAtTheEndOfTheList) {
    PresetStore store = create({"one"});
    tag_custom_info preset = titled("two");
    preset.applocal_id = 77;
    preset.server_id = 88;
    EXPECT_EQ(store.save(preset, "picture", 7), SM_RETURN_TRUE);
    EXPECT_EQ(preset.preset_num, 1);
    EXPECT_EQ(preset.custom_id, 2);
    EXPECT_EQ(preset.applocal_id, 77);
    EXPECT_EQ(preset.server_id, 88);
    EXPECT_STREQ(preset.screennail_path, "pictures/2.jpg");
    EXPECT_EQ(content_of(folder / "pictures/2.jpg"), "picture");
}

TEST_F(Store, KeepsEveryByteOfARecord) {
    tag_custom_info preset{};
    std::memset(&preset, 0xA5, sizeof preset); // a title without an end, among others
    create().save(preset, "x", 1);
    const std::optional<tag_custom_info> found = reopen().find(1);
    ASSERT_TRUE(found);
    EXPECT_EQ(std::memcmp(&*found, &preset, sizeof preset), 0);
    EXPECT_EQ(found->title[SM_TITLE_SIZE - 1], '\xA5');
    EXPECT_EQ(found->server_id, static_cast<int32_t>(0xA5A5A5A5));
}

TEST_F(Store, StoresRecordsAs740BytesThatTravel) {
    tag_custom_info preset = titled("one");
    preset.made_id = 0x01020304;
    create().save(preset, "x", 1);
    Intruder look(folder);
    look.run("CREATE TEMP TABLE seen (fits CHECK (fits))");
    look.run("INSERT INTO seen SELECT length(record) = 740 FROM presets");
    look.run("INSERT INTO seen SELECT substr(record, 1, 4) = x'6F6E6500' FROM presets");
    look.run("INSERT INTO seen SELECT substr(record, 685, 4) = x'04030201' FROM presets");
}

TEST_F(Store, GivesPresetsBackAfterReopening) {
    create({"one", "two", "three"});
    const PresetStore store = reopen();
    const std::vector<tag_custom_info> presets = store.presets();
    EXPECT_EQ(titles(store), (std::vector<std::string>{"one", "two", "three"}));
    for (int number = 0; number < 3; ++number) {
        const tag_custom_info& preset = presets[static_cast<size_t>(number)];
        EXPECT_EQ(preset.preset_num, number);
        EXPECT_EQ(preset.custom_id, number + 1);
        EXPECT_EQ(content_of(folder / preset.screennail_path), picture_of(preset.title));
    }
}

TEST_F(Store, TakesAnEmptyPicture) {
    PresetStore store = create();
    tag_custom_info preset{};
    EXPECT_EQ(store.save(preset, nullptr, 0), SM_RETURN_TRUE);
    EXPECT_EQ(fs::file_size(folder / "pictures/1.jpg"), 0U);
}

TEST_F(Store, TakesTheLongestPictureThatARequestCanHold) {
    PresetStore store = create();
    EXPECT_EQ(save(store, "long", 600'000 - 8 - 744), SM_RETURN_TRUE);
    EXPECT_EQ(content_of(folder / "pictures/1.jpg"), picture_of("long", 600'000 - 8 - 744));
}

TEST_F(Store, RefusesPicturesOfImpossibleLength) {
    PresetStore store = create();
    const tag_custom_info given = titled("one");
    const std::string picture(600'000, 'x');
    for (const int length : {-1, -752, INT32_MIN, 600'000 - 8 - 744 + 1, INT32_MAX}) {
        tag_custom_info preset = given;
        EXPECT_EQ(store.save(preset, picture.data(), length), SM_RETURN_JPG_ERR) << length;
        EXPECT_EQ(std::memcmp(&preset, &given, sizeof preset), 0);
        EXPECT_FALSE(store.last_error().empty());
    }
    EXPECT_TRUE(store.presets().empty());
    EXPECT_TRUE(files_in_pictures(folder).empty());
}

TEST_F(Store, RefusesThe41stPreset) {
    PresetStore store = create();
    for (int number = 0; number < 40; ++number) {
        ASSERT_EQ(save(store, std::to_string(number), 10), SM_RETURN_TRUE);
    }
    const tag_custom_info given = titled("one too many");
    tag_custom_info preset = given;
    EXPECT_EQ(store.save(preset, "x", 1), SM_RETURN_DATA_ERR);
    EXPECT_EQ(std::memcmp(&preset, &given, sizeof preset), 0);
    EXPECT_NE(store.last_error().find("40"), std::string::npos);
    EXPECT_EQ(store.presets().size(), 40U);
    EXPECT_EQ(files_in_pictures(folder).size(), 40U);
    EXPECT_EQ(store.remove(flags_for({39})), SM_RETURN_TRUE);
    EXPECT_EQ(store.save(preset, "x", 1), SM_RETURN_TRUE);
}

TEST_F(Store, NeverGivesACustomIdTwice) {
    {
        PresetStore store = create({"one", "two"});
        EXPECT_EQ(store.remove(flags_for({0, 1})), SM_RETURN_TRUE);
    }
    PresetStore store = reopen();
    EXPECT_EQ(save(store, "three"), SM_RETURN_TRUE);
    EXPECT_EQ(store.presets().front().custom_id, 3);
}

TEST_F(Store, RefusesToSaveWhenEveryCustomIdHasBeenGiven) {
    create({"one"});
    Intruder(folder).run("UPDATE camera SET next_custom_id = 2147483647");
    PresetStore store = reopen();
    EXPECT_EQ(save(store, "last"), SM_RETURN_TRUE);
    EXPECT_EQ(store.presets().back().custom_id, 2147483647);
    EXPECT_STREQ(store.presets().back().screennail_path, "pictures/2147483647.jpg");
    EXPECT_EQ(save(store, "too late"), SM_RETURN_FAIL);
    EXPECT_EQ(store.presets().size(), 2U);
    EXPECT_EQ(files_in_pictures(folder).size(), 2U);
}

TEST_F(Store, FindsPresetsByCustomId) {
    PresetStore store = create({"one", "two"});
    EXPECT_EQ(store.remove(flags_for({0})), SM_RETURN_TRUE);
    ASSERT_TRUE(store.find(2));
    EXPECT_STREQ(store.find(2)->title, "two");
    EXPECT_EQ(store.find(2)->preset_num, 0);
    for (const int custom_id : {1, 3, 0, -1, INT32_MIN, INT32_MAX}) {
        EXPECT_FALSE(store.find(custom_id)) << custom_id;
    }
}

// ---- Updating -------------------------------------------------------------------------------------------------------

TEST_F(Store, UpdatesTitleAndServerId) {
    create({"one", "two"}).update(2, -5, "new title");
    const PresetStore store = reopen();
    EXPECT_EQ(titles(store), (std::vector<std::string>{"one", "new title"}));
    EXPECT_EQ(store.find(2)->server_id, -5);
    EXPECT_EQ(store.find(1)->server_id, 0);
}

TEST_F(Store, ClearsWhatAShorterTitleLeaves) {
    PresetStore store = create({"a title that is rather long"});
    EXPECT_EQ(store.update(1, 0, "short"), SM_RETURN_TRUE);
    const tag_custom_info expected = titled("short");
    EXPECT_EQ(std::memcmp(store.find(1)->title, expected.title, SM_TITLE_SIZE), 0);
}

TEST_F(Store, CutsATitleTo51Bytes) {
    PresetStore store = create({"one"});
    const std::string title = std::string(50, 'x') + "YZ";
    EXPECT_EQ(store.update(1, 0, title), SM_RETURN_TRUE);
    EXPECT_EQ(std::string(store.find(1)->title), std::string(50, 'x') + "Y");
}

TEST_F(Store, EndsATitleAtItsNul) {
    PresetStore store = create({"one"});
    EXPECT_EQ(store.update(1, 0, std::string_view("ab\0cd", 5)), SM_RETURN_TRUE);
    const tag_custom_info expected = titled("ab");
    EXPECT_EQ(std::memcmp(store.find(1)->title, expected.title, SM_TITLE_SIZE), 0);
}

TEST_F(Store, RefusesToUpdateAPresetThatItDoesNotHave) {
    PresetStore store = create({"one"});
    for (const int custom_id : {0, 2, -1, INT32_MAX}) {
        EXPECT_EQ(store.update(custom_id, 0, "x"), SM_RETURN_LOCALN_ERR) << custom_id;
    }
    EXPECT_NE(store.last_error().find("2147483647"), std::string::npos);
}

// ---- Deleting and linking -------------------------------------------------------------------------------------------

TEST_F(Store, DeletesPresetsWithTheirPicturesAndRenumbersTheRest) {
    create({"zero", "one", "two", "three", "four"}).remove(flags_for({0, 2, 3}));
    const PresetStore store = reopen();
    EXPECT_EQ(titles(store), (std::vector<std::string>{"one", "four"}));
    EXPECT_EQ(store.presets()[0].preset_num, 0);
    EXPECT_EQ(store.presets()[1].preset_num, 1);
    EXPECT_EQ(store.presets()[1].custom_id, 5);
    EXPECT_EQ(files_in_pictures(folder), (std::vector<std::string>{"2.jpg", "5.jpg"}));
}

TEST_F(Store, IgnoresDeleteFlagsBeyondTheList) {
    PresetStore store = create({"zero", "one"});
    EXPECT_EQ(store.remove(flags_for({2, 40, 41})), SM_RETURN_TRUE);
    EXPECT_EQ(store.remove(std::vector<int>{}), SM_RETURN_TRUE);
    EXPECT_EQ(store.remove(std::vector<int>{0, 2}), SM_RETURN_TRUE);
    EXPECT_EQ(store.presets().size(), 2U);
}

TEST_F(Store, KeepsTheLinksOfCustomModesWhenItRenumbers) {
    {
        PresetStore store = create({"zero", "one", "two", "three"});
        EXPECT_EQ(store.link(0, 3), SM_RETURN_TRUE);
        EXPECT_EQ(store.link(1, 1), SM_RETURN_TRUE);
        EXPECT_EQ(store.remove(flags_for({0, 2})), SM_RETURN_TRUE);
        EXPECT_EQ(store.linked(0), 1);
        EXPECT_EQ(store.linked(1), 0);
    }
    EXPECT_EQ(reopen().linked(0), 1);
    EXPECT_EQ(reopen().linked(1), 0);
}

TEST_F(Store, LeavesACustomModeWithoutAPresetWhenItsPresetIsDeleted) {
    {
        PresetStore store = create({"zero", "one"});
        EXPECT_EQ(store.link(0, 0), SM_RETURN_TRUE);
        EXPECT_EQ(store.link(1, 0), SM_RETURN_TRUE);
        EXPECT_EQ(store.remove(flags_for({0})), SM_RETURN_TRUE);
        EXPECT_EQ(store.linked(0), -1);
        EXPECT_EQ(store.linked(1), -1);
    }
    EXPECT_EQ(reopen().linked(0), -1);
    EXPECT_EQ(reopen().linked(1), -1);
}

TEST_F(Store, LinksAnotherPresetAndNone) {
    PresetStore store = create({"zero", "one"});
    EXPECT_EQ(store.link(1, 0), SM_RETURN_TRUE);
    EXPECT_EQ(store.link(1, 1), SM_RETURN_TRUE);
    EXPECT_EQ(store.linked(1), 1);
    EXPECT_EQ(store.unlink(1), SM_RETURN_TRUE);
    EXPECT_EQ(store.unlink(0), SM_RETURN_TRUE);
    EXPECT_EQ(store.linked(1), -1);
}

TEST_F(Store, RefusesLinksThatCannotBe) {
    PresetStore store = create({"zero"});
    EXPECT_EQ(store.link(0, 1), SM_RETURN_LOCALN_ERR);
    EXPECT_EQ(store.link(0, -1), SM_RETURN_LOCALN_ERR);
    for (const int custom_mode : {-1, 2, INT32_MAX}) {
        EXPECT_EQ(store.link(custom_mode, 0), SM_RETURN_DATA_ERR);
        EXPECT_EQ(store.unlink(custom_mode), SM_RETURN_DATA_ERR);
        EXPECT_EQ(store.linked(custom_mode), -1);
    }
    EXPECT_EQ(store.linked(0), -1);
}

// ---- Leftovers ------------------------------------------------------------------------------------------------------

TEST_F(Store, RemovesPicturesThatNoRecordNamesWhenItIsOpened) {
    create({"one"});
    write(folder / "pictures/2.jpg", "orphan");
    write(folder / "pictures/1.jpg.new", "half");
    write(folder / "pictures/3.jpg.new", "half");
    reopen();
    EXPECT_EQ(files_in_pictures(folder), std::vector<std::string>{"1.jpg"});
    EXPECT_EQ(content_of(folder / "pictures/1.jpg"), picture_of("one"));
}

TEST_F(Store, LeavesFilesAloneThatItDidNotMake) {
    create({"one"});
    for (const char* name : {"holiday.jpg", ".jpg", "2.jpeg", "2.jpg.old", "a2.jpg", "-2.jpg"}) {
        write(folder / "pictures" / name, "mine");
    }
    const auto before = snapshot(folder);
    reopen();
    EXPECT_EQ(snapshot(folder), before);
}

TEST_F(Store, KeepsAPresetWhosePictureIsMissing) {
    create({"one", "two"});
    fs::remove(folder / "pictures/1.jpg");
    EXPECT_EQ(titles(reopen()), (std::vector<std::string>{"one", "two"}));
    fs::remove_all(folder / "pictures");
    PresetStore store = reopen();
    EXPECT_EQ(titles(store), (std::vector<std::string>{"one", "two"}));
    EXPECT_EQ(store.remove(flags_for({0})), SM_RETURN_TRUE);
    EXPECT_EQ(save(store, "three"), SM_RETURN_TRUE);
    EXPECT_EQ(files_in_pictures(folder), std::vector<std::string>{"3.jpg"});
}

// ---- Changes that fail ----------------------------------------------------------------------------------------------

TEST_F(Store, ChangesNothingWhenTheCommitFails) {
    PresetStore store = create({"zero", "one"});
    ASSERT_EQ(store.link(0, 1), SM_RETURN_TRUE);
    const auto pictures = files_in_pictures(folder);
    const tag_custom_info given = titled("two");
    tag_custom_info preset = given;
    {
        Intruder reader(folder); // a reader keeps every writer from its commit
        reader.run("BEGIN; SELECT * FROM presets");
        EXPECT_EQ(store.save(preset, "x", 1), SM_RETURN_FAIL);
        EXPECT_NE(store.last_error().find("locked"), std::string::npos) << store.last_error();
        EXPECT_EQ(store.update(1, 5, "new"), SM_RETURN_FAIL);
        EXPECT_EQ(store.remove(flags_for({1})), SM_RETURN_FAIL);
        EXPECT_EQ(store.link(1, 0), SM_RETURN_FAIL);
        EXPECT_EQ(store.unlink(0), SM_RETURN_FAIL);
    }
    EXPECT_EQ(std::memcmp(&preset, &given, sizeof preset), 0);
    EXPECT_EQ(titles(store), (std::vector<std::string>{"zero", "one"}));
    EXPECT_EQ(store.linked(0), 1);
    EXPECT_EQ(store.linked(1), -1);
    EXPECT_EQ(files_in_pictures(folder), pictures);

    EXPECT_EQ(store.save(preset, "x", 1), SM_RETURN_TRUE);
    EXPECT_EQ(preset.custom_id, 3);
}

TEST_F(Store, ChangesNothingWhenThePictureCannotBeWritten) {
    PresetStore store = create({"zero"});
    fs::rename(folder / "pictures", folder / "elsewhere");
    const tag_custom_info given = titled("one");
    tag_custom_info preset = given;
    EXPECT_EQ(store.save(preset, "x", 1), SM_RETURN_FAIL);
    EXPECT_NE(store.last_error().find("pictures/2.jpg"), std::string::npos) << store.last_error();
    EXPECT_EQ(std::memcmp(&preset, &given, sizeof preset), 0);
    EXPECT_EQ(store.presets().size(), 1U);
    fs::rename(folder / "elsewhere", folder / "pictures");
    EXPECT_EQ(store.save(preset, "x", 1), SM_RETURN_TRUE);
}

// A store on a disk of 400 KB. Mounting one takes rights that not every machine gives.
class FullDisk : public Store {
  protected:
    void SetUp() override {
        if (::mount("none", parent.c_str(), "tmpfs", 0, "size=400k") != 0) {
            GTEST_SKIP() << "cannot mount a small disk: " << std::strerror(errno);
        }
        mounted = true;
    }
    ~FullDisk() override {
        if (mounted) {
            ::umount2(parent.c_str(), MNT_DETACH);
        }
    }
    // Fills the disk up to so many bytes.
    void leave_room(size_t bytes) {
        fs::remove(parent / "ballast");
        struct statvfs state {};
        ASSERT_EQ(::statvfs(parent.c_str(), &state), 0);
        const size_t room = state.f_bavail * state.f_bsize;
        ASSERT_GE(room, bytes);
        write(parent / "ballast", std::string(room - bytes, 'x'));
    }

    bool mounted = false;
};

// The database and the file system have words of their own for it.
bool says_full(const std::string& line) {
    return line.find("disk is full") != std::string::npos || line.find("No space left") != std::string::npos;
}

// Saves with ever more room, until it succeeds, and returns how often it was refused.
int save_with_growing_room(PresetStore& store, const std::string& title, const std::function<void(size_t)>& leave_room,
                           const std::function<void()>& expect_unchanged) {
    const tag_custom_info given = titled(title);
    const std::string picture = picture_of(title);
    for (int refused = 0; refused < 50; ++refused) {
        tag_custom_info preset = given;
        leave_room(static_cast<size_t>(refused) * 4096);
        const int result = store.save(preset, picture.data(), static_cast<int>(picture.size()));
        if (result == SM_RETURN_TRUE) {
            return refused;
        }
        EXPECT_EQ(result, SM_RETURN_FAIL);
        EXPECT_TRUE(says_full(store.last_error())) << store.last_error();
        EXPECT_EQ(std::memcmp(&preset, &given, sizeof preset), 0);
        expect_unchanged();
    }
    ADD_FAILURE() << "never saved: " << store.last_error();
    return 0;
}

TEST_F(FullDisk, LeavesTheStoreAsItWasWhenSavingFails) {
    {
        PresetStore store = create({"one"});
        const int refused = save_with_growing_room(
            store, "two", [&](size_t room) { leave_room(room); },
            [&] {
                EXPECT_EQ(titles(store), std::vector<std::string>{"one"});
                EXPECT_EQ(files_in_pictures(folder), std::vector<std::string>{"1.jpg"});
            });
        EXPECT_GT(refused, 3); // the picture alone takes five pages of 4096 bytes
    }
    EXPECT_EQ(titles(reopen()), (std::vector<std::string>{"one", "two"}));
    EXPECT_EQ(content_of(folder / "pictures/2.jpg"), picture_of("two"));
}

TEST_F(FullDisk, DeletesAPresetWhollyOrNotAtAll) {
    PresetStore store = create({"one", "two", "three", "four", "five", "six", "seven"});
    const std::vector<std::string> before = titles(store);
    const auto pictures = files_in_pictures(folder);
    leave_room(0);
    EXPECT_EQ(store.remove(flags_for({0, 6})), SM_RETURN_FAIL);
    EXPECT_TRUE(says_full(store.last_error())) << store.last_error();
    EXPECT_EQ(titles(store), before);
    EXPECT_EQ(files_in_pictures(folder), pictures);
    leave_room(100'000);
    EXPECT_EQ(store.remove(flags_for({0, 6})), SM_RETURN_TRUE) << store.last_error();
    EXPECT_EQ(titles(store), std::vector(before.begin() + 1, before.end() - 1));
}

TEST_F(FullDisk, TakesNoNewStore) {
    leave_room(0);
    const Refusal refusal = refusal_of_opening(folder, true);
    EXPECT_EQ(refusal.code, desk::exit_machine);
    expect_clear(refusal, folder);
    fs::remove(parent / "ballast");
    EXPECT_EQ(titles(create({"one"})), std::vector<std::string>{"one"});
    EXPECT_EQ(files_in_pictures(folder), std::vector<std::string>{"1.jpg"});
}

// ---- Damage ---------------------------------------------------------------------------------------------------------

struct Damage {
    const char* name;
    std::function<void(const fs::path& folder)> done_to;
    const char* said; // part of the line that says what is wrong
};

void change_database(const fs::path& folder, const std::string& statements) {
    Intruder(folder).run(statements);
}

const Damage damages[] = {
    {"garbage", [](const fs::path& folder) { write(folder / "presets.sqlite", std::string(30'000, 'x')); },
     "not a database of presets"},
    {"nothing", [](const fs::path& folder) { write(folder / "presets.sqlite", ""); }, "not a database of presets"},
    {"half_a_header", [](const fs::path& folder) { fs::resize_file(folder / "presets.sqlite", 50); },
     "not a database of presets"},
    {"half_a_database",
     [](const fs::path& folder) {
         fs::resize_file(folder / "presets.sqlite", fs::file_size(folder / "presets.sqlite") / 2);
     },
     "malformed"},
    {"scratched_pages",
     [](const fs::path& folder) {
         std::string content = content_of(folder / "presets.sqlite");
         std::fill(content.begin() + 4096, content.begin() + 4196, '\xEE');
         write(folder / "presets.sqlite", content);
     },
     "presets.sqlite: "},
    {"a_folder_for_a_database",
     [](const fs::path& folder) {
         fs::remove(folder / "presets.sqlite");
         fs::create_directory(folder / "presets.sqlite");
     },
     "presets.sqlite is not a file but a folder"},
    {"pictures_without_a_database", [](const fs::path& folder) { fs::remove(folder / "presets.sqlite"); },
     "pictures but no presets.sqlite"},
    {"the_database_of_a_stranger", [](const fs::path& folder) { change_database(folder, "PRAGMA application_id = 1"); },
     "not a database of presets"},
    {"another_version", [](const fs::path& folder) { change_database(folder, "PRAGMA user_version = 2"); },
     "has version 2, this camera reads version 1"},
    {"a_table_less", [](const fs::path& folder) { change_database(folder, "DROP TABLE links"); },
     "declares other things than a store's tables"},
    {"a_short_record",
     [](const fs::path& folder) {
         change_database(folder, "UPDATE presets SET record = substr(record, 1, 739) WHERE custom_id = 2");
     },
     "custom_id 2 has a record of 739 bytes instead of 740"},
    {"a_long_record",
     [](const fs::path& folder) {
         change_database(folder, "UPDATE presets SET record = zeroblob(744) WHERE custom_id = 2");
     },
     "custom_id 2 has a record of 744 bytes instead of 740"},
    {"the_record_of_another_preset",
     [](const fs::path& folder) {
         change_database(folder, "UPDATE presets SET record = (SELECT record FROM presets WHERE custom_id = 1)");
     },
     "custom_id 2 has the record of another preset"},
    {"a_picture_elsewhere",
     [](const fs::path& folder) {
         change_database(folder, "UPDATE presets SET record = CAST(substr(record, 1, 688) || "
                                 "'/etc/passwd' || substr(record, 700) AS BLOB) WHERE custom_id = 1");
     },
     "custom_id 1 has"},
    {"an_impossible_custom_id",
     [](const fs::path& folder) {
         change_database(folder, "UPDATE presets SET custom_id = 2147483648 WHERE custom_id = 2");
     },
     "custom_id 2147483648 has a custom_id that no preset can have"},
    {"a_link_to_a_missing_preset",
     [](const fs::path& folder) { change_database(folder, "INSERT INTO links VALUES (1, 9)"); },
     "CUSTOM2 uses a preset that is not there"},
    {"a_link_of_a_third_custom_mode",
     [](const fs::path& folder) { change_database(folder, "INSERT INTO links VALUES (2, 1)"); },
     "a custom mode that no camera has"},
    {"a_custom_id_to_be_given_again",
     [](const fs::path& folder) { change_database(folder, "UPDATE camera SET next_custom_id = 2"); },
     "which custom_id comes next"},
    {"no_next_custom_id", [](const fs::path& folder) { change_database(folder, "DELETE FROM camera"); },
     "which custom_id comes next"},
    {"two_next_custom_ids", [](const fs::path& folder) { change_database(folder, "INSERT INTO camera VALUES (9)"); },
     "which custom_id comes next"},
};

class DamagedStore : public Store, public testing::WithParamInterface<Damage> {};

TEST_P(DamagedStore, IsRefusedAndLeftAsItIs) {
    create({"one", "two"});
    write(folder / "pictures/7.jpg", "an orphan, which only a sound store removes");
    GetParam().done_to(folder);
    const auto before = snapshot(folder);
    for (const bool may_create : {false, true}) {
        const Refusal refusal = refusal_of_opening(folder, may_create);
        EXPECT_EQ(refusal.code, desk::exit_store_damaged);
        EXPECT_NE(refusal.line.find(GetParam().said), std::string::npos) << refusal.line;
        expect_clear(refusal, folder);
        EXPECT_EQ(snapshot(folder), before);
    }
}

INSTANTIATE_TEST_SUITE_P(By, DamagedStore, testing::ValuesIn(damages),
                         [](const auto& tested) { return std::string(tested.param.name); });

TEST_F(Store, IsDamagedWithMoreThan40Presets) {
    {
        PresetStore store = create();
        for (int number = 0; number < 40; ++number) {
            ASSERT_EQ(save(store, std::to_string(number), 10), SM_RETURN_TRUE);
        }
    }
    EXPECT_EQ(refusal_of_opening(folder).code, 0);
    // The 41st is the 40th with its custom_id, 40, counted on in all three places: '0' is 30, '1' is 31.
    change_database(folder, "UPDATE camera SET next_custom_id = 42;"
                            "INSERT INTO presets SELECT 41, CAST(substr(record, 1, 672) || x'29000000' || "
                            "substr(record, 677, 12) || 'pictures/41.jpg' || substr(record, 704) AS BLOB) "
                            "FROM presets WHERE custom_id = 40");
    const auto before = snapshot(folder);
    const Refusal refusal = refusal_of_opening(folder);
    EXPECT_EQ(refusal.code, desk::exit_store_damaged);
    EXPECT_NE(refusal.line.find("more than 40 presets"), std::string::npos) << refusal.line;
    EXPECT_EQ(snapshot(folder), before);
}

// ---- Cameras that die -----------------------------------------------------------------------------------------------

// Everything that a store keeps: titles, links and the pictures' contents.
struct Kept {
    std::vector<std::string> titles;
    std::vector<int> linked;
    std::vector<std::string> pictures;
    bool operator==(const Kept&) const = default;
};

Kept kept_in(const PresetStore& store, const fs::path& folder) {
    Kept kept{titles(store), {store.linked(0), store.linked(1)}, {}};
    for (const tag_custom_info& preset : store.presets()) {
        kept.pictures.push_back(content_of(folder / preset.screennail_path));
    }
    EXPECT_EQ(files_in_pictures(folder).size(), kept.titles.size()) << "a picture that no record names";
    return kept;
}

struct Change {
    const char* name;
    std::function<int(PresetStore&)> made;
};

const Change changes[] = {
    {"saving", [](PresetStore& store) { return save(store, "new"); }},
    {"updating", [](PresetStore& store) { return store.update(2, 9, "other title"); }},
    {"deleting",
     [](PresetStore& store) {
         return store.remove(flags_for({0, 1}));
     }},
    {"linking", [](PresetStore& store) { return store.link(0, 2); }},
};

class DyingCamera : public Store, public testing::WithParamInterface<Change> {
  protected:
    enum class End { died, finished, untraceable };

    // Opens the store in a process of its own, makes the change, and kills the process at the n-th border of a system
    // call, if it comes that far.
    End make_change_and_die_at(int border) {
        const pid_t camera = ::fork();
        if (camera == 0) {
            PresetStore store = PresetStore::open(folder, false);
            if (::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) {
                ::_exit(2);
            }
            ::raise(SIGSTOP);
            ::_exit(GetParam().made(store) == SM_RETURN_TRUE ? 0 : 1);
        }
        int status = 0;
        ::waitpid(camera, &status, 0);
        for (int passed = 0; WIFSTOPPED(status); ++passed) {
            if (passed == border) {
                ::kill(camera, SIGKILL);
                ::waitpid(camera, &status, 0);
                return End::died;
            }
            ::ptrace(PTRACE_SYSCALL, camera, nullptr, nullptr);
            ::waitpid(camera, &status, 0);
        }
        EXPECT_TRUE(WIFEXITED(status));
        EXPECT_NE(WEXITSTATUS(status), 1) << "the change was refused";
        return WEXITSTATUS(status) == 2 ? End::untraceable : End::finished;
    }
};

TEST_P(DyingCamera, HasMadeAChangeOrNotWhereverItDies) {
    {
        PresetStore store = create({"zero", "one", "two", "three"});
        ASSERT_EQ(store.link(0, 1), SM_RETURN_TRUE);
        ASSERT_EQ(store.link(1, 3), SM_RETURN_TRUE);
    }
    const fs::path original = parent / "original";
    fs::rename(folder, original);
    const auto restore = [&] {
        fs::remove_all(folder);
        fs::copy(original, folder, fs::copy_options::recursive);
    };

    restore();
    Kept before;
    Kept after;
    {
        PresetStore store = reopen();
        before = kept_in(store, folder);
        ASSERT_EQ(GetParam().made(store), SM_RETURN_TRUE);
        after = kept_in(store, folder);
    }
    ASSERT_NE(before, after);

    // A system call more or less from life to life moves the borders; they come close enough to each other.
    int border = 0;
    for (End end = End::died; end == End::died; ++border) {
        SCOPED_TRACE(border);
        restore();
        end = make_change_and_die_at(border);
        if (end == End::untraceable) {
            GTEST_SKIP() << "this machine does not let a process be traced";
        }
        const Kept now = kept_in(reopen(), folder);
        ASSERT_TRUE(now == after || (now == before && end == End::died));
    }
    EXPECT_GT(border, 20); // it did die in between
}

INSTANTIATE_TEST_SUITE_P(In, DyingCamera, testing::ValuesIn(changes),
                         [](const auto& tested) { return std::string(tested.param.name); });

// What a camera tells about its work before and after each change, in the order of the bytes of a pipe.
struct Told {
    enum class What { nothing, will_save, has_saved, will_delete, has_deleted };
    What what = What::nothing;
    int subject = 0; // the title's number, or the preset number
};

[[noreturn]] void save_and_delete_for_ever(const fs::path& folder, int pipe, int first_title, unsigned seed) {
    const auto tell = [&](Told::What what, int subject) {
        const Told told{what, subject};
        if (::write(pipe, &told, sizeof told) != sizeof told) {
            ::_exit(1);
        }
    };
    PresetStore store = PresetStore::open(folder, true);
    std::mt19937 random(seed);
    for (int title = first_title;;) {
        const size_t count = store.presets().size();
        if (random() % 25 >= count) {
            tell(Told::What::will_save, title);
            if (save(store, std::to_string(title), 150'000) != SM_RETURN_TRUE) {
                ::_exit(1);
            }
            tell(Told::What::has_saved, title++);
        } else {
            const int number = static_cast<int>(random() % count);
            tell(Told::What::will_delete, number);
            if (store.remove(flags_for({number})) != SM_RETURN_TRUE) {
                ::_exit(1);
            }
            tell(Told::What::has_deleted, number);
        }
    }
}

TEST_F(Store, KeepsAllThatWasConfirmedWhenACameraIsKilledAgainAndAgain) {
    std::mt19937 random(1);
    std::vector<std::string> confirmed;
    int next_title = 0;
    int deaths_in_between = 0;
    for (int life = 0; life < 60 && !HasFailure(); ++life) {
        SCOPED_TRACE(life);
        int ends[2];
        ASSERT_EQ(::pipe(ends), 0);
        const pid_t camera = ::fork();
        if (camera == 0) {
            save_and_delete_for_ever(folder, ends[1], next_title, static_cast<unsigned>(life));
        }
        ::close(ends[1]);
        ::usleep(static_cast<useconds_t>(2'000 + random() % 30'000));
        ::kill(camera, SIGKILL);
        int status = 0;
        ::waitpid(camera, &status, 0);
        ASSERT_TRUE(WIFSIGNALED(status)) << "a change was refused";

        Told in_progress;
        for (Told told{}; ::read(ends[0], &told, sizeof told) == sizeof told;) {
            in_progress = told;
            if (told.what == Told::What::has_saved) {
                confirmed.push_back(std::to_string(told.subject));
                in_progress = {};
            } else if (told.what == Told::What::has_deleted) {
                confirmed.erase(confirmed.begin() + told.subject);
                in_progress = {};
            }
            next_title = told.what == Told::What::will_save ? told.subject + 1 : next_title;
        }
        ::close(ends[0]);

        // The change in progress, if any, is made wholly or not at all.
        const PresetStore store = PresetStore::open(folder, true);
        const Kept kept = kept_in(store, folder);
        std::vector<std::string> finished = confirmed;
        if (in_progress.what != Told::What::nothing) {
            ++deaths_in_between;
            if (in_progress.what == Told::What::will_save) {
                finished.push_back(std::to_string(in_progress.subject));
            } else {
                finished.erase(finished.begin() + in_progress.subject);
            }
        }
        EXPECT_TRUE(kept.titles == confirmed || kept.titles == finished);
        confirmed = kept.titles;
        for (size_t number = 0; number < kept.titles.size(); ++number) {
            EXPECT_EQ(kept.pictures[number], picture_of(kept.titles[number], 150'000));
        }
    }
    EXPECT_GT(deaths_in_between, 0);
}

} // namespace
