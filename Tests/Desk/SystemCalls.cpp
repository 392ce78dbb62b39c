#include "SystemCalls.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <mutex>
#include <span>

namespace system_calls {
namespace {

namespace fs = std::filesystem;

constexpr size_t kinds = static_cast<size_t>(Kind::count);
constexpr std::array<const char*, kinds> names = {
    "open",   "close",  "read",   "pread",   "write", "pwrite",  "fsync", "fdatasync", "ftruncate", "rename",  "link",
    "unlink", "mkdir",  "rmdir",  "chmod",   "flock", "fcntl",   "stat",  "access",    "opendir",   "readdir", "socket",
    "bind",   "listen", "accept", "connect", "recv",  "recvmsg", "send",  "sendmsg",   "poll",      "shutdown"};

struct State {
    std::recursive_mutex lock; // a program has threads
    bool watching = false;
    bool sockets = false;
    bool collecting = false; // a test reads what was recorded; a program only reports
    int report = -1;
    fs::path folder;
    std::map<int, fs::path> descriptors; // the watched ones that are open
    std::vector<Call> calls;
    std::array<int, kinds> counts{};
    std::optional<Fault> fault;
    int until_fault = 0; // calls of the fault's kind that are left before it
    bool occurred = false;
};

void steer_by_environment(State& state);

// Never destroyed: calls are made before `main` and after it.
State& state() {
    static State& made = *[] {
        auto* fresh = new State;
        steer_by_environment(*fresh);
        return fresh;
    }();
    return made;
}

std::optional<Kind> kind_named(std::string_view name) {
    const auto* const found = std::ranges::find(names, name);
    if (found == names.end()) {
        return std::nullopt;
    }
    return static_cast<Kind>(found - names.begin());
}

[[noreturn]] void give_up(const char* variable) {
    std::fprintf(stderr, "%s cannot be understood\n", variable);
    std::abort();
}

Fault fault_from(std::string text) {
    Fault fault;
    if (text.ends_with('+')) {
        fault.from_then_on = true;
        text.pop_back();
    }
    const size_t first = text.find(':');
    const size_t second = text.find(':', first + 1);
    const std::optional<Kind> kind = kind_named(text.substr(0, first));
    if (first == std::string::npos || second == std::string::npos || !kind) {
        give_up("SYSTEM_CALLS_FAULT");
    }
    fault.kind = *kind;
    fault.nth = std::atoi(text.c_str() + first + 1);
    const std::string error = text.substr(second + 1);
    fault.error = error == "short" ? Fault::cut_short : std::atoi(error.c_str());
    return fault;
}

void steer_by_environment(State& state) {
    if (const char* folder = std::getenv("SYSTEM_CALLS_FOLDER")) {
        state.folder = folder;
        state.watching = true;
    }
    if (std::getenv("SYSTEM_CALLS_SOCKETS")) {
        state.sockets = state.watching = true;
    }
    if (const char* report = std::getenv("SYSTEM_CALLS_REPORT")) {
        constexpr int out_of_the_way = 200; // the low numbers are the program's
        const long file = syscall(SYS_openat, AT_FDCWD, report, O_WRONLY | O_CREAT | O_APPEND, 0600);
        state.report = static_cast<int>(syscall(SYS_fcntl, file, F_DUPFD_CLOEXEC, out_of_the_way));
        syscall(SYS_close, file);
    }
    if (const char* fault = std::getenv("SYSTEM_CALLS_FAULT")) {
        state.fault = fault_from(fault);
        state.until_fault = state.fault->nth;
    }
}

// ---- What a call concerns -------------------------------------------------------------------------------------------

std::string target_of_link(const char* link) {
    std::array<char, PATH_MAX> target{};
    const long length = syscall(SYS_readlinkat, AT_FDCWD, link, target.data(), target.size());
    return {target.data(), static_cast<size_t>(std::max(length, 0L))};
}

fs::path absolute(int folder, const char* name) {
    const fs::path path = name;
    if (path.is_absolute()) {
        return path.lexically_normal();
    }
    const std::string link = folder == AT_FDCWD ? "/proc/self/cwd" : "/proc/self/fd/" + std::to_string(folder);
    return (target_of_link(link.c_str()) / path).lexically_normal();
}

bool is_watched(const State& state, const fs::path& path) {
    if (state.folder.empty()) {
        return false;
    }
    const std::string& inner = path.native();
    const std::string& outer = state.folder.native();
    return inner.starts_with(outer) && (inner.size() == outer.size() || inner[outer.size()] == '/');
}

bool is_watched(const State& state, int descriptor) {
    return state.descriptors.contains(descriptor);
}

// ---- One call -------------------------------------------------------------------------------------------------------

bool fault_is_due(State& state, Kind kind) {
    if (!state.fault || state.fault->kind != kind) {
        return false;
    }
    if (state.until_fault > 0) {
        --state.until_fault;
    }
    const bool first = state.until_fault == 0 && !state.occurred;
    if (state.until_fault != 0 || (!first && !state.fault->from_then_on)) {
        return false;
    }
    state.occurred = true;
    return true;
}

void report(State& state, const Call& call) {
    if (state.report >= 0) {
        const std::string line =
            std::string(name_of(call.kind)) + " " + std::to_string(state.counts[static_cast<size_t>(call.kind)]) + " " +
            std::to_string(call.result) + " " + std::to_string(call.error) + " " + call.path.native() + "\n";
        syscall(SYS_write, state.report, line.data(), line.size());
    }
}

// How the kernel is asked, and for how many bytes at most, which is less for a call that is cut short.
using Ask = std::function<long(size_t size)>;

// What becomes of a call that fails on request. A descriptor is closed all the same, as Linux does, and a connection
// that was interrupted is made all the same.
bool is_carried_out_all_the_same(const Call& call) {
    return call.kind == Kind::close || (call.kind == Kind::connect && call.error == EINTR);
}

// Makes a call that counts. `size` is the number of bytes that it moves, 0 where it moves none.
long make(State& state, Call& call, size_t size, const Ask& ask) {
    ++state.counts[static_cast<size_t>(call.kind)];
    const bool faulty = fault_is_due(state, call.kind);
    if (faulty && state.fault->error < 0) {
        syscall(SYS_kill, syscall(SYS_getpid), -state.fault->error);
    }
    if (faulty && state.fault->error > 0) {
        call.error = state.fault->error;
        if (is_carried_out_all_the_same(call)) {
            ask(size);
        }
        call.result = -1;
    } else {
        call.result = ask(faulty && state.fault->error == Fault::cut_short && size > 1 ? size / 2 : size);
        call.error = call.result < 0 ? errno : 0;
    }
    report(state, call);
    if (call.result < 0) {
        errno = call.error;
    }
    return call.result;
}

void keep(State& state, Call&& call) {
    if (state.collecting) {
        const int error = errno;
        state.calls.push_back(std::move(call));
        errno = error;
    }
}

class Guard {
  public:
    Guard() : state_(state()), hold_(state_.lock) {}
    State& operator*() { return state_; }
    State* operator->() { return &state_; }

