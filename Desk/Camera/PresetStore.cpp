#include "PresetStore.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <fmt/format.h>
#include <string>
#include <system_error>
#include <utility>

#include "StoreDatabase.h"
#include "StoreFiles.h"
#include "Wire/Frames.h"

namespace fs = std::filesystem;

namespace desk::camera {
namespace {

constexpr char database_name[] = "presets.sqlite";
constexpr char pictures_name[] = "pictures";
constexpr char lock_name[] = "lock";

// ---- What `open` refuses --------------------------------------------------------------------------------------------

Failure damage_failure(const fs::path& folder, const std::string& fault) {
    return Failure(exit_store_damaged,
                   "the store " + folder.string() + " is damaged: " + fault +
                       "; put a good copy of the folder back, or move it away and start with a new one");
}

Failure missing_failure(const fs::path& folder) {
    return Failure(exit_missing, "there is no store in " + folder.string() + "; shotmentor-camera --store " +
                                     folder.string() + " makes one");
}

Failure in_use_failure(const fs::path& folder, const std::string& who) {
    return Failure(exit_store_in_use, who + " has the store " + folder.string() + " open; end it first");
}

Failure machine_failure(const fs::path& folder, const std::string& cause) {
    return Failure(exit_machine, "cannot open or make the store " + folder.string() + ": " + cause +
                                     "; mend that, or choose another folder with --store");
}

Failure failure_from(const fs::path& folder, const SqliteError& error) {
    const std::string cause = std::string(database_name) + ": " + error.what();
    switch (error.code()) {
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
    case SQLITE_ERROR: // a table that is not what it should be
    case SQLITE_INTERRUPT:
        return damage_failure(folder, cause);
    case SQLITE_BUSY:
        return in_use_failure(folder, "another program");
    default:
        return machine_failure(folder, cause);
    }
}

// Runs the opening of a store. Everything that it throws becomes a Failure.
template<class Work>
auto with_failures_told(const fs::path& folder, Work work) {
    try {
        return work();
    } catch (const SqliteError& error) {
        throw failure_from(folder, error);
    } catch (const StoreDamage& damage) {
        throw damage_failure(folder, damage.what());
    } catch (const std::system_error& error) {
        throw machine_failure(folder, error.what());
    }
}

Descriptor lock(const fs::path& folder) {
    const fs::path path = folder / lock_name;
    require_plain_file(path);
    Descriptor file = open_plain_file(path, O_RDWR | O_CREAT);
    while (::flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno == EWOULDBLOCK) {
            throw in_use_failure(folder, "another camera");
        }
        if (errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), path.string());
        }
    }
    return file;
}

bool is_custom_mode(int mode) {
    return mode >= 0 && mode < SM_CUSTOM_MODES;
}

// Without links on the way and without a slash at its end.
fs::path place_of(const fs::path& folder) {
    const fs::path place = fs::weakly_canonical(fs::absolute(folder));
    return place.has_filename() ? place : place.parent_path();
}

} // namespace

// ---- The state ------------------------------------------------------------------------------------------------------

// How a caller names the presets that it means to change.
enum class NamedBy { identity, number };

struct PresetStore::State {
    explicit State(const fs::path& place)
        : folder(place), pictures(folder / pictures_name), database_path(folder / database_name) {}

    const fs::path folder;
    const fs::path pictures;
    fs::path database_path; // has its unfinished name while the store is being made
    Descriptor lock;
    std::optional<StoreDatabase> database;
    Contents contents;
    bool is_settled = true; // whether `contents` is known to be what the disk holds
    std::string last_error;

    void open();
    void begin_making();
    void finish_making();
    void discard_making();
    void give_up_making() noexcept;
    void check_pictures() const;
    void remove_unnamed_pictures() const;
    void settle();
    int refused(int result, const std::string& line); // returns the result, and keeps the line for `last_error`
    bool begin_change(NamedBy named_by);
    template<class Work>
    void attempt(Work work, Contents& next);
    template<class Work>
    int change(Work work);
};

