// Runs one job under a tool that counts instructions. Usage: run_job NUMBER [prepare]
// The job runs once to warm up the C library, is prepared again, and then runs in `measured`, which is what a tool
// counts; with "prepare" it stops before that. Without a number the names of all jobs are listed.

#include <cstdio>
#include <cstdlib>

#include "Jobs.h"

extern "C" __attribute__((noinline)) void measured(const bench::Job& job) {
    job.run();
}

int main(int argc, char** argv) {
    const auto jobs = bench::jobs();
    if (argc < 2) {
        for (const bench::Job& job : jobs) {
            std::puts(job.name);
        }
        return 0;
    }
    const auto number = std::strtoul(argv[1], nullptr, 10);
    if (number >= jobs.size()) {
        std::fprintf(stderr, "run_job: there is no job %s; the last one is %zu\n", argv[1], jobs.size() - 1);
        return 2;
    }
    const bench::Job& job = jobs[number];
    job.prepare();
    job.run();
    job.clean();
    job.prepare();
    if (argc == 2) {
        measured(job);
    }
    return 0;
}