  private:
    State& state_;
    std::lock_guard<std::recursive_mutex> hold_;
};

// A call on a name. Returns what the C library's function returns.
long on_path(Kind kind, int folder, const char* name, const std::function<long()>& ask) {
    Guard state;
    if (!state->watching) {
        return ask();
    }
    Call call{.kind = kind, .path = absolute(folder, name)};
    if (!is_watched(*state, call.path)) {
        return ask();
    }
    const long result = make(*state, call, 0, [&](size_t) { return ask(); });
    keep(*state, std::move(call));
    return result;
}

long on_two_paths(Kind kind, int folder, const char* name, int other_folder, const char* other,
                  const std::function<long()>& ask) {
    Guard state;
    if (!state->watching) {
        return ask();
    }
    Call call{.kind = kind, .path = absolute(folder, name), .to = absolute(other_folder, other)};
    if (!is_watched(*state, call.path) && !is_watched(*state, call.to)) {
        return ask();
    }
    const long result = make(*state, call, 0, [&](size_t) { return ask(); });
    keep(*state, std::move(call));
    return result;
}

long opened(int folder, const char* name, int flags, const std::function<long()>& ask) {
    Guard state;
    if (!state->watching) {
        return ask();
    }
    const Kind kind = (flags & O_DIRECTORY) != 0 ? Kind::opendir : Kind::open;
    Call call{.kind = kind, .path = absolute(folder, name), .flags = flags};
    if (!is_watched(*state, call.path)) {
        return ask();
    }
    const long result = make(*state, call, 0, [&](size_t) { return ask(); });
    call.descriptor = static_cast<int>(result);
    if (result >= 0) {
        state->descriptors[call.descriptor] = call.path;
    }
    keep(*state, std::move(call));
    return result;
}

// A call on a descriptor that moves `size` bytes.
long moving(Kind kind, int descriptor, size_t size, const Ask& ask) {
    Guard state;
    if (!state->watching || !is_watched(*state, descriptor)) {
        return ask(size);
    }
    Call call{.kind = kind, .descriptor = descriptor, .path = state->descriptors[descriptor]};
    const long result = make(*state, call, size, ask);
    keep(*state, std::move(call));
    return result;
}

long on_descriptor(Kind kind, int descriptor, const std::function<long()>& ask) {
    return moving(kind, descriptor, 0, [&](size_t) { return ask(); });
}

// Bytes that go into a file at this offset.
long written(Kind kind, int descriptor, const void* bytes, size_t size, std::optional<off_t> offset, const Ask& ask) {
    Guard state;
    if (!state->watching || !is_watched(*state, descriptor)) {
        return ask(size);
    }
    Call call{.kind = kind, .descriptor = descriptor, .path = state->descriptors[descriptor]};
    const long result = make(*state, call, size, ask);
    if (result > 0 && state->collecting) {
        // The position behind what was written also tells where a file is written that is appended to.
        call.offset = offset ? *offset : syscall(SYS_lseek, descriptor, 0, SEEK_CUR) - result;
        call.bytes.assign(static_cast<const char*>(bytes), static_cast<size_t>(result));
    }
    keep(*state, std::move(call));
    return result;
}

// A socket that came into being counts from now on.
long new_socket(Kind kind, bool counts, const std::function<long()>& ask) {
    Guard state;
    if (!state->watching || !counts) {
        return ask();
    }
    Call call{.kind = kind, .path = "socket"};
    const long result = make(*state, call, 0, [&](size_t) { return ask(); });
    if (result >= 0) {
        state->descriptors[static_cast<int>(result)] = call.path;
    }
    keep(*state, std::move(call));
    return result;
}

// The C library's own definition, for what is more than a system call.
template<class Function>
Function original(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

mode_t mode_from(int flags, va_list arguments) {
    const bool makes_file = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
    return makes_file ? va_arg(arguments, mode_t) : 0;
}

int open_at(int folder, const char* name, int flags, mode_t mode) {
    return static_cast<int>(
        opened(folder, name, flags, [&] { return syscall(SYS_openat, folder, name, flags, mode); }));
}

int stat_at(int folder, const char* name, void* status, int flags) {
    return static_cast<int>(
        on_path(Kind::stat, folder, name, [&] { return syscall(SYS_newfstatat, folder, name, status, flags); }));
}

int stat_of(int descriptor, void* status) {
    return static_cast<int>(
        on_descriptor(Kind::stat, descriptor, [&] { return syscall(SYS_fstat, descriptor, status); }));
}

int rename_at(int folder, const char* name, int other_folder, const char* other, unsigned flags) {
    return static_cast<int>(on_two_paths(Kind::rename, folder, name, other_folder, other, [&] {
        return syscall(SYS_renameat2, folder, name, other_folder, other, flags);
    }));
}

int link_at(int folder, const char* name, int other_folder, const char* other, int flags) {
    return static_cast<int>(on_two_paths(Kind::link, folder, name, other_folder, other, [&] {
        return syscall(SYS_linkat, folder, name, other_folder, other, flags);
    }));
}

int unlink_at(int folder, const char* name, int flags) {
    const Kind kind = (flags & AT_REMOVEDIR) != 0 ? Kind::rmdir : Kind::unlink;
    return static_cast<int>(on_path(kind, folder, name, [&] { return syscall(SYS_unlinkat, folder, name, flags); }));
}

int mkdir_at(int folder, const char* name, mode_t mode) {
    return static_cast<int>(
        on_path(Kind::mkdir, folder, name, [&] { return syscall(SYS_mkdirat, folder, name, mode); }));
}

ssize_t read_at(int descriptor, void* bytes, size_t size, off_t offset) {
    return moving(Kind::pread, descriptor, size,
                  [&](size_t part) { return syscall(SYS_pread64, descriptor, bytes, part, offset); });
}

ssize_t write_at(int descriptor, const void* bytes, size_t size, off_t offset) {
    return written(Kind::pwrite, descriptor, bytes, size, offset,
                   [&](size_t part) { return syscall(SYS_pwrite64, descriptor, bytes, part, offset); });
}

int cut(int descriptor, off_t size) {
    Guard state;
    const auto ask = [&](size_t) { return syscall(SYS_ftruncate, descriptor, size); };
    if (!state->watching || !is_watched(*state, descriptor)) {
        return static_cast<int>(ask(0));
    }
    Call call{.kind = Kind::ftruncate, .descriptor = descriptor, .path = state->descriptors[descriptor]};
    call.offset = size;
    const long result = make(*state, call, 0, ask);
    keep(*state, std::move(call));
    return static_cast<int>(result);
}

bool is_about_locks(int command) {
    constexpr std::array commands{F_SETLK, F_SETLKW, F_GETLK, F_OFD_SETLK, F_OFD_SETLKW, F_OFD_GETLK};
    return std::ranges::find(commands, command) != commands.end();
}

// Locks count; other commands only where they give the file another descriptor.
int control(int descriptor, int command, void* argument) {
    const auto ask = [&] { return syscall(SYS_fcntl, descriptor, command, argument); };
    if (is_about_locks(command)) {
        return static_cast<int>(on_descriptor(Kind::fcntl, descriptor, ask));
    }
    Guard state;
    const long result = ask();
    if (result >= 0 && (command == F_DUPFD || command == F_DUPFD_CLOEXEC) && is_watched(*state, descriptor)) {
        state->descriptors[static_cast<int>(result)] = state->descriptors[descriptor];
    }
    return static_cast<int>(result);
}

long received_message(int socket, msghdr* message, int flags, size_t most) {
    if (message->msg_iovlen == 0 || message->msg_iov[0].iov_len <= most) {
        return syscall(SYS_recvmsg, socket, message, flags);
    }
    iovec part = {message->msg_iov[0].iov_base, most};
    msghdr shorter = *message;
    shorter.msg_iov = &part;
    shorter.msg_iovlen = 1;
    const long result = syscall(SYS_recvmsg, socket, &shorter, flags);
    message->msg_flags = shorter.msg_flags;
    return result;
}

long sent_message(int socket, const msghdr* message, int flags, size_t most) {
    if (message->msg_iovlen == 0 || message->msg_iov[0].iov_len <= most) {
        return syscall(SYS_sendmsg, socket, message, flags);
    }
    iovec part = {message->msg_iov[0].iov_base, most};
    msghdr shorter = *message;
    shorter.msg_iov = &part;
    shorter.msg_iovlen = 1;
    return syscall(SYS_sendmsg, socket, &shorter, flags);
}

size_t first_size(const msghdr* message) {
    return message->msg_iovlen == 0 ? 0 : message->msg_iov[0].iov_len;
}

} // namespace

const char* name_of(Kind kind) {
    return names[static_cast<size_t>(kind)];
}

void watch(const fs::path& folder) {
    Guard state;
    state->folder = fs::path(folder).lexically_normal();
    state->descriptors.clear();
    state->calls.clear();
    state->counts.fill(0);
    state->watching = state->collecting = true;
    forget_fault();
}

const std::vector<Call>& recorded() {
    return state().calls;
}

void stop() {
    Guard state;
    state->watching = state->collecting = false;
    forget_fault();
}

void resume() {
    Guard state;
    state->watching = state->collecting = true;
}

void plan(const Fault& fault) {
    Guard state;
    state->fault = fault;
    state->until_fault = fault.nth;
    state->occurred = false;
}

void forget_fault() {
    Guard state;
    state->fault.reset();
    state->occurred = false;
}

bool fault_occurred() {
    return state().occurred;
}

} // namespace system_calls

// ---- The C library's functions --------------------------------------------------------------------------------------

using namespace system_calls;

extern "C" {

int open(const char* name, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = mode_from(flags, arguments);
    va_end(arguments);
    return open_at(AT_FDCWD, name, flags, mode);
}

int open64(const char* name, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = mode_from(flags, arguments);
    va_end(arguments);
    return open_at(AT_FDCWD, name, flags, mode);
}

int openat(int folder, const char* name, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = mode_from(flags, arguments);
    va_end(arguments);
    return open_at(folder, name, flags, mode);
}

int openat64(int folder, const char* name, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = mode_from(flags, arguments);
    va_end(arguments);
    return open_at(folder, name, flags, mode);
}

int creat(const char* name, mode_t mode) {
    return open_at(AT_FDCWD, name, O_CREAT | O_WRONLY | O_TRUNC, mode);
}

int creat64(const char* name, mode_t mode) {
    return open_at(AT_FDCWD, name, O_CREAT | O_WRONLY | O_TRUNC, mode);
}

int mkostemp(char* name, int flags) {
    // The name that the C library finds is opened once more, where it counts.
    const auto find = original<int (*)(char*, int)>("mkostemp");
    char* const letters = name + std::string_view(name).size() - 6;
    while (true) {
        const int found = find(name, flags);
        if (found < 0) {
            return found;
        }
        syscall(SYS_close, found);
        syscall(SYS_unlinkat, AT_FDCWD, name, 0);
        const int file = open_at(AT_FDCWD, name, O_RDWR | O_CREAT | O_EXCL | flags, S_IRUSR | S_IWUSR);
        if (file >= 0 || errno != EEXIST) {
            return file;
        }
        std::fill_n(letters, 6, 'X');
    }
}

DIR* opendir(const char* name) {
    const int folder = open_at(AT_FDCWD, name, O_RDONLY | O_NONBLOCK | O_DIRECTORY | O_CLOEXEC, 0);
    return folder < 0 ? nullptr : fdopendir(folder);
}

int closedir(DIR* folder) {
    static const auto close_folder = original<int (*)(DIR*)>("closedir");
    const int descriptor = dirfd(folder);
    const auto result = static_cast<int>(on_descriptor(Kind::close, descriptor, [&] { return close_folder(folder); }));
    state().descriptors.erase(descriptor);
    return result;
}

dirent* readdir(DIR* folder) {
    static const auto read_folder = original<dirent* (*)(DIR*)>("readdir");
    dirent* entry = nullptr;
    on_descriptor(Kind::readdir, dirfd(folder), [&] {
        entry = read_folder(folder);
        return 0L;
    });
    return entry;
}

int close(int descriptor) {
    const auto result =
        static_cast<int>(on_descriptor(Kind::close, descriptor, [&] { return syscall(SYS_close, descriptor); }));
    Guard state;
    state->descriptors.erase(descriptor);
    return result;
}

ssize_t read(int descriptor, void* bytes, size_t size) {
    return moving(Kind::read, descriptor, size,
                  [&](size_t part) { return syscall(SYS_read, descriptor, bytes, part); });
}

ssize_t pread(int descriptor, void* bytes, size_t size, off_t offset) {
    return read_at(descriptor, bytes, size, offset);
}

ssize_t pread64(int descriptor, void* bytes, size_t size, off64_t offset) {
    return read_at(descriptor, bytes, size, offset);
}

ssize_t write(int descriptor, const void* bytes, size_t size) {
    return written(Kind::write, descriptor, bytes, size, std::nullopt,
                   [&](size_t part) { return syscall(SYS_write, descriptor, bytes, part); });
}

ssize_t writev(int descriptor, const iovec* parts, int count) {
    // Piece by piece, so that every byte is recorded.
    ssize_t sum = 0;
    for (const iovec& part : std::span(parts, static_cast<size_t>(count))) {
        const ssize_t result = write(descriptor, part.iov_base, part.iov_len);
        if (result < 0) {
            return sum > 0 ? sum : result;
        }
        sum += result;
        if (static_cast<size_t>(result) < part.iov_len) {
            break;
        }
    }
    return sum;
}

ssize_t pwrite(int descriptor, const void* bytes, size_t size, off_t offset) {
    return write_at(descriptor, bytes, size, offset);
}

ssize_t pwrite64(int descriptor, const void* bytes, size_t size, off64_t offset) {
    return write_at(descriptor, bytes, size, offset);
}

int fsync(int descriptor) {
    return static_cast<int>(on_descriptor(Kind::fsync, descriptor, [&] { return syscall(SYS_fsync, descriptor); }));
}

int fdatasync(int descriptor) {
    return static_cast<int>(
        on_descriptor(Kind::fdatasync, descriptor, [&] { return syscall(SYS_fdatasync, descriptor); }));
}

int ftruncate(int descriptor, off_t size) noexcept {
    return cut(descriptor, size);
}
int ftruncate64(int descriptor, off64_t size) noexcept {
    return cut(descriptor, size);
}

int rename(const char* name, const char* other) noexcept {
    return rename_at(AT_FDCWD, name, AT_FDCWD, other, 0);
}

int renameat(int folder, const char* name, int other_folder, const char* other) noexcept {
    return rename_at(folder, name, other_folder, other, 0);
}

int renameat2(int folder, const char* name, int other_folder, const char* other, unsigned flags) noexcept {
    return rename_at(folder, name, other_folder, other, flags);
}

int link(const char* name, const char* other) noexcept {
    return link_at(AT_FDCWD, name, AT_FDCWD, other, 0);
}

int linkat(int folder, const char* name, int other_folder, const char* other, int flags) noexcept {
    return link_at(folder, name, other_folder, other, flags);
}

int symlink(const char* target, const char* name) noexcept {
    return static_cast<int>(
        on_path(Kind::link, AT_FDCWD, name, [&] { return syscall(SYS_symlinkat, target, AT_FDCWD, name); }));
}

int unlink(const char* name) noexcept {
    return unlink_at(AT_FDCWD, name, 0);
}
int unlinkat(int folder, const char* name, int flags) noexcept {
    return unlink_at(folder, name, flags);
}
int rmdir(const char* name) noexcept {
    return unlink_at(AT_FDCWD, name, AT_REMOVEDIR);
}

int remove(const char* name) noexcept {
    const int result = unlink(name);
    return result < 0 && errno == EISDIR ? rmdir(name) : result;
}

int mkdir(const char* name, mode_t mode) noexcept {
    return mkdir_at(AT_FDCWD, name, mode);
}
int mkdirat(int folder, const char* name, mode_t mode) noexcept {
    return mkdir_at(folder, name, mode);
}

int chmod(const char* name, mode_t mode) noexcept {
    return static_cast<int>(
        on_path(Kind::chmod, AT_FDCWD, name, [&] { return syscall(SYS_fchmodat, AT_FDCWD, name, mode); }));
}

int fchmod(int descriptor, mode_t mode) noexcept {
    return static_cast<int>(
        on_descriptor(Kind::chmod, descriptor, [&] { return syscall(SYS_fchmod, descriptor, mode); }));
}

int flock(int descriptor, int operation) noexcept {
    return static_cast<int>(
        on_descriptor(Kind::flock, descriptor, [&] { return syscall(SYS_flock, descriptor, operation); }));
}

int fcntl(int descriptor, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    return control(descriptor, command, argument);
}

int fcntl64(int descriptor, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    return control(descriptor, command, argument);
}

int stat(const char* name, struct stat* status) noexcept {
    return stat_at(AT_FDCWD, name, status, 0);
}
int stat64(const char* name, struct stat64* status) noexcept {
    return stat_at(AT_FDCWD, name, status, 0);
}
int lstat(const char* name, struct stat* status) noexcept {
    return stat_at(AT_FDCWD, name, status, AT_SYMLINK_NOFOLLOW);
}
int lstat64(const char* name, struct stat64* status) noexcept {
    return stat_at(AT_FDCWD, name, status, AT_SYMLINK_NOFOLLOW);
}
int fstatat(int folder, const char* name, struct stat* status, int flags) noexcept {
    return stat_at(folder, name, status, flags);
}
int fstatat64(int folder, const char* name, struct stat64* status, int flags) noexcept {
    return stat_at(folder, name, status, flags);
}
int fstat(int descriptor, struct stat* status) noexcept {
    return stat_of(descriptor, status);
}
int fstat64(int descriptor, struct stat64* status) noexcept {
    return stat_of(descriptor, status);
}

int access(const char* name, int mode) noexcept {
    return static_cast<int>(
        on_path(Kind::access, AT_FDCWD, name, [&] { return syscall(SYS_faccessat, AT_FDCWD, name, mode); }));
}

// ---- Sockets ----

int socket(int family, int type, int protocol) noexcept {
    return static_cast<int>(
        new_socket(Kind::socket, state().sockets, [&] { return syscall(SYS_socket, family, type, protocol); }));
}

int bind(int socket, const sockaddr* address, socklen_t length) noexcept {
    return static_cast<int>(
        on_descriptor(Kind::bind, socket, [&] { return syscall(SYS_bind, socket, address, length); }));
}

int listen(int socket, int waiting) noexcept {
    return static_cast<int>(on_descriptor(Kind::listen, socket, [&] { return syscall(SYS_listen, socket, waiting); }));
}

int accept4(int socket, sockaddr* address, socklen_t* length, int flags) {
    return static_cast<int>(new_socket(Kind::accept, is_watched(state(), socket),
                                       [&] { return syscall(SYS_accept4, socket, address, length, flags); }));
}

int accept(int socket, sockaddr* address, socklen_t* length) {
    return accept4(socket, address, length, 0);
}

int connect(int socket, const sockaddr* address, socklen_t length) {
    return static_cast<int>(
        on_descriptor(Kind::connect, socket, [&] { return syscall(SYS_connect, socket, address, length); }));
}

ssize_t recv(int socket, void* bytes, size_t size, int flags) {
    return moving(Kind::recv, socket, size,
                  [&](size_t part) { return syscall(SYS_recvfrom, socket, bytes, part, flags, nullptr, nullptr); });
}

ssize_t recvmsg(int socket, msghdr* message, int flags) {
    return moving(Kind::recvmsg, socket, first_size(message),
                  [&](size_t part) { return received_message(socket, message, flags, part); });
}

ssize_t send(int socket, const void* bytes, size_t size, int flags) {
    return moving(Kind::send, socket, size,
                  [&](size_t part) { return syscall(SYS_sendto, socket, bytes, part, flags, nullptr, 0); });
}

ssize_t sendmsg(int socket, const msghdr* message, int flags) {
    return moving(Kind::sendmsg, socket, first_size(message),
                  [&](size_t part) { return sent_message(socket, message, flags, part); });
}

int poll(pollfd* entries, nfds_t count, int timeout) {
    timespec time = {timeout / 1000, timeout % 1000 * 1'000'000L};
    const auto ask = [&] { return syscall(SYS_ppoll, entries, count, timeout < 0 ? nullptr : &time, nullptr, 0); };
    for (const pollfd& entry : std::span(entries, count)) {
        if (is_watched(state(), entry.fd)) {
            return static_cast<int>(on_descriptor(Kind::poll, entry.fd, ask));
        }
    }
    return static_cast<int>(ask());
}

int shutdown(int socket, int how) noexcept {
    return static_cast<int>(on_descriptor(Kind::shutdown, socket, [&] { return syscall(SYS_shutdown, socket, how); }));
}

} // extern "C"
