// The table of contents of a backup, manifest.json: which presets it has, in which files, and the sums that tell
// whether those are as they were written. It says nothing of times, so that two backups of the same presets are the
// same.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Common/Failure.h"

namespace desk::phone {

constexpr const char* manifest_name = "manifest.json";
// 40 presets have 20 kB; this leaves room for any indentation.
constexpr size_t longest_manifest = size_t{1} << 20;

struct BackupFile {
    std::string name;
    size_t bytes = 0;
    std::string sha256; // empty while the file is still to come

    bool is_there() const { return !sha256.empty(); }
    bool holds(std::span<const uint8_t> content) const;
};

struct BackupEntry {
    int32_t number = 0; // as the camera's list had it
    int32_t custom_id = 0;
    std::string title; // for people
    BackupFile preset;
    std::optional<BackupFile> picture; // nothing where the camera could not read it
};

struct BackupManifest {
    bool complete = false;
    std::string model;
    std::vector<BackupEntry> presets;  // in the camera's order
    std::vector<std::string> obsolete; // files of an older backup that go when this one is complete

    // Of all files, obsolete ones among them.
    std::vector<std::string> names() const;
    size_t bytes() const;
};

std::string sha256_of(std::span<const uint8_t> bytes);

// The names of a preset's files without their ending, "03-golden-hour": number, then the title in lower case letters,
// digits and hyphens, which every file system takes.
std::string file_stem(size_t number, std::string_view title);

std::string text_of(const BackupManifest& manifest);

// `name` is the file's, for the failure's line. Each name in it is that of a plain file of the same folder, and none is
// given twice. Throws Failure (exit_usage).
BackupManifest manifest_from(std::string_view text, const std::string& name);

} // namespace desk::phone
