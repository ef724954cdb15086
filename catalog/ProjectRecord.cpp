// ProjectRecord: creation from user input, the two judgements, the JSON form.
#include "ProjectRecord.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonValue>
#include <QUuid>

#include "PathRules.h"

namespace hl {

ProjectCatalogError::ProjectCatalogError(Kind kind)
    : kind_(kind), text_(errorDescription().toStdString()) {}

QString ProjectCatalogError::errorDescription() const {
    switch (kind_) {
        case Kind::RelativeRoot:
            return "Project roots must be absolute paths.";
        case Kind::UnavailableRoot:
            return "That project folder is unavailable.";
        case Kind::DuplicateRoot:
            return "That project is already in Harborlattice.";
        case Kind::DuplicateID:
            return "That project identity is already in Harborlattice.";
        case Kind::InvalidID:
            return "Project identity must be nonempty and contain no outer whitespace.";
        case Kind::InvalidName:
            return "Project names must not be empty.";
        case Kind::UnknownProject:
            return "That project is no longer in Harborlattice.";
        case Kind::CorruptCatalog:
            return "The saved project catalog is unreadable. Its original data was preserved.";
    }
    return {};
}

bool projectIDIsValid(const QString& id) {
    return !id.isEmpty() && id.trimmed() == id;
}

QString standardizedDirectoryPath(const QString& path) {
    QString absolute = path;
    if (!path.startsWith('/')) absolute = QDir::currentPath() + "/" + path;
    return QString::fromStdString(standardizedPath(absolute.toStdString()));
}

QString newProjectID() {
    return QUuid::createUuid().toString(QUuid::WithoutBraces).toLower();
}

namespace {

bool isDirectory(const QString& path) {
    const QFileInfo info(path);
    return info.exists() && info.isDir();
}

QString canonicalRoot(const QString& path) {
    return QString::fromStdString(
        resolvingSymlinksInPath(standardizedDirectoryPath(path).toStdString()));
}

}  // namespace

std::optional<QString> ProjectRecord::acceptedRoot(const QString& name, const QString& rawRoot,
                                                   const QString& id) {
    try {
        return create(name, rawRoot, id).root;
    } catch (const ProjectCatalogError&) {
        return std::nullopt;
    }
}

ProjectRecord ProjectRecord::create(const QString& name, const QString& rawRoot,
                                    const std::optional<QString>& id) {
    const QString identity = id.value_or(newProjectID());
    if (!projectIDIsValid(identity))
        throw ProjectCatalogError(ProjectCatalogError::Kind::InvalidID);
    if (!isAbsolutePath(rawRoot.toStdString())) {
        throw ProjectCatalogError(ProjectCatalogError::Kind::RelativeRoot);
    }
    const QString root = canonicalRoot(rawRoot);
    if (!isDirectory(root)) throw ProjectCatalogError(ProjectCatalogError::Kind::UnavailableRoot);
    QString displayName = name.trimmed();
    if (displayName.isEmpty()) displayName = root.section('/', -1);
    if (displayName.isEmpty()) displayName = "Root";
    return ProjectRecord{identity, displayName, root};
}

bool ProjectRecord::storedShapeIsValid() const {
    return projectIDIsValid(id) && !name.trimmed().isEmpty() &&
           isAbsolutePath(root.toStdString()) && standardizedDirectoryPath(root) == root;
}

bool ProjectRecord::rootIsAvailable() const {
    return isDirectory(root) && canonicalRoot(root) == root;
}

QJsonObject ProjectRecord::toJson() const {
    return {{"id", id}, {"name", name}, {"root", root}};
}

std::optional<ProjectRecord> ProjectRecord::fromJson(const QJsonValue& json) {
    const QJsonObject object = json.toObject();
    const QJsonValue id = object.value("id"), name = object.value("name"),
                     root = object.value("root");
    if (!json.isObject() || !id.isString() || !name.isString() || !root.isString())
        return std::nullopt;
    return ProjectRecord{id.toString(), name.toString(), root.toString()};
}

}  // namespace hl
