// The test computer of the sync tests.
#include "SyncCoreSupport.h"

#include <gtest/gtest.h>

namespace fs = std::filesystem;

namespace hl::test {

Core::Core(std::shared_ptr<SharedStateTransport> transport, std::function<SharedDate()> now,
           std::shared_ptr<NodeClientTransport> client)
    : transport(std::move(transport)), now(std::move(now)), client(std::move(client)) {
    start();
}

void Core::start() {
    catalog = std::make_unique<ProjectCatalog>(f.prefs);
    store = f.makeStore(catalog->projects(), true, client);
    sync = std::make_unique<CloudSyncCoordinator>(
        f.prefs, transport, DeviceCopyEndpoint{"Studio", "studio.local", "ada"},
        [](const QUuid&) {}, now);
    sync->setRecoveredFolder(f.base / "Recovered");
    sync->attach(catalog.get(), store.get(), false);
}

void Core::restart() {
    sync.reset();
    store.reset();
    catalog.reset();
    start();
}

void Core::settle() {
    ASSERT_TRUE(spinUntil([&] { return !sync->isRefreshing(); }, std::chrono::seconds(60)));
    bool done = false;
    sync->refresh([&] { done = true; });
    ASSERT_TRUE(spinUntil([&] { return done; }, std::chrono::seconds(60)));
}

bool Core::delivered() {
    return spinUntil([&] { return !sync->pending() && !sync->isRefreshing(); },
                     std::chrono::seconds(60));
}

ProjectRecord Core::addProject(const QString& name) {
    const QString root = f.project(name).root;
    fs::remove_all(root.toStdString());
    fs::create_directories(root.toStdString());
    auto record = *catalog->add(name, root);
    store->openProject(record);
    return record;
}

QString Core::folder(const QString& name) const {
    const auto path = f.base / "mine" / name.toStdString();
    fs::create_directories(path);
    return QString::fromStdString(path.string());
}

}  // namespace hl::test
