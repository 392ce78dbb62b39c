#include "OutputFile.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>
#include <utility>

#include "Btsnoop.h"
#include "Common/Failure.h"
#include "Common/Repeated.h"
#include "Common/Text.h"

namespace desk::capture {
namespace {

constexpr mode_t new_file_mode = 0666; // less the umask
constexpr size_t magic_size = 8;
constexpr int pipe_size = 1 << 20; // what anybody may ask for: several of the largest records

// Without waiting: a pipe would keep the program until somebody reads it.
constexpr int open_flags = O_WRONLY | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

Failure failure_of(ExitCode code, const std::string& path, const std::string& why) {
    return {code, fmt::format("cannot write the capture {}: {}", printable(path), why)};
}

bool is_pipe(const std::string& path) {
    struct stat status = {};
    return ::stat(path.c_str(), &status) == 0 && S_ISFIFO(status.st_mode);
}

std::string reason_of_open(int error, const std::string& path) {
    switch (error) {
    case EISDIR:
        return "it is a folder; give the name of a file";
    case ENXIO:
        return is_pipe(path) ? "nobody reads this pipe; start its reader first"
                             : "it is neither a file nor a pipe; give the name of a file";
    default:
        return fmt::format("{}; see that its folder is there and may be written", std::strerror(error));
    }
}

std::string reason_of_end(int error) {
    switch (error) {
    case EPIPE:
        return "nobody reads it any more";
    case EAGAIN:
        return "its reader does not keep up";
    default:
        return std::strerror(error);
    }
}

struct stat status_of(const Descriptor& file, const std::string& path) {
    struct stat status = {};
    if (::fstat(file.get(), &status) != 0) {
        throw failure_of(exit_machine, path, std::strerror(errno));
    }
    return status;
}

int64_t microseconds_since_1970() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}

iovec vector_of(std::span<const uint8_t> bytes) {
    return {const_cast<uint8_t*>(bytes.data()), bytes.size()}; // it is only read
}

} // namespace

void require_file_name(const std::string& path) {
    if (path.empty()) {
        throw Failure(exit_usage, "--capture names no file; give the name of a file or a pipe");
    }
    if (path == "-") {
        throw Failure(exit_usage, "--capture writes to no standard output, which is for what is printed; give the name "
                                  "of a file or a pipe");
    }
}

OutputFile::OutputFile(std::string path, Tell tell) : path_(std::move(path)), tell_(std::move(tell)) {
    open();
    const struct stat status = status_of(file_, path_);
    is_regular_ = S_ISREG(status.st_mode);
    if (S_ISBLK(status.st_mode)) {
        throw failure_of(exit_usage, path_, "it is a disk; give the name of a file");
    }
    if (is_regular_) {
        if (::flock(file_.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
            throw failure_of(exit_usage, path_, "another program writes it; give another name");
        }
        if (status.st_size > 0) {
            require_capture();
        }
    } else if (S_ISFIFO(status.st_mode)) {
        ::fcntl(file_.get(), F_SETPIPE_SZ, pipe_size); // what it has is right where this is refused
    }
}

OutputFile::~OutputFile() {
    if (is_new_ && !has_begun_) {
        ::unlink(path_.c_str());
    }
}

void OutputFile::open() {
    file_ = Descriptor(repeated([&] { return ::open(path_.c_str(), open_flags | O_EXCL, new_file_mode); }));
    is_new_ = file_.get() >= 0;
    if (!is_new_ && errno == EEXIST) {
        file_ = Descriptor(repeated([&] { return ::open(path_.c_str(), open_flags, new_file_mode); }));
    }
    if (file_.get() < 0) {
        throw failure_of(exit_machine, path_, reason_of_open(errno, path_));
    }
}

// A slip of the hand shall cost nobody a file.
void OutputFile::require_capture() const {
    const Descriptor reader(repeated([&] { return ::open(path_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC); }));
    std::array<uint8_t, magic_size> begin = {};
    const ssize_t length =
        reader.get() < 0 ? -1 : repeated([&] { return ::read(reader.get(), begin.data(), begin.size()); });
    if (length < 0) {
        throw failure_of(exit_machine, path_,
                         fmt::format("it cannot be read to see what it holds: {}", std::strerror(errno)));
    }
    const auto header = btsnoop_header(Datalink::h4);
    if (static_cast<size_t>(length) < magic_size || !std::equal(begin.begin(), begin.end(), header.begin())) {
        throw failure_of(exit_usage, path_,
                         "it is there and is no capture, and would be lost; give another name, or remove it");
    }
}

void OutputFile::begin() {
    has_begun_ = true;
    if (is_regular_ && repeated([&] { return ::ftruncate(file_.get(), 0); }) != 0) {
        end(errno);
        return;
    }
    write(btsnoop_header(Datalink::h4), {});
}

void OutputFile::add(uint32_t flags, const Pieces& packet) {
    uint32_t length = 0;
    for (const std::span<const uint8_t> piece : packet) {
        length += static_cast<uint32_t>(piece.size());
    }
    write(encode(BtsnoopRecord{length, length, flags, 0, microseconds_since_1970()}), packet);
}

// In one call, unless the file takes a part of it; the next call then tells why.
void OutputFile::write(std::span<const uint8_t> head, const Pieces& rest) {
    std::array<iovec, 4> vectors = {vector_of(head), vector_of(rest[0]), vector_of(rest[1]), vector_of(rest[2])};
    std::span<iovec> left(vectors);
    int64_t written = 0;
    while (file_.get() >= 0 && !left.empty()) {
        const ssize_t length =
            repeated([&] { return ::writev(file_.get(), left.data(), static_cast<int>(left.size())); });
        if (length <= 0) {
            end(length == 0 ? ENOSPC : errno);
            return;
        }
        written += length;
        auto taken = static_cast<size_t>(length);
        while (!left.empty() && taken >= left.front().iov_len) {
            taken -= left.front().iov_len;
            left = left.subspan(1);
        }
        if (!left.empty()) {
            left.front() = vector_of(
                std::span(static_cast<const uint8_t*>(left.front().iov_base), left.front().iov_len).subspan(taken));
        }
    }
    size_ += written;
}

// What is in a file up to here can be read. A pipe's reader may have got a part of the last record.
void OutputFile::end(int error) {
    if (is_regular_) {
        [[maybe_unused]] const int kept = ::ftruncate(file_.get(), size_);
    }
    file_ = Descriptor();
    tell_(fmt::format("the capture {} ends here: {}", printable(path_), reason_of_end(error)));
}

} // namespace desk::capture
