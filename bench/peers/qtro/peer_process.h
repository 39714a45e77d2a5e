// Process plumbing shared by the peer helpers. A helper is started by a
// benchmark, listens on a loopback port and announces it with one line on
// stdout, "READY <port>". It must never outlive the benchmark that started
// it: it asks the kernel for SIGKILL when its parent goes away, and the Qt
// helpers also quit when their stdin reaches end of file (the benchmark
// closes it to ask for a clean exit).
#pragma once

#include <cstdio>
#include <cstdlib>

#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>
#ifdef __linux__
#include <sys/prctl.h>
#endif

namespace ztpeer {

inline void bindToParentLifetime()
{
#ifdef __linux__
    const pid_t parent = getppid();
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    // The parent may have died between fork and prctl.
    if (getppid() != parent)
        _exit(1);
#endif
}

inline void announceReady(unsigned port)
{
    std::printf("READY %u\n", port);
    std::fflush(stdout);
}

// CPU time, user and system, that this process has used so far.
inline double processCpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

} // namespace ztpeer
