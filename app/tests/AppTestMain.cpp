// Test entry point: a private environment for the whole process, then a
// QApplication on the offscreen platform, then the tests.
#include <gtest/gtest.h>

#include <QApplication>

#include <vector>

#include "AppTestSupport.h"
#include "ProcessEnvironment.h"

int main(int argc, char** argv) {
    hl::apptest::prepareTestEnvironment();
    hl::prepareProcessEnvironment();
    int result = 0;
    {
        std::vector<char*> arguments = hl::withWebEngineOptions(argc, argv);
        int qtArgc = static_cast<int>(arguments.size()) - 1;
        QApplication app(qtArgc, arguments.data());
        ::testing::InitGoogleTest(&argc, argv);
        result = RUN_ALL_TESTS();
    }
    hl::apptest::cleanUpTestEnvironment();
    return result;
}
