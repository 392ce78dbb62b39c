#include "StoreFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

#include "Common/Repeated.h"

namespace fs = std::filesystem;

namespace desk::camera {
namespace {

[[noreturn]] void throw_system_error(const fs::path& path, int error = errno) {
    throw std::system_error(error, std::generic_category(), path.string());
}

// The result of a system call, made again where a signal came in between. -1 is thrown.
template<class Call>
auto checked(const fs::path& path, Call call) {
    const auto result = repeated(call);
    if (result < 0) {
        throw_system_error(path);
    }
    return result;
}

Descriptor open_path(const fs::path& path, int flags) {
    return Descriptor(checked(path, [&] { return ::open(path.c_str(), flags | O_CLOEXEC, 0666); }));
}

void flush(const Descriptor& file, const fs::path& path) {
    checked(path, [&] { return ::fsync(file.get()); });
}

void write_file(const fs::path& path, std::span<const uint8_t> bytes) {
    const Descriptor file = open_plain_file(path, O_WRONLY | O_CREAT | O_TRUNC);
    while (!bytes.empty()) {
        const auto written = checked(path, [&] { return ::write(file.get(), bytes.data(), bytes.size()); });
        bytes = bytes.subspan(static_cast<size_t>(written));
    }
    flush(file, path);
}

// A folder that is not ours may be closed to us, and some file systems flush nothing: then the name was not for us to
// make, or there is nothing to do.
void flush_foreign_folder(const fs::path& folder) {
    try {
        flush_folder(folder);
    } catch (const std::system_error& error) {
        const int code = error.code().value();
        if (code != EACCES && code != EPERM && code != EROFS && code != EINVAL) {
            throw;
        }
    }
}

// What a path itself stands for, not what a link leads to.
bool look_at(const fs::path& path, struct stat& state) {
    if (::lstat(path.c_str(), &state) == 0) {
        return true;
    }
    if (errno != ENOENT && errno != ENOTDIR) {
        throw_system_error(path);
    }
    return false;
}

std::string kind_of(mode_t mode) {
    return S_ISREG(mode)    ? ""
           : S_ISLNK(mode)  ? "a link"
           : S_ISDIR(mode)  ? "a folder"
           : S_ISFIFO(mode) ? "a pipe"
           : S_ISSOCK(mode) ? "a socket"
                            : "a device";
}

bool is_own_picture_name(std::string_view name) {
    const size_t digits = std::min(name.find_first_not_of("0123456789"), name.size());
    const std::string_view rest = name.substr(digits);
    return digits > 0 && (rest == ".jpg" || rest == ".jpg.new");
}

} // namespace

fs::path unfinished_name(const fs::path& path) {
    return path.string() + unfinished;
}

void make_folder(const fs::path& folder) {
    if (folder.empty() || fs::is_directory(folder)) {
        return;
    }
    make_folder(folder.parent_path());
    if (::mkdir(folder.c_str(), 0777) != 0 && (errno != EEXIST || !fs::is_directory(folder))) {
        throw_system_error(folder); // unless another camera has just made it
    }
    flush_folder(folder.parent_path());
}

void flush_names_above(const fs::path& folder) {
    for (fs::path below = folder; below.has_relative_path(); below = below.parent_path()) {
        flush_foreign_folder(below.parent_path());
    }
}

void flush_file(const fs::path& path) {
    flush(open_plain_file(path, O_RDWR | O_CREAT), path);
}

void flush_folder(const fs::path& folder) {
    flush(open_path(folder, O_RDONLY | O_DIRECTORY), folder);
}

bool is_there(const fs::path& path) {
    struct stat state = {};
    return look_at(path, state);
}

std::string what_is_no_file(const fs::path& path) {
    struct stat state = {};
    return look_at(path, state) ? kind_of(state.st_mode) : "";
}

void require_plain_file(const fs::path& path) {
    const std::string other = what_is_no_file(path);
    if (!other.empty()) {
        throw StoreDamage(path.filename().string() + " is not a file but " + other);
    }
}

bool is_real_folder(const fs::path& path) {
    struct stat state = {};
    return look_at(path, state) && S_ISDIR(state.st_mode);
}

// Without O_NONBLOCK a pipe that has come in the file's place would be waited for.
Descriptor open_plain_file(const fs::path& path, int flags) {
    Descriptor file = open_path(path, flags | O_NOFOLLOW | O_NONBLOCK);
    struct stat state = {};
    checked(path, [&] { return ::fstat(file.get(), &state); });
    if (!S_ISREG(state.st_mode)) {
        throw_system_error(path, S_ISDIR(state.st_mode) ? EISDIR : EINVAL);
    }
    return file;
}

int64_t size_of(const Descriptor& file, const fs::path& path) {
    struct stat state = {};
    checked(path, [&] { return ::fstat(file.get(), &state); });
    return state.st_size;
}

size_t read_at(const Descriptor& file, const fs::path& path, int64_t offset, std::span<uint8_t> buffer) {
    size_t filled = 0;
    while (filled < buffer.size()) {
        const auto rest = buffer.subspan(filled);
        const auto place = static_cast<off_t>(offset + static_cast<int64_t>(filled));
        const auto got = checked(path, [&] { return ::pread(file.get(), rest.data(), rest.size(), place); });
        if (got == 0) {
            break;
        }
        filled += static_cast<size_t>(got);
    }
    return filled;
}

void rename_file(const fs::path& from, const fs::path& to) {
    checked(to, [&] { return ::rename(from.c_str(), to.c_str()); });
    flush_folder(to.parent_path());
}

void remove_file(const fs::path& path) noexcept {
    while (::unlink(path.c_str()) != 0 && errno == EINTR) {
    }
}

NewPicture::NewPicture(fs::path path, std::span<const uint8_t> bytes) : path_(std::move(path)) {
    try {
        remove_file(unfinished_name(path_)); // whatever it is: it is not ours
        write_file(unfinished_name(path_), bytes);
        rename_file(unfinished_name(path_), path_);
    } catch (...) {
        discard();
        throw;
    }
}

NewPicture::~NewPicture() {
    if (!is_kept_) {
        discard();
    }
}

void NewPicture::discard() noexcept {
    try {
        remove_file(unfinished_name(path_));
        remove_file(path_);
    } catch (const std::bad_alloc&) { // the next start removes it
    }
}

std::vector<fs::path> own_pictures(const fs::path& folder) {
    std::vector<fs::path> found;
    if (is_real_folder(folder)) {
        for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
            const bool is_file = entry.symlink_status().type() == fs::file_type::regular;
            if (is_file && is_own_picture_name(entry.path().filename().string())) {
                found.push_back(entry.path());
            }
        }
    }
    return found;
}

} // namespace desk::camera
