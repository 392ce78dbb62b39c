#include "Files.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <optional>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Descriptor.h"
#include "Failure.h"
#include "Repeated.h"
#include "Text.h"

namespace desk {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr size_t read_at_once = size_t{64} * 1024;
constexpr mode_t all_permissions = 07777;
constexpr mode_t new_file_mode = 0666; // less the umask
constexpr mode_t private_mode = 0600;
constexpr int most_links = 40; // that a path leads through; the kernel's own bound
constexpr int most_names = 100;

// No open, read or write waits by itself: `wait_for` does, with patience.
constexpr int gentle = O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

Failure read_failure(const std::string& path, const std::string& why) {
    return {exit_machine, fmt::format("cannot read {}: {}", printable(path), why)};
}

Failure write_failure(const std::string& path, const std::string& why) {
    return {exit_machine, fmt::format("cannot write {}: {}", printable(path), why)};
}

std::string read_error() {
    return fmt::format("{}; see that it is there and may be read", std::strerror(errno));
}

std::string write_error() {
    return fmt::format("{}; see that its folder is there, may be written and has room", std::strerror(errno));
}

Descriptor open_file(const std::string& path, int flags, mode_t mode = 0) {
    return Descriptor(repeated([&] { return open(path.c_str(), flags, mode); }));
}

// A close that is interrupted has closed all the same.
bool close_file(Descriptor file) {
    return close(file.release()) == 0 || errno == EINTR;
}

enum class Wait { ready, over, failed };

Wait wait_for(int descriptor, short events, Clock::time_point deadline) {
    pollfd watched = {descriptor, events, 0};
    while (true) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        const int count = poll(&watched, 1, static_cast<int>(std::max<decltype(left)>(left, 0)));
        if (count > 0) {
            return Wait::ready;
        }
        if (count == 0 && left <= 0) {
            return Wait::over;
        }
        if (count < 0 && errno != EINTR) {
            return Wait::failed;
        }
    }
}

bool means_later(int error) {
    return error == EINTR || error == EAGAIN || error == EWOULDBLOCK;
}

// ---- Reading --------------------------------------------------------------------------------------------------------

Failure too_long_failure(const std::string& path, const std::string& size, size_t most, const std::string& remedy) {
    return {exit_usage,
            fmt::format("{} has {} bytes, and at most {} can be used; {}", printable(path), size, most, remedy)};
}

// The size that a file tells: 0 where it has none of its own.
size_t told_size(const Descriptor& file, const std::string& path, size_t most, const std::string& remedy) {
    struct stat status = {};
    if (fstat(file.get(), &status) != 0) {
        throw read_failure(path, read_error());
    }
    if (S_ISDIR(status.st_mode)) {
        throw read_failure(path, "it is a folder; give a file");
    }
    if (!S_ISREG(status.st_mode)) {
        return 0;
    }
    const auto size = static_cast<uintmax_t>(status.st_size);
    if (size > most) {
        throw too_long_failure(path, std::to_string(size), most, remedy);
    }
    return static_cast<size_t>(size);
}

// The number of bytes that came, 0 at the end.
size_t read_some(const Descriptor& file, const std::string& path, std::span<uint8_t> room) {
    const Clock::time_point deadline = Clock::now() + patience_with_pipes;
    while (true) {
        const Wait wait = wait_for(file.get(), POLLIN, deadline);
        if (wait == Wait::over) {
            throw read_failure(path, fmt::format("nothing came for {} s; see that somebody writes this pipe",
                                                 patience_with_pipes.count()));
        }
        const ssize_t count = wait == Wait::failed ? -1 : read(file.get(), room.data(), room.size());
        if (count >= 0) {
            return static_cast<size_t>(count);
        }
        if (!means_later(errno)) {
            throw read_failure(path, read_error());
        }
    }
}

Bytes read_all(const Descriptor& file, const std::string& path, size_t most, const std::string& remedy) {
    Bytes bytes;
    bytes.reserve(told_size(file, path, most, remedy) + 1);
    while (bytes.size() <= most) {
        const size_t begin = bytes.size();
        bytes.resize(begin + std::min(read_at_once, most + 1 - begin));
        const size_t count = read_some(file, path, std::span(bytes).subspan(begin));
        bytes.resize(begin + count);
        if (count == 0) {
            return bytes;
        }
    }
    throw too_long_failure(path, fmt::format("more than {}", most), most, remedy);
}

// ---- Writing --------------------------------------------------------------------------------------------------------

void write_all(const Descriptor& file, const std::string& path, std::span<const uint8_t> bytes) {
    Clock::time_point deadline = Clock::now() + patience_with_pipes;
    while (!bytes.empty()) {
        const Wait wait = wait_for(file.get(), POLLOUT, deadline);
        if (wait == Wait::over) {
            throw write_failure(path, fmt::format("nothing was taken for {} s; see that somebody reads this pipe",
                                                  patience_with_pipes.count()));
        }
        const ssize_t count = wait == Wait::failed ? -1 : write(file.get(), bytes.data(), bytes.size());
        if (count < 0 && !means_later(errno)) {
            throw write_failure(path, write_error());
        }
        if (count > 0) {
            bytes = bytes.subspan(static_cast<size_t>(count));
            deadline = Clock::now() + patience_with_pipes;
        }
    }
}

