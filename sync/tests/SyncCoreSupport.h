// One computer of the sync tests: its own preferences, folders, catalog,
// workspace store and coordinator on a given shared record, with the in-memory
// node of the workspace tests or a real node's client.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>

#include "CloudSyncCoordinator.h"
#include "WorkspaceTestSupport.h"

namespace hl::test {

struct Core {
    // `client` empty means the fixture's in-memory node.
    explicit Core(std::shared_ptr<SharedStateTransport> transport,
                  std::function<SharedDate()> now = {},
                  std::shared_ptr<NodeClientTransport> client = nullptr);
    void start();
    // A start after a quit: the same preferences, new objects.
    void restart();
    // Waits out any refresh under way, then runs one to its end.
    void settle();
    // Waits until the pending change has been delivered.
    bool delivered();
    ProjectRecord addProject(const QString& name);
    // A fresh folder of this computer.
    QString folder(const QString& name) const;

    StoreFixture f;
    std::shared_ptr<SharedStateTransport> transport;
    std::function<SharedDate()> now;
    std::shared_ptr<NodeClientTransport> client;
    std::unique_ptr<ProjectCatalog> catalog;
    std::unique_ptr<WorkspaceStore> store;
    std::unique_ptr<CloudSyncCoordinator> sync;
};

}  // namespace hl::test
