#include "StoreDatabase.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <fmt/format.h>
#include <limits>
#include <span>
#include <string>

#include "StoreFiles.h"
#include "Wire/Record.h"

namespace fs = std::filesystem;

namespace desk::camera {
namespace {

constexpr auto largest_id = std::numeric_limits<int32_t>::max();

// In the database's header, so that no other program's database is taken for a store.
constexpr int32_t application_id = 0x4B543753; // "KT7S"
constexpr int32_t schema_version = 1;

// SQLite keeps this text in the database, and a store is known by it to the letter.
constexpr char schema[] = R"(
    CREATE TABLE presets (custom_id INTEGER PRIMARY KEY, record BLOB NOT NULL);
    CREATE TABLE links (custom_mode INTEGER PRIMARY KEY,
                        custom_id INTEGER NOT NULL REFERENCES presets ON DELETE CASCADE);
    CREATE TABLE camera (next_custom_id INTEGER NOT NULL);
    INSERT INTO camera VALUES (1);
)";

// A commit is over when the journal has been cut to nothing and this has been flushed. Before a commit nothing is
// written to the database itself. Others may read it at the same time; the store waits for them a moment.
constexpr char settings[] = R"(
    PRAGMA foreign_keys = ON;
    PRAGMA synchronous = FULL;
    PRAGMA journal_mode = TRUNCATE;
    PRAGMA cache_spill = OFF;
    PRAGMA temp_store = MEMORY;
    PRAGMA mmap_size = 0;
)";
constexpr int busy_timeout_ms = 500;

// 40 presets take 50 KB. What is larger is not read, and what takes longer to read is not a store.
constexpr int64_t largest_database = 4 << 20;
constexpr int64_t largest_journal = 2 * largest_database;
constexpr std::chrono::seconds longest_opening{5};

void require_nothing(const fs::path& path) {
    if (is_there(path)) {
        throw StoreDamage("there is a file " + path.filename().string() + ", which no store has");
    }
}

void require_size(const fs::path& path, int64_t size, int64_t largest) {
    if (size > largest) {
        throw StoreDamage(fmt::format("{} has {} bytes, more than {}", path.filename().string(), size, largest));
    }
}

// Looks at the database's first bytes before SQLite sees it: SQLite would write to a stranger's database that was
// interrupted.
void check_header(const fs::path& path) {
    const Descriptor file = open_plain_file(path, O_RDONLY);
    require_size(path, size_of(file, path), largest_database);
    std::array<uint8_t, 100> header{};
    const bool is_whole = read_at(file, path, 0, header) == header.size();
    const auto number_at = [&](size_t offset) { // most significant byte first
        return header[offset] << 24 | header[offset + 1] << 16 | header[offset + 2] << 8 | header[offset + 3];
    };
    const bool is_ours = std::memcmp(header.data(), "SQLite format 3", 16) == 0 && number_at(68) == application_id &&
                         header[18] == 1 && header[19] == 1;
    if (!is_whole || !is_ours) {
        throw StoreDamage(path.filename().string() + " is not a database of presets");
    }
    if (number_at(60) != schema_version) {
        throw StoreDamage(fmt::format("{} has version {}, this camera reads version {}", path.filename().string(),
                                      number_at(60), +schema_version));
    }
}

// A journal that ends in SQLite's mark names a further file, which SQLite would read and delete. No store writes one.
void check_journal(const fs::path& path) {
    constexpr std::array<uint8_t, 8> mark = {0xd9, 0xd5, 0x05, 0xf9, 0x20, 0xa1, 0x63, 0xd7};
    if (!is_there(path)) {
        return;
    }
    const Descriptor file = open_plain_file(path, O_RDONLY);
    const int64_t size = size_of(file, path);
    require_size(path, size, largest_journal);
    std::array<uint8_t, mark.size()> end{};
    if (size >= int64_t{mark.size()} && read_at(file, path, size - int64_t{mark.size()}, end) == end.size() &&
        end == mark) {
        throw StoreDamage(path.filename().string() + " names a file of another program");
    }
}

void check_files(const fs::path& path) {
    const std::string name = path.string();
    require_plain_file(path);
    require_plain_file(name + "-journal");
    require_nothing(name + "-wal");
    require_nothing(name + "-shm");
    check_header(path);
    check_journal(name + "-journal");
}

