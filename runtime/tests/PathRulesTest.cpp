// The path rules on real folders with symbolic links.
#include <gtest/gtest.h>

#include "PathRules.h"
#include "TestSupport.h"

namespace fs = std::filesystem;

namespace {

TEST(PathRulesTest, StandardisingIsLexical) {
    EXPECT_EQ(hl::standardizedPath("/a/b/"), "/a/b");
    EXPECT_EQ(hl::standardizedPath("/a/./b/../c"), "/a/c");
    EXPECT_EQ(hl::standardizedPath("/a//b"), "/a/b");
    EXPECT_EQ(hl::standardizedPath("/../x"), "/x");
    EXPECT_EQ(hl::standardizedPath("/"), "/");
    EXPECT_EQ(hl::standardizedPath("a/../../b"), "../b");
    EXPECT_EQ(hl::standardizedPath("/does/not/exist/.."), "/does/not");

    EXPECT_TRUE(hl::isAbsolutePath("/x"));
    EXPECT_TRUE(hl::isAbsolutePath("~/x"));
    EXPECT_FALSE(hl::isAbsolutePath("x/y"));
    EXPECT_FALSE(hl::isAbsolutePath(""));
}

TEST(PathRulesTest, ResolvingFollowsLinksOfTheExistingPrefix) {
    hl::test::TempDir dir;
    const fs::path real = fs::canonical(dir.path()) / "real";
    fs::create_directories(real / "inner");
    fs::create_directory_symlink(real, dir / "link");

    EXPECT_EQ(hl::resolvingSymlinksInPath((dir / "link/inner").string()),
              (real / "inner").string());
    EXPECT_EQ(hl::resolvingSymlinksInPath((dir / "link/inner/").string()),
              (real / "inner").string());
    EXPECT_EQ(hl::resolvingSymlinksInPath((dir / "link/missing/deeper").string()),
              (real / "missing/deeper").string());
    EXPECT_EQ(hl::resolvingSymlinksInPath("relative/path"), "relative/path");
}

}  // namespace
