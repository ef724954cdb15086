// ProjectCopyController runs one copy of a project's folder from the machine
// that holds it to the same path on this one: a preflight over ssh, rsync into
// a hidden staging folder beside the destination, a validation, and a rename
// into place. Its properties are what the copy sheet shows. Each start and
// cancel takes a new generation; work of an older generation touches nothing.
#pragma once

#include <QObject>
#include <QString>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <thread>

#include "ProjectCopyCommand.h"
#include "ProjectCopyPlan.h"
#include "StreamingProcess.h"

namespace hl {

// rsync's progress output read as a share of the whole: the bytes of files
// finished so far plus the current file's, over the preflight's total.
class RsyncProgress {
  public:
    explicit RsyncProgress(std::int64_t totalBytes = 1) : totalBytes_(totalBytes) {}
    // Takes a chunk of output; the progress figure of its last progress line,
    // if it completed one, never above 0.99.
    std::optional<double> consume(const QByteArray& chunk);
    // The unfinished last line, kept for the next chunk.
    const QString& outputBuffer() const { return outputBuffer_; }

  private:
    std::optional<double> consumeLine(const QString& line);

    QString outputBuffer_;
    std::int64_t totalBytes_;
    std::int64_t completedBytes_ = 0;
    bool currentFileWasCompleted_ = false;
};

class ProjectCopyController : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool isPresented READ isPresented NOTIFY isPresentedChanged)
    Q_PROPERTY(Phase phase READ phase NOTIFY phaseChanged)
    Q_PROPERTY(double progress READ progress NOTIFY progressChanged)
    Q_PROPERTY(QString projectName READ projectName NOTIFY projectNameChanged)
    Q_PROPERTY(QString detail READ detail NOTIFY detailChanged)

  public:
    // A failed phase carries its message in `detail`.
    enum class Phase { Idle, Preparing, Copying, Complete, Cancelled, Failed };
    Q_ENUM(Phase)

    // The canonical root of the project record that the catalog would make
    // from a name, a raw root and an identity; absent when it would refuse it.
    using ProjectRootCheck = std::function<std::optional<QString>(
        const QString& name, const QString& rawRoot, const QString& projectID)>;
    // Maps the copied project into this machine's catalog; true when that worked.
    using Completion = std::function<bool(const QString& destination)>;

    explicit ProjectCopyController(ProjectRootCheck rootCheck, ProjectCopyTools tools = {},
                                   QObject* parent = nullptr);
    ~ProjectCopyController() override;

    bool isPresented() const { return isPresented_; }
    Phase phase() const { return phase_; }
    double progress() const { return progress_; }
    const QString& projectName() const { return projectName_; }
    const QString& detail() const { return detail_; }
    bool isRunning() const { return phase_ == Phase::Preparing || phase_ == Phase::Copying; }

    // Starts copying the project, ending any copy that runs; returns at once.
    // onComplete runs at most once, on this thread, once the folder stands in
    // its final place.
    void start(const ProjectCopySource& project, Completion onComplete);
    // Stops the running copy; its staging folder stays for the next start.
    void cancel();
    // Closes the sheet of a copy that no longer runs.
    void dismiss();
    // Looks up ssh and rsync as the user's login shell finds them, on a thread
    // of its own; a copy that starts before the answer uses the tools it has.
    void discoverTools();

    // Takes a chunk of rsync's standard output of the given operation.
    void consume(const QByteArray& chunk, std::uint64_t operation);

  signals:
    void isPresentedChanged();
    void phaseChanged();
    void progressChanged();
    void projectNameChanged();
    void detailChanged();

  private:
    struct Operation;

    void presentFailure(const ProjectCopyError& error);
    void checkCurrent(const Operation& operation) const;
    void step(const std::shared_ptr<Operation>& operation, const std::function<void()>& work);
    void examineDestination(const std::shared_ptr<Operation>& operation);
    void preflightDidFinish(const std::shared_ptr<Operation>& operation,
                            const ProjectCopyCommand::Outcome& outcome);
    void prepareStaging(const std::shared_ptr<Operation>& operation,
                        const ProjectCopyPreflight& preflight);
    void transferDidFinish(const std::shared_ptr<Operation>& operation,
                           const StreamingProcess::Result& result, const QByteArray& errors);
    void complete(const std::shared_ptr<Operation>& operation, const QString& detail);

    void setPresented(bool value);
    void setPhase(Phase value);
    void setProgress(double value);
    void setProjectName(const QString& value);
    void setDetail(const QString& value);

    ProjectRootCheck rootCheck_;
    ProjectCopyTools tools_;
    bool isPresented_ = false;
    Phase phase_ = Phase::Idle;
    double progress_ = 0;
    QString projectName_;
    QString detail_;

    std::shared_ptr<CopyTask> task_;
    std::shared_ptr<StreamingProcess> process_;
    RsyncProgress rsyncProgress_;
    std::uint64_t generation_ = 0;
    std::thread toolsLookup_;
};

// The preflight's report read back: absent unless both figures are there,
// parse and are not negative.
std::optional<ProjectCopyPreflight> parsePreflight(const QByteArray& output);

}  // namespace hl
