#include "BackupFolder.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <set>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Common/Files.h"
#include "Common/Text.h"
#include "Wire/Frames.h"

namespace desk::phone {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view temporary_prefix = ".shotmentor-"; // then the writer's process, a hyphen, and a number
constexpr size_t longest_file = std::max(longest_picture_reply, longest_preset_file);

bool is_temporary(const std::string& name) {
    const std::string_view rest =
        name.starts_with(temporary_prefix) ? std::string_view(name).substr(temporary_prefix.size()) : "";
    return !rest.empty() && rest.find_first_not_of("0123456789-") == std::string_view::npos;
}

Failure machine_failure(const char* what, const std::string& path, int error) {
    return {exit_machine, fmt::format("cannot {} {}: {}; see that its folder is there and may be written", what,
                                      printable(path), std::strerror(error))};
}

std::span<const uint8_t> bytes_of(std::string_view text) {
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

// Signals that end the phone wait while a file is written: none leaves a piece of one.
class SignalsHeldBack {
  public:
    SignalsHeldBack() {
        sigset_t set;
        sigemptyset(&set);
        for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
            sigaddset(&set, number);
        }
        sigprocmask(SIG_BLOCK, &set, &before_);
    }
    SignalsHeldBack(const SignalsHeldBack&) = delete;
    SignalsHeldBack& operator=(const SignalsHeldBack&) = delete;
    ~SignalsHeldBack() { sigprocmask(SIG_SETMASK, &before_, nullptr); }

  private:
    sigset_t before_ = {};
};

// Of the name itself, not of what a symbolic link leads to. Nothing when there is none.
std::optional<struct stat> status_of(const std::string& path) {
    struct stat status = {};
    if (lstat(path.c_str(), &status) == 0) {
        return status;
    }
    if (errno != ENOENT) {
        throw machine_failure("look at", path, errno);
    }
    return std::nullopt;
}

} // namespace

std::string BackupFolder::path_of(std::string_view name) const {
    return path_ + (path_.ends_with('/') ? "" : "/") + std::string(name);
}

bool BackupFolder::exists() const {
    struct stat status = {};
    if (stat(path_.c_str(), &status) != 0) {
        if (errno == ENOENT && lstat(path_.c_str(), &status) != 0) {
            return false;
        }
        throw machine_failure("look at", path_, errno);
    }
    if (!S_ISDIR(status.st_mode)) {
        throw Failure(exit_usage, fmt::format("{} is no folder; give the name of one", printable(path_)));
    }
    return true;
}

bool BackupFolder::make() const {
    constexpr mode_t all_may = 0777; // less the umask
    if (mkdir(path_.c_str(), all_may) == 0) {
        return true;
    }
    if (errno != EEXIST) {
        throw machine_failure("make the folder", path_, errno);
    }
    return false;
}

void BackupFolder::lock() {
    lock_ = Descriptor(open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (lock_.get() < 0) {
        throw machine_failure("open the folder", path_, errno);
    }
    // Some file systems lock no folders: there one has to see to it oneself.
    if (flock(lock_.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
        throw Failure(exit_machine, fmt::format("another phone writes a backup in {}; wait for its end, or give "
                                                "another folder",
                                                printable(path_)));
    }
}

void BackupFolder::remove_if_empty() const {
    rmdir(path_.c_str());
}

std::optional<BackupManifest> BackupFolder::manifest() const {
    const std::optional<Bytes> text = read(manifest_name, longest_manifest, "give the folder of a backup");
    if (!text) {
        return std::nullopt;
    }
    return manifest_from({reinterpret_cast<const char*>(text->data()), text->size()},
                         printable(path_of(manifest_name)));
}

void BackupFolder::write_manifest(const BackupManifest& manifest) const {
    write(manifest_name, bytes_of(text_of(manifest)));
}

std::vector<std::string> BackupFolder::names() const {
    std::vector<std::string> names;
    std::error_code error;
    for (fs::directory_iterator at(path_, error), end; !error && at != end; at.increment(error)) {
        names.push_back(at->path().filename());
    }
    if (error) {
        throw machine_failure("read the folder", path_, error.value());
    }
    std::ranges::sort(names);
    return names;
}

void BackupFolder::require_nothing_else(const BackupManifest& manifest, bool may_be_replaced) const {
    const std::vector<std::string> own = manifest.names();
    std::set<std::string> expected(own.begin(), own.end());
    expected.insert(manifest_name);
    for (const std::string& name : names()) {
        const std::optional<struct stat> status = status_of(path_of(name));
        const bool is_file = status && S_ISREG(status->st_mode);
        const bool is_own = is_file && (expected.contains(name) || is_temporary(name));
        const bool is_unfinished = status && S_ISDIR(status->st_mode) && name == unfinished_name && may_be_replaced;
        if (!is_own && !is_unfinished) {
            throw Failure(exit_usage, fmt::format("{} is no part of a backup, and {} holds it; give an empty folder, "
                                                  "--overwrite replaces backups alone",
                                                  printable(name), printable(path_)));
        }
    }
}

bool BackupFolder::has(const std::string& name) const {
    return status_of(path_of(name)).has_value();
}

std::optional<Bytes> BackupFolder::read(const std::string& name, size_t most, const std::string& remedy) const {
    const std::string path = path_of(name);
    const std::optional<struct stat> status = status_of(path);
    if (!status) {
        return std::nullopt;
    }
    if (!S_ISREG(status->st_mode)) {
        throw Failure(exit_usage,
                      fmt::format("{} is no plain file, as those of a backup are; put the file itself in its place",
                                  printable(path)));
    }
    return read_file(path, most, remedy);
}

bool BackupFolder::holds(const BackupFile& file) const {
    if (!file.is_there() || file.bytes > longest_file) {
        return false;
    }
    const std::optional<struct stat> status = status_of(path_of(file.name));
    if (!status || !S_ISREG(status->st_mode) || static_cast<uintmax_t>(status->st_size) != file.bytes) {
        return false;
    }
    const std::optional<Bytes> content = read(file.name, longest_file, "");
    return content && file.holds(*content);
}

void BackupFolder::write(const std::string& name, std::span<const uint8_t> bytes) const {
    const SignalsHeldBack held_back;
    write_file(path_of(name), bytes);
}

void BackupFolder::remove(const std::string& name) const {
    const std::string path = path_of(name);
    if (unlink(path.c_str()) != 0 && errno != ENOENT) {
        throw machine_failure("remove", path, errno);
    }
}

void BackupFolder::remove_temporary_files() const {
    for (const std::string& name : names()) {
        if (is_temporary(name)) {
            remove(name);
        }
    }
}

void BackupFolder::take_from(const BackupFolder& other, const std::string& name) const {
    const std::string path = path_of(name);
    if (std::rename(other.path_of(name).c_str(), path.c_str()) != 0) {
        throw machine_failure("write", path, errno);
    }
}

} // namespace desk::phone
