// Server: the node's one event loop over its socket, its clients, its shells'
// terminals, the signal pipe and a handful of deadlines.
//
// Words used here: a *client* is one Connection; a *session* is one Session,
// known by the id that create_session handed out; a *pending kill* is a closed
// session whose processes get SIGKILL if they are still there after a grace.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Connection.h"
#include "Listener.h"
#include "Request.h"
#include "Session.h"
#include "Signals.h"

namespace hl::node {

class Server {
  public:
    using Clock = std::chrono::steady_clock;
    // Time that the processes of a closed session get between SIGHUP and SIGKILL.
    static constexpr std::chrono::milliseconds killGrace{1500};
    // Most clients served at once; more wait in the socket's backlog.
    static constexpr std::size_t maximumClients = 4096;

    explicit Server(Listener listener);

    // Serves until SIGTERM or SIGINT, then hangs up every session.
    void run();

  private:
    struct PendingKill {
        pid_t leader;
        Clock::time_point due;
    };

    // Accepts waiting clients and serves those whose request is already there.
    void acceptClients(Clock::time_point now);
    // Reads from a client and answers once its request is complete.
    void readClient(Connection& client, Clock::time_point now);
    // Reaps every child that has ended.
    void reapChildren();
    // Drops silent clients and kills what outlived its grace.
    void expireDeadlines(Clock::time_point now);
    // The soonest deadline, as a timeout for poll(2) in milliseconds (-1: none).
    int pollTimeout(Clock::time_point now) const;
    // Sends SIGHUP to every group of the session and arranges the SIGKILL.
    void hangUpSession(const Session& session, Clock::time_point now);

    // The reply to one request (Operations.cpp).
    std::string handle(const Request& request, Clock::time_point now);
    std::string listSessions() const;
    std::string replaySession(const Request& request);
    std::string createSession(const Request& request);
    std::string pollSession(const Request& request);
    std::string inputSession(const Request& request);
    std::string resizeSession(const Request& request);
    std::string closeSession(const Request& request, Clock::time_point now);
    Session* findSession(const std::string& id) const;

    Listener listener_;
    SignalPipe signals_;
    std::map<std::string, std::unique_ptr<Session>> sessions_;
    std::vector<std::unique_ptr<Connection>> clients_;
    std::vector<PendingKill> pendingKills_;
    Clock::time_point acceptPausedUntil_{};
    bool stopping_ = false;
};

}  // namespace hl::node
