// TerminalController: one terminal session as a pane sees it. It decides how a
// pane gets a shell (reattach to the saved session when the node still has it
// in the pane's directory, start a validated replacement when it does not and
// that is allowed, or stand still and say why), shows that on one status line,
// forwards keystrokes and sizes to the node, polls the node for output and
// keeps a bounded history from which a fresh renderer is repainted.
//
// Words used here: the *candidate* is the saved session id to try on the next
// start; a *replacement* is a new session started because the saved one was
// lost or had left the pane's folder; a *previous shell* is such a saved
// session that is still running elsewhere, kept for the user to reattach or close. The controller
// lives on the main thread; node requests run on detached threads and their results re-check the
// controller's state on arrival.
#pragma once

#include <QObject>
#include <QPointer>
#include <QString>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "NodeClient.h"
#include "TerminalOutputBatcher.h"
#include "TerminalSurface.h"
#include "TerminalThreads.h"

namespace hl {

class PollingToken;

// What a controller needs besides its node: how to make sure a node runs, and
// its pacing. The defaults are the product's; tests shorten them.
struct TerminalControllerHooks {
    // Called when the node did not answer; empty means NodeSupervisor::shared().ensureRunning().
    std::function<void()> ensureNodeRunning;
    std::chrono::milliseconds retryDelay{600};
    // Pacing of plain polls (a node that cannot hold a poll): after output, and idle.
    std::chrono::milliseconds busyPollInterval{50};
    std::chrono::milliseconds idlePollInterval{180};
    // How long a waiting poll of an idle terminal may wait: output ends it at
    // once, so this only bounds how long the loop goes without a reply.
    std::chrono::milliseconds pollWait{1000};
    // Most output one poll brings: what the renderer takes in a few batches.
    std::size_t pollMaximumBytes = 1024 * 1024;
    // How long a new shell waits for an attached renderer to report its size
    // before it starts at the default one.
    std::chrono::milliseconds firstSizeWait{1500};
    std::uint64_t targetLatencyMilliseconds =
        TerminalOutputBatcher::defaultTargetLatencyMilliseconds;
    // Monotonic time in milliseconds, called on poll threads; empty means uptime.
    std::function<std::uint64_t()> nowMilliseconds;
    // Why the last node started could not serve, in its own words (a lock it
    // cannot take, and the way out); empty means NodeSupervisor's launchFailure().
    std::function<std::optional<std::string>()> nodeLaunchFailure;
};

class TerminalController : public QObject, public TerminalSurfaceDelegate {
    Q_OBJECT
    Q_PROPERTY(QString status READ status NOTIFY statusChanged)
    // The attached session's id; empty while there is none.
    Q_PROPERTY(QString sessionID READ sessionIDText NOTIFY sessionIDChanged)
    Q_PROPERTY(bool isConnected READ isConnected NOTIFY isConnectedChanged)
    Q_PROPERTY(
        bool isReplacementSession READ isReplacementSession NOTIFY isReplacementSessionChanged)
    // The title a program gave the terminal; empty when none.
    Q_PROPERTY(QString title READ title NOTIFY titleChanged)
    Q_PROPERTY(int previousShellCount READ previousShellCount NOTIFY previousShellsChanged)
    // The directory the shell is in now, as the node reports it; empty when unknown.
    Q_PROPERTY(QString shellDirectory READ shellDirectory NOTIFY shellDirectoryChanged)

  public:
    static constexpr std::int64_t maximumHistoryBytes = 4194304;

    // A shell that had left the pane's folder when the pane last started. Its
    // directory is where the node last saw it; empty until the node has said.
    struct PreviousShell {
        std::string id;
        std::string directory;
        bool operator==(const PreviousShell&) const = default;
    };

    // `sessionID` is the saved session to try first; `client` empty means a
    // UnixSocketClient on the default socket; `directoryIsReady` empty means
    // always ready. It must be callable from any thread.
    TerminalController(std::optional<std::string> sessionID, std::string cwd,
                       bool isReplacementSession = false, bool allowReconnect = true,
                       bool sessionCreationIsAllowed = true,
                       std::function<bool()> directoryIsReady = {},
                       QString unavailableStatus =
                           QStringLiteral("Working directory unavailable · focus to retry"),
                       QString creationBlockedStatus =
                           QStringLiteral("Saved workspace data is unsafe · new session blocked"),
                       std::shared_ptr<const NodeClientTransport> client = {},
                       TerminalControllerHooks hooks = {}, QObject* parent = nullptr);
    ~TerminalController() override;

