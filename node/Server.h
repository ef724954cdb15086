// Server: the node's one event loop over its socket, its clients, its shells'
// terminals, the signal pipe, the parse worker and a handful of deadlines.
//
// Words used here: a *client* is one Connection, named by its ticket; a
// *session* is one Session, known by the id that create_session handed out; a
// *pending start* is a shell forked for create_session whose child has not yet
// reported that it runs; a *pending kill* is a closed session whose processes
// get SIGKILL if they are still there after a grace. *Client memory* is what
// all connections and queued request texts hold together; it is capped. When a
// request needs memory that is not free, clients *stalled* on their replies
// (see Connection) are dropped first, those that waited longest first; a client
// that would still pass the cap is dropped. A *costly* request (a shell start, a
// replay of a whole tail) is served at once only while the turn's time for
// costly requests lasts; otherwise it waits in a queue of its own, so that a
// burst of them never holds up cheap requests such as polls. A *waiting poll*
// asked to wait for output: it is answered as soon as its session has output
// or has exited, or when its wait is over, and costs nothing until then.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Connection.h"
#include "Listener.h"
#include "ParseWorker.h"
#include "Request.h"
#include "Session.h"
#include "SessionRecords.h"
#include "Shell.h"
#include "Signals.h"

namespace hl::node {

class Server {
  public:
    using Clock = std::chrono::steady_clock;
    // Time that the processes of a closed session get between SIGHUP and SIGKILL.
    static constexpr std::chrono::milliseconds killGrace{1500};
    // Most clients held at once; a new client past it takes the place of the oldest.
    static constexpr std::size_t maximumClients = 1024;
    // Most bytes that all clients' requests and replies may hold together.
    static constexpr std::size_t clientMemoryLimit = 64 * 1024 * 1024;
    // Longest wait for a shell's child to enter its directory and run the shell.
    static constexpr std::chrono::seconds startTimeout{10};
    // Longest that a poll waits for output; a longer wait asked for is cut to it
    // (well under Session::unattendedAfter, so a waiting poll keeps its session
    // attended).
    static constexpr std::chrono::milliseconds longestPollWait{5000};

    // Called with each request before it is handled; a test build of the node
    // uses it to make requests fail. The production node has none.
    using RequestHook = std::function<void(const Request&)>;

    Server(Listener listener, ShellSetup shell, RequestHook hook = {});

    // Serves until SIGTERM or SIGINT, then hangs up every session and waits out
    // the grace of every pending kill.
    void run();

  private:
    struct PendingKill {
        pid_t leader;
        unsigned long long startedBy;  // processes started later are not the session's
        UniqueFd pidfd;
        Clock::time_point due;
        std::string record;  // removed once the kill is sent
    };
    struct WaitingPoll {
        std::uint64_t ticket;
        std::string sessionId;
        std::size_t maxBytes;
        Clock::time_point due;
    };
    struct PendingStart {
        ShellProcess shell;
        std::string cwd;
        std::uint64_t ticket;
        Clock::time_point due;
        std::string record;
        bool reaped = false;
    };

