// CloudSyncCoordinator: a change of the record's place while the application runs.
#include "CloudSyncCoordinator.h"

#include <utility>

namespace hl {

void CloudSyncCoordinator::setTransport(std::shared_ptr<SharedStateTransport> transport,
                                        bool samePlace) {
    if (!transport) transport = std::make_shared<DisabledSharedStateTransport>();
    if (refreshing_) {
        nextTransport_ = std::make_pair(std::move(transport), samePlace);
        return;
    }
    useTransport(std::move(transport), samePlace);
}

void CloudSyncCoordinator::useTransport(std::shared_ptr<SharedStateTransport> transport,
                                        bool samePlace) {
    uploadTimer_.stop();
    retiredTransports_.push_back(std::exchange(transport_, std::move(transport)));
    releaseRetiredTransports();
    // The accepted state was the former record's; against the new one it would
    // be a base that record never had. What is pending stays pending and goes to
    // the new record (or is merged with what it holds).
    if (!samePlace) {
        accepted_.reset();
        storeSnapshot(acceptedKey, accepted_);
    }
    if (transport_->isConfigured() && defaults_->read(deviceKey).isAbsent() &&
        damagedKeys_.count(deviceKey) == 0) {
        defaults_->set(deviceKey, sharedUuidText(deviceID_).toStdString());
    }
    emit transportChanged();
    if (!transport_->isConfigured()) {
        setStatus(CloudSyncStatus::of(CloudSyncStatus::Kind::LocalOnly));
        return;
    }
    setStatus(CloudSyncStatus::of(CloudSyncStatus::Kind::Syncing));
    if (catalog_ && workspace_) refresh();
}

void CloudSyncCoordinator::releaseRetiredTransports() {
    std::erase_if(retiredTransports_, [](const std::shared_ptr<SharedStateTransport>& transport) {
        return transport.use_count() == 1;
    });
}

}  // namespace hl
