// Operations: what the node does for each request of its protocol.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>

#include <cstdio>
#include <random>

#include "NodeClientFrames.h"
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

#if defined(O_PATH)
constexpr int lookupFlags = O_PATH | O_DIRECTORY | O_CLOEXEC;
#else
constexpr int lookupFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
#endif

// Whether the open directory `directory` is `folder` or lies anywhere below it,
// compared by device and inode up the chain of parents, so that links and a
// trailing slash do not matter. A deleted directory (no links left) is within
// nothing, so a shell whose folder was deleted and made again is refused.
bool directoryIsWithin(UniqueFd directory, const std::string& folder) {
    struct stat target;
    if (!directory || ::stat(folder.c_str(), &target) != 0 || !S_ISDIR(target.st_mode))
        return false;
    for (int depth = 0; depth < 4096; ++depth) {
        struct stat here;
        if (::fstat(directory.get(), &here) != 0 || here.st_nlink == 0) return false;
        if (here.st_dev == target.st_dev && here.st_ino == target.st_ino) return true;
        UniqueFd parent(::openat(directory.get(), "..", lookupFlags));
        struct stat above;
        if (!parent || ::fstat(parent.get(), &above) != 0) return false;
        if (above.st_dev == here.st_dev && above.st_ino == here.st_ino) return false;  // the root
        directory = std::move(parent);
    }
    return false;
}

// What a client shows of a session's shell besides its output: the status it
// ended with, or the directory it is in now.
void addShellState(json& data, const Session& session) {
    if (session.exited()) {
        if (auto status = session.exitStatus()) data["exit_status"] = *status;
    } else if (auto directory = session.currentDirectory()) {
        data["shell_cwd"] = *directory;
    }
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
            return pollSession(request, ticket, now);
        case Operation::Input:
            return inputSession(request);
        case Operation::Resize:
            return resizeSession(request);
        case Operation::CloseSession:
            return closeSession(request, now);
        case Operation::Upgrade:
            return successReply({{"framing", frames::framingName}});
    }
    return failureReply("unknown op");
}

Session* Server::findSession(const std::string& id) const {
    auto it = sessions_.find(id);
    return it == sessions_.end() ? nullptr : it->second.get();
}

std::string Server::listSessions() {
    json ids = json::array();
    json directories = json::array();
    for (const auto& [id, session] : sessions_) {
        ids.push_back(id);
        directories.push_back(session->directory());
    }
    // "session_cwds" is in the order of "session_ids": where each shell is now.
    return successReply(
        {{"session_ids", std::move(ids)}, {"session_cwds", std::move(directories)}});
}

std::string Server::replaySession(const Request& request, Clock::time_point now) {
    Session* session = findSession(request.sessionId);
    if (!session) return failureReply(unknownSession);
    if (!directoryIsWithin(session->openDirectory(), request.expectedCwd))
        return failureReply("session cwd mismatch");
    session->markReplayed(now);
    if (session->wantsOutput(now)) session->readOutput(Session::tailLimit, now);
    const std::string output = session->replay(outputAllowance());
    // The pane's own text, so that its exact comparison holds: a shell in a folder
    // below the pane's is still the pane's shell.
    replyEncoded_ = serving_->framed();
    json data{{"cwd", request.expectedCwd}, {"exited", session->exited()}};
    addShellState(data, *session);
    return outputReply(*serving_, data, output);
}

std::optional<std::string> Server::createSession(const Request& request, std::uint64_t ticket,
                                                 Clock::time_point now) {
    auto started = spawnShell(shell_, request.cwd, request.cols, request.rows);
    if (auto* reason = std::get_if<std::string>(&started)) return failureReply(*reason);
    auto& shell = std::get<ShellProcess>(started);
    std::string record = records_.add(shell.pid);
    pendingStarts_.push_back(
        {std::move(shell), request.cwd, ticket, now + startTimeout, std::move(record)});
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
            session->setRecord(start.record);
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
        records_.remove(start.record);
        reply = failureReply(*failure);
    }
    if (client && client->state() == Connection::State::Waiting)
        client->sendReply(std::move(reply));
}

std::optional<std::string> Server::pollSession(const Request& request, std::uint64_t ticket,
                                               Clock::time_point now) {
    Session* session = findSession(request.sessionId);
    if (!session) return failureReply(unknownSession);
    const std::size_t most = request.maxBytes ? request.maxBytes : maximumOutputPerReply;
    if (request.waitMs > 0) {
        session->markPolled(now);
        // Whatever reached the terminal since this turn's wait counts too.
        if (session->wantsOutput(now)) session->readOutput(std::min(most, outputAllowance()), now);
        if (!session->hasOutput() && !session->exited()) {
            const auto wait = std::min<Clock::duration>(std::chrono::milliseconds(request.waitMs),
                                                        longestPollWait);
            waitingPolls_.push_back({ticket, request.sessionId, most, now + wait});
            return std::nullopt;  // answered by answerWaitingPolls
        }
    }
    replyEncoded_ = serving_->framed();
    return pollReply(*serving_, *session, most, now);
}

std::string Server::pollReply(const Connection& client, Session& session, std::size_t maxBytes,
                              Clock::time_point now) {
    session.markPolled(now);
    const std::size_t allowance = std::min(maxBytes, outputAllowance());
    // Whatever reached the terminal since this turn's wait goes out now too.
    if (session.wantsOutput(now)) session.readOutput(allowance, now);
    const std::string output = session.takeOutput(allowance);
    json data{{"exited", session.exited()}};
    addShellState(data, session);
    return outputReply(client, data, output);
}

std::string Server::outputReply(const Connection& client, const nlohmann::json& data,
                                std::string_view output) {
    if (!client.framed()) return successReply(data, output);
    std::string head = successReply(data);
    head.pop_back();  // the line feed
    return frames::encode(head, output);
}

void Server::answerWaitingPolls(Clock::time_point now) {
    std::erase_if(waitingPolls_, [&](const WaitingPoll& waiting) {
        Connection* client = findClient(waiting.ticket);
        if (!client || client->state() != Connection::State::Waiting) return true;
        Session* session = findSession(waiting.sessionId);
        if (!session) {
            client->sendReply(failureReply(unknownSession));
        } else if (session->hasOutput() || session->exited() || now >= waiting.due) {
            makeRoom(maximumReplyBytes, *client, now, std::chrono::milliseconds(100));
            std::string reply = pollReply(*client, *session, waiting.maxBytes, now);
            if (client->framed())
                client->sendEncoded(std::move(reply));
            else
                client->sendReply(std::move(reply));
        } else {
            return false;
        }
        memoryInUse_ = clientMemory();
        return true;
    });
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
