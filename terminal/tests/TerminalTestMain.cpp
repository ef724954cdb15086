// Entry point of the terminal tests: a Qt application around GoogleTest, so
// that results come back through a real event loop.
#include <gtest/gtest.h>

#include <QCoreApplication>

#include "TerminalTestSupport.h"

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    const int result = RUN_ALL_TESTS();
    hl::test::drainDetachedWork();
    return result;
}
