#include "Descriptors.h"

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <string>
#include <sys/resource.h>
#include <unistd.h>

#include "Budgets.h"
#include "Common/Failure.h"

namespace desk::camera {
namespace {

// Whether the caller has left this open, beyond the standard streams. The camera's own are closed on execution, and
// what is closed on execution is not inherited.
bool is_inherited(const std::filesystem::directory_entry& entry) {
    const int descriptor = std::atoi(entry.path().filename().c_str());
    const int flags = ::fcntl(descriptor, F_GETFD);
    return descriptor > STDERR_FILENO && flags >= 0 && (flags & FD_CLOEXEC) == 0;
}

size_t inherited_descriptors() {
    std::error_code error;
    const std::filesystem::directory_iterator open("/proc/self/fd", error);
    return error ? 0 : static_cast<size_t>(std::count_if(begin(open), end(open), is_inherited));
}

} // namespace

void fill_standard_descriptors() {
    int last = 0;
    do {
        last = ::open("/dev/null", O_RDONLY);
    } while (last >= 0 && last <= STDERR_FILENO);
    if (last >= 0) {
        ::close(last);
    }
}

void ensure_descriptors() {
    const rlim_t needed = budget::descriptors + inherited_descriptors();
    rlimit limit = {};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= needed) {
        return;
    }
    const rlim_t allowed = limit.rlim_max;
    limit.rlim_cur = needed;
    if (allowed < needed || ::setrlimit(RLIMIT_NOFILE, &limit) != 0) {
        throw Failure(exit_machine,
                      fmt::format("the camera needs {} open files, and may have {}; raise the limit (ulimit -n)",
                                  needed, allowed));
    }
}

} // namespace desk::camera
