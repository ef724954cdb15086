// The time from a change on instance A to its arrival in instance B's model,
// for the folder record and for a WebDAV record on a real Apache. Both
// instances run as the application does: a refresh a second after the last one
// ended, and one more on the record's change signal where the transport has
// one. Beside it, as the reference, one bare fetch of the same record, and for
// WebDAV the same run without its change signal (the tick alone). Where the time
// goes: "upload" ends when A has its change accepted by the record, "to B" is
// the rest, until B's model shows it.
// Usage: sync_bench [changes]   (default 50). Goal: 95th percentile under 1.5 s.
//        sync_bench stress [--instances N] [--seconds S]   (default 3 and 60; see SyncStress.cpp)
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <string>

#include "ApacheServer.h"
#include "CloudSyncCoordinator.h"
#include "FolderSharedStateTransport.h"
#include "SyncStress.h"
#include "WebDavSharedStateTransport.h"
#include "WorkspaceTestSupport.h"

using namespace hl;
namespace fs = std::filesystem;

namespace {

struct Instance {
    Instance(std::shared_ptr<SharedStateTransport> record, bool watch) : transport(record) {
        catalog = std::make_unique<ProjectCatalog>(f.prefs);
        store = f.makeStore();
        std::weak_ptr<SharedStateTransport> signal = record;
        sync = std::make_unique<CloudSyncCoordinator>(f.prefs, record, std::nullopt,
                                                      [signal](const QUuid& revision) {
                                                          if (auto t = signal.lock())
                                                              t->publishChange(revision);
                                                      });
        sync->attach(catalog.get(), store.get(), true);
        if (watch) record->watchChanges(&context, [this] { sync->refresh(); });
        tick.setSingleShot(true);
        QObject::connect(&tick, &QTimer::timeout,
                         [this] { sync->refresh([this] { tick.start(1000); }); });
        tick.start(1000);
    }
    test::StoreFixture f;
    std::shared_ptr<SharedStateTransport> transport;
    std::unique_ptr<ProjectCatalog> catalog;
    std::unique_ptr<WorkspaceStore> store;
    std::unique_ptr<CloudSyncCoordinator> sync;
    QTimer tick;
    // Last, so that the change watcher goes first.
    QObject context;
};

double percentile(std::vector<double> values, double p) {
    std::sort(values.begin(), values.end());
    const auto index = static_cast<std::size_t>(p * static_cast<double>(values.size() - 1) + 0.5);
    return values[std::min(index, values.size() - 1)];
}

void run(const char* name, const std::function<std::shared_ptr<SharedStateTransport>()>& make,
         int changes, bool watch = true) {
    Instance a(make(), watch), b(make(), watch);
    // Both have settled with the record before the first change.
    test::spinUntil([&] { return a.sync->accepted() && b.sync->accepted(); },
                    std::chrono::seconds(30));
    const auto root = a.f.project("alpha");
    auto record = *a.catalog->add("alpha", root.root);
    a.store->openProject(record);
    if (!test::spinUntil([&] { return b.sync->unmappedProjects().size() == 1; },
                         std::chrono::seconds(30))) {
        std::printf("%s: the first project never arrived (A: %s, B: %s)\n", name,
                    qPrintable(a.sync->status().title()), qPrintable(b.sync->status().title()));
        return;
    }
    const auto folder = b.f.project("alpha");
    b.sync->mapProject(b.sync->unmappedProjects().front(), folder.root);
    std::vector<double> arrival, upload, toB, fetch;
    for (int i = 0; i < changes; ++i) {
        const QString title = QStringLiteral("Change %1").arg(i);
        QElapsedTimer clock;
        clock.start();
        a.store->renameProject(record.id, title);
        double uploaded = -1;
        const bool arrived = test::spinUntil(
            [&] {
                if (uploaded < 0 && !a.sync->pending())
                    uploaded = static_cast<double>(clock.nsecsElapsed()) / 1e9;
                return !b.store->tabs().empty() && b.store->tabs()[0]->title() == title;
            },
            std::chrono::seconds(30));
        if (!arrived) {
            std::printf("%s: change %d never arrived\n", name, i);
            return;
        }
        arrival.push_back(static_cast<double>(clock.nsecsElapsed()) / 1e9);
        if (uploaded < 0) uploaded = arrival.back();
        upload.push_back(uploaded);
        toB.push_back(arrival.back() - uploaded);
        auto probe = make();
        QElapsedTimer bare;
        bare.start();
        probe->fetch();
        fetch.push_back(static_cast<double>(bare.nsecsElapsed()) / 1e9);
        test::spinFor(std::chrono::milliseconds(100 + (i * 37) % 400));
    }
    const double p95 = percentile(arrival, 0.95);
    std::printf("%-7s change A->B  median %6.3f s  p95 %6.3f s  (goal p95 < 1.5 s: %s)\n", name,
                percentile(arrival, 0.5), p95, p95 < 1.5 ? "met" : "missed");
    std::printf(
        "%-7s   upload     median %6.3f s  p95 %6.3f s;  to B  median %6.3f s  p95 %6.3f s\n", name,
        percentile(upload, 0.5), percentile(upload, 0.95), percentile(toB, 0.5),
        percentile(toB, 0.95));
    std::printf("%-7s bare fetch   median %6.3f s  p95 %6.3f s  ratio of medians %.0fx\n", name,
                percentile(fetch, 0.5), percentile(fetch, 0.95),
                percentile(arrival, 0.5) / std::max(percentile(fetch, 0.5), 1e-6));
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    if (argc > 1 && std::string(argv[1]) == "stress") {
        int instances = 3, seconds = 60;
        for (int i = 2; i + 1 < argc; i += 2) {
            const std::string option = argv[i];
            if (option == "--instances") instances = std::max(2, std::atoi(argv[i + 1]));
            if (option == "--seconds") seconds = std::max(1, std::atoi(argv[i + 1]));
        }
        return bench::runStressOnBoth(instances, seconds);
    }
    const int changes = argc > 1 ? std::atoi(argv[1]) : 50;
    test::TempDir dir;
    const QString folder = QString::fromStdString(dir.path().string());
    run(
        "folder", [&] { return std::make_shared<FolderSharedStateTransport>(folder); }, changes);
    test::ApacheServer apache;
    if (!apache.isRunning()) {
        std::printf("webdav  Apache did not start: %s\n", qPrintable(apache.error()));
        return 1;
    }
    const QUrl url = apache.url("bench.json");
    run(
        "webdav", [&] { return std::make_shared<WebDavSharedStateTransport>(url); }, changes);
    std::printf("reference: the same WebDAV record on the tick alone, without its change signal\n");
    const QUrl tickUrl = apache.url("tick.json");
    run(
        "tick", [&] { return std::make_shared<WebDavSharedStateTransport>(tickUrl); }, changes,
        false);
    return 0;
}
