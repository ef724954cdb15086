// TerminalController: the attach decision and its status texts, the retries,
// input and resize; its output path is in TerminalOutputPath.cpp.
#include "TerminalController.h"

#include <time.h>

#include <QTimer>

#include <algorithm>
#include <string_view>
#include <utility>

#include "Base64.h"
#include "NodeSupervisor.h"
#include "PollingToken.h"

namespace hl {

namespace {

const char* const cwdMismatchText = "session cwd mismatch";

QString text(const char* utf8) {
    return QString::fromUtf8(utf8);
}

// Monotonic uptime in milliseconds.
std::uint64_t uptimeMilliseconds() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    const auto nanoseconds = static_cast<std::uint64_t>(now.tv_sec) * 1000000000ULL +
                             static_cast<std::uint64_t>(now.tv_nsec);
    return nanoseconds / 1000000ULL;
}

}  // namespace

TerminalController::TerminalController(std::optional<std::string> sessionID, std::string cwd,
                                       bool isReplacementSession, bool allowReconnect,
                                       bool sessionCreationIsAllowed,
                                       std::function<bool()> directoryIsReady,
                                       QString unavailableStatus, QString creationBlockedStatus,
                                       std::shared_ptr<const NodeClientTransport> client,
                                       TerminalControllerHooks hooks, QObject* parent)
    : QObject(parent),
      client_(client ? std::move(client) : std::make_shared<UnixSocketClient>()),
      requestedCwd_(std::move(cwd)),
      allowReconnect_(allowReconnect),
      sessionCreationIsAllowed_(sessionCreationIsAllowed),
      directoryIsReady_(directoryIsReady ? std::move(directoryIsReady) : [] { return true; }),
      unavailableStatus_(std::move(unavailableStatus)),
      creationBlockedStatus_(std::move(creationBlockedStatus)),
      hooks_(std::move(hooks)),
      status_(text("Connecting…")),
      isReplacementSession_(isReplacementSession),
      reconnectCandidate_(std::move(sessionID)) {
    if (!hooks_.ensureNodeRunning)
        hooks_.ensureNodeRunning = [] { NodeSupervisor::shared().ensureRunning(); };
    if (!hooks_.nodeLaunchFailure)
        hooks_.nodeLaunchFailure = [] { return NodeSupervisor::shared().launchFailure(); };
    if (!hooks_.nowMilliseconds) hooks_.nowMilliseconds = uptimeMilliseconds;
    installMainThreadQueue();
}

// A controller dropped without close() or suspend() still stops its poll loop.
TerminalController::~TerminalController() {
    cancelPolling();
}

QString TerminalController::sessionIDText() const {
    return sessionID_ ? QString::fromStdString(*sessionID_) : QString();
}

void TerminalController::start() {
    if (started_ || closed_ || suspended_) return;
    const bool directoryReady = directoryIsReady_();
    const bool mayCreate = directoryReady && sessionCreationIsAllowed_;
    const auto candidate = reconnectCandidate_;
    if ((!candidate || !allowReconnect_) && !mayCreate) {
        setStatus(directoryReady ? creationBlockedStatus_ : unavailableStatus_);
        setIsConnected(false);
        return;
    }
    // A new shell starts at the size of the renderer it will draw in: a shell
    // started at the default size and resized at once redraws its prompt
    // over the lines the renderer has already rewrapped.
    if ((!candidate || !allowReconnect_) && surface_ && !lastSize_ && !firstSizeWaitIsOver_) {
        if (awaitingFirstSize_) return;
        awaitingFirstSize_ = true;
        setStatus(text(isStartingReplacement_ ? "Starting validated replacement…" : "Connecting…"));
        QTimer::singleShot(hooks_.firstSizeWait, this, [this] {
            if (!awaitingFirstSize_) return;
            awaitingFirstSize_ = false;
            firstSizeWaitIsOver_ = true;
            start();
        });
        return;
    }
    started_ = true;
    if (!candidate) {
        setStatus(text(isStartingReplacement_ ? "Starting validated replacement…" : "Connecting…"));
    } else {
        setStatus(text(isReplacementSession_ ? "Reconnecting replacement…" : "Reconnecting…"));
    }
    ++startsInFlight_;
    const auto size = lastSize_.value_or(std::pair{120, 36});
    try {
        runDetached([self = QPointer<TerminalController>(this), client = client_,
                     cwd = requestedCwd_, candidate, allowReconnect = allowReconnect_, mayCreate,
                     size, previous = previousShellIDs()] {
            auto outcome =
                attach(*client, cwd, candidate, allowReconnect, mayCreate, size, previous);
            postToMainThread([self, outcome = std::move(outcome), candidate, mayCreate] {
                if (!self) return;
                self->finish(outcome, candidate, mayCreate);
                // Released only now: whoever drops the pane from inside the result's
                // callbacks sees a start in flight and keeps the controller alive.
                if (auto* controller = self.data();
                    controller && --controller->startsInFlight_ == 0)
                    emit controller->startSettled();
            });
        });
    } catch (const std::exception&) {
        // No thread for the attach: back to a state that the retry starts from.
        --startsInFlight_;
        started_ = false;
        setStatus(text("Node unavailable · reconnecting"));
        scheduleRetry();
        if (startsInFlight_ == 0) emit startSettled();
    }
}

