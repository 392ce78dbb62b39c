// The records lie in the database as the 740 bytes that travel, in the order of their custom_ids: presets
// are only ever added at the end, so this is the order of the list, and a preset's number is its place in it.
// Numbers are therefore counted and never read back, and no delete can leave a gap. The custom modes name
// their presets by custom_id and keep them whatever is deleted before them.
#include "PresetStore.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <limits>
#include <string>
#include <system_error>
#include <utility>

#include "Sqlite.h"
#include "Common/Descriptor.h"
#include "Wire/Record.h"

namespace fs = std::filesystem;

namespace desk {
namespace {

constexpr int custom_modes = 2;
constexpr auto largest_id = std::numeric_limits<int32_t>::max();
constexpr int longest_picture = SM_REQUEST_LIMIT - int{sizeof(sm_frame)} - int{sizeof(sm_tag_custom_info)};

constexpr char database_name[] = "presets.sqlite";
constexpr char unfinished[] = ".new"; // behind the name of a file that is not complete yet

// In the database's header, so that no other program's database is taken for a store.
constexpr int32_t application_id = 0x4B543753; // "KT7S"
constexpr int32_t schema_version = 1;

constexpr char schema[] = R"(
    CREATE TABLE presets (custom_id INTEGER PRIMARY KEY, record BLOB NOT NULL);
    CREATE TABLE links (custom_mode INTEGER PRIMARY KEY,
                        custom_id INTEGER NOT NULL REFERENCES presets ON DELETE CASCADE);
    CREATE TABLE camera (next_custom_id INTEGER NOT NULL);
    INSERT INTO camera VALUES (1);
)";

// A commit is over when the journal has been cut to nothing and this has been flushed. Others may read the
// database at the same time; the store waits for them a moment.
constexpr char settings[] = R"(
    PRAGMA foreign_keys = ON;
    PRAGMA synchronous = FULL;
    PRAGMA journal_mode = TRUNCATE;
    PRAGMA temp_store = MEMORY;
)";
constexpr int busy_timeout_ms = 500;

std::string picture_path(int custom_id) {
    return "pictures/" + std::to_string(custom_id) + ".jpg";
}

// ---- Files ------------------------------------------------------------------------------------------------

[[noreturn]] void refuse(const fs::path& path) {
    throw std::system_error(errno, std::generic_category(), path.string());
}

Descriptor open_file(const fs::path& path, int flags) {
    Descriptor file(::open(path.c_str(), flags | O_CLOEXEC, 0666));
    if (file.get() < 0) {
        refuse(path);
    }
    return file;
}

// Flushes a file's bytes, or the names in a folder.
void flush(const Descriptor& file, const fs::path& path) {
    if (::fsync(file.get()) != 0) {
        refuse(path);
    }
}

void flush_folder(const fs::path& folder) {
    flush(open_file(folder, O_RDONLY | O_DIRECTORY), folder);
}

void write_file(const fs::path& path, std::span<const uint8_t> bytes) {
    const Descriptor file = open_file(path, O_WRONLY | O_CREAT | O_TRUNC);
    while (!bytes.empty()) {
        const ssize_t written = ::write(file.get(), bytes.data(), bytes.size());
        if (written < 0 && errno != EINTR) {
            refuse(path);
        }
        bytes = bytes.subspan(written < 0 ? 0 : static_cast<size_t>(written));
    }
    flush(file, path);
}

void rename_file(const fs::path& from, const fs::path& to) {
    if (::rename(from.c_str(), to.c_str()) != 0) {
        refuse(to);
    }
    flush_folder(to.parent_path());
}

void make_folder(const fs::path& folder) {
    if (fs::is_directory(folder)) {
        return;
    }
    make_folder(folder.parent_path());
    if (::mkdir(folder.c_str(), 0777) != 0) {
        refuse(folder);
    }
    flush_folder(folder.parent_path());
}

void remove_file(const fs::path& path) noexcept {
    std::error_code ignored; // what cannot be removed now is removed when the store is opened next
    fs::remove(path, ignored);
}

// A picture on its way into the store. It goes again unless it is kept.
class NewPicture {
  public:
    NewPicture(fs::path path, std::span<const uint8_t> bytes) : path_(std::move(path)), partial_(path_) {
        partial_ += unfinished;
        try {
            write_file(partial_, bytes);
            rename_file(partial_, path_);
        } catch (...) {
            discard();
            throw;
        }
    }
    NewPicture(const NewPicture&) = delete;
    NewPicture& operator=(const NewPicture&) = delete;
    ~NewPicture() {
        if (!kept_) {
            discard();
        }
    }
    void keep() { kept_ = true; }

