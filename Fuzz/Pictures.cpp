#include "Pictures.h"

#include <climits>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace fuzz {
namespace {

int file = -1; // in memory, reached through /proc
Bytes written;

} // namespace

void create_picture() {
    file = memfd_create("picture", MFD_CLOEXEC);
    PROMISE(file >= 0);
}

void set_picture(const Bytes& content) {
    written = content;
    PROMISE(ftruncate(file, 0) == 0);
    PROMISE(pwrite(file, content.data(), content.size(), 0) == static_cast<ssize_t>(content.size()));
}

const Bytes& picture_content() {
    return written;
}

std::string path_of(int choice) {
    switch (choice) {
    case 0:
        return "";
    case 1:
        return "/proc/self"; // a folder
    case 2:
        return std::string(SM_SCREENNAIL_PATH_SIZE, 'x'); // no NUL, and no such file
    case 3:
        return "/dev/null";
    default:
        return "/proc/self/fd/" + std::to_string(file);
    }
}

bool is_picture_path(const tag_custom_info& preset) {
    const auto* const end = std::find(std::begin(preset.screennail_path), std::end(preset.screennail_path), '\0');
    return std::string(std::begin(preset.screennail_path), end) == path_of(INT_MAX);
}

} // namespace fuzz