TerminalController::AttachOutcome TerminalController::attach(
    const NodeClientTransport& client, const std::string& cwd,
    const std::optional<std::string>& candidate, bool allowReconnect, bool mayCreate,
    std::pair<int, int> size, const std::vector<std::string>& previous) {
    using Kind = AttachOutcome::Kind;
    AttachOutcome outcome;
    try {
        if ((candidate && allowReconnect) || !previous.empty()) {
            outcome.directories = listSessions(client);
            outcome.listed = true;
        }
        if (candidate && allowReconnect) {
            if (outcome.directories.count(*candidate) == 0) {
                outcome.kind = Kind::SavedSessionUnavailable;
                return outcome;
            }
            NodeResponse reply;
            try {
                reply = client.request("replay_session",
                                       {{"session_id", *candidate}, {"expected_cwd", cwd}});
            } catch (const NodeClientError& error) {
                if (error.kind() != NodeClientError::Kind::Daemon ||
                    error.daemonText() != cwdMismatchText)
                    throw;
                outcome.kind = Kind::CwdMismatch;
                return outcome;
            }
            if (!replayCwdMatches(reply, cwd)) {
                outcome.kind = Kind::CwdMismatch;
                return outcome;
            }
            outcome.kind = Kind::Attached;
            outcome.id = *candidate;
            outcome.output = reply["output_base64"].stringValue();
            outcome.exited = reply["exited"].boolValue().value_or(false);
            if (auto status = reply["exit_status"].numberValue())
                outcome.exitStatus = static_cast<int>(*status);
            outcome.shellDirectory =
                QString::fromStdString(reply["shell_cwd"].stringValue().value_or(""));
            return outcome;
        }
        if (!mayCreate) {
            outcome.kind = Kind::SavedSessionUnavailable;
            return outcome;
        }
        const auto created =
            client.request("create_session", {{"cwd", cwd},
                                              {"cols", std::int64_t{size.first}},
                                              {"rows", std::int64_t{size.second}}});
        const auto id = created["session_id"].stringValue();
        if (!id) throw NodeClientError::invalidResponse();
        outcome.kind = Kind::Attached;
        outcome.id = *id;
        return outcome;
    } catch (...) {
        // An absent node, a refusal and a reply that makes no sense all retry.
        return AttachOutcome{};  // Failed
    }
}

bool TerminalController::replayCwdMatches(const NodeResponse& reply,
                                          const std::string& requestedCwd) {
    return reply["cwd"].stringValue() == requestedCwd;
}

// The end of a start's background work, back on the main thread.
void TerminalController::finish(const AttachOutcome& outcome,
                                const std::optional<std::string>& candidate, bool mayCreate) {
    notePreviousShells(outcome);
    switch (outcome.kind) {
        case AttachOutcome::Kind::Attached:
            if (!attachResult(outcome.id, outcome.exited, candidate, outcome.output)) {
                if (onCloseRequired) onCloseRequired(outcome.id);
            } else if (outcome.exited) {
                markExited(outcome.exitStatus);
            } else {
                setShellDirectory(outcome.shellDirectory);
            }
            break;
        case AttachOutcome::Kind::SavedSessionUnavailable:
            finishUnavailableReconnect(mayCreate);
            break;
        case AttachOutcome::Kind::CwdMismatch: {
            const auto where =
                candidate ? outcome.directories.find(*candidate) : outcome.directories.end();
            mismatchResult(mayCreate, candidate,
                           where == outcome.directories.end() ? std::string() : where->second);
            break;
        }
        case AttachOutcome::Kind::Failed:
            retryResult();
            break;
    }
}