// ---- Opening and making ---------------------------------------------------------------------------------------------

// Names that a killed camera made may not have reached the disk yet.
void PresetStore::State::open() {
    check_pictures();
    database = StoreDatabase::open(database_path);
    contents = database->read();
    StoreDatabase::flush(database_path);
    flush_names_above(folder);
    make_folder(pictures);
    remove_unnamed_pictures();
}

// Somebody else's pictures may lie where a link leads.
void PresetStore::State::check_pictures() const {
    if (is_there(pictures) && !is_real_folder(pictures)) {
        throw StoreDamage(std::string(pictures_name) + " is not a folder");
    }
}

// The unfinished database marks the pictures beside it as those of a store that never was. It is therefore there before
// the first of them, and goes after the last: by getting its name, or by being removed.
void PresetStore::State::begin_making() {
    check_pictures();
    if (is_there(unfinished_name(database_path))) {
        discard_making();
    }
    if (!own_pictures(pictures).empty()) {
        throw StoreDamage("it has pictures but no " + std::string(database_name));
    }
    make_folder(pictures);
    database_path = unfinished_name(database_path);
    database = StoreDatabase::make(database_path);
    flush_folder(folder);
    contents = {};
}

void PresetStore::State::finish_making() {
    database.reset();
    const fs::path unfinished_path = std::exchange(database_path, folder / database_name);
    remove_file(unfinished_path.string() + "-journal");
    rename_file(unfinished_path, database_path);
    open();
}

void PresetStore::State::discard_making() {
    database.reset();
    std::ranges::for_each(own_pictures(pictures), remove_file);
    if (is_there(pictures)) {
        flush_folder(pictures);
    }
    StoreDatabase::remove(unfinished_name(folder / database_name));
}

// A store that has got its name stays, whatever failed after that.
void PresetStore::State::give_up_making() noexcept {
    try {
        if (!is_there(folder / database_name)) {
            discard_making();
        }
    } catch (const std::exception&) { // the next making discards it
    }
}

void PresetStore::State::remove_unnamed_pictures() const {
    for (const fs::path& picture : own_pictures(pictures)) {
        const auto names_it = [&](const tag_custom_info& preset) {
            return folder / picture_path(preset.custom_id) == picture;
        };
        if (std::ranges::none_of(contents.presets, names_it)) {
            remove_file(picture);
        }
    }
}

// ---- Changes --------------------------------------------------------------------------------------------------------

// Finds out what the disk holds after a commit that failed, and makes that last. Only then is known which pictures are
// needed.
void PresetStore::State::settle() {
    if (is_settled) {
        return;
    }
    database.reset(); // with what it believes to be on the disk
    StoreDatabase::discard_empty_journal(database_path);
    database = StoreDatabase::open(database_path);
    contents = database->read();
    StoreDatabase::flush(database_path);
    database->seal();
    is_settled = true;
    remove_unnamed_pictures();
}

int PresetStore::State::refused(int result, const std::string& line) {
    last_error = line;
    return result;
}

// Nothing of a change reaches the database before its commit, and nothing when the commit finds the database in use.
template<class Work>
void PresetStore::State::attempt(Work work, Contents& next) {
    Transaction transaction = database->begin();
    work(next);
    is_settled = false;
    try {
        transaction.commit();
    } catch (const SqliteError& error) {
        is_settled = error.code() == SQLITE_BUSY;
        throw;
    }
    is_settled = true;
}

// Whether a change may begin: settles what an earlier one has left open. Numbers that were taken from the list before
// that may name other presets after it.
bool PresetStore::State::begin_change(NamedBy named_by) {
    const Contents known = contents;
    try {
        settle();
    } catch (const std::exception& error) {
        last_error =
            "it is not known whether an earlier change was made, and cannot be found out: " + database_path.string() +
            ": " + error.what();
        return false;
    }
    if (named_by == NamedBy::number && !(contents == known)) {
        last_error = "an earlier change was made after all, and the numbers may name other presets now; ask again";
        return false;
    }
    return true;
}

