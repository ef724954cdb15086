// BurstRun: bursts of requests of every kind against a real node, with a probe
// client waiting behind each one.
#include "BurstRun.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "NodeHarness.h"
#include "UniqueFd.h"

namespace hl::node::bench {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using testing::NodeHarness;

constexpr int burstSize = 100;
constexpr int rounds = 5;

UniqueFd connectTo(const std::string& path) {
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    if (::connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        return UniqueFd();
    return fd;
}

// Reads the reply until the node closes the connection.
void readReply(int fd) {
    char buffer[65536];
    while (::read(fd, buffer, sizeof buffer) > 0) {
    }
}

double millisecondsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

struct Outcome {
    double probe = 0;     // worst wait of the probe, ms
    double newcomer = 0;  // worst wait of a client that connects after the burst, ms
    double burst = 0;     // worst time until every burst reply was read, ms
};

// One kind of request, sent burstSize times at once, rounds times over.
Outcome measure(const NodeHarness& node, const std::string& request,
                const std::function<void()>& afterRound) {
    Outcome outcome;
    for (int round = 0; round < rounds; ++round) {
        // The probe is accepted before the burst arrives, and waits for a turn.
        UniqueFd probe = connectTo(node.socketPath());
        std::this_thread::sleep_for(20ms);
        std::vector<UniqueFd> burst;
        const auto start = Clock::now();
        for (int i = 0; i < burstSize; ++i) {
            burst.push_back(connectTo(node.socketPath()));
            [[maybe_unused]] auto sent =
                ::send(burst.back().get(), request.data(), request.size(), MSG_NOSIGNAL);
            ::shutdown(burst.back().get(), SHUT_WR);
        }
        const std::string health = R"({"version":1,"op":"health","data":{}})"
                                   "\n";
        const auto probeStart = Clock::now();
        [[maybe_unused]] auto sent =
            ::send(probe.get(), health.data(), health.size(), MSG_NOSIGNAL);
        UniqueFd newcomer = connectTo(node.socketPath());
        sent = ::send(newcomer.get(), health.data(), health.size(), MSG_NOSIGNAL);
        readReply(probe.get());
        outcome.probe = std::max(outcome.probe, millisecondsSince(probeStart));
        readReply(newcomer.get());
        outcome.newcomer = std::max(outcome.newcomer, millisecondsSince(probeStart));
        for (auto& fd : burst)
            readReply(fd.get());
        outcome.burst = std::max(outcome.burst, millisecondsSince(start));
        afterRound();
        std::this_thread::sleep_for(200ms);
    }
    return outcome;
}

std::string envelope(const std::string& op, const std::string& data) {
    return R"({"version":1,"op":")" + op + R"(","data":{)" + data + "}}\n";
}

}  // namespace

void burstRun(const char* executable) {
    NodeHarness node(executable ? executable : HL_NODE_EXECUTABLE);
    const auto full = node.createSession();
    node.type(full, "head -c 5000000 /dev/zero | tr '\\0' r; printf 'F%s\\n' ULL\n");
    node.pollUntil(
        full,
        [](const testing::PollResult& r) { return r.output.find("FULL") != std::string::npos; },
        60s);
    const auto other = node.createSession();
    node.pollUntil(other, [](const testing::PollResult& r) { return !r.output.empty(); });
    const std::string cwd = R"("expected_cwd":")" + node.folder() + "\"";

    std::printf(
        "burst: %d requests at once; the wait of a client already connected behind "
        "them (the loop's stall), and the burst's own time (worst of %d)\n",
        burstSize, rounds);
    struct Kind {
        const char* name;
        std::string request;
    };
    const Kind kinds[] = {
        {"health", envelope("health", "")},
        {"list_sessions", envelope("list_sessions", "")},
        {"poll", envelope("poll", R"("session_id":")" + other + "\"")},
        {"input", envelope("input", R"("session_id":")" + other + R"(","input_base64":"")")},
        {"replay_session (4 MiB tail)",
         envelope("replay_session", R"("session_id":")" + full + "\"," + cwd)},
        {"create_session",
         envelope("create_session", R"("cwd":")" + node.folder() + R"(","cols":120,"rows":36)")},
    };
    // Sessions started by a burst are closed before the next round.
    const auto closeStarted = [&] {
        const auto ids = node.client().request("list_sessions")["session_ids"].arrayValue();
        for (const auto& id : ids.value_or(std::vector<JSONValue>{})) {
            const auto text = id.stringValue().value_or("");
            if (text != full && text != other) node.closeSession(text);
        }
    };
    for (const auto& kind : kinds) {
        const Outcome outcome = measure(node, kind.request, closeStarted);
        std::printf("  %-30s stall %7.1f ms   newcomer %7.1f ms   burst %7.1f ms\n", kind.name,
                    outcome.probe, outcome.newcomer, outcome.burst);
    }
    node.closeSession(full);
    node.closeSession(other);
}

}  // namespace hl::node::bench
