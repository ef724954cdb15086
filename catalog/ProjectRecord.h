// A ProjectRecord says that one folder on this machine is a project: an identity
// shared between machines, a display name, and the canonical absolute root.
// ProjectCatalogError carries the catalog's user-visible failure texts.
#pragma once

#include <QJsonObject>
#include <QString>

#include <optional>
#include <stdexcept>

namespace hl {

class ProjectCatalogError : public std::exception {
  public:
    enum class Kind {
        RelativeRoot,
        UnavailableRoot,
        DuplicateRoot,
        DuplicateID,
        InvalidID,
        InvalidName,
        UnknownProject,
        CorruptCatalog,
    };
    explicit ProjectCatalogError(Kind kind);
    Kind kind() const { return kind_; }
    QString errorDescription() const;
    const char* what() const noexcept override { return text_.c_str(); }
    bool operator==(const ProjectCatalogError& other) const { return kind_ == other.kind_; }

  private:
    Kind kind_;
    std::string text_;
};

struct ProjectRecord {
    QString id;
    QString name;
    QString root;

    bool operator==(const ProjectRecord&) const = default;

    // A record from user input: checks the identity, makes the root canonical
    // and requires it to be a directory; an empty name takes the folder's name.
    // Throws ProjectCatalogError.
    static ProjectRecord create(const QString& name, const QString& rawRoot,
                                const std::optional<QString>& id = std::nullopt);
    // The root that create() would give such a record, or nothing where it
    // would refuse it.
    static std::optional<QString> acceptedRoot(const QString& name, const QString& rawRoot,
                                               const QString& id);

    // Judges a stored record without touching the disk.
    bool storedShapeIsValid() const;
    // The folder is a directory and its path is still canonical.
    bool rootIsAvailable() const;

    QJsonObject toJson() const;
    // Absent unless the object has "id", "name" and "root" as text.
    static std::optional<ProjectRecord> fromJson(const QJsonValue& json);
};

// The identity rule: not empty, no whitespace at either end.
bool projectIDIsValid(const QString& id);
// A path as a standardised directory URL would give it: relative text is taken
// from the working directory; ".", ".." and a trailing "/" are removed.
QString standardizedDirectoryPath(const QString& path);
// A fresh identity: a random UUID in lower-case text.
QString newProjectID();

}  // namespace hl
