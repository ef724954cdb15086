// Copies a project of many files from a real sshd on loopback with the copy
// controller, beside a plain rsync of the same tree as the reference: the
// time of each, how often progress moved, and what a resume after a cancel
// half-way costs. Usage: copy_bench [files] [megabytes]   (default 20000 500)
#include <QCoreApplication>
#include <QDeadlineTimer>

#include <atomic>

#include <sys/stat.h>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <random>

#include "ProjectCopyController.h"
#include "ProjectRecord.h"
#include "StreamingProcess.h"
#include "TestSshServer.h"

using namespace hl;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Sleeps in the event loop between events, as the application does: a loop
// that spins would take a core from ssh and rsync.
void waitFor(const std::function<bool()>& condition) {
    while (!condition())
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
}

std::uintmax_t bytesUnder(const fs::path& folder) {
    std::uintmax_t total = 0;
    std::error_code error;
    for (auto it = fs::recursive_directory_iterator(folder, error);
         it != fs::recursive_directory_iterator(); it.increment(error))
        if (it->is_regular_file(error)) total += it->file_size(error);
    return total;
}

// Each regular file under the folder by its relative path, with its inode: a
// file that rsync sends again gets a new one.
std::map<fs::path, ino_t> inodesUnder(const fs::path& folder) {
    std::map<fs::path, ino_t> inodes;
    std::error_code error;
    for (auto it = fs::recursive_directory_iterator(folder, error);
         it != fs::recursive_directory_iterator(); it.increment(error)) {
        struct stat status {};
        if (it->is_regular_file(error) && ::lstat(it->path().c_str(), &status) == 0)
            inodes[fs::relative(it->path(), folder)] = status.st_ino;
    }
    return inodes;
}

void makeTree(const fs::path& root, int files, std::uintmax_t bytes) {
    std::mt19937_64 random(7);
    const std::size_t size = bytes / static_cast<std::uintmax_t>(files);
    std::string content(size, '\0');
    for (int i = 0; i < files; ++i) {
        for (std::size_t at = 0; at + 8 <= size; at += 8) {
            const std::uint64_t word = random();
            std::memcpy(content.data() + at, &word, 8);
        }
        const fs::path folder = root / ("dir" + std::to_string(i % 100));
        fs::create_directories(folder);
        std::ofstream(folder / ("file" + std::to_string(i)), std::ios::binary) << content;
    }
}

struct Run {
    double seconds = 0;
    double longestSilence = 0;  // between progress changes while copying
    double firstProgress = 0;   // from the start of rsync to its first progress
    int changes = 0;
};

