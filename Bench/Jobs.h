// What a host asks of the library, as jobs that are measured: their instructions, their memory, their time.
#pragma once

#include <span>

namespace bench {

struct Job {
    const char* name;
    void (*prepare)(); // what has to be there before each run
    void (*run)();     // the part that counts
    void (*clean)();   // confirms what was sent, and returns the library to idle
};

std::span<const Job> jobs();

} // namespace bench
