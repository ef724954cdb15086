// Operations: what the node does for each request of its protocol.
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

const char* const unknownSession = "unknown session";

}  // namespace

std::string Server::handle(const Request& request, Clock::time_point now) {
    switch (request.operation) {
        case Operation::Health:
            return successReply(json::object());
        case Operation::ListSessions:
            return listSessions();
        case Operation::ReplaySession:
            return replaySession(request);
        case Operation::CreateSession:
            return createSession(request);
        case Operation::Poll:
            return pollSession(request);
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

std::string Server::replaySession(const Request& request) {
    Session* session = findSession(request.sessionId);
    if (!session) return failureReply(unknownSession);
    if (session->cwd() != request.expectedCwd) return failureReply("session cwd mismatch");
    if (session->wantsOutput()) session->readOutput(Session::tailLimit);
    const std::string output = session->replay(maximumOutputPerReply);
    return successReply({{"cwd", session->cwd()}, {"exited", session->exited()}}, output);
}

std::string Server::createSession(const Request& request) {
    auto started = spawnShell(request.cwd, request.cols, request.rows);
    if (auto* reason = std::get_if<std::string>(&started)) return failureReply(*reason);
    auto& shell = std::get<ShellProcess>(started);
    std::string id = newSessionId();
    while (sessions_.contains(id))
        id = newSessionId();
    sessions_.emplace(
        id, std::make_unique<Session>(id, request.cwd, shell.pid, std::move(shell.master)));
    return successReply({{"session_id", id}});
}

std::string Server::pollSession(const Request& request) {
    Session* session = findSession(request.sessionId);
    if (!session) return failureReply(unknownSession);
    // Whatever reached the terminal since this turn's wait goes out now too.
    if (session->wantsOutput()) session->readOutput(maximumOutputPerReply);
    const std::string output = session->takeOutput(maximumOutputPerReply);
    return successReply({{"exited", session->exited()}}, output);
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
