// AppUpdater: the observable face of update checks that the menu and the
// sidebar bind to. The real one owns the channel's updater and shows each
// result in a plain dialog; the second constructor runs without any updater,
// so that views can be built without the service.
#pragma once

#include <QMetaObject>
#include <QObject>

#include <functional>
#include <memory>

#include "AppcastUpdater.h"

namespace hl {

class AppUpdater : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool canCheckForUpdates READ canCheckForUpdates NOTIFY canCheckForUpdatesChanged)

  public:
    // The recorded channel (UpdateChannel::standard()).
    explicit AppUpdater(QObject* parent = nullptr);
    // A given updater, kept alive here; its results are shown like the real one's.
    explicit AppUpdater(std::unique_ptr<AppcastUpdater> controller, QObject* parent = nullptr);
    AppUpdater(bool canCheckForUpdates, std::function<void()> checkAction,
               QObject* parent = nullptr);
    ~AppUpdater() override;

    bool canCheckForUpdates() const { return canCheckForUpdates_; }
    AppcastUpdater* standardController() const { return standardController_.get(); }
    // Runs the check action when a check can start now; otherwise nothing.
    void checkForUpdates();

  signals:
    void canCheckForUpdatesChanged();

  private:
    void setCanCheckForUpdates(bool canCheck);

    bool canCheckForUpdates_ = false;
    std::unique_ptr<AppcastUpdater> standardController_;
    std::function<void()> checkAction;
    QMetaObject::Connection canCheckObservation;
};

}  // namespace hl
