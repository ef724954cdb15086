// The in-memory node and the store fixture of the workspace tests.
#include "WorkspaceTestSupport.h"

#include <thread>

namespace hl::test {

NodeResponse MemoryNode::request(const std::string& op, const NodeRequestData& data) const {
    std::unique_lock guard(mutex_);
    ++counts_[op];
    if (op == "create_session") released_.wait(guard, [this] { return !holdCreates_; });
    auto text = [&](const char* key) { return std::get<std::string>(data.at(key)); };
    if (op == "health" || op == "input" || op == "resize") return {};
    if (op == "poll") return {};
    if (op == "list_sessions") {
        std::vector<JSONValue> ids;
        for (const auto& [id, cwd] : sessions_)
            ids.push_back(JSONValue::string(id));
        return NodeResponse{{{"session_ids", JSONValue::array(ids)}}};
    }
    if (op == "create_session") {
        const std::string id = "mem-" + std::to_string(++next_);
        sessions_[id] = text("cwd");
        return NodeResponse{{{"session_id", JSONValue::string(id)}}};
    }
    if (op == "replay_session") {
        auto it = sessions_.find(text("session_id"));
        if (it == sessions_.end()) throw NodeClientError::daemon("unknown session");
        if (it->second != text("expected_cwd"))
            throw NodeClientError::daemon("session cwd mismatch");
        return NodeResponse{{{"cwd", JSONValue::string(it->second)}}};
    }
    if (op == "close_session") {
        const bool known = sessions_.erase(text("session_id")) != 0;
        return NodeResponse{{{known ? "closed" : "absent", JSONValue::boolean(true)}}};
    }
    throw NodeClientError::daemon("unknown op");
}

std::set<std::string> MemoryNode::sessions() const {
    std::lock_guard guard(mutex_);
    std::set<std::string> ids;
    for (const auto& [id, cwd] : sessions_)
        ids.insert(id);
    return ids;
}

std::string MemoryNode::cwdOf(const std::string& id) const {
    std::lock_guard guard(mutex_);
    auto it = sessions_.find(id);
    return it == sessions_.end() ? std::string() : it->second;
}

void MemoryNode::adopt(const std::string& id, const std::string& cwd) {
    std::lock_guard guard(mutex_);
    sessions_[id] = cwd;
}

void MemoryNode::holdCreates(bool held) {
    {
        std::lock_guard guard(mutex_);
        holdCreates_ = held;
    }
    released_.notify_all();
}

int MemoryNode::count(const std::string& op) const {
    std::lock_guard guard(mutex_);
    auto it = counts_.find(op);
    return it == counts_.end() ? 0 : it->second;
}

bool spinUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    QElapsedTimer timer;
    timer.start();
    while (!condition()) {
        if (timer.elapsed() > timeout.count()) return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

void spinFor(std::chrono::milliseconds span) {
    spinUntil([] { return false; }, span);
}

std::string history(const TerminalController& controller) {
    QByteArray bytes;
    for (const auto& chunk : controller.rendererHistory())
        bytes += QByteArray::fromBase64(QByteArray::fromStdString(chunk));
    return bytes.toStdString();
}

StoreFixture::StoreFixture()
    : base(std::filesystem::canonical(dir.path())),
      prefs(Preferences::open(dir / "prefs.sqlite3")) {
    std::filesystem::create_directories(base / "Scratch");
}

QString StoreFixture::scratchRoot() const {
    return QString::fromStdString((base / "Scratch").string());
}

std::unique_ptr<WorkspaceStore> StoreFixture::makeStore(
    std::vector<ProjectRecord> projects, bool catalogIsReadable,
    std::shared_ptr<NodeClientTransport> client) {
    WorkspaceStoreOptions options;
    options.defaults = prefs;
    options.knownProjects = std::move(projects);
    options.catalogIsReadable = catalogIsReadable;
    options.scratchRoot = scratchRoot();
    options.scratchDirectoryProvider = [this](const QUuid& id) {
        if (scratchFails) throw std::runtime_error("no scratch");
        const auto path =
            base / "Scratch" / id.toString(QUuid::WithoutBraces).toLower().toStdString();
        std::filesystem::create_directories(path);
        return QString::fromStdString(path.string());
    };
    options.client = client ? std::move(client) : node;
    options.controllerHooks.ensureNodeRunning = [] {};
    options.controllerHooks.retryDelay = std::chrono::milliseconds(50);
    options.closeRetryPolicy = {[] {}, std::chrono::milliseconds(20)};
    return std::make_unique<WorkspaceStore>(std::move(options));
}

ProjectRecord StoreFixture::project(const QString& name) {
    const auto root = base / "projects" / name.toStdString();
    std::filesystem::create_directories(root);
    return ProjectRecord::create(name, QString::fromStdString(root.string()));
}

std::string StoreFixture::stored(const char* key) const {
    auto value = prefs->data(key);
    return value ? value->bytes : std::string("<absent>");
}

}  // namespace hl::test
