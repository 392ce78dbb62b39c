// The folder that a backup lies in: what else may be there, and files that come and go whole.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "BackupManifest.h"
#include "Common/Descriptor.h"
#include "Wire/Record.h"

namespace desk::phone {

// While a complete backup is replaced, the new one grows in a folder of this name inside it.
constexpr const char* unfinished_name = "unfinished";

class BackupFolder {
  public:
    explicit BackupFolder(std::string path) : path_(std::move(path)) {}

    const std::string& path() const { return path_; }
    std::string path_of(std::string_view name) const;

    // Whether there is such a folder. Throws Failure when it is something else, or cannot be looked at.
    bool exists() const;
    // Makes it when it is not there, in a folder that is; says whether it has. Throws Failure (exit_machine).
    bool make() const;
    // Keeps other phones from writing a backup here until this object is gone. Throws Failure (exit_machine).
    void lock();
    void remove_if_empty() const;

    // Nothing when there is none. Throws Failure for one that cannot be used.
    std::optional<BackupManifest> manifest() const;
    void write_manifest(const BackupManifest& manifest) const;

    // Throws Failure (exit_usage) that names what is no file of this backup's; `may_be_replaced` is whether the folder
    // of an unfinished one may be there.
    void require_nothing_else(const BackupManifest& manifest, bool may_be_replaced) const;

    // The bytes of a plain file, or nothing when there is none. Throws Failure for a link, a folder, a pipe, or a file
    // with more bytes, for which `remedy` is what mends it.
    std::optional<Bytes> read(const std::string& name, size_t most, const std::string& remedy) const;
    bool has(const std::string& name) const;
    bool holds(const BackupFile& file) const;
    void write(const std::string& name, std::span<const uint8_t> bytes) const;
    void remove(const std::string& name) const;
    // What writers left that were killed.
    void remove_temporary_files() const;
    // Puts a file of another folder in the place of this one's.
    void take_from(const BackupFolder& other, const std::string& name) const;

  private:
    std::vector<std::string> names() const;

    std::string path_;
    Descriptor lock_;
};

} // namespace desk::phone
