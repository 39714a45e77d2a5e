// Shared main of every test executable: a QCoreApplication must exist for
// timers, sockets and the event loop that the library relies on.
// With ZT_PROBE_HEAP_RESTART set, the executable is the probe of
// tests/runtime/process_test.cpp instead.
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
        zt::process::restartWithTunedHeap(argv);
        std::string name;
        std::getline(std::ifstream("/proc/self/comm"), name);
        std::printf("%s %s\n", std::getenv("GLIBC_TUNABLES"), name.c_str()); // set by now
        return 0;
    }
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
