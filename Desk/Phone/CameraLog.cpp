#include "CameraLog.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include "Common/Failure.h"
#include "Common/Text.h"

namespace desk::phone {
namespace {

constexpr size_t read_at_once = size_t{64} * 1024;
constexpr size_t longest_line = 4096; // the library's are shorter; what is longer is looked at in pieces

struct Mark {
    std::string_view text;
    int64_t CameraLog::Counts::*count;
};

// Src/ADE_ShotMentor_Manager.cpp writes them.
constexpr std::array marks = {
    Mark{"not receive EVT_BT_APP_SEND_RESULT", &CameraLog::Counts::parked},
    Mark{"late receive EVT_BT_APP_SEND_RESULT", &CameraLog::Counts::confirmed_late},
    Mark{"ERR ADE_ShotMentor_Result_Manager NULL pointer", &CameraLog::Counts::confirmed_twice},
    Mark{"malloc ERR size=", &CameraLog::Counts::refused_memory},
    Mark{"shotmentor_p_ReceiveData add=(nil)", &CameraLog::Counts::refused_memory},
    Mark{"JPG open error", &CameraLog::Counts::unread_pictures},
    Mark{"SM_RETURN_STRUCT_ERR", &CameraLog::Counts::refused_records},
};

Failure read_failure(const std::string& path, const std::string& why) {
    return {exit_machine, fmt::format("cannot read the camera's log {}: {}", printable(path), why)};
}

int64_t size_of(const Descriptor& file, const std::string& path) {
    struct stat status = {};
    if (fstat(file.get(), &status) != 0) {
        throw read_failure(path, std::strerror(errno));
    }
    if (!S_ISREG(status.st_mode)) {
        throw Failure(exit_usage, fmt::format("{} is no regular file; let the camera write its log to one, and give "
                                              "its name to --camera-log",
                                              printable(path)));
    }
    return status.st_size;
}

} // namespace

CameraLog::CameraLog(const std::string& path)
    : path_(path), file_(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)) {
    if (file_.get() < 0) {
        throw read_failure(path, fmt::format("{}; start the camera with its log first", std::strerror(errno)));
    }
    position_ = size_of(file_, path_);
}

const CameraLog::Counts& CameraLog::read_on() {
    const int64_t size = size_of(file_, path_);
    if (size < position_) {
        throw read_failure(path_, "it has become shorter while check ran; see that nobody else writes or rotates it");
    }
    std::array<char, read_at_once> buffer;
    while (position_ < size) {
        const ssize_t length = pread(file_.get(), buffer.data(), buffer.size(), position_);
        if (length < 0 && errno == EINTR) {
            continue;
        }
        if (length < 0) {
            throw read_failure(path_, std::strerror(errno));
        }
        if (length == 0) {
            break;
        }
        position_ += length;
        take({buffer.data(), static_cast<size_t>(length)});
    }
    return counts_;
}

void CameraLog::take(std::string_view bytes) {
    while (!bytes.empty()) {
        const size_t end = bytes.find('\n');
        const size_t length = std::min({end, bytes.size(), longest_line - line_.size()});
        line_ += bytes.substr(0, length);
        const bool ends = length == end;
        bytes.remove_prefix(length + (ends ? 1 : 0));
        if (ends || line_.size() == longest_line) {
            count(line_);
            line_.clear();
        }
    }
}

void CameraLog::count(std::string_view line) {
    for (const Mark& mark : marks) {
        if (line.find(mark.text) != std::string_view::npos) {
            ++(counts_.*mark.count);
        }
    }
}

} // namespace desk::phone
