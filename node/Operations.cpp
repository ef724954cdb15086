// Operations: what the node does for each request of its protocol.
#include <signal.h>
#include <sys/stat.h>

#include <cstdio>
#include <random>

#include "Reply.h"
#include "Server.h"
#include "Shell.h"

namespace hl::node {

namespace {

using json = nlohmann::json;

// A new, unguessable session id: 128 random bits as lower-case hex in UUID form,
// so that an id retried after a restart of the node never names a new session.
std::string newSessionId() {
    static std::random_device source;
    unsigned int words[4];
    for (auto& word : words)
        word = source();
    char text[37];
    std::snprintf(text, sizeof text, "%08x-%04x-%04x-%04x-%04x%08x", words[0], words[1] >> 16,
                  (words[1] & 0x0FFF) | 0x4000, ((words[2] >> 16) & 0x3FFF) | 0x8000,
                  words[2] & 0xFFFF, words[3]);
    return text;
}

// Whether two paths name the same directory: the same text, or the same file
// (as when one of them goes through a symbolic link).
// What a client shows of a session's shell besides its output: the status it
// ended with, or the directory it is in now.
void addShellState(json& data, const Session& session) {
    if (session.exited()) {
        if (auto status = session.exitStatus()) data["exit_status"] = *status;
    } else if (auto directory = session.currentDirectory()) {
        data["shell_cwd"] = *directory;
    }
}

bool sameDirectory(const std::string& a, const std::string& b) {
    if (a == b) return true;
    struct stat first, second;
    return ::stat(a.c_str(), &first) == 0 && ::stat(b.c_str(), &second) == 0 &&
           first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

const char* const unknownSession = "unknown session";

}  // namespace

std::optional<std::string> Server::handle(const Request& request, std::uint64_t ticket,
                                          Clock::time_point now) {
    switch (request.operation) {
        case Operation::Health:
            return successReply(json::object());
        case Operation::ListSessions:
            return listSessions();
        case Operation::ReplaySession:
            return replaySession(request, now);
        case Operation::CreateSession:
            return createSession(request, ticket, now);
        case Operation::Poll:
            return pollSession(request, now);
        case Operation::Input:
            return inputSession(request);
        case Operation::Resize:
            return resizeSession(request);
        case Operation::CloseSession:
            return closeSession(request, now);
    }
    return failureReply("unknown op");
}

Session* Server::findSession(const std::string& id) const {
    auto it = sessions_.find(id);
    return it == sessions_.end() ? nullptr : it->second.get();
}

std::string Server::listSessions() const {
    json ids = json::array();
    for (const auto& [id, session] : sessions_)
        ids.push_back(id);
    return successReply({{"session_ids", std::move(ids)}});
}

std::string Server::replaySession(const Request& request, Clock::time_point now) {
    Session* session = findSession(request.sessionId);
    if (!session) return failureReply(unknownSession);
    if (!sameDirectory(session->directory(), request.expectedCwd))
        return failureReply("session cwd mismatch");
    session->markReplayed(now);
    if (session->wantsOutput(now)) session->readOutput(Session::tailLimit, now);
    const std::string output = session->replay(outputAllowance());
    // The pane's own text, so that its exact comparison holds.
    json data{{"cwd", request.expectedCwd}, {"exited", session->exited()}};
    addShellState(data, *session);
    return successReply(std::move(data), output);
}

std::optional<std::string> Server::createSession(const Request& request, std::uint64_t ticket,
                                                 Clock::time_point now) {
    auto started = spawnShell(shell_, request.cwd, request.cols, request.rows);
    if (auto* reason = std::get_if<std::string>(&started)) return failureReply(*reason);
    pendingStarts_.push_back(
        {std::move(std::get<ShellProcess>(started)), request.cwd, ticket, now + startTimeout});
    return std::nullopt;  // answered once the child reports (finishStart)
}

void Server::finishStart(PendingStart& start, std::optional<std::string> failure,
                         Clock::time_point now) {
    start.shell.report.reset();
    Connection* client = findClient(start.ticket);
    if (!failure && (!client || client->state() != Connection::State::Waiting))
        failure = "the client has gone";
    std::string reply;
    if (!failure) {
        try {
            std::string id = newSessionId();
            while (sessions_.contains(id))
                id = newSessionId();
            auto session = std::make_unique<Session>(id, start.cwd, start.shell.pid,
                                                     std::move(start.shell.master),
                                                     std::move(start.shell.pidfd), now);
            if (start.reaped) session->shellEnded(now);
            sessions_.emplace(id, std::move(session));
            reply = successReply({{"session_id", id}});
        } catch (const std::exception& error) {
            failure = std::string("request failed: ") + error.what();
        }
    }
    if (failure) {
        // A shell that runs but cannot be handed out is ended with its session.
        if (!start.reaped) {
            signalSession(start.shell.pid, SIGKILL, processClockNow());
        }
        reply = failureReply(*failure);
    }
    if (client && client->state() == Connection::State::Waiting)
        client->sendReply(std::move(reply));
}

std::string Server::pollSession(const Request& request, Clock::time_point now) {
    Session* session = findSession(request.sessionId);
    if (!session) return failureReply(unknownSession);
    session->markPolled(now);
    const std::size_t allowance = outputAllowance();
    // Whatever reached the terminal since this turn's wait goes out now too.
    if (session->wantsOutput(now)) session->readOutput(allowance, now);
    const std::string output = session->takeOutput(allowance);
    json data{{"exited", session->exited()}};
    addShellState(data, *session);
    return successReply(std::move(data), output);
}

std::string Server::inputSession(const Request& request) {
    Session* session = findSession(request.sessionId);
    if (!session) return failureReply(unknownSession);
    if (!session->hasTerminal()) return failureReply("session has exited");
    if (!session->queueInput(request.input)) return failureReply("session input is full");
    return successReply(json::object());
}

std::string Server::resizeSession(const Request& request) {
    Session* session = findSession(request.sessionId);
    if (!session) return failureReply(unknownSession);
    if (!session->resize(request.cols, request.rows)) return failureReply("session has exited");
    return successReply(json::object());
}

std::string Server::closeSession(const Request& request, Clock::time_point now) {
    auto it = sessions_.find(request.sessionId);
    if (it == sessions_.end()) return successReply({{"absent", true}});
    hangUpSession(*it->second, now);
    sessions_.erase(it);
    return successReply({{"closed", true}});
}

}  // namespace hl::node
