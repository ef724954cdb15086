// TerminalController's previous shells: a saved session that had left the
// pane's folder when the pane started is not ended but kept beside the
// replacement, so that the user can swap it back in or let it go.
#include <QPointer>

#include <algorithm>
#include <utility>

#include "TerminalController.h"

namespace hl {

namespace {
const char* const cwdMismatchText = "session cwd mismatch";
}  // namespace

std::map<std::string, std::string> TerminalController::listSessions(
    const NodeClientTransport& client) {
    const NodeResponse listing = client.request("list_sessions");
    const auto ids = listing["session_ids"].arrayValue().value_or(std::vector<JSONValue>{});
    const auto places = listing["session_cwds"].arrayValue().value_or(std::vector<JSONValue>{});
    std::map<std::string, std::string> directories;
    for (std::size_t i = 0; i < ids.size(); ++i) {
        const auto id = ids[i].stringValue();
        if (!id) continue;
        directories[*id] = i < places.size() ? places[i].stringValue().value_or("") : "";
    }
    return directories;
}

std::vector<std::string> TerminalController::previousShellIDs() const {
    std::vector<std::string> ids;
    for (const auto& shell : previousShells_)
        ids.push_back(shell.id);
    return ids;
}

QString TerminalController::previousShellPlace(const PreviousShell& shell) {
    return shell.directory.empty() ? QStringLiteral("elsewhere")
                                   : "in " + QString::fromStdString(shell.directory);
}

void TerminalController::keepPreviousShell(PreviousShell shell) {
    auto known = std::find_if(previousShells_.begin(), previousShells_.end(),
                              [&](const PreviousShell& each) { return each.id == shell.id; });
    if (known != previousShells_.end()) {
        if (*known == shell) return;
        *known = std::move(shell);
    } else {
        previousShells_.push_back(std::move(shell));
    }
    emit previousShellsChanged();
}

void TerminalController::setPreviousShells(const std::vector<std::string>& ids) {
    previousShells_.clear();
    for (const auto& id : ids) {
        if (id != reconnectCandidate_) previousShells_.push_back({id, {}});
    }
    emit previousShellsChanged();
}

void TerminalController::notePreviousShells(const AttachOutcome& outcome) {
    if (!outcome.listed) return;
    std::vector<PreviousShell> still;
    for (const auto& shell : previousShells_) {
        auto listed = outcome.directories.find(shell.id);
        if (listed != outcome.directories.end()) still.push_back({shell.id, listed->second});
    }
    if (still == previousShells_) return;
    previousShells_ = std::move(still);
    emit previousShellsChanged();
}

TerminalController::AttachOutcome TerminalController::attachPrevious(
    const NodeClientTransport& client, const std::string& id, std::string directory) {
    using Kind = AttachOutcome::Kind;
    AttachOutcome outcome;
    // The shell may have moved since the node last said where it was: one fresh look.
    for (int attempt = 0; attempt < 2; ++attempt) {
        try {
            if (attempt > 0 || directory.empty()) {
                outcome.directories = listSessions(client);
                outcome.listed = true;
                auto listed = outcome.directories.find(id);
                if (listed == outcome.directories.end()) {
                    outcome.kind = Kind::SavedSessionUnavailable;
                    return outcome;
                }
                directory = listed->second;
            }
            const NodeResponse reply =
                client.request("replay_session", {{"session_id", id}, {"expected_cwd", directory}});
            outcome.kind = Kind::Attached;
            outcome.id = id;
            outcome.output = reply["output_base64"].stringValue();
            outcome.exited = reply["exited"].boolValue().value_or(false);
            if (auto status = reply["exit_status"].numberValue())
                outcome.exitStatus = static_cast<int>(*status);
            outcome.shellDirectory =
                QString::fromStdString(reply["shell_cwd"].stringValue().value_or(""));
            return outcome;
        } catch (const NodeClientError& error) {
            const bool moved = error.kind() == NodeClientError::Kind::Daemon &&
                               error.daemonText() == cwdMismatchText;
            if (!moved) break;
            outcome.kind = Kind::CwdMismatch;
        } catch (...) {
            break;
        }
    }
    if (outcome.kind != Kind::CwdMismatch) outcome.kind = Kind::Failed;
    return outcome;
}

void TerminalController::reattachPreviousShell(const std::string& id) {
    if (closed_ || suspended_ || startsInFlight_ > 0) return;
    auto chosen = std::find_if(previousShells_.begin(), previousShells_.end(),
                               [&](const PreviousShell& each) { return each.id == id; });
    if (chosen == previousShells_.end()) return;
    ++startsInFlight_;
    try {
        runDetached([self = QPointer<TerminalController>(this), client = client_, id,
                     directory = chosen->directory] {
            auto outcome = attachPrevious(*client, id, directory);
            postToMainThread([self, outcome = std::move(outcome), id] {
                if (!self) return;
                self->finishPreviousReattach(outcome, id);
                if (auto* controller = self.data();
                    controller && --controller->startsInFlight_ == 0)
                    emit controller->startSettled();
            });
        });
    } catch (const std::exception&) {
        if (--startsInFlight_ == 0) emit startSettled();
    }
}

void TerminalController::finishPreviousReattach(const AttachOutcome& outcome,
                                                const std::string& id) {
    using Kind = AttachOutcome::Kind;
    notePreviousShells(outcome);
    auto chosen = std::find_if(previousShells_.begin(), previousShells_.end(),
                               [&](const PreviousShell& each) { return each.id == id; });
    if (outcome.kind != Kind::Attached) {
        if (chosen != previousShells_.end() && !closed_ && !suspended_) {
            setStatus(QStringLiteral("Previous shell could not be reattached · ") +
                      (outcome.kind == Kind::Failed ? QStringLiteral("node unavailable")
                                                    : QStringLiteral("it keeps moving")));
        }
        return;
    }
    if (closed_ || suspended_ || chosen == previousShells_.end()) {
        // Nothing asked for it any more: it stays where it was, as a previous shell.
        return;
    }
    // The swap: the chosen shell leaves the list and the current session takes its place.
    const std::optional<std::string> current = sessionID_;
    previousShells_.erase(chosen);
    if (current && *current != id) previousShells_.push_back({*current, requestedCwd_});
    cancelPolling();
    setSessionID(std::nullopt);
    setIsReplacementSession(false);
    started_ = true;
    emit previousShellsChanged();
    if (!attachResult(id, outcome.exited, id, outcome.output)) return;
    if (outcome.exited) {
        markExited(outcome.exitStatus);
    } else {
        setShellDirectory(outcome.shellDirectory);
    }
}

void TerminalController::closePreviousShell(const std::string& id) {
    auto chosen = std::find_if(previousShells_.begin(), previousShells_.end(),
                               [&](const PreviousShell& each) { return each.id == id; });
    if (chosen == previousShells_.end()) return;
    previousShells_.erase(chosen);
    emit previousShellsChanged();
    if (onCloseRequired) onCloseRequired(id);
}

}  // namespace hl
