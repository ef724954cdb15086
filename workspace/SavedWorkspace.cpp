// JSON forms of the saved workspace, the legacy workspace and suspended panes.
// Required keys must be present with their type; optional keys may be absent
// or null; unknown keys are ignored.
#include "SavedWorkspace.h"

#include <chrono>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace hl {

namespace {

using Error = LayoutDecodingError;

QJsonObject requireObject(const QJsonValue& value, const char* what) {
    if (!value.isObject()) throw Error(std::string(what) + " is not an object");
    return value.toObject();
}

QJsonArray requireArray(const QJsonValue& value, const char* what) {
    if (!value.isArray()) throw Error(std::string(what) + " is not a list");
    return value.toArray();
}

QString requireText(const QJsonValue& value, const char* what) {
    if (!value.isString()) throw Error(std::string(what) + " is not text");
    return value.toString();
}

QUuid requireUuid(const QJsonValue& value, const char* what) {
    auto id = uuidFromText(requireText(value, what));
    if (!id) throw Error(std::string(what) + " is not a UUID");
    return *id;
}

bool isAbsent(const QJsonValue& value) {
    return value.isUndefined() || value.isNull();
}

std::optional<QString> optionalText(const QJsonValue& value, const char* what) {
    if (isAbsent(value)) return std::nullopt;
    return requireText(value, what);
}

std::optional<QUuid> optionalUuid(const QJsonValue& value, const char* what) {
    if (isAbsent(value)) return std::nullopt;
    return requireUuid(value, what);
}

std::map<QString, QUuid> decodeSelection(const QJsonValue& value) {
    std::map<QString, QUuid> selection;
    const QJsonObject object = requireObject(value, "selected tabs");
    for (auto it = object.begin(); it != object.end(); ++it) {
        selection.emplace(it.key(), requireUuid(it.value(), "selected tab"));
    }
    return selection;
}

SavedTab decodeTab(const QJsonValue& value, bool legacy) {
    const QJsonObject object = requireObject(value, "tab");
    SavedTab tab;
    tab.id = requireUuid(object.value("id"), "tab id");
    tab.title = requireText(object.value("title"), "tab title");
    tab.projectID = optionalText(object.value("projectID"), "tab projectID");
    for (const QJsonValue& paneValue : requireArray(object.value("panes"), "tab panes")) {
        const QJsonObject paneObject = requireObject(paneValue, "pane");
        SavedPane pane;
        pane.id = requireUuid(paneObject.value("id"), "pane id");
        pane.sessionID = optionalText(paneObject.value("sessionID"), "pane sessionID");
        pane.context = PaneContext::fromJson(paneObject.value("context"));
        if (!legacy) {
            const QJsonValue flag = paneObject.value("isReplacement");
            if (!isAbsent(flag) && !flag.isBool()) throw Error("isReplacement is not a boolean");
            pane.isReplacement = flag.toBool(false);
            const QJsonValue previous = paneObject.value("previousShells");
            if (!isAbsent(previous)) {
                for (const QJsonValue& shell : requireArray(previous, "pane previousShells")) {
                    const QJsonObject shellObject = requireObject(shell, "previous shell");
                    const QDateTime since = QDateTime::fromString(
                        requireText(shellObject.value("since"), "previous shell since"),
                        Qt::ISODateWithMs);
                    if (!since.isValid()) throw Error("previous shell since is not a time");
                    pane.previousShells.push_back(
                        {requireText(shellObject.value("sessionID"), "previous shell sessionID"),
                         since.toUTC()});
                }
            }
        }
        tab.panes.push_back(std::move(pane));
    }
    if (!object.contains("layout")) throw Error("tab layout is missing");
    tab.layout = PaneLayout::fromJson(object.value("layout"));
    tab.selectedPaneID = optionalUuid(object.value("selectedPaneID"), "selectedPaneID");
    return tab;
}

SavedWorkspace decodeWorkspace(const QByteArray& bytes, bool legacy) {
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(bytes, &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        throw Error("not JSON: " + parseError.errorString().toStdString());
    }
    if (!document.isObject()) throw Error("workspace is not an object");
    const QJsonObject object = document.object();
    SavedWorkspace workspace;
    workspace.activeWorkspaceID =
        optionalText(object.value("activeWorkspaceID"), "activeWorkspaceID");
    workspace.selectedTabID = optionalUuid(object.value("selectedTabID"), "selectedTabID");
    if (legacy) {
        const QJsonValue selection = object.value("selectedTabIDsByWorkspace");
        if (!isAbsent(selection)) workspace.selectedTabs = decodeSelection(selection);
    } else {
        workspace.selectedTabs = decodeSelection(object.value("selectedTabs"));
    }
    for (const QJsonValue& tab : requireArray(object.value("tabs"), "tabs")) {
        workspace.tabs.push_back(decodeTab(tab, legacy));
    }
    return workspace;
}

}  // namespace

