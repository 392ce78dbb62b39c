// The files of a preset store. What is written is flushed, and so is each name that has to last; what is no plain file
// (a link, a pipe, a device) is never opened. What the system refuses is thrown as std::system_error with the path.
#pragma once

#include <cstdint>
#include <filesystem>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "Common/Descriptor.h"

namespace desk::camera {

// Files that are not a store's. The text says what is wrong with them.
class StoreDamage : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

constexpr char unfinished[] = ".new"; // behind the name of a file that is not complete yet

std::filesystem::path unfinished_name(const std::filesystem::path& path);

// Makes a folder and those above it that are missing.
void make_folder(const std::filesystem::path& folder);
// Flushes the folder's own name and those of the folders above it, whoever made them.
void flush_names_above(const std::filesystem::path& folder);
// Flushes a plain file, an empty one where there is none.
void flush_file(const std::filesystem::path& path);
// Flushes the names in a folder.
void flush_folder(const std::filesystem::path& folder);

// Whether there is anything of this name, be it a link that leads nowhere.
bool is_there(const std::filesystem::path& path);
// What a name stands for: "" for a plain file or nothing at all, else "a link", "a pipe" and so on.
std::string what_is_no_file(const std::filesystem::path& path);
// Throws StoreDamage unless it is a plain file or nothing.
void require_plain_file(const std::filesystem::path& path);
bool is_real_folder(const std::filesystem::path& path);

// `flags` as for open(2).
Descriptor open_plain_file(const std::filesystem::path& path, int flags);
int64_t size_of(const Descriptor& file, const std::filesystem::path& path);
// Bytes from an offset on; fewer than the buffer holds at the file's end alone. Returns how many.
size_t read_at(const Descriptor& file, const std::filesystem::path& path, int64_t offset, std::span<uint8_t> buffer);

void rename_file(const std::filesystem::path& from, const std::filesystem::path& to);
// What cannot be removed now is removed when the store is opened next.
void remove_file(const std::filesystem::path& path) noexcept;

// A picture on its way into the store: written and flushed under an unfinished name, then renamed. It goes again unless
// it is kept.
class NewPicture {
  public:
    NewPicture(std::filesystem::path path, std::span<const uint8_t> bytes);
    NewPicture(const NewPicture&) = delete;
    NewPicture& operator=(const NewPicture&) = delete;
    ~NewPicture();
    void keep() { is_kept_ = true; }

  private:
    void discard() noexcept;

    std::filesystem::path path_;
    bool is_kept_ = false;
};

// The files in a folder whose names only a store gives: "17.jpg" and "17.jpg.new".
std::vector<std::filesystem::path> own_pictures(const std::filesystem::path& folder);

} // namespace desk::camera