bool TerminalController::attachResult(const std::string& id, bool exited,
                                      const std::optional<std::string>& candidate,
                                      const std::optional<std::string>& output) {
    if (suspended_ && !closed_) {
        // The session stays alive on the node for a later controller.
        setSessionID(id);
        reconnectCandidate_ = id;
        setIsConnected(false);
        if (onSessionReady) onSessionReady(id);
        return true;
    }
    if (!started_ || closed_) return false;
    setSessionID(id);
    reconnectCandidate_ = id;
    unavailableNodeRetryAttempted_ = false;
    setIsConnected(!exited);
    const bool reattached = candidate == id;
    // A replacement beside a kept previous shell lost nothing.
    const bool keptPrevious = std::exchange(keptPreviousShell_, false) && !reattached;
    setIsReplacementSession(isReplacementSession_ ||
                            (!reattached && isStartingReplacement_ && !keptPrevious));
    const char* next = nullptr;
    if (exited) {
        next = "Exited";
    } else if (reattached) {
        next = isReplacementSession_ ? "Replacement reconnected · original session was lost"
                                     : "Reconnected";
    } else {
        next =
            isStartingReplacement_ ? "Replacement connected · saved session was lost" : "Connected";
    }
    if (keptPrevious && !exited && !previousShells_.empty()) {
        setStatus(text("Replacement connected · previous shell still runs ") +
                  previousShellPlace(previousShells_.back()));
    } else {
        setStatus(text(next));
    }
    isStartingReplacement_ = false;
    exited_ = false;
    if (output && !output->empty()) {
        receiveReplay(*output);
    } else if (!reattached && rendererHistoryBytes_ > 0) {
        // A new shell below what the lost one left on screen.
        receive(base64::encode(replacementSeparator));
    }
    // The session learns the renderer's size even if it changed during the start.
    if (!exited && lastSize_) terminalSurfaceDidResize(lastSize_->first, lastSize_->second);
    if (!exited) startPolling();
    if (onSessionReady) onSessionReady(id);
    return true;
}

// The saved session is not on the node.
void TerminalController::finishUnavailableReconnect(bool mayCreate) {
    if (closed_ || suspended_) return;
    if (mayCreate) {
        reconnectCandidate_.reset();
        isStartingReplacement_ = true;
        started_ = false;
        setStatus(text("Saved session unavailable · starting validated replacement"));
        start();
        return;
    }
    started_ = false;
    setSessionID(std::nullopt);
    setIsConnected(false);
    const bool blocked = directoryIsReady_() && !sessionCreationIsAllowed_;
    setStatus(blocked ? creationBlockedStatus_ : unavailableStatus_);
}

// The saved session lives in another directory: it is left running, and kept
// as a previous shell when a replacement takes its place.
void TerminalController::mismatchResult(bool mayCreate, const std::optional<std::string>& candidate,
                                        const std::string& candidateDirectory) {
    if (closed_ || suspended_) return;
    started_ = false;
    setSessionID(std::nullopt);
    setIsConnected(false);
    if (mayCreate) {
        if (candidate) keepPreviousShell({*candidate, candidateDirectory});
        keptPreviousShell_ = candidate.has_value();
        reconnectCandidate_.reset();
        isStartingReplacement_ = true;
        setStatus(text("Saved session cwd mismatch · starting replacement"));
        start();
    } else {
        setStatus(text("Saved session cwd mismatch · reattach blocked"));
    }
}

void TerminalController::retryResult() {
    if (closed_ || suspended_) return;
    started_ = false;
    setSessionID(std::nullopt);
    setIsConnected(false);
    // A node that said why it cannot serve: its words, which name the way out.
    const auto failure = hooks_.nodeLaunchFailure();
    setStatus(failure ? text("Node cannot start · ") + QString::fromStdString(*failure)
                      : text("Node unavailable · retrying"));
    hooks_.ensureNodeRunning();
    scheduleRetry();
}

// A poll failed: reattach after the retry delay, once only while the directory is gone.
void TerminalController::recover() {
    if (!started_ || closed_) return;
    started_ = false;
    setSessionID(std::nullopt);
    setIsConnected(false);
    if (!directoryIsReady_() && unavailableNodeRetryAttempted_) {
        setStatus(unavailableStatus_);
        return;
    }
    if (!directoryIsReady_()) unavailableNodeRetryAttempted_ = true;
    setStatus(text("Node unavailable · reconnecting"));
    hooks_.ensureNodeRunning();
    scheduleRetry();
}

// The shell has ended. A late report after close() or suspend() changes nothing.
void TerminalController::markExited(std::optional<int> status) {
    if (closed_ || suspended_ || !sessionID_) return;
    polling_.reset();
    exited_ = true;
    setIsConnected(false);
    setShellDirectory(QString());
    setStatus(exitedStatus(status));
}

QString TerminalController::exitedStatus(std::optional<int> status) {
    if (!status) return text("Exited · press Enter to start a new shell");
    return text("Exited (status %1) · press Enter to start a new shell").arg(*status);
}

void TerminalController::startNewShell() {
    if (!exited_ || closed_ || suspended_) return;
    const auto ended = sessionID_;
    exited_ = false;
    started_ = false;
    reconnectCandidate_.reset();
    setSessionID(std::nullopt);
    setIsReplacementSession(false);
    if (ended && onCloseRequired) onCloseRequired(*ended);
    start();
}

