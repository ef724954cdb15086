#include "SharedSnapshotTestSupport.h"

namespace hl::test {

QJsonObject leafLayout(const QUuid& pane) {
    return {{"pane", QJsonObject{{"_0", sharedUuidText(pane)}}}};
}

QJsonObject splitLayout(const QJsonObject& first, const QJsonObject& second) {
    return {{"split", QJsonObject{{"id", sharedUuidText(QUuid::createUuid())},
                                  {"axis", "horizontal"},
                                  {"ratio", 0.5},
                                  {"first", first},
                                  {"second", second}}}};
}

SharedTab tabWithPanes(const QList<QUuid>& panes, const QString& title) {
    SharedTab tab{QUuid::createUuid(), title, {}, leafLayout(panes.value(0)), std::nullopt};
    for (qsizetype i = 0; i < panes.size(); ++i) {
        tab.panes.append({panes[i], i == 0 ? QString() : QStringLiteral("src/app")});
        if (i > 0) tab.layout = splitLayout(tab.layout, leafLayout(panes[i]));
    }
    return tab;
}

ProjectOrigin sampleOrigin(const QString& root) {
    return {QUuid::createUuid(), "Studio", "studio.local", "ada", root};
}

SharedContent sampleContent() {
    SharedContent content;
    content.projects.append({"beta", "Beta", std::nullopt});
    content.projects.append({"alpha", "Alpha", sampleOrigin()});
    SharedWorkspace workspace{"alpha", {}, std::nullopt};
    workspace.tabs.append(tabWithPanes({QUuid::createUuid()}));
    workspace.tabs.append(tabWithPanes({QUuid::createUuid(), QUuid::createUuid()}, "build"));
    workspace.selectedTabID = workspace.tabs[1].id;
    workspace.tabs[1].selectedPaneID = workspace.tabs[1].panes[1].id;
    content.workspaces.append(workspace);
    return content;
}

SharedSnapshot snapshotAt(double milliseconds, const SharedContent& content,
                          const QUuid& revision) {
    return SharedSnapshot(QUuid::createUuid(), content, revision,
                          SharedDate(std::chrono::duration<double, std::milli>(milliseconds)));
}

}  // namespace hl::test
