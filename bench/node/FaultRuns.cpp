// FaultRuns: hostile clients of the same user against a real node.
#include "FaultRuns.h"

#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "Base64.h"
#include "NodeHarness.h"
#include "Session.h"
#include "UniqueFd.h"

namespace hl::node::bench {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using testing::NodeHarness;

long residentKiB(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
    }
    return 0;
}

UniqueFd connectTo(const std::string& path) {
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    if (::connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        return UniqueFd();
    return fd;
}

// Writes all of bytes (the node may stop reading: then what was sent counts).
void sendAll(int fd, const std::string& bytes) {
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t n = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) return;
        sent += static_cast<std::size_t>(n);
    }
}

struct Latency {
    double median = 0, worst = 0;
    int failed = 0;
};

// Health latency over count requests, in milliseconds.
Latency healthLatency(const NodeHarness& node, int count) {
    std::vector<double> times;
    Latency result;
    for (int i = 0; i < count; ++i) {
        const auto start = Clock::now();
        try {
            node.client().request("health");
        } catch (const std::exception&) {
            ++result.failed;
        }
        times.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
        std::this_thread::sleep_for(20ms);
    }
    std::sort(times.begin(), times.end());
    result.median = times[times.size() / 2];
    result.worst = times.back();
    return result;
}

void report(const char* name, const Latency& baseline, const Latency& during, long rssKiB) {
    std::printf(
        "  %-34s health median %7.2f ms (%5.1fx)  worst %8.2f ms (%6.1fx)  failed %d  "
        "node RSS %6.1f MiB\n",
        name, during.median, during.median / baseline.median, during.worst,
        during.worst / baseline.worst, during.failed, rssKiB / 1024.0);
}

// An input request of about size bytes for a session that does not exist.
std::string largeRequest(std::size_t size, bool lineFeed) {
    std::string text = R"({"version":1,"op":"input","data":{"session_id":"x","input_base64":")";
    text += std::string(size - text.size() - 4, 'A');
    text += "\"}}";
    if (lineFeed) text += '\n';
    return text;
}

}  // namespace

void faultRuns() {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 16384);
    ::setrlimit(RLIMIT_NOFILE, &limit);

    NodeHarness node;
    const Latency baseline = healthLatency(node, 50);
    std::printf(
        "faults: health latency of a real node while clients misbehave (ratios to no fault)\n");
    report("no fault", baseline, baseline, residentKiB(node.pid()));

    // Requests at the size limit, sent over and over by 4 clients at once.
    {
        std::atomic<bool> done{false};
        std::vector<std::thread> senders;
        const std::string request = largeRequest(4 * 1024 * 1024 - 64, true);
        for (int t = 0; t < 4; ++t) {
            senders.emplace_back([&] {
                while (!done) {
                    UniqueFd fd = connectTo(node.socketPath());
                    sendAll(fd.get(), request);
                    ::shutdown(fd.get(), SHUT_WR);
                    char buffer[256];
                    while (::read(fd.get(), buffer, sizeof buffer) > 0) {
                    }
                }
            });
        }
        const Latency during = healthLatency(node, 50);
        const long rss = residentKiB(node.pid());
        done = true;
        for (auto& sender : senders)
            sender.join();
        report("4 MiB requests, 4 senders", baseline, during, rss);
    }
    // 64 clients each leave a request just under the limit unfinished, then all close.
    {
        std::vector<UniqueFd> partial;
        const std::string body = largeRequest(4 * 1024 * 1024 - 64, false);
        for (int i = 0; i < 64; ++i) {
            partial.push_back(connectTo(node.socketPath()));
            sendAll(partial.back().get(), body);
        }
        const long rss = residentKiB(node.pid());
        for (auto& fd : partial)
            ::shutdown(fd.get(), SHUT_WR);
        const Latency during = healthLatency(node, 50);
        partial.clear();
        report("64 partial 4 MiB requests closed", baseline, during, rss);
    }
    // 100 replays of a session with a full tail, whose replies nobody reads.
    {
        const auto id = node.createSession();
        node.type(id, "head -c 5000000 /dev/zero | tr '\\0' r\n");
        node.pollUntil(
            id, [](const testing::PollResult& r) { return r.output.size() > 5'000'000; }, 60s);
        const std::string replay = R"({"version":1,"op":"replay_session","data":{"session_id":")" +
                                   id + R"(","expected_cwd":")" + node.folder() + "\"}}\n";
        std::vector<UniqueFd> unread;
        for (int i = 0; i < 100; ++i) {
            unread.push_back(connectTo(node.socketPath()));
            sendAll(unread.back().get(), replay);
        }
        const Latency during = healthLatency(node, 50);
        const long rss = residentKiB(node.pid());
        unread.clear();
        node.closeSession(id);
        report("100 unread replay replies", baseline, during, rss);
    }
    // 4,200 idle connections, then the memory once they have left.
    {
        std::vector<UniqueFd> idle;
        for (int i = 0; i < 4200; ++i) {
            UniqueFd fd = connectTo(node.socketPath());
            if (fd) idle.push_back(std::move(fd));
        }
        const Latency during = healthLatency(node, 50);
        const long rss = residentKiB(node.pid());
        idle.clear();
        std::this_thread::sleep_for(500ms);
        report("4,200 idle connections", baseline, during, rss);
        std::printf("  %-34s node RSS %6.1f MiB once they have left\n", "",
                    residentKiB(node.pid()) / 1024.0);
    }
    // One client that trickles a byte every 2 s: when is it dropped?
    {
        UniqueFd trickle = connectTo(node.socketPath());
        const auto start = Clock::now();
        double dropped = -1;
        while (std::chrono::duration<double>(Clock::now() - start).count() < 45) {
            if (::send(trickle.get(), "{", 1, MSG_NOSIGNAL) != 1) {
                dropped = std::chrono::duration<double>(Clock::now() - start).count();
                break;
            }
            std::this_thread::sleep_for(2s);
        }
        if (dropped < 0)
            std::printf("  trickling client (a byte per 2 s): not dropped within 45 s\n");
        else
            std::printf("  trickling client (a byte per 2 s): dropped after %.0f s\n", dropped);
    }
}

void unattended(unsigned megabytes) {
    const std::string command = "yes | head -c " + std::to_string(megabytes) + "M";
    const auto directStart = Clock::now();
    std::system((command + " > /dev/null").c_str());
    const double direct = std::chrono::duration<double>(Clock::now() - directStart).count();

    NodeHarness node;
    const auto id = node.createSession();
    const std::string marker = node.folder() + "/done";
    const auto start = Clock::now();
    node.type(id, command + "; : > " + marker + "\n");
    long peak = 0;
    while (!std::filesystem::exists(marker) &&
           std::chrono::duration<double>(Clock::now() - start).count() < 600) {
        peak = std::max(peak, residentKiB(node.pid()));
        std::this_thread::sleep_for(100ms);
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    const bool finished = std::filesystem::exists(marker);
    std::printf("unattended: %s with nobody polling the session\n", command.c_str());
    std::printf(
        "  %s in %.1f s (into /dev/null: %.1f s, %.1fx; the first %lld s are flow "
        "control waiting for a poll)\n",
        finished ? "finished" : "NOT finished", seconds, direct, seconds / direct,
        static_cast<long long>(Session::unattendedAfter.count()));
    std::printf("  node RSS peak %.1f MiB\n", peak / 1024.0);
    node.closeSession(id);
}

}  // namespace hl::node::bench