  private:
    void discard() noexcept {
        remove_file(partial_);
        remove_file(path_);
    }

    fs::path path_;
    fs::path partial_;
    bool kept_ = false;
};

// Whether a file in pictures/ has a name that only this store gives: "17.jpg", or "17.jpg.new".
bool is_own_picture_name(std::string_view name) {
    const size_t digits = std::min(name.find_first_not_of("0123456789"), name.size());
    const std::string_view rest = name.substr(digits);
    return digits > 0 && (rest == ".jpg" || rest == ".jpg.new");
}

std::vector<fs::path> own_pictures(const fs::path& folder) {
    std::vector<fs::path> found;
    if (fs::is_directory(folder / "pictures")) {
        for (const fs::directory_entry& entry : fs::directory_iterator(folder / "pictures")) {
            if (entry.is_regular_file() && is_own_picture_name(entry.path().filename().string())) {
                found.push_back(entry.path());
            }
        }
    }
    return found;
}

// ---- Opening ----------------------------------------------------------------------------------------------

Failure damaged(const fs::path& folder, const std::string& fault) {
    return Failure(exit_store_damaged, "the store " + folder.string() + " is damaged: " + fault +
                                           "; put a good copy of the folder back, or move it away and start "
                                           "with a new one");
}

Failure missing(const fs::path& folder) {
    return Failure(exit_missing, "there is no store in " + folder.string() + "; shotmentor-camera --store " +
                                     folder.string() + " makes one");
}

Failure in_use(const fs::path& folder, const std::string& who) {
    return Failure(exit_store_in_use, who + " has the store " + folder.string() + " open; end it first");
}

Failure failed(const fs::path& folder, const std::string& cause) {
    return Failure(exit_machine, "cannot open or make the store " + folder.string() + ": " + cause +
                                     "; mend that, or choose another folder with --store");
}

Failure failure_of(const fs::path& folder, const SqliteError& error) {
    switch (error.code()) {
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
    case SQLITE_ERROR: // a table that is not what it should be
        return damaged(folder, std::string(database_name) + ": " + error.what());
    case SQLITE_BUSY:
        return in_use(folder, "another program");
    default:
        return failed(folder, std::string(database_name) + ": " + error.what());
    }
}

fs::path tidy(const fs::path& folder) {
    const fs::path path = fs::absolute(folder);
    return path.has_filename() ? path : path.parent_path();
}

Descriptor lock(const fs::path& folder) {
    Descriptor file = open_file(folder / "lock", O_RDWR | O_CREAT);
    if (::flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno == EWOULDBLOCK) {
            throw in_use(folder, "another camera");
        }
        refuse(folder / "lock");
    }
    return file;
}

