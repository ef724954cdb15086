// The sync settings applied to the coordinator, and the test read.
#include "SyncSettingsController.h"

#include <QThreadPool>

namespace hl {

SyncSettingsController::SyncSettingsController(std::shared_ptr<Preferences> defaults,
                                               std::shared_ptr<SyncPasswordStore> passwords,
                                               QObject* parent)
    : QObject(parent),
      defaults_(std::move(defaults)),
      passwords_(std::move(passwords)),
      settings_(SyncSettings::read(*defaults_)),
      override_(syncUrlOverride()) {}

std::shared_ptr<SharedStateTransport> SyncSettingsController::startingTransport() const {
    if (override_) return makeSharedStateTransport(*override_);
    if (settings_.mode == SyncSettings::Mode::WebDav)
        return std::make_shared<DisabledSharedStateTransport>();
    return makeSyncTransport(settings_, std::nullopt);
}

void SyncSettingsController::attach(CloudSyncCoordinator* coordinator) {
    coordinator_ = coordinator;
    if (!override_ && settings_.mode == SyncSettings::Mode::WebDav) useSettings(true);
}

void SyncSettingsController::apply(const SyncSettings& settings,
                                   const std::optional<QString>& password) {
    const bool samePlace = settings == settings_;
    settings_ = settings;
    settings_.write(*defaults_);
    if (password && settings.mode == SyncSettings::Mode::WebDav) {
        QPointer<SyncSettingsController> self(this);
        passwords_->write(settings.passwordAccount(), *password, [self](QString failure) {
            if (self && !failure.isEmpty()) emit self->passwordFailed(failure);
        });
    }
    emit settingsChanged();
    if (override_) return;
    ++generation_;
    if (settings_.mode != SyncSettings::Mode::WebDav) {
        if (coordinator_) coordinator_->setTransport(makeSyncTransport(settings_, std::nullopt));
        return;
    }
    if (password) {
        if (coordinator_)
            coordinator_->setTransport(makeSyncTransport(settings_, password), samePlace);
        return;
    }
    useSettings(samePlace);
}

void SyncSettingsController::useSettings(bool samePlace) {
    const int generation = ++generation_;
    const SyncSettings settings = settings_;
    withPassword(settings, std::nullopt,
                 [this, generation, settings, samePlace](std::optional<QString> password) {
                     if (generation != generation_ || !coordinator_) return;
                     coordinator_->setTransport(makeSyncTransport(settings, password), samePlace);
                 });
}

void SyncSettingsController::withPassword(const SyncSettings& settings,
                                          const std::optional<QString>& given,
                                          std::function<void(std::optional<QString>)> then) {
    if (given || settings.mode != SyncSettings::Mode::WebDav) return then(given);
    QPointer<SyncSettingsController> self(this);
    passwords_->read(
        settings.passwordAccount(),
        [self, then = std::move(then)](std::optional<QString> password, QString failure) {
            if (!self) return;
            if (!failure.isEmpty()) emit self->passwordFailed(failure);
            then(std::move(password));
        });
}

void SyncSettingsController::test(const SyncSettings& settings,
                                  const std::optional<QString>& password,
                                  std::function<void(QString)> done) {
    if (settings.mode == SyncSettings::Mode::Off) {
        return done(CloudSyncStatus::of(CloudSyncStatus::Kind::LocalOnly).title());
    }
    QPointer<SyncSettingsController> self(this);
    withPassword(settings, password, [self, settings, done](std::optional<QString> password) {
        std::shared_ptr<SharedStateTransport> transport = makeSyncTransport(settings, password);
        QThreadPool::globalInstance()->start([self, transport, done] {
            QString words;
            try {
                if (!transport->accountIsAvailable()) {
                    words = CloudSyncStatus::of(CloudSyncStatus::Kind::CloudUnavailable).title();
                } else {
                    words = syncTestWords(transport->fetch());
                }
            } catch (...) {
                words = syncStatusForFailure(std::current_exception()).title();
            }
            if (!self) return;
            QMetaObject::invokeMethod(
                self.data(), [done, words] { done(words); }, Qt::QueuedConnection);
        });
    });
}

QString syncTestWords(const std::optional<SharedSnapshot>& found) {
    if (!found)
        return QStringLiteral("Reachable · no shared state yet; the first change starts it");
    const int projects = static_cast<int>(found->content().projects.size());
    return QStringLiteral("Reachable · shared state found with ") + QString::number(projects) +
           (projects == 1 ? QStringLiteral(" project") : QStringLiteral(" projects"));
}

}  // namespace hl
