// Flood benchmark: a shell writes a large block of bytes; we measure how fast
// it reaches a byte-counting surface through a TerminalController (node, poll
// loop, batcher, main thread), and how fast a plain client polling the same
// node at the same pace receives it. Printed side by side, with their ratio and
// the batches per second that reached the main thread.
//
// Usage: terminal_flood_bench [bytes] [rounds]   (default 268435456 bytes, 2 rounds)
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QThread>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>

#include "Base64.h"
#include "NodeClient.h"
#include "TerminalController.h"
#include "TerminalSurface.h"

extern char** environ;

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

namespace {

// Counts the bytes written to it, without decoding them.
class CountingSurface final : public hl::TerminalSurface {
  public:
    void write(const QString& base64) override {
        ++batches;
        bytes += decodedSize(base64);
    }
    void replaceWithReplay(const QString&) override {}
    void focus() override {}
    void resignFocus() override {}
    void search(const QString&, bool) override {}

    static std::int64_t decodedSize(const QString& base64) {
        qsizetype fill = base64.endsWith(QLatin1String("==")) ? 2 : base64.endsWith('=') ? 1 : 0;
        return base64.size() / 4 * 3 - fill;
    }

    std::int64_t bytes = 0;
    std::int64_t batches = 0;
};

struct Result {
    double seconds = 0;
    std::int64_t bytes = 0;
    std::int64_t batches = 0;
    double bytesPerSecond() const { return bytes / seconds; }
    double batchesPerSecond() const { return batches / seconds; }
};

// The command that floods: `bytes` NUL bytes, with no terminal echo or newline
// translation in the way.
QString floodCommand(std::int64_t bytes) {
    return QStringLiteral("stty -echo -onlcr; head -c %1 /dev/zero; stty sane\r").arg(bytes);
}

pid_t startNode(const std::string& socket, const fs::path& home) {
    std::vector<std::string> environment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        std::string_view text(*entry);
        if (!text.starts_with("HARBORLATTICE_SOCKET=") && !text.starts_with("HOME="))
            environment.emplace_back(text);
    }
    environment.push_back("HARBORLATTICE_SOCKET=" + socket);
    environment.push_back("HOME=" + home.string());
    std::vector<char*> envp;
    for (auto& entry : environment)
        envp.push_back(entry.data());
    envp.push_back(nullptr);
    std::string program = HARBORLATTICE_NODE_PATH;
    char* argv[] = {program.data(), nullptr};
    pid_t pid = -1;
    if (::posix_spawn(&pid, program.c_str(), nullptr, nullptr, argv, envp.data()) != 0) return -1;
    const hl::UnixSocketClient client(socket);
    for (int attempt = 0; attempt < 500; ++attempt) {
        try {
            client.request("health");
            return pid;
        } catch (...) {
            std::this_thread::sleep_for(10ms);
        }
    }
    return -1;
}

// Polls until a poll comes back empty twice, so the shell's prompt is out of the way.
void drainQuietly(const hl::NodeClientTransport& client, const std::string& id) {
    int quiet = 0;
    while (quiet < 2) {
        auto output = client.request("poll", {{"session_id", id}})["output_base64"].stringValue();
        quiet = output && !output->empty() ? 0 : quiet + 1;
        std::this_thread::sleep_for(180ms);
    }
}

// A plain client: the same poll request at the same pace (50 ms after output,
// 180 ms after none), decoding each reply to count it.
Result referenceFlood(const hl::NodeClientTransport& client, const std::string& cwd,
                      std::int64_t bytes) {
    const auto id = *client
                         .request("create_session", {{"cwd", cwd},
                                                     {"cols", std::int64_t{120}},
                                                     {"rows", std::int64_t{36}}})["session_id"]
                         .stringValue();
    drainQuietly(client, id);
    const auto command = floodCommand(bytes).toUtf8();
    Result result;
    const auto begin = Clock::now();
    client.request(
        "input", {{"session_id", id}, {"input_base64", hl::base64::encode(command.toStdString())}});
    while (result.bytes < bytes) {
        auto output = client.request("poll", {{"session_id", id}})["output_base64"].stringValue();
        if (output && !output->empty()) {
            result.bytes += static_cast<std::int64_t>(hl::base64::decode(*output)->size());
            ++result.batches;
            std::this_thread::sleep_for(50ms);
        } else {
            std::this_thread::sleep_for(180ms);
        }
    }
    result.seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    client.request("close_session", {{"session_id", id}});
    return result;
}

