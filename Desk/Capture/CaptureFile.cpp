#include "CaptureFile.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/stat.h>
#include <utility>

#include "Common/Failure.h"
#include "Common/Files.h"
#include "Common/Text.h"

namespace desk::capture {
namespace {

constexpr size_t read_at_once = 65536;
constexpr std::chrono::milliseconds between_looks{100};

Descriptor opened(const std::string& path) {
    return Descriptor(path == "-" ? fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0)
                                  : open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

Failure read_failure(const std::string& name, const std::string& why) {
    return {exit_machine, fmt::format("cannot read {}: {}", name, why)};
}

std::string system_error() {
    return fmt::format("{}; see that it is there and may be read", std::strerror(errno));
}

bool means_later(int error) {
    return error == EINTR || error == EAGAIN || error == EWOULDBLOCK;
}

} // namespace

CaptureFile::CaptureFile(std::string path, bool follows, std::function<void()> while_waiting)
    : path_(std::move(path)), follows_(follows), while_waiting_(std::move(while_waiting)), file_(opened(path_)),
      buffer_(read_at_once) {
    struct stat status = {};
    if (file_.get() < 0 || fstat(file_.get(), &status) != 0) {
        throw read_failure(name(), system_error());
    }
    if (S_ISDIR(status.st_mode)) {
        throw read_failure(name(), "it is a folder; give a file");
    }
    is_regular_ = S_ISREG(status.st_mode);
}

std::string CaptureFile::name() const {
    return path_ == "-" ? "standard input" : printable(path_);
}

size_t CaptureFile::read(std::span<uint8_t> room) {
    size_t count = 0;
    while (count < room.size() && (begin_ < end_ || fill())) {
        const size_t part = std::min(room.size() - count, end_ - begin_);
        std::copy_n(buffer_.begin() + static_cast<std::ptrdiff_t>(begin_), part,
                    room.begin() + static_cast<std::ptrdiff_t>(count));
        begin_ += part;
        count += part;
    }
    return count;
}

// Whether there are further bytes.
bool CaptureFile::fill() {
    begin_ = 0;
    end_ = read_some();
    while (end_ == 0 && follows_ && is_regular_) {
        if (has_shrunk()) {
            throw read_failure(name(), "it has become shorter; begin again with the new one");
        }
        pause();
        end_ = read_some();
    }
    position_ += end_;
    return end_ > 0;
}

size_t CaptureFile::read_some() {
    while (true) {
        if (!wait_for_more()) {
            throw read_failure(name(),
                               fmt::format("nothing came for {} s; see that somebody writes this pipe, or wait for it "
                                           "with --follow",
                                           patience_with_pipes.count()));
        }
        const ssize_t count = ::read(file_.get(), buffer_.data(), buffer_.size());
        if (count >= 0) {
            return static_cast<size_t>(count);
        }
        if (!means_later(errno)) {
            throw read_failure(name(), system_error());
        }
    }
}

// Whether a read does not wait, before all patience is over. Of a file it never does.
bool CaptureFile::wait_for_more() {
    const auto deadline = std::chrono::steady_clock::now() + patience_with_pipes;
    while (!is_regular_) {
        pollfd watched = {file_.get(), POLLIN, 0};
        if (poll(&watched, 1, static_cast<int>(between_looks.count())) > 0) {
            return true;
        }
        if (while_waiting_) {
            while_waiting_();
        }
        if (!follows_ && std::chrono::steady_clock::now() > deadline) {
            return false;
        }
    }
    return true;
}

void CaptureFile::pause() const {
    if (while_waiting_) {
        while_waiting_();
    }
    poll(nullptr, 0, static_cast<int>(between_looks.count()));
}

bool CaptureFile::has_shrunk() const {
    struct stat status = {};
    return fstat(file_.get(), &status) == 0 && static_cast<uint64_t>(status.st_size) < position_;
}

} // namespace desk::capture
