// The updater's observable wrapper.
#include "AppUpdater.h"

#include "UpdateResultDialog.h"

namespace hl {

AppUpdater::AppUpdater(QObject* parent)
    : AppUpdater(std::make_unique<AppcastUpdater>(UpdateChannel::standard()), parent) {}

AppUpdater::AppUpdater(std::unique_ptr<AppcastUpdater> controller, QObject* parent)
    : QObject(parent), standardController_(std::move(controller)) {
    AppcastUpdater* updater = standardController_.get();
    canCheckForUpdates_ = updater->canCheckForUpdates();
    checkAction = [updater] { updater->checkForUpdates(); };
    // Changes arrive on the next turn of the event loop, never in the middle of a call.
    canCheckObservation = connect(updater, &AppcastUpdater::canCheckForUpdatesChanged, this,
                                  &AppUpdater::setCanCheckForUpdates, Qt::QueuedConnection);
    connect(updater, &AppcastUpdater::checkFinished, this,
            [](const UpdateCheckResult& result) { UpdateResultDialog::present(result); });
}

AppUpdater::AppUpdater(bool canCheckForUpdates, std::function<void()> checkAction, QObject* parent)
    : QObject(parent),
      canCheckForUpdates_(canCheckForUpdates),
      checkAction(std::move(checkAction)) {}

AppUpdater::~AppUpdater() {
    disconnect(canCheckObservation);
}

void AppUpdater::checkForUpdates() {
    if (canCheckForUpdates_ && checkAction) checkAction();
}

void AppUpdater::setCanCheckForUpdates(bool canCheck) {
    if (canCheck == canCheckForUpdates_) return;
    canCheckForUpdates_ = canCheck;
    emit canCheckForUpdatesChanged();
}

}  // namespace hl
