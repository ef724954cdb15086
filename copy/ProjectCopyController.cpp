// ProjectCopyController: the stages of one copy, chained on the main thread,
// each guarded by the operation's generation, and rsync's progress parser.
#include "ProjectCopyController.h"

#include <QDir>
#include <QFile>
#include <QMetaObject>
#include <QPointer>
#include <QRegularExpression>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>

#include "PathRules.h"
#include "TerminalThreads.h"
#include "UniqueFd.h"

namespace hl {

namespace {

const QString kCancelledText = QStringLiteral("Copy cancelled. Partial data was kept for resume.");

enum class Entry { Missing, Directory, Other, Unreadable };

// What stands at a path, without following a final symbolic link.
Entry entryAt(const QString& path) {
    struct stat status {};
    if (::lstat(QFile::encodeName(path).constData(), &status) != 0)
        return errno == ENOENT ? Entry::Missing : Entry::Unreadable;
    return S_ISDIR(status.st_mode) ? Entry::Directory : Entry::Other;
}

// Renames without replacing anything that appeared at the target meanwhile.
bool renameExclusively(const QString& from, const QString& to) {
    const QByteArray source = QFile::encodeName(from), target = QFile::encodeName(to);
#ifdef __linux__
    if (::renameat2(AT_FDCWD, source.constData(), AT_FDCWD, target.constData(), RENAME_NOREPLACE) ==
        0)
        return true;
    if (errno != EINVAL && errno != ENOSYS) return false;
#endif
    if (::access(target.constData(), F_OK) == 0 || errno != ENOENT) {
        errno = EEXIST;
        return false;
    }
    return ::rename(source.constData(), target.constData()) == 0;
}

// Whether the folder at path (not a symbolic link) is the user's own; it is
// then made private again.
bool isOwnFolder(const QString& path) {
    const UniqueFd fd(::open(QFile::encodeName(path).constData(),
                             O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    return fd && ::fstat(fd.get(), &status) == 0 && S_ISDIR(status.st_mode) &&
           status.st_uid == ::geteuid() && ::fchmod(fd.get(), 0700) == 0;
}

CopyPlatformError platformError(const QString& what) {
    return CopyPlatformError{what + ": " + QString::fromLocal8Bit(std::strerror(errno))};
}

}  // namespace

struct ProjectCopyController::Operation {
    std::uint64_t number = 0;
    ProjectCopySource project;
    ProjectCopyOrigin origin;
    Completion onComplete;
    std::shared_ptr<CopyTask> task;
    QString destination;
    QString staging;
};

ProjectCopyController::ProjectCopyController(ProjectRootCheck rootCheck, ProjectCopyTools tools,
                                             QObject* parent)
    : QObject(parent), rootCheck_(std::move(rootCheck)), tools_(std::move(tools)) {
    installMainThreadQueue();
}

ProjectCopyController::~ProjectCopyController() {
    if (task_) task_->cancel();
    if (process_) process_->terminate();
    if (toolsLookup_.joinable()) toolsLookup_.join();
}

void ProjectCopyController::discoverTools() {
    if (toolsLookup_.joinable()) return;
    const QPointer<QObject> self(this);
    toolsLookup_ = std::thread([self] {
        const ProjectCopyTools tools = ProjectCopyTools::discover();
        postToContext(self, [self, tools] {
            static_cast<ProjectCopyController*>(self.data())->tools_ = tools;
        });
    });
}

void ProjectCopyController::start(const ProjectCopySource& project, Completion onComplete) {
    if (task_) task_->cancel();
    if (process_) process_->terminate();
    process_.reset();
    const std::uint64_t number = ++generation_;
    if (!project.origin || !project.origin->isValid()) {
        presentFailure(ProjectCopyError::invalidOrigin());
        return;
    }
    setPresented(true);
    setPhase(Phase::Preparing);
    setProgress(0);
    setProjectName(project.projectName);
    setDetail("Checking " + project.origin->deviceName + "…");
    rsyncProgress_ = RsyncProgress();

    task_ = std::make_shared<CopyTask>();
    auto operation = std::make_shared<Operation>();
    operation->number = number;
    operation->project = project;
    operation->origin = *project.origin;
    operation->onComplete = std::move(onComplete);
    operation->task = task_;
    QMetaObject::invokeMethod(
        this, [this, operation] { step(operation, [&] { examineDestination(operation); }); },
        Qt::QueuedConnection);
}

void ProjectCopyController::presentFailure(const ProjectCopyError& error) {
    setPresented(true);
    setPhase(Phase::Failed);
    setProjectName("Project");
    setDetail(error.errorDescription());
}

void ProjectCopyController::checkCurrent(const Operation& operation) const {
    if (operation.task->isCancelled() || operation.number != generation_) throw CopyCancelled{};
}

// Runs one stage; whatever it throws ends the operation, if it is still current.
void ProjectCopyController::step(const std::shared_ptr<Operation>& operation,
                                 const std::function<void()>& work) {
    CopyFailure failure;
    try {
        work();
        return;
    } catch (const CopyCancelled& cancelled) {
        failure = cancelled;
    } catch (const ProjectCopyError& error) {
        failure = error;
    } catch (const CopyPlatformError& error) {
        failure = error;
    }
    if (operation->number != generation_) return;
    if (std::holds_alternative<CopyCancelled>(failure)) {
        setPhase(Phase::Cancelled);
        setDetail(kCancelledText);
        return;
    }
    const QString text = copyFailureText(failure);
    setPhase(Phase::Failed);
    setDetail(text);
}

void ProjectCopyController::examineDestination(const std::shared_ptr<Operation>& operation) {
    checkCurrent(*operation);
    const Operation& op = *operation;
    operation->destination = QString::fromStdString(standardizedPath(op.origin.root.toStdString()));
    if (!op.destination.startsWith('/')) throw ProjectCopyError::invalidOrigin();
    switch (entryAt(op.destination)) {
        case Entry::Missing:
            break;
        case Entry::Directory: {
            const auto root =
                rootCheck_(op.project.projectName, op.destination, op.project.projectID);
            if (!root || *root != op.destination) throw ProjectCopyError::invalidCopy();
            checkCurrent(op);
            if (!op.onComplete(op.destination)) throw ProjectCopyError::invalidCopy();
            checkCurrent(op);
            complete(operation, "Using existing project at " + op.destination);
            return;
        }
        case Entry::Other:
        case Entry::Unreadable:
            throw ProjectCopyError::invalidCopy();
    }
    ProjectCopyCommand::collect(
        tools_.ssh,
        ProjectCopyPlan::sshArguments(op.origin, ProjectCopyPlan::preflightCommand(op.origin.root)),
        op.origin, ProjectCopyError::connectionFailed(), op.task, this,
        [this, operation](const ProjectCopyCommand::Outcome& outcome) {
            step(operation, [&] { preflightDidFinish(operation, outcome); });
        });
}

void ProjectCopyController::preflightDidFinish(const std::shared_ptr<Operation>& operation,
                                               const ProjectCopyCommand::Outcome& outcome) {
    if (const auto* failure = std::get_if<CopyFailure>(&outcome))
        std::visit([](const auto& error) { throw error; }, *failure);
    const auto preflight = parsePreflight(std::get<QByteArray>(outcome));
    if (!preflight) throw ProjectCopyError::connectionFailed();
    checkCurrent(*operation);
    if (entryAt(operation->destination) != Entry::Missing)
        throw ProjectCopyError::destinationExists();
    prepareStaging(operation, *preflight);
}

void ProjectCopyController::prepareStaging(const std::shared_ptr<Operation>& operation,
                                           const ProjectCopyPreflight& preflight) {
    Operation& op = *operation;
    const auto staging = ProjectCopyPlan::stagingPath(op.project.projectID, op.destination);
    if (!staging) throw ProjectCopyError::stagingPathUnavailable();
    op.staging = *staging;
    const QString parent = op.staging.left(op.staging.lastIndexOf('/'));
    if (!parent.isEmpty() && !QDir().mkpath(parent))
        throw CopyPlatformError{"Harborlattice could not create the folder " + parent + "."};
    switch (entryAt(op.staging)) {
        case Entry::Directory:
            // An earlier attempt's data, resumed into; never another user's folder.
            if (!isOwnFolder(op.staging)) throw ProjectCopyError::stagingPathUnavailable();
            break;
        case Entry::Missing:
            if (::mkdir(QFile::encodeName(op.staging).constData(), 0700) != 0)
                throw platformError("Harborlattice could not create " + op.staging);
            break;
        case Entry::Other:
        case Entry::Unreadable:
            throw ProjectCopyError::stagingPathUnavailable();
    }

    rsyncProgress_ = RsyncProgress(std::max<std::int64_t>(preflight.totalBytes, 1));
    setPhase(Phase::Copying);
    setDetail("Copying " + QString::number(preflight.fileCount) +
              (preflight.useCompression() ? " files with compression…" : " files…"));

    // RSYNC_OLD_ARGS keeps rsync 3.2.4 and later from quoting the already
    // quoted remote path a second time.
    auto process = std::make_shared<StreamingProcess>(
        tools_.rsync,
        ProjectCopyPlan::rsyncArguments(op.origin, op.staging, preflight.useCompression(),
                                        tools_.ssh),
        std::map<QString, std::optional<QString>>{{"RSYNC_OLD_ARGS", "1"},
                                                  {"RSYNC_PROTECT_ARGS", std::nullopt}});
    process_ = process;
    op.task->setProcess(process);
    auto errors = std::make_shared<LockedData>();
    const QPointer<QObject> self(this);
    const std::uint64_t number = op.number;
    const StreamingProcess* identity = process.get();
    process->run(
        [self, number](const QByteArray& chunk) {
            postToContext(self, [self, chunk, number] {
                static_cast<ProjectCopyController*>(self.data())->consume(chunk, number);
            });
        },
        [errors](const QByteArray& bytes) { errors->append(bytes); },
        [self, operation, errors, identity](const StreamingProcess::Result& result) {
            postToContext(self, [self, operation, errors, identity, result] {
                auto* controller = static_cast<ProjectCopyController*>(self.data());
                controller->step(operation, [&] {
                    controller->checkCurrent(*operation);
                    if (controller->process_.get() == identity) controller->process_.reset();
                    controller->transferDidFinish(operation, result, errors->value());
                });
            });
        });
}

void ProjectCopyController::transferDidFinish(const std::shared_ptr<Operation>& operation,
                                              const StreamingProcess::Result& result,
                                              const QByteArray& errors) {
    const Operation& op = *operation;
    if (std::holds_alternative<CopyCancelled>(result)) throw CopyCancelled{};
    if (const auto* failed = std::get_if<CopyPlatformError>(&result)) throw *failed;
    if (std::get<int>(result) != 0)
        throw ProjectCopyCommand::failure(errors, op.origin, ProjectCopyError::transferFailed());
    if (entryAt(op.destination) != Entry::Missing ||
        !rootCheck_(op.project.projectName, op.staging, op.project.projectID))
        throw ProjectCopyError::invalidCopy();
    if (!renameExclusively(op.staging, op.destination))
        throw platformError("Harborlattice could not move the copy to " + op.destination);
    if (!rootCheck_(op.project.projectName, op.destination, op.project.projectID))
        throw ProjectCopyError::invalidCopy();
    checkCurrent(op);
    if (!op.onComplete(op.destination)) throw ProjectCopyError::invalidCopy();
    checkCurrent(op);
    complete(operation, "Copied to " + op.destination);
}

void ProjectCopyController::complete(const std::shared_ptr<Operation>&, const QString& detail) {
    setProgress(1);
    setPhase(Phase::Complete);
    setDetail(detail);
}

void ProjectCopyController::cancel() {
    if (task_) task_->cancel();
    if (process_) process_->terminate();
    process_.reset();
    ++generation_;
    setPhase(Phase::Cancelled);
    setDetail(kCancelledText);
}

void ProjectCopyController::dismiss() {
    if (isRunning()) return;
    setPresented(false);
    setPhase(Phase::Idle);
}

void ProjectCopyController::consume(const QByteArray& chunk, std::uint64_t operation) {
    if (operation != generation_ || phase_ != Phase::Copying) return;
    if (const auto figure = rsyncProgress_.consume(chunk)) setProgress(*figure);
}

std::optional<double> RsyncProgress::consume(const QByteArray& chunk) {
    QString text = QString::fromUtf8(chunk);
    text.replace('\r', '\n');
    outputBuffer_ += text;
    QStringList pieces = outputBuffer_.split('\n');
    outputBuffer_ = pieces.takeLast();
    std::optional<double> figure;
    for (const QString& line : pieces) {
        if (const auto lineFigure = consumeLine(line)) figure = lineFigure;
    }
    return figure;
}

// A progress line of rsync: bytes of the current file, its percentage, and more.
// A 100% line counts its bytes once, though rsync may print it twice in a row.
std::optional<double> RsyncProgress::consumeLine(const QString& line) {
    static const QRegularExpression whitespace("\\s+");
    const QStringList fields = line.split(whitespace, Qt::SkipEmptyParts);
    bool isNumber = false;
    const qint64 bytes = fields.size() >= 2 ? fields[0].toLongLong(&isNumber) : 0;
    if (!isNumber || !fields[1].endsWith('%')) {
        currentFileWasCompleted_ = false;
        return std::nullopt;
    }
    const int percent = fields[1].chopped(1).toInt();  // 0 when it does not parse
    const auto total = static_cast<double>(totalBytes_);
    if (percent >= 100) {
        if (!currentFileWasCompleted_) {
            completedBytes_ += bytes;
            currentFileWasCompleted_ = true;
        }
        return std::min(0.99, static_cast<double>(completedBytes_) / total);
    }
    currentFileWasCompleted_ = false;
    return std::min(0.99, static_cast<double>(completedBytes_ + bytes) / total);
}

std::optional<ProjectCopyPreflight> parsePreflight(const QByteArray& output) {
    std::map<QString, QString> values;
    for (const QString& line : QString::fromUtf8(output).split('\n', Qt::SkipEmptyParts)) {
        const qsizetype equals = line.indexOf('=');
        if (equals <= 0 || equals == line.size() - 1) continue;
        values[line.left(equals)] = line.mid(equals + 1).trimmed();
    }
    if (!values.count("bytes") || !values.count("files")) return std::nullopt;
    bool bytesParse = false, filesParse = false;
    const qint64 bytes = values["bytes"].toLongLong(&bytesParse);
    const int files = values["files"].toInt(&filesParse);
    if (!bytesParse || !filesParse || bytes < 0 || files < 0) return std::nullopt;
    return ProjectCopyPreflight{bytes, files};
}

void ProjectCopyController::setPresented(bool value) {
    if (isPresented_ == value) return;
    isPresented_ = value;
    emit isPresentedChanged();
}

void ProjectCopyController::setPhase(Phase value) {
    if (phase_ == value) return;
    phase_ = value;
    emit phaseChanged();
}

void ProjectCopyController::setProgress(double value) {
    if (progress_ == value) return;
    progress_ = value;
    emit progressChanged();
}

void ProjectCopyController::setProjectName(const QString& value) {
    if (projectName_ == value) return;
    projectName_ = value;
    emit projectNameChanged();
}

void ProjectCopyController::setDetail(const QString& value) {
    if (detail_ == value) return;
    detail_ = value;
    emit detailChanged();
}

}  // namespace hl
