// Server: the event loop. Each turn builds the poll(2) set from the state of
// every session, client and pending start, waits for the soonest deadline, then
// serves signals, terminals, clients, parsed requests, shell starts and new
// connections in that order (terminals before clients, so that a poll answered
// in this turn sees what just arrived). No single failure ends the loop: a poll
// error is retried, and an exception ends only the request it came from.
#include "Server.h"

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>

#if defined(__GLIBC__)
#include <malloc.h>
#endif
#if defined(__linux__)
#include <sys/syscall.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <cerrno>

#include "Reply.h"

namespace hl::node {

namespace {

// Terminal bytes read from one session per turn, so that one flood cannot starve
// the others.
constexpr std::size_t readBudgetPerTurn = 1024 * 1024;
// Request bytes read from one client per turn.
constexpr std::size_t clientBudgetPerTurn = 256 * 1024;
// Clients accepted per turn.
constexpr int acceptsPerTurn = 64;
// Time a turn spends on requests of each kind once it has served one of that
// kind: on cheap ones (clients left over are read in the next turns) and on
// costly ones (left over in their queue), so that no burst holds up the loop.
constexpr std::chrono::milliseconds requestTimePerTurn{20};
// How long accepting pauses when the node runs out of descriptors.
constexpr std::chrono::milliseconds acceptPause{100};
// How long a reply must have waited for its client to read before the client
// is dropped for the memory it holds: for a poll, which must keep its pace, and
// for a replay, which must not undo the work of the replays before it.
constexpr std::chrono::milliseconds stallGraceForPoll{100};
constexpr std::chrono::milliseconds stallGraceForReplay{1000};
// How long the loop rests after a failed poll(2) before it tries again.
constexpr int pollRetryMilliseconds = 10;

// Whether a request is costly: it starts a shell or copies a whole tail.
bool isCostly(Operation operation) {
    return operation == Operation::ReplaySession || operation == Operation::CreateSession;
}

// Sends SIGKILL through a pidfd; harmless once the process has been reaped.
void killThroughPidfd(int pidfd) {
#if defined(__linux__) && defined(SYS_pidfd_send_signal)
    if (pidfd >= 0) ::syscall(SYS_pidfd_send_signal, pidfd, SIGKILL, nullptr, 0);
#else
    (void)pidfd;
#endif
}

}  // namespace

Server::Server(Listener listener, ShellSetup shell, RequestHook hook)
    : listener_(std::move(listener)),
      records_(listener_.path()),
      shell_(std::move(shell)),
      hook_(std::move(hook)) {
    endLeftovers(Clock::now());
}

void Server::endLeftovers(Clock::time_point now) {
    for (auto& leftover : records_.takeLeftovers()) {
        const unsigned long long startedBy = processClockNow();
        signalSession(leftover.leader, SIGHUP, startedBy);
        signalSession(leftover.leader, SIGCONT, startedBy);
        pendingKills_.push_back(
            {leftover.leader, startedBy, UniqueFd(), now + killGrace, std::move(leftover.record)});
    }
}

void Server::run() {
    while (!stopping_) {
        try {
            turn();
        } catch (...) {
            // Whatever failed is forgotten with its turn; the node goes on.
        }
    }
    shutDown();
}

void Server::turn() {
    enum class Kind { Signals, Parser, Listener, Session, Client, Start };
    struct Target {
        Kind kind;
        void* object;
        std::size_t index;
    };
    std::vector<pollfd> fds;
    std::vector<Target> targets;
    auto now = Clock::now();
    auto watch = [&](int fd, short events, Kind kind, void* object, std::size_t index = 0) {
        fds.push_back({fd, events, 0});
        targets.push_back({kind, object, index});
    };
    watch(signals_.fd(), POLLIN, Kind::Signals, nullptr);
    for (auto& [id, session] : sessions_) {
        const short events = static_cast<short>((session->wantsOutput(now) ? POLLIN : 0) |
                                                (session->wantsToWrite() ? POLLOUT : 0));
        if (events) watch(session->masterFd(), events, Kind::Session, session.get());
    }
    for (auto& client : clients_) {
        if (client->state() == Connection::State::Reading)
            watch(client->fd(), POLLIN, Kind::Client, client.get());
        else if (client->state() == Connection::State::Writing)
            watch(client->fd(), POLLOUT, Kind::Client, client.get());
        else if (client->state() == Connection::State::Waiting)  // a hang-up only
            watch(client->fd(), 0, Kind::Client, client.get());
    }
    watch(parser_.fd(), POLLIN, Kind::Parser, nullptr);
    for (std::size_t i = 0; i < pendingStarts_.size(); ++i)
        watch(pendingStarts_[i].shell.report.get(), POLLIN, Kind::Start, nullptr, i);
    // The listener is always watched: a full node makes room for a new client.
    if (now >= acceptPausedUntil_) watch(listener_.fd(), POLLIN, Kind::Listener, nullptr);

    if (::poll(fds.data(), fds.size(), pollTimeout(now)) < 0) {
        if (errno != EINTR) ::poll(nullptr, 0, pollRetryMilliseconds);
        return;
    }
    now = Clock::now();
    memoryInUse_ = clientMemory();
    cheapTime_ = costlyTime_ = Clock::duration::zero();

    for (std::size_t i = 0; i < fds.size(); ++i) {
        const short revents = fds[i].revents;
        if (revents == 0) continue;
        const Target& target = targets[i];
        switch (target.kind) {
            case Kind::Signals: {
                const auto arrived = signals_.drain();
                if (arrived.child) reapChildren(now);
                if (arrived.stop) stopping_ = true;
                break;
            }
            case Kind::Session: {
                auto* session = static_cast<Session*>(target.object);
                if (revents & POLLOUT) session->writeInput();
                if (revents & (POLLIN | POLLHUP | POLLERR))
                    session->readOutput(readBudgetPerTurn, now);
                break;
            }
            case Kind::Client: {
                auto* client = static_cast<Connection*>(target.object);
                if (client->state() == Connection::State::Reading) {
                    if (mayServeRequest()) readClient(*client, now);
                } else if (client->state() == Connection::State::Writing) {
                    client->writeReply();
                } else if (revents & (POLLHUP | POLLERR)) {
                    // Gone while it waited (an interrupted poll): the output
                    // stays for the next one.
                    client->drop();
                }
                break;
            }
            case Kind::Parser:
                takeParsed(now);
                break;
            case Kind::Start: {
                auto& start = pendingStarts_[target.index];
                finishStart(start, readStartReport(start.shell.report.get(), start.cwd), now);
                break;
            }
            case Kind::Listener:
                acceptClients(now);
                break;
        }
    }
    serveDeferred();
    answerWaitingPolls(Clock::now());
    expireDeadlines(now);
    std::erase_if(pendingStarts_, [](const PendingStart& start) { return !start.shell.report; });
    std::erase_if(clients_,
                  [](const auto& client) { return client->state() == Connection::State::Done; });
    trimMemory();
}

void Server::acceptClients(Clock::time_point now) {
    for (int accepted = 0; accepted < acceptsPerTurn && mayServeRequest(); ++accepted) {
        auto fd = listener_.accept();
        if (!fd) {
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
                acceptPausedUntil_ = now + acceptPause;
            }
            return;
        }
        if (!*fd) continue;  // another user: closed without a reply
        if (clients_.size() >= maximumClients) {
            // The oldest client that is still sending gives up its place.
            auto oldest = std::min_element(
                clients_.begin(), clients_.end(), [](const auto& a, const auto& b) {
                    const bool aReading = a->state() == Connection::State::Reading;
                    const bool bReading = b->state() == Connection::State::Reading;
                    if (aReading != bReading) return aReading;
                    return a->deadline() < b->deadline();
                });
            if (oldest != clients_.end()) {
                (*oldest)->drop();
                clients_.erase(oldest);
            }
        }
        auto client = std::make_unique<Connection>(std::move(*fd), nextTicket_++, now);
        // Most clients have written their request before the accept.
        readClient(*client, now);
        if (client->state() != Connection::State::Done) clients_.push_back(std::move(client));
    }
}