// Runs a change as one transaction. `work` makes it in the database and in the contents that it is given.
template<class Work>
int PresetStore::State::change(Work work) {
    Contents next = contents;
    try {
        attempt(work, next);
        contents = std::move(next);
        return SM_RETURN_TRUE;
    } catch (const SqliteError& error) {
        last_error = database_path.string() + ": " + error.what();
    } catch (const std::exception& error) {
        last_error = error.what();
    }
    if (is_settled) {
        return SM_RETURN_FAIL;
    }
    try {
        settle();
    } catch (const std::exception& error) {
        return refused(SM_RETURN_FAIL, last_error + "; cannot tell whether the change was made: " + error.what());
    }
    return contents == next ? SM_RETURN_TRUE : SM_RETURN_FAIL;
}

// ---- The store ------------------------------------------------------------------------------------------------------

PresetStore::PresetStore(std::unique_ptr<State> state) : state_(std::move(state)) {}
PresetStore::PresetStore(PresetStore&&) noexcept = default;
PresetStore& PresetStore::operator=(PresetStore&&) noexcept = default;
PresetStore::~PresetStore() = default;

PresetStore PresetStore::open(const fs::path& folder, bool create, const Fill& fill) {
    return with_failures_told(folder, [&] {
        const fs::path place = place_of(folder);
        auto state = std::make_unique<State>(place);
        if (create) {
            make_folder(place);
        } else if (!fs::is_directory(place) ||
                   (!is_there(state->database_path) &&
                    (is_there(unfinished_name(state->database_path)) || own_pictures(state->pictures).empty()))) {
            throw missing_failure(folder);
        }
        state->lock = lock(place);
        PresetStore store(std::move(state));
        if (is_there(store.state_->database_path)) {
            store.state_->open();
        } else {
            store.make(fill);
        }
        return store;
    });
}

void PresetStore::make(const Fill& fill) {
    state_->begin_making();
    try {
        if (fill) {
            fill(*this);
        }
        state_->finish_making();
    } catch (...) {
        state_->give_up_making();
        throw;
    }
}

std::vector<tag_custom_info> PresetStore::presets() const {
    return state_->contents.presets;
}

std::optional<tag_custom_info> PresetStore::find(int custom_id) const {
    const Contents& contents = state_->contents;
    const int number = contents.number_of(custom_id);
    return number < 0 ? std::nullopt : std::optional(contents.presets[static_cast<size_t>(number)]);
}

int PresetStore::linked(int custom_mode) const {
    if (!is_custom_mode(custom_mode)) {
        return -1;
    }
    return state_->contents.number_of(state_->contents.linked_ids[static_cast<size_t>(custom_mode)]);
}

std::string PresetStore::fault_of_picture(const tag_custom_info& preset) const {
    const fs::path path = state_->folder / picture_path(preset.custom_id);
    try {
        const int64_t size = size_of(open_plain_file(path, O_RDONLY), path);
        return size <= int64_t{longest_picture}
                   ? ""
                   : fmt::format("{}: it has {} bytes, more than the {} of the largest picture", path.string(), size,
                                 longest_picture);
    } catch (const std::system_error& error) {
        const std::string other = what_is_no_file(path);
        return other.empty() ? error.what() : path.string() + ": it is not a file but " + other;
    }
}