    QString status() const { return status_; }
    const std::optional<std::string>& sessionID() const { return sessionID_; }
    QString sessionIDText() const;
    bool isConnected() const { return isConnected_; }
    bool isReplacementSession() const { return isReplacementSession_; }
    QString title() const { return title_; }
    QString shellDirectory() const { return shellDirectory_; }
    // The shell has ended; Enter starts a new one in the pane's directory.
    bool hasExited() const { return exited_; }
    // The last search's matches and the selected one (-1 when none is).
    int searchMatchCount() const { return searchMatchCount_; }
    int searchMatchIndex() const { return searchMatchIndex_; }

    const std::vector<PreviousShell>& previousShells() const { return previousShells_; }
    int previousShellCount() const { return static_cast<int>(previousShells_.size()); }
    // The previous shells a restored pane still holds; their directories are
    // learned at the next start, and those the node no longer has are dropped.
    void setPreviousShells(const std::vector<std::string>& ids);
    // Swaps the previous shell in: the current session becomes a previous shell
    // in its place, so that nothing is ended. Does nothing for an unknown id.
    void reattachPreviousShell(const std::string& id);
    // Lets the previous shell go: it is handed to onCloseRequired.
    void closePreviousShell(const std::string& id);

    const std::string& requestedCwd() const { return requestedCwd_; }
    const std::optional<std::string>& reconnectCandidate() const { return reconnectCandidate_; }
    bool wantsFocus() const { return wantsFocus_; }
    bool isClosed() const { return closed_; }
    bool isSuspended() const { return suspended_; }
    // True while a poll loop belongs to this controller.
    bool isPolling() const { return polling_ != nullptr; }
    // True while a start's request is with the node; its result may still hand
    // a session to onSessionReady or onCloseRequired, so the owner keeps the
    // controller until startSettled.
    bool hasStartInFlight() const { return startsInFlight_ > 0; }

    // The attached renderer, held weakly. Assigning one repaints it from the history.
    TerminalSurface* surface() const { return surface_.data(); }
    void setSurface(TerminalSurface* surface);

    // The pane must store this id as its session.
    std::function<void(const std::string&)> onSessionReady;
    // The controller has let go of this id; the owner must see it closed on the node.
    std::function<void(const std::string&)> onCloseRequired;

    // Begins attaching, unless already started, closed or suspended.
    void start();
    // Ends this terminal for good and hands its session id to onCloseRequired.
    void close();
    // Stops touching the session but keeps it alive on the node and keeps its id.
    void suspend();
    // Wants the keyboard; starts the terminal if it is not started (the retry
    // that "focus to retry" promises).
    void requestFocus();
    void resignFocus();

    void terminalSurfaceDidReceiveInput(const QString& text) override;
    void terminalSurfaceDidResize(int columns, int rows) override;
    void terminalSurfaceDidChangeTitle(const QString& title) override;
    void terminalSurfaceDidRingBell() override;
    void terminalSurfaceDidFindMatches(int count, int index) override;
    void terminalSurfaceDidReload() override;

    // Where a previous shell is, for its status and menu: "in <dir>", or
    // "elsewhere" when the node has not said.
    static QString previousShellPlace(const PreviousShell& shell);
    // The status of a suspended terminal, in the words of the platform.
    static QString suspendedStatus(bool macWords);

    // The bytes written between an old session's screen and a replacement's output.
    static const std::string replacementSeparator;

    // Output path, on the main thread.
    // Starts a poll loop for the attached session, replacing any running one.
    void startPolling();
    // One batch from the poll loop: kept in the history and written to the surface.
    void receive(const std::string& base64);
    // A replay from the node: replaces the history and the surface's content.
    void receiveReplay(const std::string& base64);
    // Keeps a batch in the history, dropping the oldest chunks past the cap.
    void retain(const std::string& base64);

    // The retained output as base64 chunks, oldest first.
    std::vector<std::string> rendererHistory() const;
    std::int64_t rendererHistoryBytes() const { return rendererHistoryBytes_; }

  signals:
    void statusChanged();
    // The last start in flight has come back.
    void startSettled();
    void sessionIDChanged();
    void isConnectedChanged();
    void isReplacementSessionChanged();
    void titleChanged();
    void bellRang();
    void shellDirectoryChanged();
    void searchMatchesChanged();
    void previousShellsChanged();