void Server::readClient(Connection& client, Clock::time_point now) {
    makeRoom(maximumRequestBytes, client, now, stallGraceForPoll);
    const std::size_t before = client.memory();
    const std::size_t others = memoryInUse_ > before ? memoryInUse_ - before : 0;
    const std::size_t allowance = clientMemoryLimit > others ? clientMemoryLimit - others : 0;
    auto text = client.readRequest(clientBudgetPerTurn, allowance);
    memoryInUse_ = others + client.memory();
    if (!text) return;
    if (client.oversized()) {
        client.sendReply(failureReply("request is too large (the limit is " +
                                      std::to_string(maximumRequestBytes) + " bytes)"));
    } else if (text->empty()) {
        client.sendReply(failureReply("empty request"));
    } else if (text->size() > ParseWorker::inlineLimit) {
        memoryInUse_ += text->size();
        parser_.submit(client.ticket(), std::move(*text));
    } else {
        respond(client, parseRequest(*text), now);
    }
}

void Server::respond(Connection& client, const ParseWorker::Parsed& parsed, Clock::time_point now) {
    if (const auto* error = std::get_if<RequestError>(&parsed)) {
        client.sendReply(failureReply(error->text));
        memoryInUse_ += client.memory();
        return;
    }
    const auto& request = std::get<Request>(parsed);
    // A costly request waits its turn behind those already waiting.
    if (isCostly(request.operation) && (!deferred_.empty() || costlyTime_ >= requestTimePerTurn)) {
        deferred_.push_back({client.ticket(), request});
        return;
    }
    serve(client, request, now);
}

