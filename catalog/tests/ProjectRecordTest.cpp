// Project records: creation from user input and the two judgements, on real folders.
#include <gtest/gtest.h>

#include <QDir>
#include <fstream>

#include "ProjectRecord.h"
#include "TestSupport.h"

namespace fs = std::filesystem;
using Kind = hl::ProjectCatalogError::Kind;
using hl::ProjectRecord;

namespace {

Kind failureOf(const QString& name, const QString& root, std::optional<QString> id = std::nullopt) {
    try {
        ProjectRecord::create(name, root, id);
    } catch (const hl::ProjectCatalogError& error) {
        return error.kind();
    }
    ADD_FAILURE() << "created " << root.toStdString();
    return Kind::CorruptCatalog;
}

class ProjectRecordTest : public ::testing::Test {
  protected:
    ProjectRecordTest() {
        fs::create_directories(real() / "alpha");
        fs::create_directory_symlink(real(), base() / "link");
        std::ofstream(real() / "file.txt") << "x";
    }
    fs::path base() const { return fs::canonical(dir_.path()); }
    fs::path real() const { return base() / "real"; }
    QString q(const fs::path& p) const { return QString::fromStdString(p.string()); }
    hl::test::TempDir dir_;
};

TEST_F(ProjectRecordTest, CreateMakesTheRootCanonicalAndNamesIt) {
    auto record = ProjectRecord::create("  ", q(real() / "alpha"));
    EXPECT_EQ(record.name, "alpha");
    EXPECT_EQ(record.root, q(real() / "alpha"));
    EXPECT_EQ(record.id, record.id.toLower());
    EXPECT_EQ(record.id.size(), 36);
    EXPECT_NE(ProjectRecord::create("", q(real() / "alpha")).id, record.id);

    EXPECT_EQ(ProjectRecord::create("\n My Project \t", q(real() / "alpha")).name, "My Project");
    EXPECT_EQ(ProjectRecord::create("x", q(base() / "link/alpha/")).root, q(real() / "alpha"));
    EXPECT_EQ(ProjectRecord::create("x", q(real() / "alpha/../alpha/.")).root, q(real() / "alpha"));
    EXPECT_EQ(ProjectRecord::create("", "/").name, "Root");
    EXPECT_EQ(ProjectRecord::create("x", q(real() / "alpha"), QString("Other-Mac-ID")).id,
              "Other-Mac-ID");
}

TEST_F(ProjectRecordTest, CreateChecksTheIdThenTheRoot) {
    EXPECT_EQ(failureOf("x", "relative/alpha", QString("id\n")), Kind::InvalidID);
    EXPECT_EQ(failureOf("x", q(real() / "alpha"), QString("")), Kind::InvalidID);
    EXPECT_EQ(failureOf("x", q(real() / "alpha"), QString(" id")), Kind::InvalidID);
    QDir::setCurrent(q(real()));
    EXPECT_EQ(failureOf("x", "alpha"), Kind::RelativeRoot) << "even though it names a folder";
    EXPECT_EQ(failureOf("x", q(real() / "file.txt")), Kind::UnavailableRoot);
    EXPECT_EQ(failureOf("x", q(real() / "missing")), Kind::UnavailableRoot);
    EXPECT_EQ(failureOf("x", "~/surely-not-here-xyz"), Kind::UnavailableRoot);
}

TEST_F(ProjectRecordTest, StoredShapeIsLexicalAndAvailabilityReadsTheDisk) {
    ProjectRecord gone{"p", "Gone", q(real() / "gone")};
    EXPECT_TRUE(gone.storedShapeIsValid());
    EXPECT_FALSE(gone.rootIsAvailable());

    ProjectRecord here{"p", "Here", q(real() / "alpha")};
    EXPECT_TRUE(here.storedShapeIsValid());
    EXPECT_TRUE(here.rootIsAvailable());

    EXPECT_FALSE((ProjectRecord{"p", "Slash", q(real() / "alpha") + "/"}).storedShapeIsValid());
    EXPECT_FALSE((ProjectRecord{"p", "Dots", q(real() / "alpha/../alpha")}).storedShapeIsValid());
    EXPECT_FALSE((ProjectRecord{"p", "Rel", "real/alpha"}).storedShapeIsValid());
    EXPECT_FALSE((ProjectRecord{"p ", "Id", q(real() / "alpha")}).storedShapeIsValid());
    EXPECT_FALSE((ProjectRecord{"p", " \n", q(real() / "alpha")}).storedShapeIsValid());

    // Reached through a link: the stored text is fine, the folder is not "available".
    ProjectRecord linked{"p", "Linked", q(base() / "link/alpha")};
    EXPECT_TRUE(linked.storedShapeIsValid());
    EXPECT_FALSE(linked.rootIsAvailable());

    // The JSON form needs all three texts.
    EXPECT_EQ(ProjectRecord::fromJson(here.toJson()), here);
    EXPECT_FALSE(ProjectRecord::fromJson(QJsonObject{{"id", "p"}, {"name", "n"}}));
    EXPECT_FALSE(ProjectRecord::fromJson(QJsonObject{{"id", 1}, {"name", "n"}, {"root", "/"}}));
}

}  // namespace
