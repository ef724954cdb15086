// TerminalController's output path: the poll loop on a thread of its own,
// batches handed to the main thread, the bounded history and the repaint of a
// renderer from it.
#include <QTimer>

#include <string_view>
#include <utility>

#include "Base64.h"
#include "PollingToken.h"
#include "TerminalController.h"

namespace hl {

namespace {

// The last `limit` bytes of `bytes`.
std::string_view tailOf(std::string_view bytes, std::int64_t limit) {
    const auto size = static_cast<std::int64_t>(bytes.size());
    return size > limit ? bytes.substr(static_cast<std::size_t>(size - limit)) : bytes;
}

}  // namespace

// Leaves the alternate screen and every mode a full-screen program may have
// set, then draws a dim rule, so a replacement shell starts on a clean line
// below the old screen instead of over it.
const std::string TerminalController::replacementSeparator =
    "\x1b[?1047l\x1b[?1000l\x1b[?1002l\x1b[?1003l\x1b[?1006l\x1b[?1004l\x1b[?2004l"
    "\x1b[?25h\x1b[<99u\x1b[0m\r\n\x1b[2m\u2500\u2500 new session \u2500\u2500\x1b[0m\r\n";

// Polls one session until the token is cancelled, the node fails or the shell
// exits. Holds the controller only weakly: every delivery re-checks it on the
// main thread.
void TerminalController::pollLoop(const QPointer<TerminalController>& controller,
                                  std::shared_ptr<const NodeClientTransport> client,
                                  std::string sessionID, std::shared_ptr<PollingToken> token,
                                  TerminalControllerHooks settings) {
    TerminalOutputBatcher batcher(settings.targetLatencyMilliseconds);
    const auto deliver = [&controller](std::vector<std::string> batches) {
        if (batches.empty()) return;
        postToMainThread([controller, batches = std::move(batches)] {
            for (const auto& batch : batches) {
                if (auto* c = controller.data()) c->receive(batch);
            }
        });
    };
    std::unique_ptr<NodeOutputLine> line = client->openOutputLine();
    token->setInterrupt([raw = line.get()] { raw->interrupt(); });
    std::string shellDirectory;
    for (;;) {
        if (token->isCancelled()) {
            deliver(batcher.flush());
            break;
        }
        NodePollResult reply;
        try {
            // While a burst is buffered, a poll that finds nothing ends it at
            // once; otherwise the poll waits for output.
            const auto wait =
                batcher.buffered().empty() ? settings.pollWait : std::chrono::milliseconds(0);
            reply = line->poll(sessionID, wait, settings.pollMaximumBytes);
        } catch (...) {
            // A cancel interrupts the poll on purpose: no node was lost.
            const bool cancelled = token->isCancelled();
            token->cancel();
            deliver(batcher.flush());
            if (!cancelled) {
                postToMainThread([controller] {
                    if (auto* c = controller.data()) c->recover();
                });
            }
            continue;
        }
        deliver(batcher.ingestBytes(reply.output, settings.nowMilliseconds()));
        if (reply.exited) {
            token->cancel();
            deliver(batcher.flush());
            const std::optional<int> status = reply.exitStatus;
            postToMainThread([controller, status] {
                if (auto* c = controller.data()) c->markExited(status);
            });
            break;
        }
        if (reply.shellDirectory && *reply.shellDirectory != shellDirectory) {
            shellDirectory = *reply.shellDirectory;
            postToMainThread(
                [controller, token, directory = QString::fromStdString(shellDirectory)] {
                    auto* c = controller.data();
                    if (c && !token->isCancelled()) c->setShellDirectory(directory);
                });
        }
        if (!reply.waited) {
            token->wait(!reply.output.empty() ? settings.busyPollInterval
                                              : settings.idlePollInterval);
        }
    }
    token->setInterrupt({});
}

void TerminalController::startPolling() {
    if (!sessionID_) return;
    cancelPolling();
    polling_ = std::make_shared<PollingToken>();
    // A thread of its own, so that no queue of other work can hold it up.
    try {
        runDetached([self = QPointer<TerminalController>(this), client = client_, id = *sessionID_,
                     token = polling_, settings = hooks_]() mutable {
            pollLoop(self, std::move(client), std::move(id), std::move(token), std::move(settings));
            // The guard is let go of on the main thread, where the controller dies:
            // its count is Qt's, which no thread checker here can see through.
            postToMainThread([self = std::move(self)] {});
        });
    } catch (const std::exception&) {
        // No poll thread: handled like a lost node, which reattaches.
        polling_->cancel();
        QTimer::singleShot(0, this, [this] { recover(); });
    }
}

void TerminalController::receive(const std::string& base64) {
    retain(base64);
    if (surface_) surface_->write(QString::fromLatin1(base64.data(), qsizetype(base64.size())));
}

void TerminalController::retain(const std::string& base64) {
    const auto bytes = base64::decode(base64);
    if (!bytes || bytes->empty()) return;
    const auto size = static_cast<std::int64_t>(bytes->size());
    if (size > maximumHistoryBytes) {
        const auto tail = tailOf(*bytes, maximumHistoryBytes);
        rendererHistory_.clear();
        rendererHistory_.push_back({base64::encode(tail), static_cast<std::int64_t>(tail.size())});
        rendererHistoryBytes_ = static_cast<std::int64_t>(tail.size());
        return;
    }
    rendererHistory_.push_back({base64, size});
    rendererHistoryBytes_ += size;
    while (rendererHistoryBytes_ > maximumHistoryBytes && !rendererHistory_.empty()) {
        rendererHistoryBytes_ -= rendererHistory_.front().bytes;
        rendererHistory_.pop_front();
    }
}

void TerminalController::receiveReplay(const std::string& base64) {
    const auto bytes = base64::decode(base64);
    if (!bytes) return;
    const auto tail = tailOf(*bytes, maximumHistoryBytes);
    const auto encoded = base64::encode(tail);
    rendererHistory_.clear();
    if (!tail.empty())
        rendererHistory_.push_back({encoded, static_cast<std::int64_t>(tail.size())});
    rendererHistoryBytes_ = static_cast<std::int64_t>(tail.size());
    if (surface_)
        surface_->replaceWithReplay(QString::fromLatin1(encoded.data(), qsizetype(encoded.size())));
}

std::vector<std::string> TerminalController::rendererHistory() const {
    std::vector<std::string> chunks;
    chunks.reserve(rendererHistory_.size());
    for (const auto& chunk : rendererHistory_)
        chunks.push_back(chunk.base64);
    return chunks;
}

void TerminalController::setSurface(TerminalSurface* surface) {
    surface_ = surface;
    if (!surface) return;
    std::string bytes;
    bytes.reserve(static_cast<std::size_t>(rendererHistoryBytes_));
    for (const auto& chunk : rendererHistory_) {
        if (auto decoded = base64::decode(chunk.base64)) bytes += *decoded;
    }
    const auto encoded = base64::encode(bytes);
    surface->replaceWithReplay(QString::fromLatin1(encoded.data(), qsizetype(encoded.size())));
    if (wantsFocus_ && surface_) surface_->focus();
}

}  // namespace hl