// Makes the database beside its place, so that there is a whole one or none.
void make_database(const fs::path& folder) {
    const fs::path path = folder / database_name;
    fs::path partial = path;
    partial += unfinished;
    remove_file(partial);
    remove_file(partial.string() + "-journal");
    try {
        Database database(partial.string(), SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
        database.run("PRAGMA synchronous = FULL");
        Transaction transaction(database);
        database.run(schema);
        database.run(("PRAGMA application_id = " + std::to_string(application_id)).c_str());
        database.run(("PRAGMA user_version = " + std::to_string(schema_version)).c_str());
        transaction.commit();
    } catch (const SqliteError&) {
        remove_file(partial);
        remove_file(partial.string() + "-journal");
        throw;
    }
    rename_file(partial, path);
}

void make_store(const fs::path& folder) {
    if (!own_pictures(folder).empty()) {
        throw damaged(folder, "it has pictures but no " + std::string(database_name));
    }
    make_folder(folder / "pictures");
    make_database(folder);
}

// Looks at the database's first bytes before SQLite sees it: SQLite would write to a stranger's database that
// was interrupted.
void check_header(const fs::path& folder) {
    const fs::path path = folder / database_name;
    if (!fs::is_regular_file(path)) {
        throw damaged(folder, std::string(database_name) + " is not a file");
    }
    std::array<uint8_t, 100> header{};
    const Descriptor file = open_file(path, O_RDONLY);
    const ssize_t got = ::pread(file.get(), header.data(), header.size(), 0);
    if (got < 0) {
        refuse(path);
    }
    const auto number_at = [&](size_t offset) { // most significant byte first
        return header[offset] << 24 | header[offset + 1] << 16 | header[offset + 2] << 8 | header[offset + 3];
    };
    const bool is_ours = std::memcmp(header.data(), "SQLite format 3", 16) == 0 &&
                         number_at(68) == application_id && header[18] == 1 && header[19] == 1;
    if (got < ssize_t{header.size()} || !is_ours) {
        throw damaged(folder, std::string(database_name) + " is not a database of presets");
    }
    if (number_at(60) != schema_version) {
        throw damaged(folder, std::string(database_name) + " has version " + std::to_string(number_at(60)) +
                                  ", this camera reads version " + std::to_string(schema_version));
    }
}

Database open_database(const fs::path& folder) {
    check_header(folder);
    Database database((folder / database_name).string(), SQLITE_OPEN_READWRITE);
    sqlite3_busy_timeout(database.handle(), busy_timeout_ms);
    if (sqlite3_db_readonly(database.handle(), "main") != 0) {
        throw failed(folder, std::string(database_name) + " cannot be written");
    }
    database.run(settings);
    Statement check(database, "PRAGMA integrity_check(1)");
    const std::string fault = check.step() ? check.text(0) : "nothing can be read";
    if (fault != "ok") {
        throw damaged(folder, std::string(database_name) + ": " + in_one_line(fault));
    }
    return database;
}

// Says what is wrong with a record's row, or nothing.
std::string fault_of(int64_t custom_id, std::span<const uint8_t> record) {
    if (custom_id < 1 || custom_id > largest_id) {
        return "has a custom_id that no preset can have";
    }
    if (record.size() != sizeof(tag_custom_info)) {
        return "has a record of " + std::to_string(record.size()) + " bytes instead of " +
               std::to_string(sizeof(tag_custom_info));
    }
    const tag_custom_info preset = decode_camera_record(record);
    if (preset.custom_id != custom_id ||
        text_of(preset.screennail_path, SM_SCREENNAIL_PATH_SIZE) != picture_path(preset.custom_id)) {
        return "has the record of another preset";
    }
    return "";
}

// The custom_id for a new preset. It is given when the transaction commits, and never again.
int32_t take_custom_id(Database& database) {
    Statement next(database, "SELECT next_custom_id FROM camera");
    next.step();
    const int64_t custom_id = next.number(0);
    if (custom_id > largest_id) {
        throw std::runtime_error("every custom_id has been given");
    }
    execute(database, "UPDATE camera SET next_custom_id = next_custom_id + 1");
    return static_cast<int32_t>(custom_id);
}

} // namespace

// ---- The store --------------------------------------------------------------------------------------------

// What the database holds is also held here, so that reading cannot fail. The database is changed first.
struct PresetStore::State {
    fs::path folder; // absolute: the store does not depend on the working directory
    Descriptor lock;
    std::unique_ptr<Database> database;
    bool is_new = false;
    std::vector<tag_custom_info> presets;       // record k has preset_num k; room for all that fit
    std::array<int, custom_modes> linked_ids{}; // custom_ids, 0 none
    std::string last_error;

    int number_of(int custom_id) const;
    void load();
    void load_links();
    void check_next_id();
    void clean() const;
    void renumber();
    int refused(int result, const std::string& line);
    template<class Work>
    int change(Work work);
};

int PresetStore::State::number_of(int custom_id) const {
    const auto found = std::ranges::find(presets, custom_id, &tag_custom_info::custom_id);
    return found == presets.end() ? -1 : static_cast<int>(found - presets.begin());
}

void PresetStore::State::renumber() {
    for (int number = 0; tag_custom_info & preset : presets) {
        preset.preset_num = number++;
    }
}

void PresetStore::State::load() {
    presets.reserve(SM_PRESET_LIMIT);
    Statement rows(*database, "SELECT custom_id, record FROM presets ORDER BY custom_id");
    while (rows.step()) {
        const std::string fault = fault_of(rows.number(0), rows.blob(1));
        if (!fault.empty()) {
            throw damaged(folder,
                          "the preset with custom_id " + std::to_string(rows.number(0)) + " " + fault);
        }
        if (presets.size() == SM_PRESET_LIMIT) {
            throw damaged(folder, "it has more than " + std::to_string(SM_PRESET_LIMIT) + " presets");
        }
        presets.push_back(decode_camera_record(rows.blob(1)));
    }
    renumber();
    load_links();
    check_next_id();
}

