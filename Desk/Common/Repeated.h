// A system call, again where a signal has interrupted it.
#pragma once

#include <cerrno>

namespace desk {

template<class Call>
auto repeated(Call call) {
    auto result = call();
    while (result < 0 && errno == EINTR) {
        result = call();
    }
    return result;
}

} // namespace desk
