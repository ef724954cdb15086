// A whole core (preferences, catalog, workspace store, coordinator) in its own
// process, for the test that kills one in the middle of an exchange. Arguments:
// the preferences file, the record folder, then "change <project root>" (adds
// the project, prints "pending" once the change is on disk, and keeps running)
// or "deliver" (starts, refreshes until nothing is pending, prints "delivered").
#include <QCoreApplication>
#include <QTextStream>
#include <QTimer>

#include "CloudSyncCoordinator.h"
#include "FolderSharedStateTransport.h"
#include "WorkspaceTestSupport.h"

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() < 4) return 2;
    auto prefs = hl::Preferences::open(args[1].toStdString());
    auto catalog = std::make_unique<hl::ProjectCatalog>(prefs);
    hl::WorkspaceStoreOptions options;
    options.defaults = prefs;
    options.knownProjects = catalog->projects();
    options.client = std::make_shared<hl::test::MemoryNode>();
    options.scratchRoot = args[2];
    hl::WorkspaceStore store(std::move(options));
    hl::CloudSyncCoordinator sync(prefs, std::make_shared<hl::FolderSharedStateTransport>(args[2]));
    sync.attach(catalog.get(), &store, args[3] == "deliver");
    QTextStream out(stdout);
    if (args[3] == "change" && args.size() == 5) {
        auto record = catalog->add(QStringLiteral("alpha"), args[4]);
        if (!record || !store.openProject(*record) || !sync.pending()) return 3;
        out << "pending " << hl::sharedUuidText(sync.pending()->revision()) << Qt::endl;
        return app.exec();
    }
    QTimer tick;
    QObject::connect(&tick, &QTimer::timeout, [&] {
        if (sync.isRefreshing()) return;
        if (!sync.pending() && sync.accepted()) {
            out << "delivered " << hl::sharedUuidText(sync.accepted()->revision()) << Qt::endl;
            app.quit();
            return;
        }
        sync.refresh();
    });
    tick.start(200);
    return app.exec();
}