void TerminalController::setShellDirectory(const QString& directory) {
    if (shellDirectory_ == directory) return;
    shellDirectory_ = directory;
    emit shellDirectoryChanged();
}

void TerminalController::scheduleRetry() {
    // Bound to this object: a controller that is gone receives nothing.
    QTimer::singleShot(hooks_.retryDelay, this, [this] { start(); });
}

void TerminalController::cancelPolling() {
    if (polling_) polling_->cancel();
    polling_.reset();
}

void TerminalController::close() {
    if (closed_) return;
    closed_ = true;
    started_ = false;
    wantsFocus_ = false;
    if (surface_) surface_->resignFocus();
    cancelPolling();
    const auto id = sessionID_ ? sessionID_ : reconnectCandidate_;
    setSessionID(std::nullopt);
    reconnectCandidate_.reset();
    setIsConnected(false);
    setIsReplacementSession(false);
    setStatus(text("Closed"));
    onSessionReady = nullptr;
    if (id && onCloseRequired) onCloseRequired(*id);
    // The pane's previous shells go with it.
    const auto previous = std::exchange(previousShells_, {});
    if (!previous.empty()) emit previousShellsChanged();
    for (const auto& shell : previous) {
        if (onCloseRequired) onCloseRequired(shell.id);
    }
}

void TerminalController::suspend() {
    if (closed_) return;
    suspended_ = true;
    wantsFocus_ = false;
    if (surface_) surface_->resignFocus();
    setSurface(nullptr);
    cancelPolling();
    if (sessionID_) reconnectCandidate_ = sessionID_;
    started_ = false;
    setIsConnected(false);
#if defined(__APPLE__)
    setStatus(suspendedStatus(true));
#else
    setStatus(suspendedStatus(false));
#endif
}

QString TerminalController::suspendedStatus(bool macWords) {
    return text(macWords ? "Suspended locally · terminal remains on this Mac"
                         : "Suspended locally · terminal remains on this computer");
}

void TerminalController::requestFocus() {
    if (closed_ || suspended_) return;
    wantsFocus_ = true;
    if (!started_) start();
    if (surface_) surface_->focus();
}

void TerminalController::resignFocus() {
    wantsFocus_ = false;
    if (surface_) surface_->resignFocus();
}

void TerminalController::terminalSurfaceDidReceiveInput(const QString& input) {
    if (exited_) {
        if (input.contains('\r') || input.contains('\n')) startNewShell();
        return;
    }
    if (!sessionID_) return;
    const QByteArray bytes = input.toUtf8();
    auto encoded = base64::encode(std::string_view(bytes.constData(), bytes.size()));
    inputQueue_.enqueue(
        [client = client_, id = *sessionID_, encoded = std::move(encoded), token = polling_] {
            try {
                client->request("input", {{"session_id", id}, {"input_base64", encoded}});
            } catch (...) {
                // The poll loop is what notices a lost node.
            }
            if (token) token->wake();
        });
}

void TerminalController::terminalSurfaceDidResize(int columns, int rows) {
    lastSize_ = std::pair{columns, rows};
    if (awaitingFirstSize_) {
        awaitingFirstSize_ = false;
        start();
        return;
    }
    if (!sessionID_) return;
    inputQueue_.enqueue([client = client_, id = *sessionID_, columns, rows] {
        try {
            client->request("resize", {{"session_id", id},
                                       {"cols", std::int64_t{columns}},
                                       {"rows", std::int64_t{rows}}});
        } catch (...) {
        }
    });
}

void TerminalController::terminalSurfaceDidChangeTitle(const QString& title) {
    if (title_ == title) return;
    title_ = title;
    emit titleChanged();
}

void TerminalController::terminalSurfaceDidRingBell() {
    emit bellRang();
}

void TerminalController::terminalSurfaceDidFindMatches(int count, int index) {
    searchMatchCount_ = count;
    searchMatchIndex_ = index;
    emit searchMatchesChanged();
}

void TerminalController::terminalSurfaceDidReload() {
    setStatus(text("Terminal display crashed · repainted from history"));
}

void TerminalController::setStatus(const QString& status) {
    if (status_ == status) return;
    status_ = status;
    emit statusChanged();
}

void TerminalController::setSessionID(const std::optional<std::string>& id) {
    if (sessionID_ == id) return;
    sessionID_ = id;
    emit sessionIDChanged();
}

void TerminalController::setIsConnected(bool connected) {
    if (isConnected_ == connected) return;
    isConnected_ = connected;
    emit isConnectedChanged();
}

void TerminalController::setIsReplacementSession(bool replacement) {
    if (isReplacementSession_ == replacement) return;
    isReplacementSession_ = replacement;
    emit isReplacementSessionChanged();
}

}  // namespace hl
