// The presets that a camera stores, with their pictures: a folder that holds an SQLite database and a file for each
// picture. Every change is one transaction. A picture is written, flushed and renamed into place before its record is
// committed, and deleted only after the record has gone, so that a camera that dies at any moment loses nothing that it
// confirmed; pictures that no record names are removed when the store is opened.
//
//     DIR/presets.sqlite      the records, the custom-mode links, the next custom_id
//     DIR/pictures/<id>.jpg   the pictures
//     DIR/lock                held while a camera has the store open
//     DIR/presets.sqlite.new  a store that is being made; until it gets its name there is none
//
// When a commit fails, the disk may hold the change all the same. The store then reads again what there is, and makes
// that last by a further commit, before it answers. As long as that fails it is unsettled: it serves what it can read,
// keeps every picture, and takes no change.
//
// A record's screennail_path is relative to the folder: "pictures/<id>.jpg" fits its 52 bytes wherever the store lies.
// The camera therefore runs with the folder as its working directory.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "ADE_ShotMentor_Records.h"
#include "Common/Failure.h"

namespace desk::camera {

class PresetStore {
  public:
    // Puts presets into a store that is being made.
    using Fill = std::function<void(PresetStore&)>;

    // Opens an existing store, or makes one where `create` says so and there is none: with what `fill` puts into it,
    // whole or not at all. Removes what an interrupted change left behind. Throws Failure: exit_missing (no store),
    // exit_store_in_use, exit_store_damaged, exit_machine.
    static PresetStore open(const std::filesystem::path& folder, bool create, const Fill& fill = {});

    PresetStore(PresetStore&&) noexcept;
    PresetStore& operator=(PresetStore&&) noexcept;
    ~PresetStore();

    // All presets in the order of their preset numbers: record k has preset_num k.
    std::vector<tag_custom_info> presets() const;
    std::optional<tag_custom_info> find(int custom_id) const;
    // The preset number that a custom mode (0 CUSTOM1, 1 CUSTOM2) uses, -1 for none.
    int linked(int custom_mode) const;

    // Why a phone cannot be given the preset's picture, or nothing: it is missing, no plain file, or larger than any
    // picture.
    std::string fault_of_picture(const tag_custom_info& preset) const;

    // The changes. None is half done; each returns a result code (see ADE_ShotMentor_Records.h) and throws nothing for
    // what a phone can cause: SM_RETURN_TRUE, and the change outlives a loss of power; SM_RETURN_DATA_ERR when 40
    // presets are stored already, and for a custom mode other than 0 and 1; SM_RETURN_JPG_ERR for a picture of negative
    // length or of more bytes than a request can hold; SM_RETURN_LOCALN_ERR for an unknown custom_id or number;
    // SM_RETURN_FAIL when the disk or the database refuses. With all but the first nothing has changed, unless the
    // store is unsettled, which `last_error` then says. What the disk or the database said is in `last_error`, too.

    // Stores a preset at the end of the list. Writes preset_num, custom_id and screennail_path into the record, once it
    // is stored; custom_ids are above 0 and never given twice. applocal_id and server_id stay as the record has them.
    int save(tag_custom_info& preset, const void* picture, int length);
    // The title ends at its first NUL, and after 51 bytes at the latest.
    int update(int custom_id, int server_id, std::string_view title);
    // Deletes all presets whose entry is 1 and renumbers the rest; the custom modes keep their presets, and a mode
    // whose preset goes uses none. Entries beyond the list are ignored.
    int remove(std::span<const int> flags);
    int link(int custom_mode, int number);
    int unlink(int custom_mode);

    const std::string& last_error() const;

  private:
    struct State;
    explicit PresetStore(std::unique_ptr<State> state);
    void make(const Fill& fill);
    std::unique_ptr<State> state_;
};

} // namespace desk::camera