// Runs one copy to its end, or until progress reaches `stopAt`, then cancels.
Run copy(ProjectCopyController& controller, const ProjectCopySource& source, double stopAt = 2) {
    Run run;
    Clock::time_point last{};
    // Only rsync's figures count: a start sets the last copy's figure back to 0.
    auto connection = QObject::connect(&controller, &ProjectCopyController::progressChanged, [&] {
        if (controller.phase() != ProjectCopyController::Phase::Copying) return;
        const auto now = Clock::now();
        const double silence = std::chrono::duration<double>(now - last).count();
        if (run.changes == 0)
            run.firstProgress = silence;
        else
            run.longestSilence = std::max(run.longestSilence, silence);
        last = now;
        ++run.changes;
    });
    auto phase = QObject::connect(&controller, &ProjectCopyController::phaseChanged, [&] {
        if (controller.phase() == ProjectCopyController::Phase::Copying) last = Clock::now();
    });
    const auto start = Clock::now();
    controller.start(source, [](const QString&) { return true; });
    waitFor([&] { return !controller.isRunning() || controller.progress() >= stopAt; });
    if (controller.isRunning()) controller.cancel();
    run.seconds = secondsSince(start);
    QObject::disconnect(connection);
    QObject::disconnect(phase);
    return run;
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const int files = argc > 1 ? std::atoi(argv[1]) : 20000;
    const std::uintmax_t megabytes = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 500;
    test::TestSshServer server;
    if (!server.isRunning()) {
        std::fprintf(stderr, "copy_bench: %s\n", server.failure().c_str());
        return 1;
    }
    const auto started = Clock::now();
    makeTree(server.remoteFolder() / "project", files, megabytes << 20);
    std::printf("tree: %d files, %ju MB, made in %.1f s\n", files, megabytes,
                secondsSince(started));

    const QString root = QString::fromStdString(server.localFolder() / "project");
    const ProjectCopySource source{"bench-project", "Bench", server.origin(root)};
    const bool compress =
        ProjectCopyPreflight{std::int64_t(megabytes << 20), files}.useCompression();

    // The reference: the same rsync command, run to its end with nothing reading it.
    const auto referenceFolder = server.folder() / "reference";
    fs::create_directories(referenceFolder);
    StreamingProcess rsync("/usr/bin/rsync",
                           ProjectCopyPlan::rsyncArguments(
                               *source.origin, QString::fromStdString(referenceFolder), compress),
                           {{"RSYNC_OLD_ARGS", "1"}});
    // When its output begins (the connection stands and the remote rsync
    // runs) and when its first file is complete, on the reading thread.
    std::promise<void> finished;
    std::atomic<double> firstOutput = -1, firstFile = -1;
    auto reference = Clock::now();
    rsync.run(
        [&](const QByteArray& chunk) {
            if (firstOutput < 0) firstOutput = secondsSince(reference);
            if (firstFile < 0 && chunk.contains("100%")) firstFile = secondsSince(reference);
        },
        [](const QByteArray&) {}, [&](const StreamingProcess::Result&) { finished.set_value(); });
    finished.get_future().wait();
    const double referenceSeconds = secondsSince(reference);
    fs::remove_all(referenceFolder);

    ProjectCopyController controller(&ProjectRecord::acceptedRoot);
    const Run full = copy(controller, source);
    if (controller.phase() != ProjectCopyController::Phase::Complete) {
        std::fprintf(stderr, "copy_bench: %s\n", qPrintable(controller.detail()));
        return 1;
    }
    fs::remove_all(server.localFolder() / "project");

    const Run half = copy(controller, source, 0.5);
    const double cancelledAt = controller.progress();
    const fs::path staging = ProjectCopyPlan::stagingPath(source.projectID, root)->toStdString();
    const std::uintmax_t kept = bytesUnder(staging);
    const auto before = inodesUnder(staging);
    const Run resumed = copy(controller, source);
    const auto after = inodesUnder(server.localFolder() / "project");
    int untouched = 0;
    for (const auto& [path, inode] : before) {
        const auto found = after.find(path);
        if (found != after.end() && found->second == inode) ++untouched;
    }

    std::printf("%-34s %10s %10s %8s\n", "", "seconds", "reference", "ratio");
    std::printf("%-34s %10.2f %10.2f %8.2f\n", "full copy (controller vs rsync)", full.seconds,
                referenceSeconds, full.seconds / referenceSeconds);
    std::printf("%-34s %10.2f %10.2f %8.2f\n", "rsync start to first progress", full.firstProgress,
                1.0, full.firstProgress / 1.0);
    std::printf("plain rsync: first output after %.2f s, first file complete after %.2f s\n",
                firstOutput.load(), firstFile.load());
    std::printf("%-34s %10.2f %10.2f %8.2f\n", "longest silence after that", full.longestSilence,
                1.0, full.longestSilence / 1.0);
    std::printf("progress changes: %d in %.1f s\n", full.changes, full.seconds);
    std::printf("cancel at %.0f%% after %.2f s; staging kept %.0f MB of %ju MB\n",
                cancelledAt * 100, half.seconds, double(kept) / (1 << 20), megabytes);
    std::printf("%-34s %10.2f %10.2f %8.2f\n", "resume (vs full copy)", resumed.seconds,
                full.seconds, resumed.seconds / full.seconds);
    std::printf("%-34s %10.2f %10.2f %8.2f\n", "resume: rsync start to progress",
                resumed.firstProgress, 1.0, resumed.firstProgress / 1.0);
    std::printf("%-34s %10.2f %10.2f %8.2f\n", "resume: longest silence after that",
                resumed.longestSilence, 1.0, resumed.longestSilence / 1.0);
    std::printf("files that arrived before the cancel and were not sent again: %d of %zu\n",
                untouched, before.size());
    return controller.phase() == ProjectCopyController::Phase::Complete ? 0 : 1;
}
