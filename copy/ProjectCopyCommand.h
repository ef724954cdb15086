// Running one remote command of a copy to its end (ProjectCopyCommand), and
// the cancellation that a copy's steps share (CopyTask).
#pragma once

#include <QByteArray>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>

#include <functional>
#include <memory>
#include <variant>

#include "ProjectCopyError.h"
#include "ProjectCopyPlan.h"
#include "StreamingProcess.h"

namespace hl {

// One copy operation's cancellation. Used on the main thread only; cancelling
// terminates the process that the operation runs at that moment.
class CopyTask {
  public:
    void cancel();
    bool isCancelled() const { return cancelled_; }
    // The process to terminate on cancel, until it is replaced.
    void setProcess(std::shared_ptr<StreamingProcess> process) { process_ = std::move(process); }

  private:
    bool cancelled_ = false;
    std::shared_ptr<StreamingProcess> process_;
};

// Runs `work` on the main thread, in the order posted, unless the context is
// gone by then. Safe from any thread; runs once installMainThreadQueue() has
// been called on the main thread.
void postToContext(const QPointer<QObject>& context, std::function<void()> work);

namespace ProjectCopyCommand {

using Outcome = std::variant<QByteArray, CopyFailure>;

// Runs the command to its end and calls `done` on the context's thread (never
// at once, never after the context is gone) with its standard output when it
// exits with 0; else with the failure that its standard error shows, or the
// fallback; a cancelled task gives a cancellation, whatever the status.
void collect(const QString& executable, const QStringList& arguments,
             const ProjectCopyOrigin& origin, const ProjectCopyError& fallback,
             const std::shared_ptr<CopyTask>& task, QObject* context,
             std::function<void(Outcome)> done);

// What a command's complaint means: a changed or unverified host key, a denied
// key (with the command that installs one), or else the fallback.
ProjectCopyError failure(const QByteArray& output, const ProjectCopyOrigin& origin,
                         const ProjectCopyError& fallback);

}  // namespace ProjectCopyCommand

}  // namespace hl
