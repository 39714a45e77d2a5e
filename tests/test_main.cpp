// Shared main of every test executable: a QCoreApplication must exist for
// timers, sockets and the event loop that the library relies on.
//
// With ZT_PROBE_HEAP_RESTART set, the executable is instead the probe of
// zt::process::restartWithHugePageHeap (tests/runtime/process_test.cpp):
// it prints its process ID on each start, then, once past the restart, the
// tunables and the name it runs under.
#include "runtime/process.h"

#include <QCoreApplication>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <unistd.h>

int main(int argc, char **argv)
{
    if (std::getenv("ZT_PROBE_HEAP_RESTART")) {
        std::printf("pid %d\n", int(::getpid()));
        std::fflush(stdout);
        zt::process::restartWithHugePageHeap(argv);
        std::string name;
        std::getline(std::ifstream("/proc/self/comm"), name);
        const char *tunables = std::getenv("GLIBC_TUNABLES");
        std::printf("tunables %s\nname %s\n", tunables ? tunables : "", name.c_str());
        return 0;
    }
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
