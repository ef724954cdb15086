// Encoding and decoding of the shared snapshot's JSON document.
#include "SharedSnapshotCodec.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>

#include <cmath>
#include <limits>

namespace hl {

namespace {

[[noreturn]] void codecFailure(const QString& what) {
    throw SharedSnapshotCodecError(what.toStdString());
}

// ---- encoding

QJsonValue textValue(const QString& text) {
    if (!text.isValidUtf16()) codecFailure(QStringLiteral("text is not valid Unicode"));
    return text;
}

QJsonObject originJson(const ProjectOrigin& origin) {
    return {{"deviceID", sharedUuidText(origin.deviceID)},
            {"deviceName", textValue(origin.deviceName)},
            {"sshHost", textValue(origin.sshHost)},
            {"sshUser", textValue(origin.sshUser)},
            {"root", textValue(origin.root)}};
}

QJsonObject tabJson(const SharedTab& tab) {
    QJsonArray panes;
    for (const SharedPane& pane : tab.panes) {
        panes.append(QJsonObject{{"id", sharedUuidText(pane.id)},
                                 {"relativeCWD", textValue(pane.relativeCWD)}});
    }
    QJsonObject json{{"id", sharedUuidText(tab.id)},
                     {"title", textValue(tab.title)},
                     {"panes", panes},
                     {"layout", tab.layout}};
    if (tab.selectedPaneID) json.insert("selectedPaneID", sharedUuidText(*tab.selectedPaneID));
    return json;
}

QJsonObject contentJson(const SharedContent& content) {
    QJsonArray projects;
    for (const SharedProject& project : content.projects) {
        QJsonObject json{{"id", textValue(project.id)}, {"name", textValue(project.name)}};
        if (project.origin) json.insert("origin", originJson(*project.origin));
        projects.append(json);
    }
    QJsonArray workspaces;
    for (const SharedWorkspace& workspace : content.workspaces) {
        QJsonArray tabs;
        for (const SharedTab& tab : workspace.tabs)
            tabs.append(tabJson(tab));
        QJsonObject json{{"projectID", textValue(workspace.projectID)}, {"tabs", tabs}};
        if (workspace.selectedTabID) {
            json.insert("selectedTabID", sharedUuidText(*workspace.selectedTabID));
        }
        workspaces.append(json);
    }
    return {{"projects", projects}, {"workspaces", workspaces}};
}

// ---- decoding

bool isAbsent(const QJsonValue& value) {
    return value.isUndefined() || value.isNull();
}

QJsonValue required(const QJsonObject& object, const char* key) {
    const QJsonValue value = object.value(QLatin1String(key));
    if (isAbsent(value)) codecFailure(QStringLiteral("missing \"%1\"").arg(key));
    return value;
}

QString requiredText(const QJsonObject& object, const char* key) {
    const QJsonValue value = required(object, key);
    if (!value.isString()) codecFailure(QStringLiteral("\"%1\" is not text").arg(key));
    const QString text = value.toString();
    if (!text.isValidUtf16()) codecFailure(QStringLiteral("\"%1\" is not valid Unicode").arg(key));
    return text;
}

QUuid uuidValue(const QJsonValue& value, const char* key) {
    static const QRegularExpression canonical(QStringLiteral(
        "^[0-9A-Fa-f]{8}-[0-9A-Fa-f]{4}-[0-9A-Fa-f]{4}-[0-9A-Fa-f]{4}-[0-9A-Fa-f]{12}$"));
    if (!value.isString() || !canonical.match(value.toString()).hasMatch()) {
        codecFailure(QStringLiteral("\"%1\" is not UUID text").arg(key));
    }
    return QUuid::fromString(value.toString());
}

QUuid requiredUuid(const QJsonObject& object, const char* key) {
    return uuidValue(required(object, key), key);
}

std::optional<QUuid> optionalUuid(const QJsonObject& object, const char* key) {
    const QJsonValue value = object.value(QLatin1String(key));
    if (isAbsent(value)) return std::nullopt;
    return uuidValue(value, key);
}

QJsonArray requiredArray(const QJsonObject& object, const char* key) {
    const QJsonValue value = required(object, key);
    if (!value.isArray()) codecFailure(QStringLiteral("\"%1\" is not an array").arg(key));
    return value.toArray();
}

QJsonObject objectValue(const QJsonValue& value, const char* what) {
    if (!value.isObject()) codecFailure(QStringLiteral("%1 is not an object").arg(what));
    return value.toObject();
}

// A layout node rewritten as PaneLayout writes it: known keys only, ratio
// clamped into 0.1–0.9, 0.5 when absent or not finite.
QJsonObject normalizedLayout(const QJsonValue& node) {
    const QJsonObject object = objectValue(node, "layout");
    if (object.contains(QStringLiteral("pane"))) {
        const QJsonObject leaf = objectValue(object.value(QStringLiteral("pane")), "pane leaf");
        return {{"pane", QJsonObject{{"_0", sharedUuidText(requiredUuid(leaf, "_0"))}}}};
    }
    const QJsonObject fields = objectValue(object.value(QStringLiteral("split")), "split");
    const QUuid id = requiredUuid(fields, "id");
    const QString axis = requiredText(fields, "axis");
    if (axis != QStringLiteral("horizontal") && axis != QStringLiteral("vertical")) {
        codecFailure(QStringLiteral("split axis is not horizontal or vertical"));
    }
    double ratio = 0.5;
    const QJsonValue ratioValue = fields.value(QStringLiteral("ratio"));
    if (!isAbsent(ratioValue)) {
        if (!ratioValue.isDouble()) codecFailure(QStringLiteral("split ratio is not a number"));
        ratio = ratioValue.toDouble();
    }
    ratio = std::isfinite(ratio) ? std::clamp(ratio, 0.1, 0.9) : 0.5;
    return {{"split",
             QJsonObject{{"id", sharedUuidText(id)},
                         {"axis", axis},
                         {"ratio", ratio},
                         {"first", normalizedLayout(fields.value(QStringLiteral("first")))},
                         {"second", normalizedLayout(fields.value(QStringLiteral("second")))}}}};
}

ProjectOrigin decodeOrigin(const QJsonObject& json) {
    return {requiredUuid(json, "deviceID"), requiredText(json, "deviceName"),
            requiredText(json, "sshHost"), requiredText(json, "sshUser"),
            requiredText(json, "root")};
}

SharedTab decodeTab(const QJsonObject& json) {
    SharedTab tab;
    tab.id = requiredUuid(json, "id");
    tab.title = requiredText(json, "title");
    for (const QJsonValue& value : requiredArray(json, "panes")) {
        const QJsonObject pane = objectValue(value, "pane");
        tab.panes.append({requiredUuid(pane, "id"), requiredText(pane, "relativeCWD")});
    }
    tab.layout = normalizedLayout(required(json, "layout"));
    tab.selectedPaneID = optionalUuid(json, "selectedPaneID");
    return tab;
}

SharedContent decodeContent(const QJsonObject& json) {
    SharedContent content;
    for (const QJsonValue& value : requiredArray(json, "projects")) {
        const QJsonObject project = objectValue(value, "project");
        SharedProject decoded{requiredText(project, "id"), requiredText(project, "name"), {}};
        const QJsonValue origin = project.value(QStringLiteral("origin"));
        if (!isAbsent(origin)) decoded.origin = decodeOrigin(objectValue(origin, "origin"));
        content.projects.append(decoded);
    }
    for (const QJsonValue& value : requiredArray(json, "workspaces")) {
        const QJsonObject workspace = objectValue(value, "workspace");
        SharedWorkspace decoded{requiredText(workspace, "projectID"), {}, {}};
        for (const QJsonValue& tab : requiredArray(workspace, "tabs")) {
            decoded.tabs.append(decodeTab(objectValue(tab, "tab")));
        }
        decoded.selectedTabID = optionalUuid(workspace, "selectedTabID");
        content.workspaces.append(decoded);
    }
    return content;
}

}  // namespace

QString SharedSnapshotCodecError::errorDescription() const {
    return QStringLiteral("The data couldn’t be read because it isn’t in the correct format.");
}

QByteArray SharedSnapshotCodec::encode(const SharedSnapshot& snapshot) {
    const double milliseconds = snapshot.modifiedAt().time_since_epoch().count();
    if (!std::isfinite(milliseconds)) codecFailure(QStringLiteral("modifiedAt is not finite"));
    const QJsonObject json{{"schemaVersion", snapshot.schemaVersion()},
                           {"revision", sharedUuidText(snapshot.revision())},
                           {"modifiedAt", milliseconds},
                           {"deviceID", sharedUuidText(snapshot.deviceID())},
                           {"content", contentJson(snapshot.content())}};
    return QJsonDocument(json).toJson(QJsonDocument::Compact);
}

SharedSnapshot SharedSnapshotCodec::decode(const QByteArray& bytes) {
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(bytes, &error);
    if (error.error != QJsonParseError::NoError) codecFailure(error.errorString());
    if (!document.isObject()) codecFailure(QStringLiteral("snapshot is not an object"));
    const QJsonObject json = document.object();

    const QJsonValue schema = required(json, "schemaVersion");
    const double schemaNumber = schema.toDouble();
    if (!schema.isDouble() || schemaNumber != std::trunc(schemaNumber) ||
        std::abs(schemaNumber) > double(std::numeric_limits<int>::max())) {
        codecFailure(QStringLiteral("\"schemaVersion\" is not an integer"));
    }
    const QJsonValue modifiedAt = required(json, "modifiedAt");
    if (!modifiedAt.isDouble() || !std::isfinite(modifiedAt.toDouble())) {
        codecFailure(QStringLiteral("\"modifiedAt\" is not a number"));
    }
    SharedSnapshot snapshot;
    snapshot.schemaVersion_ = static_cast<int>(schemaNumber);
    snapshot.revision_ = requiredUuid(json, "revision");
    snapshot.modifiedAt_ =
        SharedDate(std::chrono::duration<double, std::milli>(modifiedAt.toDouble()));
    snapshot.deviceID_ = requiredUuid(json, "deviceID");
    snapshot.content_ = decodeContent(objectValue(required(json, "content"), "content"));
    return snapshot.validated();
}

}  // namespace hl