// What SQLite itself offers against a file that somebody else may have made.
void distrust(Database& database) {
    constexpr int off_switches[] = {SQLITE_DBCONFIG_TRUSTED_SCHEMA, SQLITE_DBCONFIG_ENABLE_TRIGGER,
                                    SQLITE_DBCONFIG_ENABLE_VIEW, SQLITE_DBCONFIG_ENABLE_LOAD_EXTENSION};
    for (const int off_switch : off_switches) {
        database.check(sqlite3_db_config(database.handle(), off_switch, 0, nullptr));
    }
    database.check(sqlite3_db_config(database.handle(), SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr));
    sqlite3_limit(database.handle(), SQLITE_LIMIT_LENGTH, int{largest_database});
    sqlite3_limit(database.handle(), SQLITE_LIMIT_ATTACHED, 0);
    database.run("PRAGMA cell_size_check = ON");
}

// All that a database declares, in one text.
std::string declarations_of(Database& database) {
    Statement rows(database, "SELECT type, name, tbl_name, sql FROM sqlite_schema ORDER BY rowid");
    std::string all;
    while (rows.step()) {
        for (const int column : {0, 1, 2, 3}) {
            all += rows.text(column) + '\0';
        }
    }
    return all;
}

void check_schema(Database& database, const fs::path& path) {
    Database expected(":memory:", SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    expected.run(schema);
    if (declarations_of(database) != declarations_of(expected)) {
        throw StoreDamage(path.filename().string() + " declares other things than a store's tables");
    }
}

void check_integrity(Database& database, const fs::path& path) {
    Statement check(database, "PRAGMA integrity_check(1)");
    const std::string fault = check.step() ? check.text(0) : "nothing can be read";
    if (fault != "ok") {
        throw StoreDamage(path.filename().string() + ": " + one_line(fault));
    }
}

Database open_file(const fs::path& path, int flags) {
    Database database(path.string(), SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOFOLLOW | flags);
    distrust(database);
    sqlite3_busy_timeout(database.handle(), busy_timeout_ms);
    return database;
}

// Says what is wrong with a record's row, or nothing.
std::string fault_of(int64_t custom_id, std::span<const uint8_t> record) {
    if (custom_id < 1 || custom_id > largest_id) {
        return "has a custom_id that no preset can have";
    }
    if (record.size() != sizeof(tag_custom_info)) {
        return fmt::format("has a record of {} bytes instead of {}", record.size(), sizeof(tag_custom_info));
    }
    const tag_custom_info preset = decode_camera_record(record);
    if (preset.custom_id != custom_id ||
        text_of(preset.screennail_path, SM_SCREENNAIL_PATH_SIZE) != picture_path(preset.custom_id)) {
        return "has the record of another preset";
    }
    return "";
}

void renumber(std::vector<tag_custom_info>& presets) {
    for (int number = 0; tag_custom_info & preset : presets) {
        preset.preset_num = number++;
    }
}

} // namespace

std::string picture_path(int custom_id) {
    return fmt::format("pictures/{}.jpg", custom_id);
}

// ---- What it holds --------------------------------------------------------------------------------------------------

int Contents::number_of(int custom_id) const {
    const auto found = std::ranges::find(presets, custom_id, &tag_custom_info::custom_id);
    return found == presets.end() ? -1 : static_cast<int>(found - presets.begin());
}

void Contents::erase(const std::vector<int32_t>& custom_ids) {
    std::erase_if(presets, [&](const tag_custom_info& preset) {
        return std::ranges::find(custom_ids, preset.custom_id) != custom_ids.end();
    });
    for (const int32_t custom_id : custom_ids) {
        std::ranges::replace(linked_ids, custom_id, 0);
    }
    renumber(presets);
}

bool Contents::operator==(const Contents& other) const {
    const auto is_same = [](const tag_custom_info& one, const tag_custom_info& two) {
        return std::memcmp(&one, &two, sizeof one) == 0; // words and characters alone: there are no gaps
    };
    return linked_ids == other.linked_ids && std::ranges::equal(presets, other.presets, is_same);
}

// ---- Opening --------------------------------------------------------------------------------------------------------

StoreDatabase StoreDatabase::make(const fs::path& path) {
    remove(path);
    StoreDatabase made(open_file(path, SQLITE_OPEN_CREATE));
    made.database_.run(settings);
    Transaction transaction = made.begin();
    made.database_.run(schema);
    made.database_.run(fmt::format("PRAGMA application_id = {}", +application_id).c_str());
    made.database_.run(fmt::format("PRAGMA user_version = {}", +schema_version).c_str());
    transaction.commit();
    return made;
}

StoreDatabase StoreDatabase::open(const fs::path& path) {
    check_files(path);
    Database database = open_file(path, 0);
    database.give_up_after(longest_opening);
    check_schema(database, path);
    if (sqlite3_db_readonly(database.handle(), "main") != 0) {
        throw SqliteError(SQLITE_READONLY, "it cannot be written");
    }
    database.run(settings);
    check_integrity(database, path);
    database.give_up_never();
    return StoreDatabase(std::move(database));
}

