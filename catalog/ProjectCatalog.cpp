// ProjectCatalog: load, validate, migrate, and the operations of the sidebar.
#include "ProjectCatalog.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <map>
#include <set>

namespace hl {

namespace {

using Kind = ProjectCatalogError::Kind;

// The stored list, or absent when the bytes are not a list of records.
std::optional<std::vector<ProjectRecord>> decodeRecords(const QByteArray& bytes) {
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(bytes, &error);
    if (error.error != QJsonParseError::NoError || !document.isArray()) return std::nullopt;
    std::vector<ProjectRecord> records;
    for (const QJsonValue& value : document.array()) {
        auto record = ProjectRecord::fromJson(value);
        if (!record) return std::nullopt;
        records.push_back(*record);
    }
    return records;
}

// The record with `id` in `records`, or end.
template <typename Records>
auto findProject(Records& records, const QString& id) {
    return std::find_if(records.begin(), records.end(),
                        [&](const ProjectRecord& r) { return r.id == id; });
}

}  // namespace

ProjectCatalog::ProjectCatalog(std::shared_ptr<Preferences> defaults, QObject* parent)
    : QObject(parent), defaults_(std::move(defaults)) {
    const PreferenceRead stored = defaults_->readData(storageKey);
    if (stored.isAbsent()) {
        // Nothing stored yet, for certain: the one case that may start fresh.
        const PreferenceRead legacyRead = defaults_->readData(legacyWorkspaceKey);
        if (legacyRead.isDamaged()) {
            // Projects may be waiting in the old format: start nothing over them.
            markUnreadable(legacyRead, legacyWorkspaceKey);
        } else {
            std::optional<QByteArray> legacy;
            if (legacyRead.isPresent())
                legacy =
                    QByteArray::fromStdString(std::get<PreferenceData>(*legacyRead.value).bytes);
            projects_ = migrateProjects(legacy);
            persist();
        }
    } else if (stored.isDamaged()) {
        markUnreadable(stored, storageKey);
    } else {
        auto records =
            decodeRecords(QByteArray::fromStdString(std::get<PreferenceData>(*stored.value).bytes));
        try {
            if (!records) throw ProjectCatalogError(Kind::CorruptCatalog);
            validate(*records);
            projects_ = std::move(*records);
        } catch (const ProjectCatalogError&) {
            isReadable_ = false;
            damagedKey_ = storageKey;
            errorMessage_ = ProjectCatalogError(Kind::CorruptCatalog).errorDescription();
        }
    }
    if (!projects_.empty()) selectedProjectID_ = projects_.front().id;
}

void ProjectCatalog::markUnreadable(const PreferenceRead& read, const char* key) {
    isReadable_ = false;
    loadFailed_ = read.state == PreferenceReadState::failed;
    if (!loadFailed_) damagedKey_ = key;
    errorMessage_ = ProjectCatalogError(Kind::CorruptCatalog).errorDescription();
}

void ProjectCatalog::validate(const std::vector<ProjectRecord>& records) {
    for (const auto& record : records) {
        if (!record.storedShapeIsValid()) throw ProjectCatalogError(Kind::CorruptCatalog);
    }
    std::set<QString> ids, roots;
    for (const auto& record : records) {
        if (!ids.insert(record.id).second) throw ProjectCatalogError(Kind::DuplicateID);
    }
    for (const auto& record : records) {
        if (!roots.insert(record.root).second) throw ProjectCatalogError(Kind::DuplicateRoot);
    }
}

bool ProjectCatalog::persist() {
    if (!isReadable_) return false;
    QJsonArray list;
    for (const auto& record : projects_)
        list.append(record.toJson());
    const QByteArray bytes = QJsonDocument(list).toJson(QJsonDocument::Compact);
    if (!defaults_->set(storageKey, PreferenceData{bytes.toStdString()})) {
        const std::string cause = defaults_->lastWriteFailure();
        setErrorMessage(
            QStringLiteral("The project list could not be saved to %1%2. Nothing was "
                           "changed.")
                .arg(QString::fromStdString(defaults_->location().string()),
                     cause.empty() ? QString() : " (" + QString::fromStdString(cause) + ")"));
        return false;
    }
    if (onChange) onChange();
    return true;
}

std::vector<ProjectRecord> ProjectCatalog::migrateProjects(
    const std::optional<QByteArray>& legacy) {
    if (!legacy) return {};
    const QJsonDocument document = QJsonDocument::fromJson(*legacy);
    const QJsonValue tabsValue = document.object().value("tabs");
    if (!document.isObject() || !tabsValue.isArray()) return {};

    // Lenient reading: required members must have their type, the rest is ignored.
    struct LegacyTab {
        QString title;
        std::optional<QString> projectID;
        std::vector<std::pair<std::optional<QString>, QString>> panes;  // context projectID, cwd
    };
    std::vector<LegacyTab> tabs;
    for (const QJsonValue& tabValue : tabsValue.toArray()) {
        const QJsonObject tab = tabValue.toObject();
        if (!tabValue.isObject() || !tab.value("title").isString() ||
            !tab.value("panes").isArray()) {
            return {};
        }
        LegacyTab legacyTab{tab.value("title").toString(), std::nullopt, {}};
        const QJsonValue project = tab.value("projectID");
        if (project.isString()) {
            legacyTab.projectID = project.toString();
        } else if (!project.isUndefined() && !project.isNull()) {
            return {};
        }
        for (const QJsonValue& paneValue : tab.value("panes").toArray()) {
            const QJsonValue context = paneValue.toObject().value("context");
            if (!paneValue.isObject() || !context.isObject() ||
                !context.toObject().value("cwd").isString()) {
                return {};
            }
            const QJsonValue contextProject = context.toObject().value("projectID");
            std::optional<QString> paneProject;
            if (contextProject.isString()) {
                paneProject = contextProject.toString();
            } else if (!contextProject.isUndefined() && !contextProject.isNull()) {
                return {};
            }
            legacyTab.panes.emplace_back(paneProject, context.toObject().value("cwd").toString());
        }
        tabs.push_back(std::move(legacyTab));
    }

    std::map<QString, std::vector<const LegacyTab*>> groups;  // ascending identity order
    for (const auto& tab : tabs) {
        if (tab.projectID) groups[*tab.projectID].push_back(&tab);
    }
    std::vector<ProjectRecord> records;
    for (const auto& [id, group] : groups) {
        std::set<QString> directories;
        for (const LegacyTab* tab : group) {
            for (const auto& [paneProject, cwd] : tab->panes) {
                if (paneProject == id) directories.insert(cwd);
            }
        }
        if (directories.size() != 1) continue;
        try {
            records.push_back(
                ProjectRecord::create(group.front()->title, *directories.begin(), id));
        } catch (const ProjectCatalogError&) {
            // No certain folder on this machine: the project is not migrated.
        }
    }
    return records;
}

bool ProjectCatalog::mayChange(const char* done) {
    if (isReadable_) return true;
    // Said afresh on every refusal, even when the load's message was dismissed.
    setErrorMessage(std::nullopt);
    setErrorMessage(
        QStringLiteral("The saved project catalog is unreadable and was preserved, so no project "
                       "was %1. Keep a Copy and Start Over… sets it aside.")
            .arg(QLatin1String(done)));
    return false;
}

void ProjectCatalog::fail(const ProjectCatalogError& error) {
    setErrorMessage(error.errorDescription());
}

std::optional<ProjectRecord> ProjectCatalog::add(const QString& name, const QString& rawRoot,
                                                 const std::optional<QString>& id) {
    if (!mayChange("added")) return std::nullopt;
    try {
        ProjectRecord record = ProjectRecord::create(name, rawRoot, id);
        for (const auto& existing : projects_) {
            if (existing.id == record.id) throw ProjectCatalogError(Kind::DuplicateID);
        }
        for (const auto& existing : projects_) {
            if (existing.root == record.root) throw ProjectCatalogError(Kind::DuplicateRoot);
        }
        const auto previous = projects_;
        const auto previousSelection = selectedProjectID_;
        auto updated = projects_;
        updated.push_back(record);
        setProjects(std::move(updated));
        setSelectedProjectID(record.id);
        setErrorMessage(std::nullopt);
        if (!persist()) {
            setProjects(previous);
            setSelectedProjectID(previousSelection);
            return std::nullopt;
        }
        return record;
    } catch (const ProjectCatalogError& error) {
        fail(error);
        return std::nullopt;
    }
}

void ProjectCatalog::select(const QString& id) {
    if (findProject(projects_, id) != projects_.end()) {
        setSelectedProjectID(id);
    }
}

std::optional<ProjectRecord> ProjectCatalog::rename(const QString& id, const QString& name) {
    if (!mayChange("renamed")) return std::nullopt;
    try {
        auto updated = projects_;
        auto found = findProject(updated, id);
        if (found == updated.end()) throw ProjectCatalogError(Kind::UnknownProject);
        const QString trimmed = name.trimmed();
        if (trimmed.isEmpty()) throw ProjectCatalogError(Kind::InvalidName);
        found->name = trimmed;
        const ProjectRecord record = *found;
        const auto previous = projects_;
        setProjects(std::move(updated));
        setErrorMessage(std::nullopt);
        if (!persist()) {
            setProjects(previous);
            return std::nullopt;
        }
        return record;
    } catch (const ProjectCatalogError& error) {
        fail(error);
        return std::nullopt;
    }
}

std::optional<ProjectRecord> ProjectCatalog::remove(const QString& id) {
    if (!mayChange("removed")) return std::nullopt;
    try {
        auto updated = projects_;
        auto found = findProject(updated, id);
        if (found == updated.end()) throw ProjectCatalogError(Kind::UnknownProject);
        const ProjectRecord removed = *found;
        const auto previous = projects_;
        const auto previousSelection = selectedProjectID_;
        updated.erase(found);
        setProjects(std::move(updated));
        if (selectedProjectID_ == id) selectFirstProject();
        setErrorMessage(std::nullopt);
        if (!persist()) {
            setProjects(previous);
            setSelectedProjectID(previousSelection);
            return std::nullopt;
        }
        return removed;
    } catch (const ProjectCatalogError& error) {
        fail(error);
        return std::nullopt;
    }
}

void ProjectCatalog::selectFirstProject() {
    setSelectedProjectID(projects_.empty() ? std::nullopt
                                           : std::optional<QString>(projects_.front().id));
}

void ProjectCatalog::clearSelection() {
    setSelectedProjectID(std::nullopt);
}

void ProjectCatalog::clearError() {
    setErrorMessage(std::nullopt);
}

void ProjectCatalog::applySharedProjects(const QList<SharedProject>& shared) {
    if (!isReadable_) return;
    std::map<QString, QString> names;
    for (const auto& project : shared) {
        if (!names.emplace(project.id, project.name).second) return;  // a repeated identity
    }
    std::vector<ProjectRecord> updated;
    for (const auto& record : projects_) {
        auto name = names.find(record.id);
        if (name != names.end())
            updated.push_back(ProjectRecord{record.id, name->second, record.root});
    }
    if (updated == projects_) return;
    setProjects(std::move(updated));
    if (selectedProjectID_ && findProject(projects_, *selectedProjectID_) == projects_.end()) {
        selectFirstProject();
    }
    setErrorMessage(std::nullopt);
    persist();
}

void ProjectCatalog::setProjects(std::vector<ProjectRecord> projects) {
    if (projects_ == projects) return;
    projects_ = std::move(projects);
    emit projectsChanged();
}

void ProjectCatalog::setSelectedProjectID(const std::optional<QString>& id) {
    if (selectedProjectID_ == id) return;
    selectedProjectID_ = id;
    emit selectedProjectIDChanged();
}

void ProjectCatalog::setErrorMessage(const std::optional<QString>& message) {
    if (errorMessage_ == message) return;
    errorMessage_ = message;
    emit errorMessageChanged();
}

}  // namespace hl
