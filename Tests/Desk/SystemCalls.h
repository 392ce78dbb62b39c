// Watches the system calls of a program, and makes some of them fail.
//
// The C library's functions for files and sockets are defined here once more, upon the kernel itself. Linked into an
// executable, or preloaded (LD_PRELOAD) as a shared object, these definitions come before the C library's for every
// dynamic library of the process, SQLite and the C++ library among them. What the C library calls within itself (fopen,
// getaddrinfo) passes by.
//
// Calls count when they concern a watched folder, what is in it, or a watched socket; all others just pass. Each that
// counts is recorded, and a fault may be planned for it. A test does both through the functions below; a program that
// is preloaded is steered by its environment:
//
//     SYSTEM_CALLS_FOLDER=PATH   watches this folder
//     SYSTEM_CALLS_SOCKETS=1     watches all sockets that the program opens or accepts
//     SYSTEM_CALLS_FAULT=KIND:NTH:ERROR[+]
//                                the fault: NTH from 1, ERROR a number or "short", + for all from then on
//     SYSTEM_CALLS_REPORT=PATH   gets a line for each call that counts: KIND NTH RESULT ERROR PATH
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace system_calls {

// One kind for all flavours of a call: `open` stands for open, open64, openat, creat and mkostemp; `opendir` for all
// that open a folder as such (O_DIRECTORY).
enum class Kind {
    open,
    close,
    read,
    pread,
    write,
    pwrite,
    fsync,
    fdatasync,
    ftruncate,
    rename,
    link,
    unlink,
    mkdir,
    rmdir,
    chmod,
    flock,
    fcntl,
    stat,
    access,
    opendir,
    readdir,
    socket,
    bind,
    listen,
    accept,
    connect,
    recv,
    recvmsg,
    send,
    sendmsg,
    poll,
    shutdown,
    count
};

const char* name_of(Kind kind);

struct Call {
    Kind kind = Kind::count;
    int descriptor = -1;             // what the call got, or what `open` and `accept` answered
    std::filesystem::path path = {}; // absolute: of the name, or of the file behind the descriptor
    std::filesystem::path to = {};   // the second name of a rename or link
    int flags = 0;                   // of `open`
    off_t offset = 0;                // where bytes were written, or the size that a file was cut to
    std::string bytes = {};          // what was written, as far as it was
    long result = 0;
    int error = 0;
};

struct Fault {
    static constexpr int cut_short = 0;

    Kind kind = Kind::count;
    int nth = 1;           // which call of its kind, from 1
    int error = cut_short; // errno, or `cut_short`: half of the bytes are moved; below 0 a signal comes with the call
    bool from_then_on = false;
};

// Counts and records all calls in this folder, until `stop`. Descriptors that are open already do not count.
void watch(const std::filesystem::path& folder);
// The calls so far, in their order.
const std::vector<Call>& recorded();
// Ends watching; a fault that is still planned is forgotten. What is open stays known, so that a further `resume` sees
// its calls.
void stop();
void resume();

// Plans a fault, counted from the next call on.
void plan(const Fault& fault);
void forget_fault();
// Whether the planned fault has occurred.
bool fault_occurred();

} // namespace system_calls