    // One turn of the loop: wait, then serve what is ready.
    void turn();
    // Accepts waiting clients and serves those whose request is already there.
    void acceptClients(Clock::time_point now);
    // Whether this turn may read one more request: until its time for cheap
    // requests is spent.
    bool mayServeRequest() const;
    // Reads from a client and answers once its request is complete.
    void readClient(Connection& client, Clock::time_point now);
    // Answers a parsed request, or queues it when it is costly and this turn's
    // time for costly requests is spent (or others wait before it).
    void respond(Connection& client, const ParseWorker::Parsed& parsed, Clock::time_point now);
    // Handles a request and sends its reply (or leaves the client waiting for
    // a shell start), counting the time it took against this turn.
    void serve(Connection& client, const Request& request, Clock::time_point now);
    // Serves queued costly requests, oldest first, while this turn's time lasts.
    void serveDeferred();
    // Serves the parse worker's results.
    void takeParsed(Clock::time_point now);
    // Completes a pending start once its child has reported or timed out.
    void finishStart(PendingStart& start, std::optional<std::string> failure,
                     Clock::time_point now);
    // Reaps every child that has ended.
    void reapChildren(Clock::time_point now);
    // Drops clients past their time, fails late starts, kills what outlived its grace.
    void expireDeadlines(Clock::time_point now);
    // The soonest deadline, as a timeout for poll(2) in milliseconds (-1: none).
    int pollTimeout(Clock::time_point now) const;
    // Sends SIGHUP to every group of the session and arranges the SIGKILL.
    void hangUpSession(Session& session, Clock::time_point now);
    // Hangs up the sessions that an earlier node left running.
    void endLeftovers(Clock::time_point now);
    // Hangs up every session and waits until every pending kill is sent.
    void shutDown();
    // Bytes that the clients and queued requests hold now.
    std::size_t clientMemory() const;
    // Client memory not in use.
    std::size_t freeClientMemory() const;
    // Drops clients other than keep whose replies have waited at least grace,
    // longest first, until wanted bytes are free or none is left.
    void makeRoom(std::size_t wanted, const Connection& keep, Clock::time_point now,
                  Clock::duration grace);
    // Terminal bytes that one reply may carry within the client memory left.
    std::size_t outputAllowance() const;
    // Gives freed memory back to the system after a burst.
    void trimMemory();
    Connection* findClient(std::uint64_t ticket) const;

    // The reply to one request (Operations.cpp); absent when it comes later.
    std::optional<std::string> handle(const Request& request, std::uint64_t ticket,
                                      Clock::time_point now);
    std::string listSessions();
    std::string replaySession(const Request& request, Clock::time_point now);
    std::optional<std::string> createSession(const Request& request, std::uint64_t ticket,
                                             Clock::time_point now);
    std::optional<std::string> pollSession(const Request& request, std::uint64_t ticket,
                                           Clock::time_point now);
    // The reply to a poll with the session's output, in the client's framing.
    std::string pollReply(const Connection& client, Session& session, std::size_t maxBytes,
                          Clock::time_point now);
    // A success reply with terminal output: raw in a frame's body on a framed
    // connection, "output_base64" in the line otherwise.
    static std::string outputReply(const Connection& client, const nlohmann::json& data,
                                   std::string_view output);
    // Answers the waiting polls whose session has output or has exited, or
    // whose wait is over.
    void answerWaitingPolls(Clock::time_point now);
    std::string inputSession(const Request& request);
    std::string resizeSession(const Request& request);
    std::string closeSession(const Request& request, Clock::time_point now);
    Session* findSession(const std::string& id) const;

    Listener listener_;
    SessionRecords records_;
    ShellSetup shell_;
    RequestHook hook_;
    SignalPipe signals_;
    ParseWorker parser_;
    std::map<std::string, std::unique_ptr<Session>> sessions_;
    std::vector<std::unique_ptr<Connection>> clients_;
    std::vector<PendingStart> pendingStarts_;
    std::vector<PendingKill> pendingKills_;
    std::uint64_t nextTicket_ = 1;
    std::size_t memoryInUse_ = 0;
    std::size_t memoryPeak_ = 0;
    Clock::time_point acceptPausedUntil_{};
    struct Deferred {
        std::uint64_t ticket;
        Request request;
    };
    std::deque<Deferred> deferred_;  // costly requests waiting for a turn's time
    std::vector<WaitingPoll> waitingPolls_;
    const Connection* serving_ = nullptr;  // the client whose request is handled now
    bool replyEncoded_ = false;            // the reply handled now is in its framing
    Clock::duration cheapTime_{};          // this turn's time on cheap requests
    Clock::duration costlyTime_{};         // and on costly ones
    bool stopping_ = false;
};

}  // namespace hl::node