void Server::serve(Connection& client, const Request& request, Clock::time_point now) {
    const auto started = Clock::now();
    std::optional<std::string> reply;
    try {
        const bool carriesOutput =
            request.operation == Operation::Poll || request.operation == Operation::ReplaySession;
        if (carriesOutput) {
            makeRoom(
                maximumReplyBytes, client, now,
                request.operation == Operation::Poll ? stallGraceForPoll : stallGraceForReplay);
        }
        // Output is taken only when its reply can be held: a poll takes what
        // fits (perhaps nothing), a replay is all or nothing.
        if (request.operation == Operation::ReplaySession && outputAllowance() == 0) {
            client.drop();
        } else {
            if (hook_) hook_(request);
            serving_ = &client;
            replyEncoded_ = false;
            reply = handle(request, client.ticket(), now);
            if (request.operation == Operation::Upgrade && !client.framed())
                client.upgradeAfterReply();
        }
    } catch (const std::exception& error) {
        reply = failureReply(std::string("request failed: ") + error.what());
    } catch (...) {
        reply = failureReply("request failed");
    }
    serving_ = nullptr;
    if (reply) {
        if (replyEncoded_)
            client.sendEncoded(std::move(*reply));
        else
            client.sendReply(std::move(*reply));
        memoryInUse_ += client.memory();
    }
    (isCostly(request.operation) ? costlyTime_ : cheapTime_) += Clock::now() - started;
}

void Server::serveDeferred() {
    while (!deferred_.empty() && costlyTime_ < requestTimePerTurn) {
        Deferred next = std::move(deferred_.front());
        deferred_.pop_front();
        Connection* client = findClient(next.ticket);
        if (client && client->state() == Connection::State::Waiting)
            serve(*client, next.request, Clock::now());
    }
}

void Server::takeParsed(Clock::time_point now) {
    for (auto& result : parser_.takeResults()) {
        Connection* client = findClient(result.ticket);
        if (client && client->state() == Connection::State::Waiting)
            respond(*client, result.parsed, now);
    }
}

void Server::reapChildren(Clock::time_point now) {
    int status = 0;
    pid_t pid;
    while ((pid = ::waitpid(-1, &status, WNOHANG)) > 0) {
        for (auto& [id, session] : sessions_) {
            if (session->shellPid() == pid) session->shellEnded(now, status);
        }
        for (auto& start : pendingStarts_) {
            if (start.shell.pid == pid) start.reaped = true;
        }
    }
}

void Server::expireDeadlines(Clock::time_point now) {
    for (auto& client : clients_) {
        if (client->state() != Connection::State::Done && now >= client->deadline()) client->drop();
    }
    for (auto& start : pendingStarts_) {
        if (start.shell.report && now >= start.due) {
            finishStart(start,
                        "cwd cannot be entered: " + start.cwd + " (no answer within " +
                            std::to_string(startTimeout.count()) + " s)",
                        now);
        }
    }
    std::erase_if(pendingKills_, [&](const PendingKill& kill) {
        if (now < kill.due) return false;
        killThroughPidfd(kill.pidfd.get());
        signalSession(kill.leader, SIGKILL, kill.startedBy);
        records_.remove(kill.record);
        return true;
    });
}

