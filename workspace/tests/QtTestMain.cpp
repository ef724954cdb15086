// Test entry point with a QCoreApplication, for code that posts to the main thread.
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <cstdlib>

int main(int argc, char** argv) {
    // Shells started by the tests get a home of their own, not the user's start-up files.
    char home[] = "/tmp/hl-home-XXXXXX";
    if (::mkdtemp(home) != nullptr) ::setenv("HOME", home, 1);
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
