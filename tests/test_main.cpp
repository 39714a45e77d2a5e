// Shared main of every test executable: a QCoreApplication must exist for
// timers, sockets and the event loop that the library relies on.
#include <QCoreApplication>
#include <gtest/gtest.h>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
