#include "Files.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Descriptor.h"
#include "Failure.h"

namespace desk {
namespace {

constexpr size_t read_at_once = 64 * 1024;
constexpr mode_t all_permissions = 07777;
constexpr mode_t new_file_mode = 0666; // less the umask

Failure file_failure(const char* what, const std::string& path) {
    return {exit_machine, fmt::format("cannot {} {}: {}", what, path, std::strerror(errno))};
}

// The file that a path leads to through symbolic links, which a rename would replace.
std::string resolved(const std::string& path) {
    char* found = realpath(path.c_str(), nullptr);
    if (found == nullptr) {
        return path;
    }
    std::string result = found;
    std::free(found);
    return result;
}

mode_t mode_for_new_file() {
    const mode_t mask = umask(0);
    umask(mask);
    return new_file_mode & ~mask;
}

bool write_all(int descriptor, std::span<const uint8_t> bytes) {
    while (!bytes.empty()) {
        const ssize_t written = write(descriptor, bytes.data(), bytes.size());
        if (written < 0 && errno != EINTR) {
            return false;
        }
        bytes = bytes.subspan(written > 0 ? static_cast<size_t>(written) : 0);
    }
    return true;
}

// A pipe or a device has no half state to protect, and must not be replaced by a file.
void write_in_place(const std::string& path, std::span<const uint8_t> bytes) {
    const Descriptor file(open(path.c_str(), O_WRONLY | O_CLOEXEC));
    if (file.get() < 0 || !write_all(file.get(), bytes)) {
        throw file_failure("write", path);
    }
}

// A file beside the one it is to become: removed again unless it does.
class NewFile {
  public:
    explicit NewFile(const std::string& final_path)
        : final_path_(final_path), path_(final_path + ".XXXXXX"), file_(mkostemp(path_.data(), O_CLOEXEC)) {
        if (file_.get() < 0) {
            throw file_failure("write", final_path_);
        }
    }
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;
    ~NewFile() {
        if (!path_.empty()) {
            unlink(path_.c_str());
        }
    }

    void fill(std::span<const uint8_t> bytes, mode_t mode) {
        const bool filled =
            write_all(file_.get(), bytes) && fchmod(file_.get(), mode) == 0 && fsync(file_.get()) == 0;
        if (!filled) {
            throw file_failure("write", final_path_);
        }
    }

    void put_in_place() {
        if (rename(path_.c_str(), final_path_.c_str()) != 0) {
            throw file_failure("write", final_path_);
        }
        path_.clear();
    }

  private:
    std::string final_path_;
    std::string path_;
    Descriptor file_;
};

} // namespace

Bytes read_file(const std::string& path) {
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (file.get() < 0) {
        throw file_failure("read", path);
    }
    Bytes bytes;
    while (true) {
        const size_t begin = bytes.size();
        bytes.resize(begin + read_at_once);
        const ssize_t count = read(file.get(), bytes.data() + begin, read_at_once);
        bytes.resize(begin + (count > 0 ? static_cast<size_t>(count) : 0));
        if (count == 0) {
            return bytes;
        }
        if (count < 0 && errno != EINTR) {
            throw file_failure("read", path);
        }
    }
}

void write_file(const std::string& path, std::span<const uint8_t> bytes) {
    struct stat status = {};
    const std::string target = resolved(path);
    const bool exists = stat(target.c_str(), &status) == 0;
    if (exists && !S_ISREG(status.st_mode)) {
        write_in_place(target, bytes);
        return;
    }
    NewFile file(target);
    file.fill(bytes, exists ? status.st_mode & all_permissions : mode_for_new_file());
    file.put_in_place();
}

} // namespace desk
