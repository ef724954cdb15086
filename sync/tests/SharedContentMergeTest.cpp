// The three-way merge of shared content: one table of two computers' changes
// since a common base, with what survives and what each side loses.
#include <gtest/gtest.h>

#include "SharedContentMerge.h"
#include "SharedSnapshotTestSupport.h"

using namespace hl;
using hl::test::leafLayout;
using hl::test::sampleContent;
using hl::test::splitLayout;
using hl::test::tabWithPanes;

namespace {

using Edit = std::function<void(SharedContent&)>;

SharedWorkspace& alphaSpace(SharedContent& content) {
    for (auto& workspace : content.workspaces) {
        if (workspace.projectID == "alpha") return workspace;
    }
    throw std::logic_error("no alpha workspace");
}

SharedProject& project(SharedContent& content, const QString& id) {
    for (auto& p : content.projects) {
        if (p.id == id) return p;
    }
    throw std::logic_error("no such project");
}

// The tab of alpha with the given id.
SharedTab& tabOf(SharedContent& content, const QUuid& id) {
    for (auto& tab : alphaSpace(content).tabs) {
        if (tab.id == id) return tab;
    }
    throw std::logic_error("no such tab");
}

// The base of every row: "alpha" with tabs "shell" and "build", and "beta".
const SharedContent& base() {
    static const SharedContent content = sampleContent().canonicalized();
    return content;
}

QUuid baseTab(int index) {
    return alphaSpace(const_cast<SharedContent&>(base())).tabs[index].id;
}

// Splits the tab's last pane in two, as "Split Right" or "Split Down" does.
// The new ids are made once, so that the edit gives the same content each time.
Edit split(int tab, const QString& axis) {
    const QUuid added = QUuid::createUuid(), splitID = QUuid::createUuid(), id = baseTab(tab);
    return [=](SharedContent& content) {
        SharedTab& t = tabOf(content, id);
        t.panes.append({added, QString()});
        t.layout = {{"split", QJsonObject{{"id", sharedUuidText(splitID)},
                                          {"axis", axis},
                                          {"ratio", 0.5},
                                          {"first", t.layout},
                                          {"second", leafLayout(added)}}}};
        t.selectedPaneID = added;
    };
}

Edit retitle(int tab, const QString& title) {
    const QUuid id = baseTab(tab);
    return [id, title](SharedContent& content) { tabOf(content, id).title = title; };
}

Edit rename(const QString& id, const QString& name) {
    return [id, name](SharedContent& content) { project(content, id).name = name; };
}

Edit addProject(const QString& id) {
    const SharedTab tab = tabWithPanes({QUuid::createUuid()}, id);
    return [id, tab](SharedContent& content) {
        content.projects.append({id, id.toUpper(), std::nullopt});
        content.workspaces.append({id, {tab}, std::nullopt});
    };
}

Edit removeAlpha() {
    return [](SharedContent& content) {
        content.projects.removeIf([](const SharedProject& p) { return p.id == "alpha"; });
        content.workspaces.removeIf(
            [](const SharedWorkspace& w) { return w.projectID == "alpha"; });
    };
}

Edit closeTab(int tab) {
    const QUuid id = baseTab(tab);
    return [id](SharedContent& content) {
        SharedWorkspace& workspace = alphaSpace(content);
        workspace.tabs.removeIf([&](const SharedTab& t) { return t.id == id; });
        workspace.selectedTabID = workspace.tabs[0].id;
    };
}

Edit newTab(const QString& title) {
    const SharedTab tab = tabWithPanes({QUuid::createUuid()}, title);
    return [tab](SharedContent& content) { alphaSpace(content).tabs.append(tab); };
}

enum class Outcome { Both, LocalOnly, RemoteOnly };

struct Row {
    const char* name;
    Edit local;
    Edit remote;
    bool localIsLater;
    Outcome outcome;
    // What the loser keeps: project ids, and indices of alpha's tabs in the base.
    QStringList lostProjects;
    QList<int> lostTabs;
};

TEST(SharedContentMergeTest, DifferentObjectsBothSurviveAndTheSameObjectKeepsTheLoser) {
    const std::vector<Row> table = {
        {"projects added on each side", addProject("gamma"), addProject("delta"), false,
         Outcome::Both},
        {"a rename and a split of the same project", rename("alpha", "Renamed"),
         split(0, "vertical"), false, Outcome::Both},
        {"splits of two tabs", split(0, "horizontal"), split(1, "vertical"), true, Outcome::Both},
        {"a title and a split of the same tab", retitle(1, "logs"), split(1, "vertical"), false,
         Outcome::Both},
        {"a new tab on each side", newTab("left"), newTab("right"), true, Outcome::Both},
        {"a tab closed on one side, another retitled on the other", closeTab(0), retitle(1, "x"),
         false, Outcome::Both},
        {"the same change on both sides", rename("beta", "Same"), rename("beta", "Same"), true,
         Outcome::Both},
        {"a removal of an untouched project", addProject("gamma"), removeAlpha(), false,
         Outcome::Both},
        {"split right and split down of one tab, the later remote",
         split(1, "horizontal"),
         split(1, "vertical"),
         false,
         Outcome::RemoteOnly,
         {},
         {1}},
        {"split right and split down of one tab, the later local",
         split(1, "horizontal"),
         split(1, "vertical"),
         true,
         Outcome::LocalOnly,
         {},
         {1}},
        {"two renames of one project",
         rename("beta", "Mine"),
         rename("beta", "Theirs"),
         false,
         Outcome::RemoteOnly,
         {"beta"}},
        {"a removal that wins over a split",
         split(0, "vertical"),
         removeAlpha(),
         false,
         Outcome::RemoteOnly,
         {"alpha"},
         {0, 1}},
        {"a split that wins over a removal", split(0, "vertical"), removeAlpha(), true,
         Outcome::LocalOnly},
        {"a closed tab that wins over its retitle",
         retitle(0, "kept?"),
         closeTab(0),
         false,
         Outcome::RemoteOnly,
         {},
         {0}},
    };
    for (const Row& row : table) {
        SCOPED_TRACE(row.name);
        SharedContent local = base(), remote = base(), expected = base();
        row.local(local);
        row.remote(remote);
        switch (row.outcome) {
            case Outcome::Both:
                row.local(expected);
                row.remote(expected);
                break;
            case Outcome::LocalOnly:
                expected = local;
                break;
            case Outcome::RemoteOnly:
                expected = remote;
                break;
        }
        const SharedMerge merge = mergeSharedContent(base(), local.canonicalized(),
                                                     remote.canonicalized(), row.localIsLater);
        EXPECT_NO_THROW(merge.merged.validated());
        EXPECT_EQ(merge.merged, expected.canonicalized());
        const SharedLosses& lost = row.localIsLater ? merge.remoteLosses : merge.localLosses;
        const SharedLosses& kept = row.localIsLater ? merge.localLosses : merge.remoteLosses;
        const SharedContent& loser = row.localIsLater ? remote : local;
        EXPECT_TRUE(kept.isEmpty());
        EXPECT_EQ(lost.projectIDs, row.lostProjects);
        QList<QUuid> lostTabs;
        for (int index : row.lostTabs)
            lostTabs.append(baseTab(index));
        EXPECT_EQ(lost.tabIDs, lostTabs);
        if (lost.isEmpty()) continue;
        // The copy holds the objects as the loser had them, and restores them.
        EXPECT_NO_THROW(lost.content.validated());
        const SharedContent restored = restoreSharedObjects(merge.merged, lost);
        for (const auto& id : lost.projectIDs) {
            EXPECT_EQ(project(const_cast<SharedContent&>(restored), id),
                      project(const_cast<SharedContent&>(loser), id));
        }
        for (const auto& id : lostTabs) {
            const auto find = [&](const SharedContent& content) {
                for (const auto& w : content.workspaces)
                    for (const auto& t : w.tabs)
                        if (t.id == id) return std::optional(t);
                return std::optional<SharedTab>();
            };
            EXPECT_EQ(find(restored), find(loser));
        }
    }
}

TEST(SharedContentMergeTest, TheMergedTabOrderKeepsEachSidesPlaces) {
    SharedContent local = base(), remote = base();
    newTab("mine")(local);
    std::swap(alphaSpace(remote).tabs[0], alphaSpace(remote).tabs[1]);  // reordered there
    newTab("theirs")(remote);
    const SharedMerge merge = mergeSharedContent(base(), local, remote, true);
    QStringList titles;
    for (const auto& tab : alphaSpace(const_cast<SharedContent&>(merge.merged)).tabs)
        titles.append(tab.title);
    EXPECT_EQ(titles, QStringList({"build", "shell", "theirs", "mine"}));
}

TEST(SharedContentMergeTest, RestoringALostTabNeverTakesAwayAnotherComputersProjects) {
    SharedContent lostSide = sampleContent().canonicalized();
    SharedLosses losses{lostSide, {}, {alphaSpace(lostSide).tabs[1].id}};
    SharedContent now = lostSide;
    closeTab(1)(now);
    addProject("gamma")(now);
    rename("beta", "Renamed since")(now);
    const SharedContent restored = restoreSharedObjects(now.canonicalized(), losses);
    EXPECT_NO_THROW(restored.validated());
    EXPECT_EQ(restored.projects.size(), 3);
    EXPECT_EQ(project(const_cast<SharedContent&>(restored), "beta").name, "Renamed since");
    EXPECT_EQ(alphaSpace(const_cast<SharedContent&>(restored)).tabs, alphaSpace(lostSide).tabs);
}

}  // namespace