// The same flood through a TerminalController into a counting surface.
Result controllerFlood(std::shared_ptr<const hl::NodeClientTransport> client,
                       const std::string& cwd, std::int64_t bytes) {
    hl::TerminalControllerHooks hooks;
    hooks.ensureNodeRunning = [] {};
    hl::TerminalController controller(std::nullopt, cwd, false, true, true, nullptr,
                                      QStringLiteral("unavailable"), QStringLiteral("blocked"),
                                      client, hooks);
    CountingSurface surface;
    controller.setSurface(&surface);
    controller.start();
    while (!controller.isConnected())
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    const auto quietUntil = Clock::now() + 600ms;
    while (Clock::now() < quietUntil)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);

    surface.bytes = 0;
    surface.batches = 0;
    const auto begin = Clock::now();
    controller.terminalSurfaceDidReceiveInput(floodCommand(bytes));
    while (surface.bytes < bytes)
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents, 50);
    Result result{std::chrono::duration<double>(Clock::now() - begin).count(), surface.bytes,
                  surface.batches};
    const auto id = *controller.sessionID();
    controller.close();
    client->request("close_session", {{"session_id", id}});
    while (hl::detachedTaskCount() > 0)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    return result;
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    const std::int64_t bytes = argc > 1 ? std::stoll(argv[1]) : 268435456;
    const int rounds = argc > 2 ? std::stoi(argv[2]) : 2;

    char pattern[] = "/tmp/hl-flood-XXXXXX";
    const fs::path dir = fs::canonical(::mkdtemp(pattern));
    const std::string socket = (dir / "node.sock").string();
    const std::string cwd = dir.string();
    const pid_t node = startNode(socket, dir);
    if (node < 0) {
        std::fprintf(stderr, "the node did not start\n");
        return 1;
    }
    auto client = std::make_shared<hl::UnixSocketClient>(socket);

    std::printf("flood of %lld bytes, %d rounds\n", static_cast<long long>(bytes), rounds);
    std::printf("%-6s %-22s %12s %10s %12s\n", "round", "path", "MB/s", "seconds", "batches/s");
    double referenceRate = 0, controllerRate = 0, controllerBatches = 0, seconds = 0;
    for (int round = 1; round <= rounds; ++round) {
        const auto reference = referenceFlood(*client, cwd, bytes);
        const auto controlled = controllerFlood(client, cwd, bytes);
        std::printf("%-6d %-22s %12.1f %10.2f %12.1f\n", round, "plain client (ref)",
                    reference.bytesPerSecond() / 1e6, reference.seconds,
                    reference.batchesPerSecond());
        std::printf("%-6d %-22s %12.1f %10.2f %12.1f\n", round, "controller + batcher",
                    controlled.bytesPerSecond() / 1e6, controlled.seconds,
                    controlled.batchesPerSecond());
        referenceRate += reference.bytesPerSecond();
        controllerRate += controlled.bytesPerSecond();
        controllerBatches += controlled.batches;
        seconds += controlled.seconds;
    }
    const double expectedBatches = 1.0 / 0.090 + (controllerRate / rounds) / 131072.0;
    std::printf("throughput ratio controller / plain client: %.3f\n",
                controllerRate / referenceRate);
    std::printf(
        "batches per second on the main thread: %.1f (about %.1f expected: 1 per 90 ms "
        "+ 1 per 128 KiB)\n",
        controllerBatches / seconds, expectedBatches);

    ::kill(node, SIGKILL);
    ::waitpid(node, nullptr, 0);
    fs::remove_all(dir);
    return 0;
}