int Server::pollTimeout(Clock::time_point now) const {
    std::optional<Clock::time_point> soonest;
    auto consider = [&](Clock::time_point due) {
        if (!soonest || due < *soonest) soonest = due;
    };
    for (const auto& client : clients_)
        consider(client->deadline());
    for (const auto& kill : pendingKills_)
        consider(kill.due);
    for (const auto& start : pendingStarts_)
        consider(start.due);
    for (const auto& [id, session] : sessions_) {
        if (auto due = session->flowDeadline(now)) consider(*due);
    }
    for (const auto& waiting : waitingPolls_)
        consider(waiting.due);
    if (acceptPausedUntil_ > now) consider(acceptPausedUntil_);
    if (!deferred_.empty()) consider(now);
    if (!soonest) return -1;
    if (*soonest <= now) return 0;
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(*soonest - now);
    return static_cast<int>(std::min<std::int64_t>(wait.count(), 60'000));
}

void Server::hangUpSession(Session& session, Clock::time_point now) {
    // A shell reaped long ago may have had its pid reused: only processes that
    // existed when it ended (or now, if it runs) belong to the session.
    const unsigned long long startedBy =
        session.reapedAt() ? session.reapedAt() : processClockNow();
    // SIGCONT wakes stopped jobs so that they see the hang-up.
    signalSession(session.shellPid(), SIGHUP, startedBy);
    signalSession(session.shellPid(), SIGCONT, startedBy);
    pendingKills_.push_back(
        {session.shellPid(), startedBy, session.takePidfd(), now + killGrace, session.record()});
}

void Server::shutDown() {
    auto now = Clock::now();
    listener_.removeSocket();
    clients_.clear();
    for (auto& start : pendingStarts_) {
        ::kill(start.shell.pid, SIGKILL);
        records_.remove(start.record);
    }
    pendingStarts_.clear();
    for (auto& [id, session] : sessions_)
        hangUpSession(*session, now);
    sessions_.clear();
    while (!pendingKills_.empty()) {
        pollfd waiting{signals_.fd(), POLLIN, 0};
        ::poll(&waiting, 1, pollTimeout(now));
        signals_.drain();
        reapChildren(now);
        now = Clock::now();
        expireDeadlines(now);
    }
}

std::size_t Server::clientMemory() const {
    std::size_t total = parser_.bytesHeld();
    for (const auto& client : clients_)
        total += client->memory();
    return total;
}

bool Server::mayServeRequest() const {
    return cheapTime_ < requestTimePerTurn;
}

std::size_t Server::freeClientMemory() const {
    return clientMemoryLimit > memoryInUse_ ? clientMemoryLimit - memoryInUse_ : 0;
}

void Server::makeRoom(std::size_t wanted, const Connection& keep, Clock::time_point now,
                      Clock::duration grace) {
    while (freeClientMemory() < wanted) {
        Connection* stalest = nullptr;
        for (const auto& client : clients_) {
            if (client.get() == &keep || client->unsent() == 0) continue;
            if (now - client->lastProgress() < grace) continue;
            if (!stalest || client->lastProgress() < stalest->lastProgress())
                stalest = client.get();
        }
        if (!stalest) return;
        stalest->drop();
        memoryInUse_ = clientMemory();
    }
}

std::size_t Server::outputAllowance() const {
    // Base64 makes four bytes of three; some room stays for the envelope.
    constexpr std::size_t envelope = 4096;
    const std::size_t free = freeClientMemory();
    if (free < 2 * envelope) return 0;
    return std::min(maximumOutputPerReply, (free - envelope) / 4 * 3);
}

void Server::trimMemory() {
    memoryPeak_ = std::max(memoryPeak_, memoryInUse_);
#if defined(__GLIBC__)
    if (memoryPeak_ > 8 * 1024 * 1024 && clientMemory() < 1024 * 1024) {
        ::malloc_trim(0);
        memoryPeak_ = 0;
    }
#endif
}

Connection* Server::findClient(std::uint64_t ticket) const {
    for (const auto& client : clients_) {
        if (client->ticket() == ticket) return client.get();
    }
    return nullptr;
}

}  // namespace hl::node
