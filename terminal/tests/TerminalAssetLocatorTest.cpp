// TerminalAssetLocator on real folders: the packaged copy before the source
// checkout, the name table, failures that do not fall back, the resource
// directory of a build tree and of an installed prefix, and the build tree's
// own copy of the assets, each fit to go into the document as it is.
#include <gtest/gtest.h>

#include <array>
#include <fstream>
#include <system_error>

#include "TerminalAssetLocator.h"
#include "TestSupport.h"

namespace fs = std::filesystem;
using hl::TerminalAssetLocator;
using hl::test::ScopedEnv;
using hl::test::TempDir;

namespace {

constexpr std::array<std::string_view, 6> assetNames{"xterm.js",           "addon-fit.js",
                                                     "addon-web-links.js", "addon-search.js",
                                                     "addon-unicode11.js", "xterm.css"};

void writeFile(const fs::path& path, std::string_view text) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

// The error code that `contents(named:)` fails with, or success when it returns.
std::error_code failureOf(const TerminalAssetLocator& locator, std::string_view name) {
    try {
        locator.contents(name);
        return {};
    } catch (const std::system_error& error) {
        return error.code();
    }
}

class TerminalAssetLocatorTest : public ::testing::Test {
  protected:
    TerminalAssetLocatorTest() : root_("HARBORLATTICE_ROOT", std::nullopt) {}

    fs::path resources() const { return dir_ / "resources"; }
    fs::path checkout() const { return dir_ / "checkout"; }

    void package(std::string_view name, std::string_view text) const {
        writeFile(resources() / "Terminal" / name, text);
    }
    void checkOut(std::string_view name, std::string_view text) const {
        writeFile(checkout() / "web/node_modules" / TerminalAssetLocator::sourcePath(name), text);
    }

    TempDir dir_;
    ScopedEnv root_;
};

// The build tree's copy (last case) shows that the name table points into the
// real web/node_modules.
TEST_F(TerminalAssetLocatorTest,
       TheSourceCheckoutIsFoundThroughTheNameTableUntilThereIsAPackagedCopy) {
    for (auto name : assetNames)
        checkOut(name, "checked out " + std::string(name));
    writeFile(checkout() / "web/node_modules/extra/theme.css", "a name that stands for itself");
    ScopedEnv root("HARBORLATTICE_ROOT", checkout().string());
    fs::create_directories(resources() / "Terminal");
    for (const auto& locator :
         {TerminalAssetLocator(std::nullopt), TerminalAssetLocator(resources())}) {
        for (auto name : assetNames)
            EXPECT_EQ(locator.contents(name), "checked out " + std::string(name));
        EXPECT_EQ(locator.contents("extra/theme.css"), "a name that stands for itself");
    }

    for (auto name : assetNames)
        package(name, "packaged " + std::string(name));
    const TerminalAssetLocator locator(resources());
    for (auto name : assetNames)
        EXPECT_EQ(locator.contents(name), "packaged " + std::string(name));
}

TEST_F(TerminalAssetLocatorTest, WithNeitherLocationEveryNameFailsAsNoSuchFile) {
    fs::create_directories(resources() / "Terminal");
    fs::create_directories(checkout() / "web/node_modules/@xterm");
    const auto noSuchFile = std::make_error_code(std::errc::no_such_file_or_directory);
    const TerminalAssetLocator locator(resources());
    for (auto name : assetNames)
        EXPECT_EQ(failureOf(locator, name), noSuchFile) << name;

    ScopedEnv root("HARBORLATTICE_ROOT", checkout().string());
    for (auto name : assetNames) {
        EXPECT_EQ(failureOf(locator, name), noSuchFile) << name;
        EXPECT_EQ(failureOf(TerminalAssetLocator(std::nullopt), name), noSuchFile) << name;
    }
}

TEST_F(TerminalAssetLocatorTest, ReadsStrictUtf8AndAFailedReadDoesNotFallBack) {
    checkOut("xterm.js", "good");
    ScopedEnv root("HARBORLATTICE_ROOT", checkout().string());
    const TerminalAssetLocator locator(resources());
    const auto illegal = std::make_error_code(std::errc::illegal_byte_sequence);

    const std::string valid = "\xC2\xB7 \xE2\x80\xA6 \xF0\x9F\x90\x9A \xEF\xBF\xBD";
    package("xterm.js", valid);
    EXPECT_EQ(locator.contents("xterm.js"), valid);
    package("xterm.js", "");
    EXPECT_EQ(locator.contents("xterm.js"), "");

    for (std::string_view bad :
         {"\xFF", "ends in a cut \xE2\x80", "overlong \xC0\xAF", "surrogate \xED\xA0\x80",
          "past the range \xF4\x90\x80\x80", "stray \x80 continuation"}) {
        package("xterm.js", bad);
        EXPECT_EQ(failureOf(locator, "xterm.js"), illegal) << bad;
    }
}

TEST_F(TerminalAssetLocatorTest, ResourceDirectoryOfABuildTreeAndOfAnInstalledPrefix) {
    const fs::path build = dir_ / "build";
    fs::create_directories(build / "resources");
    EXPECT_EQ(TerminalAssetLocator::resourceDirectory(build), build / "resources");

    const fs::path prefix = dir_ / "prefix";
    fs::create_directories(prefix / "bin");
    EXPECT_EQ(TerminalAssetLocator::resourceDirectory(prefix / "bin"), std::nullopt);
    fs::create_directories(prefix / "share/harborlattice");
    EXPECT_EQ(TerminalAssetLocator::resourceDirectory(prefix / "bin"),
              prefix / "share/harborlattice");

    // A file named like the folder is not a resource directory.
    writeFile(dir_ / "odd/resources", "not a folder");
    EXPECT_EQ(TerminalAssetLocator::resourceDirectory(dir_ / "odd"), std::nullopt);
}

TEST_F(TerminalAssetLocatorTest, TheBuildTreeHoldsTheAssetsOfNodeModules) {
    const fs::path build = HARBORLATTICE_BUILD_DIR;
    const auto directory = TerminalAssetLocator::resourceDirectory(build);
    ASSERT_EQ(directory, build / "resources");
    const TerminalAssetLocator packaged(directory);
    ScopedEnv root("HARBORLATTICE_ROOT", std::string(HARBORLATTICE_SOURCE_DIR));
    const TerminalAssetLocator source(std::nullopt);
    for (auto name : assetNames) {
        const std::string text = packaged.contents(name);
        EXPECT_GT(text.size(), 1000u) << name;
        EXPECT_EQ(text, source.contents(name)) << name;
        // The document puts the assets in as they are: none may close its element early.
        EXPECT_EQ(text.find(name.ends_with(".css") ? "</style" : "</script"), std::string::npos)
            << name;
    }
}

}  // namespace