void PresetStore::State::load_links() {
    Statement rows(*database, "SELECT custom_mode, custom_id FROM links");
    while (rows.step()) {
        const int64_t mode = rows.number(0);
        const int64_t custom_id = rows.number(1);
        if (mode < 0 || mode >= custom_modes) {
            throw damaged(folder, "it links a custom mode that no camera has");
        }
        const auto has_id = [&](const tag_custom_info& preset) { return preset.custom_id == custom_id; };
        if (std::ranges::none_of(presets, has_id)) {
            throw damaged(folder, "CUSTOM" + std::to_string(mode + 1) + " uses a preset that is not there");
        }
        linked_ids[static_cast<size_t>(mode)] = static_cast<int>(custom_id);
    }
}

void PresetStore::State::check_next_id() {
    Statement rows(*database, "SELECT next_custom_id, typeof(next_custom_id) FROM camera");
    const int64_t last_id = presets.empty() ? 0 : presets.back().custom_id;
    if (!rows.step() || rows.text(1) != "integer" || rows.number(0) <= last_id || rows.step()) {
        throw damaged(folder, "it does not say which custom_id comes next");
    }
}

// Removes what an interrupted change left behind.
void PresetStore::State::clean() const {
    make_folder(folder / "pictures");
    for (const fs::path& picture : own_pictures(folder)) {
        const std::string name = "pictures/" + picture.filename().string();
        const auto is_its = [&](const tag_custom_info& preset) {
            return picture_path(preset.custom_id) == name;
        };
        if (std::ranges::none_of(presets, is_its)) {
            fs::remove(picture);
        }
    }
}

int PresetStore::State::refused(int result, const std::string& line) {
    last_error = line;
    return result;
}

// Runs a change as one transaction. `work` does the change in the database and commits it.
template<class Work>
int PresetStore::State::change(Work work) {
    try {
        Transaction transaction(*database);
        work(transaction);
        return SM_RETURN_TRUE;
    } catch (const SqliteError& error) {
        return refused(SM_RETURN_FAIL, (folder / database_name).string() + ": " + error.what());
    } catch (const std::exception& error) {
        return refused(SM_RETURN_FAIL, error.what());
    }
}

PresetStore::PresetStore(std::unique_ptr<State> state) : state_(std::move(state)) {}
PresetStore::PresetStore(PresetStore&&) noexcept = default;
PresetStore& PresetStore::operator=(PresetStore&&) noexcept = default;
PresetStore::~PresetStore() = default;

PresetStore PresetStore::open(const fs::path& asked_folder, bool create) try {
    auto state = std::make_unique<State>();
    const fs::path& folder = state->folder = tidy(asked_folder);
    if (create) {
        make_folder(folder);
    } else if (!fs::is_directory(folder) ||
               (!fs::exists(folder / database_name) && own_pictures(folder).empty())) {
        throw missing(folder);
    }
    state->lock = lock(folder);
    if (!fs::exists(folder / database_name)) {
        make_store(folder);
        state->is_new = true;
    }
    state->database = std::make_unique<Database>(open_database(folder));
    state->load();
    state->clean();
    return PresetStore(std::move(state));
} catch (const SqliteError& error) {
    throw failure_of(asked_folder, error);
} catch (const std::system_error& error) {
    throw failed(asked_folder, error.what());
}

bool PresetStore::is_new() const {
    return state_->is_new;
}

std::vector<tag_custom_info> PresetStore::presets() const {
    return state_->presets;
}

std::optional<tag_custom_info> PresetStore::find(int custom_id) const {
    const int number = state_->number_of(custom_id);
    return number < 0 ? std::nullopt : std::optional(state_->presets[static_cast<size_t>(number)]);
}

int PresetStore::linked(int custom_mode) const {
    if (custom_mode < 0 || custom_mode >= custom_modes) {
        return -1;
    }
    return state_->number_of(state_->linked_ids[static_cast<size_t>(custom_mode)]);
}

