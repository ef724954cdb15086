// ProjectCatalog: the observable list of projects on this machine. It loads the
// list once, refuses to touch stored data that it cannot read (it then runs
// read-only with `isReadable` false), moves projects out of the old workspace
// format on an upgrade, and calls one hook after every stored change.
#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>

#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "Preferences.h"
#include "ProjectRecord.h"
#include "SharedSnapshot.h"

namespace hl {

class ProjectCatalog : public QObject {
    Q_OBJECT
    Q_PROPERTY(QString selectedProjectID READ selectedProjectIDText NOTIFY selectedProjectIDChanged)
    Q_PROPERTY(QString errorMessage READ errorMessageText NOTIFY errorMessageChanged)
    Q_PROPERTY(bool isReadable READ isReadable NOTIFY isReadableChanged)

  public:
    static constexpr const char* storageKey = "harborlattice.projects.v1";
    static constexpr const char* legacyWorkspaceKey = "harborlattice.workspace.v3";

    // Loads the catalog; never fails.
    explicit ProjectCatalog(std::shared_ptr<Preferences> defaults, QObject* parent = nullptr);

    const std::vector<ProjectRecord>& projects() const { return projects_; }
    const std::optional<QString>& selectedProjectID() const { return selectedProjectID_; }
    QString selectedProjectIDText() const { return selectedProjectID_.value_or(QString()); }
    const std::optional<QString>& errorMessage() const { return errorMessage_; }
    QString errorMessageText() const { return errorMessage_.value_or(QString()); }
    bool isReadable() const { return isReadable_; }
    // True when the stored list could not be read at all (the database did not
    // answer), as opposed to read and found damaged.
    bool loadFailed() const { return loadFailed_; }
    // The key whose stored value could not be understood, kept as it was.
    const std::optional<std::string>& damagedKey() const { return damagedKey_; }

    // Called after each successful store.
    std::function<void()> onChange;

    // True when the list may change; otherwise says why (the verb names what was
    // refused: "added", "renamed", "removed").
    bool mayChange(const char* done);
    std::optional<ProjectRecord> add(const QString& name, const QString& rawRoot,
                                     const std::optional<QString>& id = std::nullopt);
    void select(const QString& id);
    std::optional<ProjectRecord> rename(const QString& id, const QString& name);
    std::optional<ProjectRecord> remove(const QString& id);
    void clearSelection();
    void clearError();
    // Takes names from the shared list and drops records it does not hold; never adds.
    void applySharedProjects(const QList<SharedProject>& shared);

    // Projects found in the old workspace format, each with one certain root.
    static std::vector<ProjectRecord> migrateProjects(const std::optional<QByteArray>& legacy);

  signals:
    void projectsChanged();
    void selectedProjectIDChanged();
    void errorMessageChanged();
    void isReadableChanged();

  private:
    // Throws ProjectCatalogError for a list that must not be loaded.
    static void validate(const std::vector<ProjectRecord>& records);
    // False, with a message, when the list could not be written.
    bool persist();
    void markUnreadable(const PreferenceRead& read, const char* key);
    void fail(const ProjectCatalogError& error);
    void setProjects(std::vector<ProjectRecord> projects);
    void setSelectedProjectID(const std::optional<QString>& id);
    // Selects the first project, or none when the catalog is empty.
    void selectFirstProject();
    void setErrorMessage(const std::optional<QString>& message);

    std::shared_ptr<Preferences> defaults_;
    std::vector<ProjectRecord> projects_;
    std::optional<QString> selectedProjectID_;
    std::optional<QString> errorMessage_;
    bool isReadable_ = true;
    bool loadFailed_ = false;
    std::optional<std::string> damagedKey_;
};

}  // namespace hl
