// Server: the event loop. Each turn builds the poll(2) set from the state of
// every session and client, waits for the soonest deadline, then serves signals,
// terminals, clients and new connections in that order (terminals before
// clients, so that a poll answered in this turn sees what just arrived).
#include "Server.h"

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>

#include "Reply.h"
#include "Shell.h"

namespace hl::node {

namespace {

// Terminal bytes read from one session per turn, so that one flood cannot starve
// the others.
constexpr std::size_t readBudgetPerTurn = 1024 * 1024;
// How long accepting pauses when the node runs out of descriptors.
constexpr std::chrono::milliseconds acceptPause{100};

}  // namespace

Server::Server(Listener listener) : listener_(std::move(listener)) {}

void Server::run() {
    enum class Kind { Signals, Listener, Session, Client };
    struct Target {
        Kind kind;
        void* object;
    };
    std::vector<pollfd> fds;
    std::vector<Target> targets;

    while (!stopping_) {
        auto now = Clock::now();
        fds.clear();
        targets.clear();
        auto watch = [&](int fd, short events, Kind kind, void* object) {
            fds.push_back({fd, events, 0});
            targets.push_back({kind, object});
        };
        watch(signals_.fd(), POLLIN, Kind::Signals, nullptr);
        for (auto& [id, session] : sessions_) {
            const short events = static_cast<short>((session->wantsOutput() ? POLLIN : 0) |
                                                    (session->wantsToWrite() ? POLLOUT : 0));
            if (events) watch(session->masterFd(), events, Kind::Session, session.get());
        }
        for (auto& client : clients_) {
            const bool reading = client->state() == Connection::State::Reading;
            watch(client->fd(), reading ? POLLIN : POLLOUT, Kind::Client, client.get());
        }
        if (now >= acceptPausedUntil_ && clients_.size() < maximumClients) {
            watch(listener_.fd(), POLLIN, Kind::Listener, nullptr);
        }

        if (::poll(fds.data(), fds.size(), pollTimeout(now)) < 0 && errno != EINTR) break;
        now = Clock::now();

        for (std::size_t i = 0; i < fds.size(); ++i) {
            const short revents = fds[i].revents;
            if (revents == 0) continue;
            const Target& target = targets[i];
            switch (target.kind) {
                case Kind::Signals: {
                    const auto arrived = signals_.drain();
                    if (arrived.child) reapChildren();
                    if (arrived.stop) stopping_ = true;
                    break;
                }
                case Kind::Session: {
                    auto* session = static_cast<Session*>(target.object);
                    if (revents & POLLOUT) session->writeInput();
                    if (revents & (POLLIN | POLLHUP | POLLERR))
                        session->readOutput(readBudgetPerTurn);
                    break;
                }
                case Kind::Client: {
                    auto* client = static_cast<Connection*>(target.object);
                    if (client->state() == Connection::State::Reading) {
                        readClient(*client, now);
                    } else if (client->state() == Connection::State::Writing) {
                        client->writeReply(now);
                    }
                    break;
                }
                case Kind::Listener:
                    acceptClients(now);
                    break;
            }
        }
        expireDeadlines(now);
        std::erase_if(clients_, [](const auto& client) {
            return client->state() == Connection::State::Done;
        });
    }

    const auto now = Clock::now();
    for (const auto& [id, session] : sessions_)
        hangUpSession(*session, now);
    listener_.removeSocket();
}

void Server::acceptClients(Clock::time_point now) {
    while (clients_.size() < maximumClients) {
        auto accepted = listener_.accept();
        if (!accepted) {
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
                acceptPausedUntil_ = now + acceptPause;
            }
            return;
        }
        if (!*accepted) continue;  // another user: closed without a reply
        auto client = std::make_unique<Connection>(std::move(*accepted), now);
        // Most clients have written their request before the accept.
        readClient(*client, now);
        if (client->state() != Connection::State::Done) clients_.push_back(std::move(client));
    }
}

void Server::readClient(Connection& client, Clock::time_point now) {
    auto text = client.readRequest(now);
    if (!text) return;
    std::string reply;
    if (client.oversized()) {
        reply = failureReply("request is too large (the limit is " +
                             std::to_string(maximumRequestBytes) + " bytes)");
    } else if (text->empty()) {
        reply = failureReply("empty request");
    } else {
        auto parsed = parseRequest(*text);
        if (auto* error = std::get_if<RequestError>(&parsed)) {
            reply = failureReply(error->text);
        } else {
            reply = handle(std::get<Request>(parsed), now);
        }
    }
    client.sendReply(std::move(reply), now);
}

void Server::reapChildren() {
    int status = 0;
    pid_t pid;
    while ((pid = ::waitpid(-1, &status, WNOHANG)) > 0) {
        for (auto& [id, session] : sessions_) {
            if (session->shellPid() == pid) session->shellEnded();
        }
    }
}

void Server::expireDeadlines(Clock::time_point now) {
    for (auto& client : clients_) {
        if (client->state() != Connection::State::Done && now >= client->deadline()) client->drop();
    }
    std::erase_if(pendingKills_, [&](const PendingKill& kill) {
        if (now < kill.due) return false;
        // A new shell that happens to have the same pid is not the old session.
        const bool reused = std::any_of(sessions_.begin(), sessions_.end(), [&](const auto& entry) {
            return entry.second->shellPid() == kill.leader;
        });
        if (!reused) signalSession(kill.leader, SIGKILL);
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
    if (acceptPausedUntil_ > now) consider(acceptPausedUntil_);
    if (!soonest) return -1;
    if (*soonest <= now) return 0;
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(*soonest - now);
    return static_cast<int>(std::min<std::int64_t>(wait.count(), 60'000));
}

void Server::hangUpSession(const Session& session, Clock::time_point now) {
    // SIGCONT wakes stopped jobs so that they see the hang-up.
    signalSession(session.shellPid(), SIGHUP);
    signalSession(session.shellPid(), SIGCONT);
    pendingKills_.push_back({session.shellPid(), now + killGrace});
}

}  // namespace hl::node