int PresetStore::save(tag_custom_info& preset, const void* picture, int length) {
    State& state = *state_;
    if (length < 0 || length > longest_picture || (!picture && length > 0)) {
        return state.refused(SM_RETURN_JPG_ERR, "a picture has 0 to " + std::to_string(longest_picture) +
                                                    " bytes, not " + std::to_string(length));
    }
    if (state.presets.size() >= SM_PRESET_LIMIT) {
        return state.refused(SM_RETURN_DATA_ERR,
                             std::to_string(SM_PRESET_LIMIT) + " presets are stored, delete one first");
    }
    return state.change([&](Transaction& transaction) {
        tag_custom_info stored = preset;
        stored.custom_id = take_custom_id(*state.database);
        stored.preset_num = static_cast<int32_t>(state.presets.size());
        const std::string path = picture_path(stored.custom_id);
        std::ranges::fill(stored.screennail_path, '\0');
        path.copy(stored.screennail_path, SM_SCREENNAIL_PATH_SIZE - 1);

        const Bytes record = encode(stored);
        execute(*state.database, "INSERT INTO presets VALUES (?1, ?2)", int64_t{stored.custom_id},
                std::span<const uint8_t>(record));
        NewPicture file(state.folder / path,
                        {static_cast<const uint8_t*>(picture), static_cast<size_t>(length)});
        transaction.commit();
        file.keep();
        state.presets.push_back(stored);
        preset = stored;
    });
}

int PresetStore::update(int custom_id, int server_id, std::string_view title) {
    State& state = *state_;
    const int number = state.number_of(custom_id);
    if (number < 0) {
        return state.refused(SM_RETURN_LOCALN_ERR,
                             "there is no preset with custom_id " + std::to_string(custom_id));
    }
    return state.change([&](Transaction& transaction) {
        tag_custom_info& preset = state.presets[static_cast<size_t>(number)];
        tag_custom_info changed = preset;
        changed.server_id = server_id;
        std::ranges::fill(changed.title, '\0');
        title.substr(0, title.find('\0')).copy(changed.title, SM_TITLE_SIZE - 1);

        const Bytes record = encode(changed);
        execute(*state.database, "UPDATE presets SET record = ?2 WHERE custom_id = ?1", int64_t{custom_id},
                std::span<const uint8_t>(record));
        transaction.commit();
        preset = changed;
    });
}

int PresetStore::remove(std::span<const int> flags) {
    State& state = *state_;
    const auto goes = [&](const tag_custom_info& preset) {
        const auto number = static_cast<size_t>(preset.preset_num);
        return number < flags.size() && flags[number] == 1;
    };
    std::vector<int32_t> gone;
    for (const tag_custom_info& preset : state.presets) {
        if (goes(preset)) {
            gone.push_back(preset.custom_id);
        }
    }
    const int result = state.change([&](Transaction& transaction) {
        for (const int32_t custom_id : gone) {
            execute(*state.database, "DELETE FROM presets WHERE custom_id = ?1", int64_t{custom_id});
        }
        transaction.commit();
        std::erase_if(state.presets, goes);
        state.renumber();
    });
    if (result == SM_RETURN_TRUE) {
        for (const int32_t custom_id : gone) {
            std::ranges::replace(state.linked_ids, custom_id, 0);
            remove_file(state.folder / picture_path(custom_id));
        }
    }
    return result;
}

int PresetStore::link(int custom_mode, int number) {
    State& state = *state_;
    if (custom_mode < 0 || custom_mode >= custom_modes) {
        return state.refused(SM_RETURN_DATA_ERR, "the custom modes are 0 and 1");
    }
    if (number < 0 || static_cast<size_t>(number) >= state.presets.size()) {
        return state.refused(SM_RETURN_LOCALN_ERR, "there is no preset number " + std::to_string(number));
    }
    return state.change([&](Transaction& transaction) {
        const int32_t custom_id = state.presets[static_cast<size_t>(number)].custom_id;
        execute(*state.database, "INSERT OR REPLACE INTO links VALUES (?1, ?2)", int64_t{custom_mode},
                int64_t{custom_id});
        transaction.commit();
        state.linked_ids[static_cast<size_t>(custom_mode)] = custom_id;
    });
}

int PresetStore::unlink(int custom_mode) {
    State& state = *state_;
    if (custom_mode < 0 || custom_mode >= custom_modes) {
        return state.refused(SM_RETURN_DATA_ERR, "the custom modes are 0 and 1");
    }
    return state.change([&](Transaction& transaction) {
        execute(*state.database, "DELETE FROM links WHERE custom_mode = ?1", int64_t{custom_mode});
        transaction.commit();
        state.linked_ids[static_cast<size_t>(custom_mode)] = 0;
    });
}

const std::string& PresetStore::last_error() const {
    return state_->last_error;
}

} // namespace desk
