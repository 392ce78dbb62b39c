// A preset store whose database, or the journal of a change that was cut off in it, was damaged. It is refused with one
// line, or it opens and then keeps all that a store promises: numbers without gaps, links that lead to presets, and
// changes that last. Files of others stay as they are.

#include <sqlite3.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <set>
#include <string>

#include "Camera/PresetStore.h"
#include "Input.h"

namespace {

namespace fs = std::filesystem;

using desk::camera::PresetStore;
using fuzz::Bytes;
using fuzz::Input;

fs::path folder; // in memory where the system has such a place
Bytes sound_database;
Bytes cut_off_database; // with its journal: what a change leaves that was cut off
Bytes cut_off_journal;
const Bytes of_another = {'m', 'i', 'n', 'e'};

fs::path database() {
    return folder / "presets.sqlite";
}

fs::path journal() {
    return folder / "presets.sqlite-journal";
}

fs::path file_of_another() {
    return folder / "mine";
}

Bytes read_file(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void write_file(const fs::path& path, const Bytes& bytes) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    PROMISE(file.good());
}

void make_sound_store() {
    PresetStore store = PresetStore::open(folder, true);
    const Bytes picture(100, 0xDB);
    for (int number = 0; number < 3; ++number) {
        tag_custom_info preset = {};
        std::snprintf(preset.title, sizeof preset.title, "Preset %d", number);
        PROMISE(store.save(preset, picture.data(), static_cast<int>(picture.size())) == SM_RETURN_TRUE);
    }
    PROMISE(store.link(0, 0) == SM_RETURN_TRUE && store.link(1, 2) == SM_RETURN_TRUE);
}

// SQLite writes a change's journal and pages before the change is committed, and is stopped there.
void cut_a_change_off() {
    sqlite3* handle = nullptr;
    PROMISE(sqlite3_open(database().c_str(), &handle) == SQLITE_OK);
    PROMISE(sqlite3_exec(handle, "BEGIN; DELETE FROM presets WHERE custom_id = 2", nullptr, nullptr, nullptr) ==
            SQLITE_OK);
    PROMISE(sqlite3_db_cacheflush(handle) == SQLITE_OK);
    cut_off_database = read_file(database());
    cut_off_journal = read_file(journal());
    sqlite3_close(handle);
    PROMISE(cut_off_database != sound_database && !cut_off_journal.empty());
}

// What holds for every store that is open.
void check(const PresetStore& store) {
    const std::vector<tag_custom_info> presets = store.presets();
    PROMISE(presets.size() <= SM_PRESET_LIMIT);
    std::set<int> ids;
    for (size_t number = 0; number < presets.size(); ++number) {
        PROMISE(presets[number].preset_num == static_cast<int>(number));
        PROMISE(presets[number].custom_id > 0 && ids.insert(presets[number].custom_id).second);
        const std::optional<tag_custom_info> found = store.find(presets[number].custom_id);
        PROMISE(found && std::memcmp(&*found, &presets[number], sizeof *found) == 0);
    }
    for (const int mode : {0, 1}) {
        const int number = store.linked(mode);
        PROMISE(number >= -1 && number < static_cast<int>(presets.size()));
    }
}

bool same_presets(const PresetStore& store, const std::vector<tag_custom_info>& presets) {
    const std::vector<tag_custom_info> now = store.presets();
    return now.size() == presets.size() &&
           (now.empty() || std::memcmp(now.data(), presets.data(), now.size() * sizeof now[0]) == 0);
}

// A change either takes effect or leaves everything as it was.
void change(PresetStore& store, Input& input) {
    const std::vector<tag_custom_info> before = store.presets();
    int result = SM_RETURN_TRUE;
    switch (input.below(5)) {
    case 0: {
        tag_custom_info preset = {};
        const Bytes picture = input.bytes(input.size_below(200));
        result = store.save(preset, picture.data(), static_cast<int>(picture.size()));
        PROMISE(result != SM_RETURN_TRUE || (preset.custom_id > 0 && store.find(preset.custom_id)));
        break;
    }
    case 1: {
        const int id = before.empty() || input.flag() ? input.number() : before[0].custom_id;
        result = store.update(id, input.number(), "New");
        break;
    }
    case 2: {
        const std::vector<int> flags = {input.below(2), input.below(2), input.below(2), input.below(2)};
        result = store.remove(flags);
        break;
    }
    case 3: {
        const int mode = input.below(3);
        result = store.link(mode, input.below(4) - 1);
        break;
    }
    default:
        result = store.unlink(input.below(3));
    }
    PROMISE(result == SM_RETURN_TRUE || same_presets(store, before));
    check(store);
}

// Opens the store; a refusal is one line with a code of its own.
std::optional<PresetStore> open() {
    try {
        return PresetStore::open(folder, false);
    } catch (const desk::Failure& failure) {
        const std::string line = failure.what();
        PROMISE(failure.code() == desk::exit_store_damaged || failure.code() == desk::exit_machine);
        PROMISE(!line.empty() && line.find('\n') == std::string::npos);
        return std::nullopt;
    }
}

// Bytes changed anywhere, runs of them overwritten, or the end cut off.
Bytes damaged(Bytes bytes, Input& input) {
    for (int places = input.below(6); places > 0; --places) {
        const size_t offset = input.size_below(bytes.size());
        const Bytes written = input.bytes(1 + input.size_below(8));
        std::copy_n(written.begin(), std::min(written.size(), bytes.size() - offset),
                    bytes.begin() + static_cast<std::ptrdiff_t>(offset));
    }
    if (input.below(16) == 1) {
        bytes.resize(input.size_below(bytes.size()));
    }
    return bytes;
}

void remove_folder() {
    std::error_code ignored;
    fs::remove_all(folder, ignored);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    std::string name =
        (fs::is_directory("/dev/shm") ? fs::path("/dev/shm") : fs::temp_directory_path()) / "store.XXXXXX";
    PROMISE(mkdtemp(name.data()) != nullptr);
    folder = name;
    std::atexit(remove_folder);
    make_sound_store();
    sound_database = read_file(database());
    PROMISE(!sound_database.empty());
    cut_a_change_off();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    write_file(file_of_another(), of_another);
    write_file(database(), damaged(sound_database, input));
    fs::remove(journal());
    if (!input.empty() && input.below(4) == 3) {
        write_file(database(), damaged(cut_off_database, input));
        write_file(journal(), damaged(cut_off_journal, input));
    }
    if (std::optional<PresetStore> store = open()) {
        check(*store);
        constexpr int most_changes = 4;
        for (int count = 0; count < most_changes && !input.empty(); ++count) {
            change(*store, input);
        }
        const std::vector<tag_custom_info> presets = store->presets();
        store.reset();
        if (const std::optional<PresetStore> again = open()) {
            check(*again);
            PROMISE(same_presets(*again, presets));
        }
    }
    PROMISE(read_file(file_of_another()) == of_another);
    return 0;
}
