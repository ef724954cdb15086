// The project catalog on real preference stores and folders: first start,
// unreadable data that survives byte for byte, the operations and their
// messages, shared names, and the move out of the old workspace format.
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include "ProjectCatalog.h"
#include "TestSupport.h"

namespace fs = std::filesystem;
using hl::ProjectCatalog;
using hl::ProjectRecord;

namespace {

class ProjectCatalogTest : public ::testing::Test {
  protected:
    ProjectCatalogTest()
        : base(fs::canonical(dir.path())), prefs(hl::Preferences::open(dir / "p.sqlite3")) {}

    QString folder(const std::string& name) {
        fs::create_directories(base / name);
        return QString::fromStdString((base / name).string());
    }
    std::string stored() const {
        auto value = prefs->data(ProjectCatalog::storageKey);
        return value ? value->bytes : "<absent>";
    }
    void storeRaw(const std::string& bytes) {
        prefs->set(ProjectCatalog::storageKey, hl::PreferenceData{bytes});
    }

    hl::test::TempDir dir;
    fs::path base;
    std::shared_ptr<hl::Preferences> prefs;
};

TEST_F(ProjectCatalogTest, FirstStartStoresAnEmptyListThenAddRenameRemoveAndSelect) {
    ProjectCatalog catalog(prefs);
    EXPECT_TRUE(catalog.projects().empty());
    EXPECT_TRUE(catalog.isReadable());
    EXPECT_EQ(catalog.selectedProjectID(), std::nullopt);
    EXPECT_EQ(stored(), "[]");
    int changes = 0;
    catalog.onChange = [&] { ++changes; };
    auto alpha = catalog.add("", folder("alpha"));
    ASSERT_TRUE(alpha);
    EXPECT_EQ(catalog.selectedProjectID(), alpha->id);
    auto beta = catalog.add("Beta", folder("beta"));
    ASSERT_TRUE(beta);
    EXPECT_EQ(changes, 2);

    // A second route to the same folder is the same project.
    fs::create_directory_symlink(base / "alpha", base / "alias");
    EXPECT_FALSE(catalog.add("again", QString::fromStdString((base / "alias").string())));
    EXPECT_EQ(catalog.errorMessage(), "That project is already in Harborlattice.");
    EXPECT_FALSE(catalog.add("dup", folder("gamma"), alpha->id));
    EXPECT_EQ(catalog.errorMessage(), "That project identity is already in Harborlattice.");
    EXPECT_FALSE(catalog.add("rel", "relative"));
    EXPECT_EQ(catalog.errorMessage(), "Project roots must be absolute paths.");
    EXPECT_EQ(catalog.projects().size(), 2u);
    EXPECT_EQ(changes, 2) << "failures store nothing";

    EXPECT_FALSE(catalog.rename(alpha->id, "  "));
    EXPECT_EQ(catalog.errorMessage(), "Project names must not be empty.");
    EXPECT_FALSE(catalog.rename("nope", "x"));
    EXPECT_EQ(catalog.errorMessage(), "That project is no longer in Harborlattice.");
    EXPECT_EQ(catalog.rename(alpha->id, " Alpha Prime ")->name, "Alpha Prime");
    EXPECT_EQ(catalog.errorMessage(), std::nullopt);

    catalog.select("unknown");
    EXPECT_EQ(catalog.selectedProjectID(), beta->id);
    catalog.select(alpha->id);
    EXPECT_EQ(catalog.remove(beta->id)->id, beta->id);
    EXPECT_EQ(catalog.selectedProjectID(), alpha->id) << "removing another keeps the selection";
    ASSERT_TRUE(catalog.add("Beta", folder("beta")));
    catalog.select(alpha->id);
    catalog.remove(alpha->id);
    EXPECT_EQ(catalog.selectedProjectID(), catalog.projects().front().id);
    EXPECT_TRUE(fs::exists(base / "alpha")) << "the folder is never touched";
    catalog.clearSelection();
    EXPECT_EQ(catalog.selectedProjectID(), std::nullopt);

    // What was stored is what a new catalog loads.
    ProjectCatalog reloaded(prefs);
    EXPECT_EQ(reloaded.projects(), catalog.projects());
    EXPECT_EQ(reloaded.selectedProjectID(), catalog.projects().front().id);
}

TEST_F(ProjectCatalogTest, UnreadableDataIsPreservedThroughEveryOperation) {
    const QString alpha = folder("alpha");
    const std::string duplicateRoot =
        "[{\"id\":\"a\",\"name\":\"A\",\"root\":\"" + alpha.toStdString() +
        "\"},{\"id\":\"b\",\"name\":\"B\",\"root\":\"" + alpha.toStdString() + "\"}]";
    const std::string unnormalised =
        "[{\"id\":\"a\",\"name\":\"A\",\"root\":\"" + alpha.toStdString() + "/\"}]";
    for (const std::string& bytes :
         {std::string("not json"), std::string("{\"id\":\"a\"}"),
          std::string("[{\"id\":\"a\",\"name\":\"A\"}]"), duplicateRoot, unnormalised}) {
        storeRaw(bytes);
        ProjectCatalog catalog(prefs);
        int changes = 0;
        catalog.onChange = [&] { ++changes; };
        EXPECT_FALSE(catalog.isReadable()) << bytes;
        EXPECT_TRUE(catalog.projects().empty());
        EXPECT_EQ(catalog.errorMessage(),
                  "The saved project catalog is unreadable. Its original data was preserved.");
        // Every refusal says what was refused and why, even after the load's
        // message was dismissed.
        const auto refused = [](const char* done) {
            return "The saved project catalog is unreadable and was preserved, so no project "
                   "was " +
                   QString(done) + ". Keep a Copy and Start Over… sets it aside.";
        };
        EXPECT_FALSE(catalog.add("x", folder("new")));
        EXPECT_EQ(catalog.errorMessage(), refused("added"));
        EXPECT_FALSE(catalog.rename("a", "x"));
        EXPECT_EQ(catalog.errorMessage(), refused("renamed"));
        EXPECT_FALSE(catalog.remove("a"));
        EXPECT_EQ(catalog.errorMessage(), refused("removed"));
        catalog.applySharedProjects({});
        catalog.clearError();
        int said = 0;
        QObject::connect(&catalog, &ProjectCatalog::errorMessageChanged, [&] { ++said; });
        EXPECT_FALSE(catalog.add("x", folder("other")));
        EXPECT_EQ(catalog.errorMessage(), refused("added"));
        EXPECT_FALSE(catalog.mayChange("added"));
        EXPECT_GE(said, 2) << "a second refusal is said again";
        EXPECT_EQ(stored(), bytes);
        EXPECT_EQ(changes, 0);
    }
}

TEST_F(ProjectCatalogTest, SharedNamesRenameAndDropButNeverAdd) {
    ProjectCatalog catalog(prefs);
    auto alpha = *catalog.add("Alpha", folder("alpha"));
    auto beta = *catalog.add("Beta", folder("beta"));
    catalog.select(beta.id);
    int changes = 0;
    catalog.onChange = [&] { ++changes; };

    catalog.applySharedProjects({{alpha.id, "Alpha", {}}, {beta.id, "Beta", {}}});
    EXPECT_EQ(changes, 0) << "nothing changed, nothing stored";
    catalog.applySharedProjects({{alpha.id, "A", {}}, {alpha.id, "B", {}}});
    EXPECT_EQ(changes, 0) << "a repeated identity is ignored whole";

    catalog.applySharedProjects({{alpha.id, "Alpha 2", {}}, {"elsewhere", "Not here", {}}});
    ASSERT_EQ(catalog.projects().size(), 1u);
    EXPECT_EQ(catalog.projects()[0], (ProjectRecord{alpha.id, "Alpha 2", alpha.root}));
    EXPECT_EQ(catalog.selectedProjectID(), alpha.id);
    EXPECT_EQ(changes, 1);

    catalog.applySharedProjects({});
    EXPECT_TRUE(catalog.projects().empty());
    EXPECT_EQ(catalog.selectedProjectID(), std::nullopt);
    EXPECT_EQ(stored(), "[]");
}

TEST_F(ProjectCatalogTest, ProjectsMoveOutOfTheOldWorkspaceFormatOnce) {
    const QString one = folder("one"), two = folder("two"),
                  gone = base.string().c_str() + QString("/gone");
    auto pane = [](const QString& project, const QString& cwd) {
        return QJsonObject{{"context", QJsonObject{{"projectID", project}, {"cwd", cwd}}},
                           {"extra", 1}};
    };
    QJsonArray tabs{
        QJsonObject{{"title", "Second tab"},
                    {"projectID", "p-one"},
                    {"panes", QJsonArray{pane("p-one", one)}}},
        QJsonObject{{"title", "Split"},
                    {"projectID", "p-split"},
                    {"panes", QJsonArray{pane("p-split", one), pane("p-split", two)}}},
        QJsonObject{{"title", "Gone"},
                    {"projectID", "p-gone"},
                    {"panes", QJsonArray{pane("p-gone", gone)}}},
        QJsonObject{
            {"title", "More"}, {"projectID", "p-one"}, {"panes", QJsonArray{pane("p-one", one)}}},
        QJsonObject{{"title", "Scratch"}, {"panes", QJsonArray{}}},
    };
    const QByteArray legacy = QJsonDocument(QJsonObject{{"tabs", tabs}}).toJson();
    prefs->set(ProjectCatalog::legacyWorkspaceKey, hl::PreferenceData{legacy.toStdString()});

    ProjectCatalog catalog(prefs);
    ASSERT_EQ(catalog.projects().size(), 1u);
    EXPECT_EQ(catalog.projects()[0], (ProjectRecord{"p-one", "Second tab", one}));
    EXPECT_EQ(catalog.selectedProjectID(), "p-one");
    EXPECT_EQ(prefs->data(ProjectCatalog::legacyWorkspaceKey)->bytes, legacy.toStdString());

    // A folder that is gone migrates to nothing, and the empty result is kept.
    hl::test::TempDir other;
    auto fresh = hl::Preferences::open(other / "p.sqlite3");
    const QByteArray onlyGone = QJsonDocument(QJsonObject{{"tabs", QJsonArray{tabs[2]}}}).toJson();
    fresh->set(ProjectCatalog::legacyWorkspaceKey, hl::PreferenceData{onlyGone.toStdString()});
    EXPECT_TRUE(ProjectCatalog(fresh).projects().empty());
    EXPECT_EQ(fresh->data(ProjectCatalog::storageKey)->bytes, "[]");

    EXPECT_TRUE(ProjectCatalog::migrateProjects(QByteArray("{\"tabs\":[{\"title\":1}]}")).empty());
}

}  // namespace
