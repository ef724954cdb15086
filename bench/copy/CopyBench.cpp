// Copies a project of many files from a real sshd on loopback with the copy
// controller, beside a plain rsync of the same tree as the reference: the
// time of each, how often progress moved, and what a resume after a cancel
// half-way costs. Usage: copy_bench [files] [megabytes]   (default 20000 500)
#include <QCoreApplication>
#include <QDeadlineTimer>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
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

std::optional<QString> catalogRoot(const QString& name, const QString& rawRoot, const QString& id) {
    try {
        return ProjectRecord::create(name, rawRoot, id).root;
    } catch (const ProjectCatalogError&) {
        return std::nullopt;
    }
}

void waitFor(const std::function<bool()>& condition) {
    while (!condition())
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
}

std::uintmax_t bytesUnder(const fs::path& folder) {
    std::uintmax_t total = 0;
    std::error_code error;
    for (auto it = fs::recursive_directory_iterator(folder, error);
         it != fs::recursive_directory_iterator(); it.increment(error))
        if (it->is_regular_file(error)) total += it->file_size(error);
    return total;
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
    int changes = 0;
};

// Runs one copy to its end, or until progress reaches `stopAt`, then cancels.
Run copy(ProjectCopyController& controller, const ProjectCopySource& source, double stopAt = 2) {
    Run run;
    Clock::time_point last{};
    auto connection = QObject::connect(&controller, &ProjectCopyController::progressChanged, [&] {
        const auto now = Clock::now();
        if (last != Clock::time_point{})
            run.longestSilence =
                std::max(run.longestSilence, std::chrono::duration<double>(now - last).count());
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
    std::promise<void> finished;
    auto reference = Clock::now();
    rsync.run([](const QByteArray&) {}, [](const QByteArray&) {},
              [&](const StreamingProcess::Result&) { finished.set_value(); });
    finished.get_future().wait();
    const double referenceSeconds = secondsSince(reference);
    fs::remove_all(referenceFolder);

    ProjectCopyController controller(catalogRoot);
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
    const Run resumed = copy(controller, source);

    std::printf("%-34s %10s %10s %8s\n", "", "seconds", "reference", "ratio");
    std::printf("%-34s %10.2f %10.2f %8.2f\n", "full copy (controller vs rsync)", full.seconds,
                referenceSeconds, full.seconds / referenceSeconds);
    std::printf("%-34s %10.2f %10.2f %8.2f\n", "longest time without progress", full.longestSilence,
                1.0, full.longestSilence / 1.0);
    std::printf("progress changes: %d in %.1f s\n", full.changes, full.seconds);
    std::printf("cancel at %.0f%% after %.2f s; staging kept %.0f MB of %ju MB\n",
                cancelledAt * 100, half.seconds, double(kept) / (1 << 20), megabytes);
    std::printf("%-34s %10.2f %10.2f %8.2f\n", "resume (vs full copy)", resumed.seconds,
                full.seconds, resumed.seconds / full.seconds);
    std::printf("expected resume share if nothing is sent twice: %.2f\n",
                1.0 - double(kept) / double(megabytes << 20));
    return controller.phase() == ProjectCopyController::Phase::Complete ? 0 : 1;
}
