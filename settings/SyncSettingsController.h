// SyncSettingsController: the sync settings as the user changes them. It keeps
// the choice in the preferences and the password in the password store, and
// hands the coordinator the transport they name at once. "Test" reads the
// record through a transport of its own and answers in the status words.
//
// HARBORLATTICE_SYNC_URL, when set, names the place for the whole run instead
// of the settings; choices made meanwhile are kept for the next run.
#pragma once

#include <QObject>
#include <QPointer>

#include <functional>
#include <memory>
#include <optional>

#include "CloudSyncCoordinator.h"
#include "SyncPasswordStore.h"
#include "SyncSettings.h"

namespace hl {

class SyncSettingsController : public QObject {
    Q_OBJECT

  public:
    SyncSettingsController(std::shared_ptr<Preferences> defaults,
                           std::shared_ptr<SyncPasswordStore> passwords, QObject* parent = nullptr);

    // The transport to build the coordinator with: the override, the folder, or
    // none until a WebDAV file's password has been read (see `attach`).
    std::shared_ptr<SharedStateTransport> startingTransport() const;
    // Follows the settings on `coordinator` from now on; a WebDAV file is taken
    // into use once its password has been read.
    void attach(CloudSyncCoordinator* coordinator);

    const SyncSettings& settings() const { return settings_; }
    bool isOverridden() const { return override_.has_value(); }
    SyncPasswordStore& passwords() const { return *passwords_; }

    // Keeps `settings` and uses it at once. `password` (WebDAV only) replaces
    // the kept one; absent keeps it.
    void apply(const SyncSettings& settings, const std::optional<QString>& password);
    // Reads the record that `settings` names, off the main thread; `done` gets
    // one line in the status words. `password` absent: the kept one.
    void test(const SyncSettings& settings, const std::optional<QString>& password,
              std::function<void(QString)> done);

  signals:
    void settingsChanged();
    // The password store did not take or give the password; `failure` says why.
    void passwordFailed(const QString& failure);

  private:
    // Gives the password to use for `settings`: `given`, else the kept one.
    void withPassword(const SyncSettings& settings, const std::optional<QString>& given,
                      std::function<void(std::optional<QString>)> then);
    void useSettings(bool samePlace);

    std::shared_ptr<Preferences> defaults_;
    std::shared_ptr<SyncPasswordStore> passwords_;
    QPointer<CloudSyncCoordinator> coordinator_;
    SyncSettings settings_;
    std::optional<QString> override_;
    // Counts the choices made, so that a late password answers only the latest.
    int generation_ = 0;
};

// One line in the status words about what a read of the record found.
QString syncTestWords(const std::optional<SharedSnapshot>& found);

}  // namespace hl