// A pipe or a device has no half state to protect, and must not be replaced by a file.
void write_in_place(const std::string& path, std::span<const uint8_t> bytes) {
    Descriptor file = open_file(path, O_WRONLY | O_TRUNC | gentle);
    if (file.get() < 0 && errno == ENXIO) {
        throw write_failure(path, "nobody reads this pipe; start its reader first");
    }
    if (file.get() < 0) {
        throw write_failure(path, write_error());
    }
    write_all(file, path, bytes);
    if (!close_file(std::move(file))) {
        throw write_failure(path, write_error());
    }
}

// What a name stands for, or nothing when there is no such file.
std::optional<struct stat> status_of(const std::string& path, const std::string& asked) {
    struct stat status = {};
    if (stat(path.c_str(), &status) == 0) {
        return status;
    }
    if (errno != ENOENT) {
        throw write_failure(asked, write_error());
    }
    return std::nullopt;
}

// Where the symbolic links of a path end, whether a file is there or not: a rename would replace the first.
std::string target_of(const std::string& path) {
    fs::path target = path;
    for (int count = 0; count < most_links; ++count) {
        std::error_code error;
        const fs::path next = fs::read_symlink(target, error);
        if (error) {
            return target; // no link
        }
        target = target.parent_path() / next;
    }
    throw write_failure(path, "its symbolic links lead nowhere; give another name");
}

fs::path folder_of(const std::string& path) {
    const fs::path folder = fs::path(path).parent_path();
    return folder.empty() ? "." : folder;
}

// A file beside the one it is to become: removed again unless it does.
class NewFile {
  public:
    NewFile(std::string final_path, mode_t mode) : final_path_(std::move(final_path)) {
        for (int number = 0; number < most_names && file_.get() < 0; ++number) {
            // The name has a length of its own: one made from the file's could be too long for the folder.
            path_ = folder_of(final_path_) / fmt::format(".shotmentor-{}-{}", getpid(), number);
            file_ = open_file(path_, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
            if (file_.get() < 0 && errno != EEXIST) {
                break;
            }
        }
        if (file_.get() < 0) {
            throw write_failure(final_path_, write_error());
        }
    }
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;
    ~NewFile() {
        if (!path_.empty()) {
            repeated([&] { return unlink(path_.c_str()); });
        }
    }

    void set_mode(mode_t mode) {
        check(repeated([&] { return fchmod(file_.get(), mode); }) == 0);
    }

    void fill(std::span<const uint8_t> bytes) {
        write_all(file_, final_path_, bytes);
        check(repeated([&] { return fsync(file_.get()); }) == 0);
        check(close_file(std::move(file_)));
    }

    void put_in_place() {
        check(repeated([&] { return rename(path_.c_str(), final_path_.c_str()); }) == 0);
        path_.clear();
    }

  private:
    void check(bool done) const {
        if (!done) {
            throw write_failure(final_path_, write_error());
        }
    }

    std::string final_path_;
    std::string path_;
    Descriptor file_;
};

// The new name has to last as well. A folder may be writable and not readable, and some file systems keep their names
// by themselves.
void keep_name(const std::string& path) {
    Descriptor folder = open_file(folder_of(path), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder.get() < 0 && errno == EACCES) {
        return;
    }
    const bool kept = folder.get() >= 0 && (repeated([&] { return fsync(folder.get()); }) == 0 || errno == EINVAL);
    if (!kept) {
        throw Failure(
            exit_machine,
            fmt::format(
                "{} is written, but the disk does not say that it will last: {}; see to the disk and write it again",
                printable(path), std::strerror(errno)));
    }
}

bool are_same(const std::optional<struct stat>& one, const std::optional<struct stat>& other) {
    return one.has_value() == other.has_value() &&
           (!one || (one->st_dev == other->st_dev && one->st_ino == other->st_ino));
}

} // namespace

Bytes read_file(const std::string& path, size_t most, const std::string& remedy) {
    const Descriptor file = open_file(path, O_RDONLY | gentle);
    if (file.get() < 0) {
        throw read_failure(path, read_error());
    }
    return read_all(file, path, most, remedy);
}

Bytes read_standard_input(size_t most, const std::string& remedy) {
    const std::string name = "standard input";
    const Descriptor input(repeated([] { return fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0); }));
    if (input.get() < 0) {
        throw read_failure(name, read_error());
    }
    return read_all(input, name, most, remedy);
}

void write_file(const std::string& path, std::span<const uint8_t> bytes) {
    const std::optional<struct stat> old = status_of(path, path);
    if (old && S_ISDIR(old->st_mode)) {
        throw write_failure(path, "it is a folder; give the name of a file");
    }
    if (old && !S_ISREG(old->st_mode)) {
        write_in_place(path, bytes);
        return;
    }
    const std::string target = target_of(path);
    if (!are_same(old, status_of(target, path))) { // a name for an open file that is no longer in any folder
        write_in_place(path, bytes);
        return;
    }
    NewFile file(target, old ? private_mode : new_file_mode);
    if (old) {
        file.set_mode(old->st_mode & all_permissions);
    }
    file.fill(bytes);
    file.put_in_place();
    keep_name(target);
}

} // namespace desk
