// A child process whose standard output and error are handed over in the
// chunks the pipes deliver, and a small locked buffer that keeps the tail of
// such output. The callbacks run on the process's own reading thread.
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <sys/types.h>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <variant>

#include "ProjectCopyError.h"

namespace hl {

// Bytes appended from any thread; only the last maximumBytes are kept.
class LockedData {
  public:
    static constexpr qsizetype maximumBytes = 65536;
    void append(const QByteArray& bytes);
    QByteArray value() const;

  private:
    mutable std::mutex lock_;
    QByteArray data_;
};

class StreamingProcess {
  public:
    using Output = std::function<void(const QByteArray&)>;
    // The exit status (the signal's number after a signal), a cancellation, or
    // a launch that failed.
    using Result = std::variant<int, CopyCancelled, CopyPlatformError>;

    // Not started. The child inherits this process's environment, with each
    // entry of `environmentChanges` set (or, when absent, removed); its
    // standard input is /dev/null and it leads a process group of its own.
    StreamingProcess(QString executable, QStringList arguments,
                     std::map<QString, std::optional<QString>> environmentChanges = {});
    // Terminates a child that still runs, and waits for the reading thread.
    ~StreamingProcess();
    StreamingProcess(const StreamingProcess&) = delete;
    StreamingProcess& operator=(const StreamingProcess&) = delete;

    // Launches the child. Output chunks go to the two callbacks on the reading
    // thread; once the child has exited and both pipes are drained, onExit gets
    // its status there. A cancellation before the launch, or a failed launch,
    // calls onExit at once on the calling thread and starts nothing.
    void run(Output onStandardOutput, Output onStandardError, std::function<void(Result)> onExit);
    // Asks the child's process group to terminate; before the launch, makes
    // sure that it never starts. Safe from any thread.
    void terminate();

  private:
    void readUntilExit(int outFd, int errFd, Output onOut, Output onErr,
                       std::function<void(Result)> onExit);
    void markExited();

    QString executable_;
    QStringList arguments_;
    std::map<QString, std::optional<QString>> environmentChanges_;
    std::mutex lifecycleLock_;
    bool cancellationWasRequested_ = false;  // under lifecycleLock_
    pid_t pid_ = -1;                         // under lifecycleLock_
    bool exited_ = false;                    // under lifecycleLock_
    std::thread reader_;
};

}  // namespace hl