QByteArray SavedWorkspace::encoded() const {
    QJsonObject object;
    if (activeWorkspaceID) object.insert("activeWorkspaceID", *activeWorkspaceID);
    if (selectedTabID) object.insert("selectedTabID", uuidText(*selectedTabID));
    QJsonObject selection;
    for (const auto& [workspace, tab] : selectedTabs)
        selection.insert(workspace, uuidText(tab));
    object.insert("selectedTabs", selection);
    QJsonArray tabList;
    for (const SavedTab& tab : tabs) {
        QJsonObject tabObject{{"id", uuidText(tab.id)}, {"title", tab.title}};
        if (tab.projectID) tabObject.insert("projectID", *tab.projectID);
        QJsonArray paneList;
        for (const SavedPane& pane : tab.panes) {
            QJsonObject paneObject{{"id", uuidText(pane.id)},
                                   {"context", pane.context.toJson()},
                                   {"isReplacement", pane.isReplacement}};
            if (pane.sessionID) paneObject.insert("sessionID", *pane.sessionID);
            if (!pane.previousShells.empty()) {
                QJsonArray previous;
                for (const SavedPreviousShell& shell : pane.previousShells) {
                    previous.append(
                        QJsonObject{{"sessionID", shell.sessionID},
                                    {"since", shell.since.toUTC().toString(Qt::ISODateWithMs)}});
                }
                paneObject.insert("previousShells", previous);
            }
            paneList.append(paneObject);
        }
        tabObject.insert("panes", paneList);
        tabObject.insert("layout", tab.layout.toJson());
        if (tab.selectedPaneID) tabObject.insert("selectedPaneID", uuidText(*tab.selectedPaneID));
        tabList.append(tabObject);
    }
    object.insert("tabs", tabList);
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

SavedWorkspace SavedWorkspace::decode(const QByteArray& bytes) {
    return decodeWorkspace(bytes, false);
}

SavedWorkspace SavedWorkspace::decodeLegacy(const QByteArray& bytes) {
    return decodeWorkspace(bytes, true);
}

double suspendedPaneClock() {
    return static_cast<double>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                   std::chrono::system_clock::now().time_since_epoch())
                                   .count());
}

QByteArray encodeSuspendedPanes(const std::vector<SuspendedPane>& panes) {
    QJsonArray list;
    for (const auto& pane : panes) {
        list.append(QJsonObject{{"id", uuidText(pane.id)},
                                {"projectID", pane.projectID},
                                {"cwd", pane.cwd},
                                {"sessionID", pane.sessionID},
                                {"isReplacement", pane.isReplacement},
                                {"suspendedAt", pane.suspendedAt}});
    }
    return QJsonDocument(list).toJson(QJsonDocument::Compact);
}

std::vector<SuspendedPane> decodeSuspendedPanes(const QByteArray& bytes) {
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(bytes, &parseError);
    if (parseError.error != QJsonParseError::NoError || !document.isArray()) {
        throw Error("suspended panes are not a JSON list");
    }
    std::vector<SuspendedPane> panes;
    for (const QJsonValue& value : document.array()) {
        const QJsonObject object = requireObject(value, "suspended pane");
        const QJsonValue flag = object.value("isReplacement");
        if (!flag.isBool()) throw Error("isReplacement is not a boolean");
        const QJsonValue since = object.value("suspendedAt");
        if (!since.isUndefined() && !since.isNull() && !since.isDouble())
            throw Error("suspendedAt is not a number");
        panes.push_back(SuspendedPane{requireUuid(object.value("id"), "id"),
                                      requireText(object.value("projectID"), "projectID"),
                                      requireText(object.value("cwd"), "cwd"),
                                      requireText(object.value("sessionID"), "sessionID"),
                                      flag.toBool(),
                                      since.isDouble() ? since.toDouble() : suspendedPaneClock()});
    }
    return panes;
}

}  // namespace hl
