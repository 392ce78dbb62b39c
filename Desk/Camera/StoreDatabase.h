// What a preset store keeps in its database, and what is asked of a file before it is taken for one.
//
// The records lie in it as the 740 bytes that travel, in the order of their custom_ids: presets are only ever added at
// the end, so this is the order of the list, and a preset's number is its place in it. Numbers are therefore counted
// and never read back, and no deletion can leave a gap. The custom modes name their presets by custom_id and keep them
// whatever is deleted before them.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <vector>

#include "ADE_ShotMentor_Records.h"
#include "Sqlite.h"
#include "StoreFiles.h"

namespace desk::camera {

// A record's screennail_path, relative to the store.
std::string picture_path(int custom_id);

struct Contents {
    std::vector<tag_custom_info> presets;              // in the order of their numbers: k has preset_num k
    std::array<int32_t, SM_CUSTOM_MODES> linked_ids{}; // custom_ids, 0 for none

    // The number of the preset with this custom_id, or -1.
    int number_of(int custom_id) const;
    // Deletes presets, and the links to them.
    void erase(const std::vector<int32_t>& custom_ids);
    bool operator==(const Contents& other) const;
};

// What SQLite refuses is thrown as SqliteError, what the files are not as StoreDamage, and what the system refuses as
// std::system_error.
class StoreDatabase {
  public:
    // Makes an empty one in the place of whatever was there.
    static StoreDatabase make(const std::filesystem::path& path);
    // Opens one that was made here, and undoes what a camera that died has left half done in it.
    static StoreDatabase open(const std::filesystem::path& path);
    // Makes what lies there last, its journal and the names of both included, and makes the journal where there is
    // none.
    static void flush(const std::filesystem::path& path);
    // Removes a journal that was cut to nothing, when flushing that has failed: its old content must not come back
    // below a new one. No database may be open there.
    static void discard_empty_journal(const std::filesystem::path& path);
    // Removes an unfinished one with its journal.
    static void remove(const std::filesystem::path& path) noexcept;

    Contents read();

    // The changes. Each belongs in a transaction.
    Transaction begin() { return Transaction(database_); }
    // The custom_id for a new preset. It is given when the transaction commits, and never again.
    int32_t take_custom_id();
    void insert(const tag_custom_info& preset);
    void replace(const tag_custom_info& preset);
    void erase(int32_t custom_id);
    void link(int custom_mode, int32_t custom_id);
    void unlink(int custom_mode);

    // Writes everything anew that has to reach the disk for what was read to last.
    void seal();

  private:
    explicit StoreDatabase(Database database) : database_(std::move(database)) {}
    void read_links(Contents& contents);
    void check_next_id(const Contents& contents);

    Database database_;
};

} // namespace desk::camera
