// RuntimePaths and the scratch directories, on real temporary folders.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "RuntimePaths.h"
#include "TestSupport.h"

namespace fs = std::filesystem;
using hl::RuntimePaths;
using hl::test::modeOf;
using hl::test::ScopedEnv;

namespace {

TEST(RuntimePathsTest, LocationsFollowTheEnvironment) {
    hl::test::TempDir dir;
    ScopedEnv home("HOME", dir.path().string());
    ScopedEnv data("XDG_DATA_HOME", std::nullopt);
    ScopedEnv config("XDG_CONFIG_HOME", std::nullopt);
    EXPECT_EQ(RuntimePaths::supportDirectory(), dir / ".local/share/Harborlattice");
    EXPECT_EQ(RuntimePaths::preferencesFile(), dir / ".config/harborlattice/preferences.sqlite3");
    EXPECT_EQ(RuntimePaths::ideaInboxDirectory(), dir / ".local/share/Harborlattice/Idea Inbox");
    {
        ScopedEnv relative("XDG_DATA_HOME", "relative/data");  // not absolute: ignored
        EXPECT_EQ(RuntimePaths::supportDirectory(), dir / ".local/share/Harborlattice");
    }
    ScopedEnv absolute("XDG_DATA_HOME", (dir / "xdg").string());
    EXPECT_EQ(RuntimePaths::supportDirectory(), dir / "xdg/Harborlattice");

    {
        ScopedEnv socket("HARBORLATTICE_SOCKET", std::nullopt);
        EXPECT_EQ(RuntimePaths::socketPath(), (dir / "xdg/Harborlattice/node.sock").string());
    }
    {
        ScopedEnv socket("HARBORLATTICE_SOCKET", "");
        EXPECT_EQ(RuntimePaths::socketPath(), "");
    }
    ScopedEnv socket("HARBORLATTICE_SOCKET", "relative/../odd.sock");
    EXPECT_EQ(RuntimePaths::socketPath(), "relative/../odd.sock");
}

TEST(RuntimePathsTest, ScratchDirectoriesArePrivateAndResolvedThroughLinks) {
    hl::test::TempDir dir;
    // The support directory is reached through a symbolic link.
    fs::create_directories(dir / "real");
    fs::create_directory_symlink(dir / "real", dir / "link");
    ScopedEnv data("XDG_DATA_HOME", (dir / "link").string());

    const std::string uuid = "0E5B1C2A-7F0D-4B0E-9A9B-2C3D4E5F6A7B";
    EXPECT_EQ(RuntimePaths::scratchRoot(), dir / "real/Harborlattice/Scratch");
    EXPECT_EQ(RuntimePaths::scratchDirectory(uuid),
              dir / "real/Harborlattice/Scratch/0e5b1c2a-7f0d-4b0e-9a9b-2c3d4e5f6a7b");

    const std::string created = RuntimePaths::createScratchDirectory(uuid);
    EXPECT_EQ(created, RuntimePaths::scratchDirectory(uuid).string());
    EXPECT_TRUE(fs::is_directory(created));
    EXPECT_EQ(modeOf(RuntimePaths::scratchRoot()), 0700u);
    EXPECT_EQ(modeOf(created), 0700u);

    // Again, after someone widened both levels: success, and private once more.
    ::chmod(RuntimePaths::scratchRoot().c_str(), 0755);
    ::chmod(created.c_str(), 0777);
    EXPECT_EQ(RuntimePaths::createScratchDirectory(uuid), created);
    EXPECT_EQ(modeOf(RuntimePaths::scratchRoot()), 0700u);
    EXPECT_EQ(modeOf(created), 0700u);

    // A file where the root should be is the file system's error.
    hl::test::TempDir other;
    ScopedEnv blocked("XDG_DATA_HOME", other.path().string());
    fs::create_directories(other / "Harborlattice");
    { std::ofstream(other / "Harborlattice/Scratch") << "x"; }
    EXPECT_THROW(RuntimePaths::createScratchDirectory(uuid), fs::filesystem_error);
}

}  // namespace