// A camera may have been killed between writing and flushing. The journal's name has to last before the first change:
// SQLite goes on when it cannot flush that.
void StoreDatabase::flush(const fs::path& path) {
    flush_file(path);
    flush_file(path.string() + "-journal");
    flush_folder(path.parent_path());
}

void StoreDatabase::discard_empty_journal(const fs::path& path) {
    const fs::path journal = path.string() + "-journal";
    if (is_there(journal) && size_of(open_plain_file(journal, O_RDONLY), journal) == 0) {
        remove_file(journal);
        flush_folder(path.parent_path());
    }
}

void StoreDatabase::remove(const fs::path& path) noexcept {
    remove_file(path);
    remove_file(path.string() + "-journal");
}

// ---- Reading --------------------------------------------------------------------------------------------------------

Contents StoreDatabase::read() {
    Contents contents;
    contents.presets.reserve(SM_PRESET_LIMIT);
    Statement rows(database_, "SELECT custom_id, record FROM presets ORDER BY custom_id");
    while (rows.step()) {
        const std::string fault = fault_of(rows.number(0), rows.blob(1));
        if (!fault.empty()) {
            throw StoreDamage(fmt::format("the preset with custom_id {} {}", rows.number(0), fault));
        }
        if (contents.presets.size() == SM_PRESET_LIMIT) {
            throw StoreDamage(fmt::format("it has more than {} presets", +SM_PRESET_LIMIT));
        }
        contents.presets.push_back(decode_camera_record(rows.blob(1)));
    }
    renumber(contents.presets);
    read_links(contents);
    check_next_id(contents);
    return contents;
}

void StoreDatabase::read_links(Contents& contents) {
    Statement rows(database_, "SELECT custom_mode, custom_id FROM links");
    while (rows.step()) {
        const int64_t mode = rows.number(0);
        const int64_t custom_id = rows.number(1);
        if (mode < 0 || mode >= SM_CUSTOM_MODES) {
            throw StoreDamage("it links a custom mode that no camera has");
        }
        const auto has_id = [&](const tag_custom_info& preset) { return preset.custom_id == custom_id; };
        if (std::ranges::none_of(contents.presets, has_id)) {
            throw StoreDamage(fmt::format("CUSTOM{} uses a preset that is not there", mode + 1));
        }
        contents.linked_ids[static_cast<size_t>(mode)] = static_cast<int>(custom_id);
    }
}

void StoreDatabase::check_next_id(const Contents& contents) {
    Statement rows(database_, "SELECT next_custom_id, typeof(next_custom_id) FROM camera");
    const int64_t last_id = contents.presets.empty() ? 0 : contents.presets.back().custom_id;
    if (!rows.step() || rows.text(1) != "integer" || rows.number(0) <= last_id || rows.step()) {
        throw StoreDamage("it does not say which custom_id comes next");
    }
}

// ---- Changes --------------------------------------------------------------------------------------------------------

int32_t StoreDatabase::take_custom_id() {
    Statement next(database_, "SELECT next_custom_id FROM camera");
    next.step();
    const int64_t custom_id = next.number(0);
    if (custom_id > largest_id) {
        throw std::runtime_error("every custom_id has been given");
    }
    execute(database_, "UPDATE camera SET next_custom_id = next_custom_id + 1");
    return static_cast<int32_t>(custom_id);
}

void StoreDatabase::insert(const tag_custom_info& preset) {
    const Bytes record = encode(preset);
    execute(database_, "INSERT INTO presets VALUES (?1, ?2)", int64_t{preset.custom_id},
            std::span<const uint8_t>(record));
}

void StoreDatabase::replace(const tag_custom_info& preset) {
    const Bytes record = encode(preset);
    execute(database_, "UPDATE presets SET record = ?2 WHERE custom_id = ?1", int64_t{preset.custom_id},
            std::span<const uint8_t>(record));
}

void StoreDatabase::erase(int32_t custom_id) {
    execute(database_, "DELETE FROM presets WHERE custom_id = ?1", int64_t{custom_id});
}

void StoreDatabase::link(int custom_mode, int32_t custom_id) {
    execute(database_, "INSERT OR REPLACE INTO links VALUES (?1, ?2)", int64_t{custom_mode}, int64_t{custom_id});
}

void StoreDatabase::unlink(int custom_mode) {
    execute(database_, "DELETE FROM links WHERE custom_mode = ?1", int64_t{custom_mode});
}

// A commit writes the journal, its name and the changed pages, and flushes them all. Two changes that undo each other
// make one that changes nothing.
void StoreDatabase::seal() {
    Transaction transaction(database_);
    execute(database_, "UPDATE camera SET next_custom_id = next_custom_id + 1");
    execute(database_, "UPDATE camera SET next_custom_id = next_custom_id - 1");
    transaction.commit();
}

} // namespace desk::camera