  private:
    // What a start's background work found.
    struct AttachOutcome {
        enum class Kind { Attached, SavedSessionUnavailable, CwdMismatch, Failed };
        Kind kind = Kind::Failed;
        std::string id;
        bool exited = false;
        std::optional<std::string> output;
        std::optional<int> exitStatus;
        QString shellDirectory;
        // Where the node's sessions were, when the start listed them.
        bool listed = false;
        std::map<std::string, std::string> directories;
    };
    struct HistoryChunk {
        std::string base64;
        std::int64_t bytes;
    };

    // The blocking part of a start, on a detached thread.
    // A new session gets `size` (columns, rows), the renderer's when known.
    static AttachOutcome attach(const NodeClientTransport& client, const std::string& cwd,
                                const std::optional<std::string>& candidate, bool allowReconnect,
                                bool mayCreate, std::pair<int, int> size,
                                const std::vector<std::string>& previous);
    // Replays a previous shell wherever it is now, on a detached thread.
    static AttachOutcome attachPrevious(const NodeClientTransport& client, const std::string& id,
                                        std::string directory);
    // Where the listed sessions are: "session_cwds" in the order of "session_ids".
    static std::map<std::string, std::string> listSessions(const NodeClientTransport& client);
    // Learns where the previous shells are from a listing, dropping those gone.
    void notePreviousShells(const AttachOutcome& outcome);
    void finishPreviousReattach(const AttachOutcome& outcome, const std::string& id);
    std::vector<std::string> previousShellIDs() const;
    // Adds or updates one previous shell.
    void keepPreviousShell(PreviousShell shell);
    // The poll loop of one session, on a thread of its own.
    static void pollLoop(const QPointer<TerminalController>& controller,
                         std::shared_ptr<const NodeClientTransport> client, std::string sessionID,
                         std::shared_ptr<PollingToken> token, TerminalControllerHooks settings);
    static bool replayCwdMatches(const NodeResponse& reply, const std::string& requestedCwd);
    void finish(const AttachOutcome& outcome, const std::optional<std::string>& candidate,
                bool mayCreate);
    // Takes the session on; false when the controller no longer wants it.
    bool attachResult(const std::string& id, bool exited,
                      const std::optional<std::string>& candidate,
                      const std::optional<std::string>& output);
    void finishUnavailableReconnect(bool mayCreate);
    void mismatchResult(bool mayCreate, const std::optional<std::string>& candidate,
                        const std::string& candidateDirectory);
    void retryResult();
    void recover();
    void markExited(std::optional<int> status);
    // The status line of an ended shell.
    static QString exitedStatus(std::optional<int> status);
    // After an exit: the old session goes, a new shell starts in the pane's directory.
    void startNewShell();
    void setShellDirectory(const QString& directory);
    // Calls start() after the retry delay, unless the controller is gone.
    void scheduleRetry();
    void cancelPolling();

    void setStatus(const QString& status);
    void setSessionID(const std::optional<std::string>& id);
    void setIsConnected(bool connected);
    void setIsReplacementSession(bool replacement);

    std::shared_ptr<const NodeClientTransport> client_;
    std::string requestedCwd_;
    bool allowReconnect_;
    bool sessionCreationIsAllowed_;
    std::function<bool()> directoryIsReady_;
    QString unavailableStatus_;
    QString creationBlockedStatus_;
    TerminalControllerHooks hooks_;

    QString status_;
    std::optional<std::string> sessionID_;
    bool isConnected_ = false;
    bool isReplacementSession_;
    QString title_;
    QString shellDirectory_;
    bool exited_ = false;
    int searchMatchCount_ = 0;
    int searchMatchIndex_ = -1;
    // The renderer's last reported size, columns and rows.
    std::optional<std::pair<int, int>> lastSize_;
    // A new shell is held until the renderer reports its size (or the wait ends).
    bool awaitingFirstSize_ = false;
    bool firstSizeWaitIsOver_ = false;

    QPointer<TerminalSurface> surface_;
    std::optional<std::string> reconnectCandidate_;
    bool started_ = false;
    bool closed_ = false;
    bool suspended_ = false;
    bool wantsFocus_ = false;
    std::shared_ptr<PollingToken> polling_;
    bool unavailableNodeRetryAttempted_ = false;
    bool isStartingReplacement_ = false;
    std::vector<PreviousShell> previousShells_;
    // The replacement being started keeps the saved session as a previous shell.
    bool keptPreviousShell_ = false;
    int startsInFlight_ = 0;
    // Keeps input and resize requests in the order the renderer sent them.
    SerialTaskQueue inputQueue_;

    std::deque<HistoryChunk> rendererHistory_;
    std::int64_t rendererHistoryBytes_ = 0;
};

}  // namespace hl
