// ProjectCopyCommand: a remote command run to its end, and the reading of
// what ssh printed when it failed.
#include "ProjectCopyCommand.h"

#include <QPointer>

#include "TerminalThreads.h"

namespace hl {

void CopyTask::cancel() {
    cancelled_ = true;
    if (process_) process_->terminate();
}

void postToContext(const QPointer<QObject>& context, std::function<void()> work) {
    postToMainThread([context, work = std::move(work)] {
        if (context) work();
    });
}

namespace ProjectCopyCommand {

void collect(const QString& executable, const QStringList& arguments,
             const ProjectCopyOrigin& origin, const ProjectCopyError& fallback,
             const std::shared_ptr<CopyTask>& task, QObject* context,
             std::function<void(Outcome)> done) {
    installMainThreadQueue();
    const QPointer<QObject> receiver(context);
    if (task->isCancelled()) {
        postToContext(receiver, [done] { done(CopyFailure{CopyCancelled{}}); });
        return;
    }
    auto process = std::make_shared<StreamingProcess>(executable, arguments);
    auto output = std::make_shared<LockedData>();
    auto errors = std::make_shared<LockedData>();
    task->setProcess(process);
    process->run([output](const QByteArray& bytes) { output->append(bytes); },
                 [errors](const QByteArray& bytes) { errors->append(bytes); },
                 [=](StreamingProcess::Result result) {
                     postToContext(receiver, [=] {
                         if (task->isCancelled() || std::holds_alternative<CopyCancelled>(result))
                             done(CopyFailure{CopyCancelled{}});
                         else if (const auto* failed = std::get_if<CopyPlatformError>(&result))
                             done(CopyFailure{*failed});
                         else if (std::get<int>(result) == 0)
                             done(output->value());
                         else
                             done(CopyFailure{failure(errors->value(), origin, fallback)});
                     });
                 });
}

ProjectCopyError failure(const QByteArray& output, const ProjectCopyOrigin& origin,
                         const ProjectCopyError& fallback) {
    const QString text = QString::fromUtf8(output).toLower();
    if (text.contains("remote host identification has changed") ||
        text.contains("host key verification failed"))
        return ProjectCopyError::hostVerificationFailed();
    const bool denied = text.contains("permission denied (publickey") ||
                        text.contains("permission denied (password") ||
                        text.contains("permission denied (keyboard-interactive") ||
                        text.contains("permission denied, please try again");
    if (denied) {
        if (const auto command = ProjectCopyPlan::authenticationCommand(origin))
            return ProjectCopyError::authenticationFailed(*command);
    }
    return fallback;
}

}  // namespace ProjectCopyCommand

}  // namespace hl
