// Helpers of the terminal tests.
#include "TerminalTestSupport.h"

#include <dirent.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QTest>
#include <QThread>
#include <cstring>
#include <fstream>
#include <sstream>

#include "Base64.h"
#include "TerminalThreads.h"
#include "gtest/gtest.h"

extern char** environ;

namespace fs = std::filesystem;

namespace hl::test {

std::string b64(const std::string& bytes) {
    return base64::encode(bytes);
}

std::string unb64(const std::string& text) {
    auto bytes = base64::decode(text);
    EXPECT_TRUE(bytes.has_value()) << "not base64: " << text.substr(0, 80);
    return bytes.value_or(std::string());
}

bool spinUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    return QTest::qWaitFor(condition, static_cast<int>(timeout.count()));
}

void spinFor(std::chrono::milliseconds duration) {
    QTest::qWait(static_cast<int>(duration.count()));
}

bool drainDetachedWork(std::chrono::milliseconds timeout) {
    const bool drained = spinUntil([] { return detachedTaskCount() == 0; }, timeout);
    QCoreApplication::processEvents();
    return drained;
}

NodeResponse reply(std::map<std::string, JSONValue> data) {
    return NodeResponse{std::move(data)};
}

NodeResponse sessionList(const std::vector<std::string>& ids) {
    std::vector<JSONValue> values;
    for (const auto& id : ids)
        values.push_back(JSONValue::string(id));
    return reply({{"session_ids", JSONValue::array(values)}});
}

std::string textOf(const NodeRequestData& data, const std::string& key) {
    auto found = data.find(key);
    if (found == data.end()) return "<absent>";
    if (const auto* text = std::get_if<std::string>(&found->second)) return *text;
    return "<number>";
}

std::int64_t numberOf(const NodeRequestData& data, const std::string& key) {
    auto found = data.find(key);
    if (found == data.end()) return -1;
    if (const auto* number = std::get_if<std::int64_t>(&found->second)) return *number;
    return -2;
}

void ScriptedTransport::on(const std::string& op, Handler handler) {
    std::lock_guard guard(mutex_);
    handlers_[op] = std::move(handler);
}

void ScriptedTransport::hold(const std::string& op) {
    std::lock_guard guard(mutex_);
    held_.insert(op);
}

void ScriptedTransport::releaseAll() {
    {
        std::lock_guard guard(mutex_);
        held_.clear();
    }
    released_.notify_all();
}

int ScriptedTransport::waiting(const std::string& op) const {
    std::lock_guard guard(mutex_);
    auto found = waiting_.find(op);
    return found == waiting_.end() ? 0 : found->second;
}

int ScriptedTransport::count(const std::string& op) const {
    std::lock_guard guard(mutex_);
    int n = 0;
    for (const auto& entry : log_)
        n += entry.first == op;
    return n;
}

std::vector<NodeRequestData> ScriptedTransport::requests(const std::string& op) const {
    std::lock_guard guard(mutex_);
    std::vector<NodeRequestData> result;
    for (const auto& entry : log_)
        if (entry.first == op) result.push_back(entry.second);
    return result;
}

std::vector<std::string> ScriptedTransport::operations() const {
    std::lock_guard guard(mutex_);
    std::vector<std::string> result;
    for (const auto& entry : log_)
        result.push_back(entry.first);
    return result;
}

NodeResponse ScriptedTransport::request(const std::string& op, const NodeRequestData& data) const {
    Handler handler;
    {
        std::unique_lock lock(mutex_);
        log_.emplace_back(op, data);
        ++waiting_[op];
        released_.wait(lock, [&] { return held_.count(op) == 0; });
        --waiting_[op];
        auto found = handlers_.find(op);
        if (found != handlers_.end()) handler = found->second;
    }
    if (!handler) throw NodeClientError::connection();
    return handler(data);
}

int CountingTransport::count(const std::string& op) const {
    std::lock_guard guard(mutex_);
    return counts_[op];
}

NodeResponse CountingTransport::request(const std::string& op, const NodeRequestData& data) const {
    {
        std::lock_guard guard(mutex_);
        ++counts_[op];
    }
    return client_.request(op, data);
}

void RecordingSurface::write(const QString& base64) {
    offMainThread = offMainThread || QThread::currentThread() != qApp->thread();
    writes.push_back(unb64(base64.toStdString()));
    shown += writes.back();
}

void RecordingSurface::replaceWithReplay(const QString& base64) {
    offMainThread = offMainThread || QThread::currentThread() != qApp->thread();
    replays.push_back(unb64(base64.toStdString()));
    shown = replays.back();
}

StatusLog::StatusLog(TerminalController& controller) {
    connect(&controller, &TerminalController::statusChanged, this,
            [this, &controller] { texts.push_back(controller.status().toStdString()); });
}

bool StatusLog::sawInOrder(const std::vector<std::string>& sequence) const {
    auto next = sequence.begin();
    for (const auto& text : texts)
        if (next != sequence.end() && text == *next) ++next;
    return next == sequence.end();
}

std::string nodeExecutable() {
    return HARBORLATTICE_NODE_PATH;
}

NodeProcess::NodeProcess(std::string socketPath, fs::path home)
    : socketPath_(std::move(socketPath)), home_(std::move(home)) {}

NodeProcess::~NodeProcess() {
    kill();
}

bool NodeProcess::start() {
    if (!launch()) return false;
    const UnixSocketClient client(socketPath_);
    return spinUntil([&] {
        try {
            client.request("health");
            return true;
        } catch (...) {
            return false;
        }
    });
}

bool NodeProcess::launch() {
    std::vector<std::string> environment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string_view text(*entry);
        if (text.starts_with("HARBORLATTICE_SOCKET=") || text.starts_with("HOME=")) continue;
        environment.emplace_back(text);
    }
    environment.push_back("HARBORLATTICE_SOCKET=" + socketPath_);
    environment.push_back("HOME=" + home_.string());
    std::vector<char*> envp;
    for (auto& entry : environment)
        envp.push_back(entry.data());
    envp.push_back(nullptr);
    std::string program = nodeExecutable();
    char* argv[] = {program.data(), nullptr};
    if (::posix_spawn(&pid_, program.c_str(), nullptr, nullptr, argv, envp.data()) != 0) {
        pid_ = -1;
        return false;
    }
    return true;
}

void NodeProcess::kill() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

void killNodesServing(const std::string& socketPath) {
    const std::string wanted = "HARBORLATTICE_SOCKET=" + socketPath;
    const fs::path node = fs::canonical(nodeExecutable());
    for (const auto& entry : fs::directory_iterator("/proc")) {
        const std::string name = entry.path().filename().string();
        if (name.find_first_not_of("0123456789") != std::string::npos) continue;
        std::error_code error;
        if (fs::read_symlink(entry.path() / "exe", error) != node || error) continue;
        std::ifstream file(entry.path() / "environ", std::ios::binary);
        std::stringstream content;
        content << file.rdbuf();
        std::string variable;
        bool serves = false;
        while (std::getline(content, variable, '\0'))
            serves = serves || variable == wanted;
        if (serves) ::kill(std::stoi(name), SIGKILL);
    }
}

}  // namespace hl::test
