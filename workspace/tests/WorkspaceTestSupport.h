// Helpers of the workspace tests: an in-memory node for the logic, event-loop
// waits, and a store built on throwaway preferences and folders.
#pragma once

#include <QCoreApplication>
#include <QElapsedTimer>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>

#include "NodeClient.h"
#include "TestSupport.h"
#include "WorkspaceStore.h"

namespace hl::test {

// A node that keeps sessions as (id, cwd) pairs in memory and answers every
// operation the way the real one does, without shells.
class MemoryNode final : public NodeClientTransport {
  public:
    NodeResponse request(const std::string& op, const NodeRequestData& data = {}) const override;

    std::set<std::string> sessions() const;
    std::string cwdOf(const std::string& id) const;
    // Adds a session as if an earlier run had left it.
    void adopt(const std::string& id, const std::string& cwd);
    int count(const std::string& op) const;
    // While held, create_session waits before it answers.
    void holdCreates(bool held);

  private:
    mutable std::condition_variable released_;
    bool holdCreates_ = false;
    mutable std::mutex mutex_;
    mutable std::map<std::string, std::string> sessions_;
    mutable std::map<std::string, int> counts_;
    mutable int next_ = 0;
};

bool spinUntil(const std::function<bool()>& condition,
               std::chrono::milliseconds timeout = std::chrono::seconds(10));
void spinFor(std::chrono::milliseconds span);

// Everything a controller's renderer has been given, decoded.
std::string history(const TerminalController& controller);

// A place for one store's preferences, scratch folders and project folders.
class StoreFixture {
  public:
    StoreFixture();
    // A store on `client`, or on the in-memory node when it is empty.
    std::unique_ptr<WorkspaceStore> makeStore(std::vector<ProjectRecord> projects = {},
                                              bool catalogIsReadable = true,
                                              std::shared_ptr<NodeClientTransport> client = {});
    // A project whose root is a fresh folder named `name`.
    ProjectRecord project(const QString& name);
    QString scratchRoot() const;
    // The stored bytes of a key, or "<absent>".
    std::string stored(const char* key) const;

    TempDir dir;
    std::filesystem::path base;
    std::shared_ptr<Preferences> prefs;
    std::shared_ptr<MemoryNode> node = std::make_shared<MemoryNode>();
    bool scratchFails = false;
};

}  // namespace hl::test
