#include "StopSignals.h"

#include <csignal>
#include <poll.h>
#include <sys/signalfd.h>

#include "Connecting.h"

namespace desk::phone {
namespace {

sigset_t set_of_signals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

} // namespace

StopSignals::StopSignals() {
    const sigset_t set = set_of_signals();
    sigprocmask(SIG_BLOCK, &set, nullptr);
    descriptor_ = Descriptor(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
}

// One that has come has done its work, and must not end the program now.
StopSignals::~StopSignals() {
    signalfd_siginfo taken = {};
    while (read(descriptor_.get(), &taken, sizeof taken) > 0) {
    }
    const sigset_t set = set_of_signals();
    sigprocmask(SIG_UNBLOCK, &set, nullptr);
}

bool StopSignals::have_come() const {
    return poll_one(descriptor_.get(), POLLIN, Clock::now()) != 0;
}

} // namespace desk::phone