int PresetStore::save(tag_custom_info& preset, const void* picture, int length) {
    State& state = *state_;
    if (length < 0 || static_cast<size_t>(length) > longest_picture || (!picture && length > 0)) {
        return state.refused(SM_RETURN_JPG_ERR,
                             fmt::format("a picture has 0 to {} bytes, not {}", longest_picture, length));
    }
    if (!state.begin_change(NamedBy::identity)) {
        return SM_RETURN_FAIL;
    }
    if (state.contents.presets.size() >= SM_PRESET_LIMIT) {
        return state.refused(SM_RETURN_DATA_ERR,
                             fmt::format("{} presets are stored, delete one first", +SM_PRESET_LIMIT));
    }
    tag_custom_info stored = preset;
    std::optional<NewPicture> file;
    const int result = state.change([&](Contents& next) {
        stored.custom_id = state.database->take_custom_id();
        stored.preset_num = static_cast<int32_t>(next.presets.size());
        const std::string path = picture_path(stored.custom_id);
        std::ranges::fill(stored.screennail_path, '\0');
        path.copy(stored.screennail_path, SM_SCREENNAIL_PATH_SIZE - 1);
        state.database->insert(stored);
        file.emplace(state.folder / path, std::span(static_cast<const uint8_t*>(picture), static_cast<size_t>(length)));
        next.presets.push_back(stored);
    });
    if (result == SM_RETURN_TRUE) {
        preset = stored;
    }
    if (file && (result == SM_RETURN_TRUE || !state.is_settled)) {
        file->keep();
    }
    return result;
}

int PresetStore::update(int custom_id, int server_id, std::string_view title) {
    State& state = *state_;
    if (!state.begin_change(NamedBy::identity)) {
        return SM_RETURN_FAIL;
    }
    const int number = state.contents.number_of(custom_id);
    if (number < 0) {
        return state.refused(SM_RETURN_LOCALN_ERR, fmt::format("there is no preset with custom_id {}", custom_id));
    }
    return state.change([&](Contents& next) {
        tag_custom_info& preset = next.presets[static_cast<size_t>(number)];
        preset.server_id = server_id;
        std::ranges::fill(preset.title, '\0');
        title.substr(0, title.find('\0')).copy(preset.title, SM_TITLE_SIZE - 1);
        state.database->replace(preset);
    });
}

int PresetStore::remove(std::span<const int> flags) {
    State& state = *state_;
    if (!state.begin_change(NamedBy::number)) {
        return SM_RETURN_FAIL;
    }
    std::vector<int32_t> gone;
    for (const tag_custom_info& preset : state.contents.presets) {
        const auto number = static_cast<size_t>(preset.preset_num);
        if (number < flags.size() && flags[number] == 1) {
            gone.push_back(preset.custom_id);
        }
    }
    const int result = state.change([&](Contents& next) {
        std::ranges::for_each(gone, [&](int32_t custom_id) { state.database->erase(custom_id); });
        next.erase(gone);
    });
    if (result == SM_RETURN_TRUE) {
        std::ranges::for_each(gone, [&](int32_t id) { remove_file(state.folder / picture_path(id)); });
    }
    return result;
}

int PresetStore::link(int custom_mode, int number) {
    State& state = *state_;
    if (!is_custom_mode(custom_mode)) {
        return state.refused(SM_RETURN_DATA_ERR, "the custom modes are 0 and 1");
    }
    if (!state.begin_change(NamedBy::number)) {
        return SM_RETURN_FAIL;
    }
    if (number < 0 || static_cast<size_t>(number) >= state.contents.presets.size()) {
        return state.refused(SM_RETURN_LOCALN_ERR, fmt::format("there is no preset number {}", number));
    }
    return state.change([&](Contents& next) {
        const int32_t custom_id = next.presets[static_cast<size_t>(number)].custom_id;
        state.database->link(custom_mode, custom_id);
        next.linked_ids[static_cast<size_t>(custom_mode)] = custom_id;
    });
}

int PresetStore::unlink(int custom_mode) {
    State& state = *state_;
    if (!is_custom_mode(custom_mode)) {
        return state.refused(SM_RETURN_DATA_ERR, "the custom modes are 0 and 1");
    }
    if (!state.begin_change(NamedBy::identity)) {
        return SM_RETURN_FAIL;
    }
    return state.change([&](Contents& next) {
        state.database->unlink(custom_mode);
        next.linked_ids[static_cast<size_t>(custom_mode)] = 0;
    });
}

const std::string& PresetStore::last_error() const {
    return state_->last_error;
}

} // namespace desk::camera
