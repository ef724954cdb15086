// `sync_bench stress`: several cores, each as the application runs it (a refresh a
// second after the last one ended, and one on the record's change signal), make
// random changes with random pauses of 0 to 600 ms: add and remove projects of
// their own, split, close and retitle in one project that all of them share,
// open tabs there; now and then a core's record goes out of reach for a while.
// At the end every core settles, and the bench checks that every core and the
// record agree and that no acknowledged change was lost: a change that reached
// the pending key and is in neither the final state nor a recovery copy, and
// was not undone on purpose by a later change made with it in view.
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QRandomGenerator>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <map>
#include <set>

#include "ApacheServer.h"
#include "CloudSyncCoordinator.h"
#include "FolderSharedStateTransport.h"
#include "SyncStress.h"
#include "WebDavSharedStateTransport.h"
#include "WorkspaceTestSupport.h"

namespace hl::bench {

namespace {

// The real transport, or nothing at all while `down` is set.
class SwitchedTransport final : public SharedStateTransport {
  public:
    explicit SwitchedTransport(std::shared_ptr<SharedStateTransport> inner)
        : inner_(std::move(inner)) {}
    bool isConfigured() const override { return true; }
    bool accountIsAvailable() override { return inner_->accountIsAvailable(); }
    std::optional<SharedSnapshot> fetch() override {
        check();
        return inner_->fetch();
    }
    SharedSnapshot exchange(const SharedSnapshot& snapshot) override {
        check();
        return inner_->exchange(snapshot);
    }
    SharedSnapshot exchangeFrom(const SharedSnapshot& snapshot,
                                const std::optional<QUuid>& base) override {
        check();
        return inner_->exchangeFrom(snapshot, base);
    }
    void publishChange(const QUuid& revision) override {
        if (!down) inner_->publishChange(revision);
    }
    void watchChanges(QObject* context, std::function<void()> onChange) override {
        inner_->watchChanges(context, std::move(onChange));
    }
    std::atomic<bool> down{false};

  private:
    void check() const {
        if (down)
            throw SharedStateTransportError(SharedStateTransportError::Kind::Unreachable, 0,
                                            QStringLiteral("down for the bench"));
    }
    std::shared_ptr<SharedStateTransport> inner_;
};

double seconds(const QElapsedTimer& clock) {
    return static_cast<double>(clock.nsecsElapsed()) / 1e9;
}

double percentile(std::vector<double> values, double p) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    const auto index = static_cast<std::size_t>(p * static_cast<double>(values.size() - 1) + 0.5);
    return values[std::min(index, values.size() - 1)];
}

struct Core {
    Core(int number, std::shared_ptr<SharedStateTransport> record)
        : transport(std::make_shared<SwitchedTransport>(std::move(record))) {
        catalog = std::make_unique<ProjectCatalog>(f.prefs);
        store = f.makeStore();
        std::weak_ptr<SharedStateTransport> signal = transport;
        sync = std::make_unique<CloudSyncCoordinator>(
            f.prefs, transport,
            DeviceCopyEndpoint{QStringLiteral("Core %1").arg(number),
                               QStringLiteral("core%1.local").arg(number), "ada"},
            [signal](const QUuid& revision) {
                if (auto t = signal.lock()) t->publishChange(revision);
            });
        sync->setRecoveredFolder(f.base / "Recovered");
        sync->attach(catalog.get(), store.get(), true);
        transport->watchChanges(&context, [this] { sync->refresh(); });
        tick.setSingleShot(true);
        QObject::connect(&tick, &QTimer::timeout,
                         [this] { sync->refresh([this] { tick.start(1000); }); });
        tick.start(1000);
    }
    std::vector<TerminalTab*> tabsOf(const QString& projectID) const {
        std::vector<TerminalTab*> list;
        for (auto* tab : store->tabs()) {
            if (tab->projectID() == projectID) list.push_back(tab);
        }
        return list;
    }

    test::StoreFixture f;
    std::shared_ptr<SwitchedTransport> transport;
    std::unique_ptr<ProjectCatalog> catalog;
    std::unique_ptr<WorkspaceStore> store;
    std::unique_ptr<CloudSyncCoordinator> sync;
    QTimer tick;
    QTimer actions;
    QObject context;  // last, so that the change watcher goes first
};

// What was changed, to be found at the end.
struct Ledger {
    std::set<QString> addedProjects, removedProjects;
    std::set<QUuid> splitPanes, closedPanes;
    // Pane closes: the pane and its tab.
    std::vector<std::pair<QUuid, QUuid>> closes;
    std::set<QString> titles, titlesReplacedOnPurpose;
    // A change waiting to be seen elsewhere: what to look for, and since when.
    struct Arrival {
        int from;
        QString title;
        QString projectID;
        double at;
        std::set<int> seen;
        // A record was out of reach while it travelled.
        bool disturbed = false;
    };
    std::vector<Arrival> arrivals;
    std::vector<double> delays, undisturbedDelays;
    int changes = 0;
};

struct Stress {
    std::vector<std::unique_ptr<Core>> cores;
    Ledger ledger;
    QString shared;
    QElapsedTimer clock;
    int counter = 0;

    void act(int i) {
        Core& core = *cores[i];
        auto* random = QRandomGenerator::global();
        const int roll = static_cast<int>(random->bounded(100));
        auto tabs = core.tabsOf(shared);
        if (roll < 4) {  // the record goes away for a while
            core.transport->down = true;
            QTimer::singleShot(static_cast<int>(500 + random->bounded(2500)), &core.context,
                               [&core] { core.transport->down = false; });
        } else if (roll < 30 && core.catalog->projects().size() > 0 && !tabs.empty()) {
            const QString title = QStringLiteral("Title %1-%2").arg(i).arg(++counter);
            for (const auto& p : core.catalog->projects()) {
                if (p.id == shared) ledger.titlesReplacedOnPurpose.insert(p.name);
            }
            core.catalog->rename(shared, title);
            core.store->renameProject(shared, title);
            acknowledge(core, i, [&] {
                ledger.titles.insert(title);
                ledger.arrivals.push_back({i, title, {}, seconds(clock), {}});
            });
        } else if (roll < 55 && !tabs.empty()) {
            TerminalTab* tab = tabs[random->bounded(static_cast<quint32>(tabs.size()))];
            if (tab->paneCount() >= 5) return;
            core.store->selectTab(tab->id());
            std::set<QUuid> before;
            for (auto* pane : tab->panes())
                before.insert(pane->id());
            core.store->split(random->bounded(2) == 0);
            for (auto* pane : tab->panes()) {
                if (before.count(pane->id()) == 0)
                    acknowledge(core, i, [&] { ledger.splitPanes.insert(pane->id()); });
            }
        } else if (roll < 70 && !tabs.empty()) {
            TerminalTab* tab = tabs[random->bounded(static_cast<quint32>(tabs.size()))];
            if (tab->paneCount() < 2) return;
            const QUuid pane =
                tab->panes()[random->bounded(static_cast<quint32>(tab->paneCount()))]->id();
            const QUuid tabID = tab->id();
            core.store->selectTab(tabID);
            core.store->selectPane(pane);
            core.store->closeSelectedPane();
            acknowledge(core, i, [&] {
                ledger.closedPanes.insert(pane);
                ledger.closes.push_back({pane, tabID});
            });
        } else if (roll < 78 && !tabs.empty() && tabs.size() < 4) {
            core.store->selectTab(tabs.front()->id());
            core.store->newTerminal();
            acknowledge(core, i, [] {});
        } else if (roll < 90) {
            const QString name = QStringLiteral("own-%1-%2").arg(i).arg(++counter);
            const auto folder = core.f.project(name);
            auto record = core.catalog->add(name, folder.root);
            if (!record) return;
            core.store->openProject(*record);
            acknowledge(core, i, [&] {
                ledger.addedProjects.insert(record->id);
                ledger.arrivals.push_back({i, {}, record->id, seconds(clock), {}});
            });
        } else {
            std::vector<QString> own;
            for (const auto& p : core.catalog->projects()) {
                if (p.id != shared) own.push_back(p.id);
            }
            if (own.empty()) return;
            const QString id = own[random->bounded(static_cast<quint32>(own.size()))];
            core.store->removeProject(id);
            core.catalog->remove(id);
            acknowledge(core, i, [&] { ledger.removedProjects.insert(id); });
        }
    }

    // Counts a change only once it is on the pending key.
    template <class F>
    void acknowledge(Core& core, int, F record) {
        if (!core.sync->pending()) return;
        ++ledger.changes;
        record();
    }

    // Notes when each waiting change first shows on each other core.
    void watchArrivals() {
        const double now = seconds(clock);
        const bool anyDown = std::any_of(cores.begin(), cores.end(),
                                         [](const auto& c) { return c->transport->down.load(); });
        for (auto& arrival : ledger.arrivals) {
            arrival.disturbed = arrival.disturbed || anyDown;
            for (int j = 0; j < static_cast<int>(cores.size()); ++j) {
                if (j == arrival.from || arrival.seen.count(j) != 0) continue;
                const SharedContent& content = cores[j]->sync->sharedContent();
                const bool shows = std::any_of(
                    content.projects.begin(), content.projects.end(), [&](const SharedProject& p) {
                        return arrival.title.isEmpty() ? p.id == arrival.projectID
                                                       : p.name == arrival.title;
                    });
                if (!shows) continue;
                arrival.seen.insert(j);
                ledger.delays.push_back(now - arrival.at);
                if (!arrival.disturbed) ledger.undisturbedDelays.push_back(now - arrival.at);
            }
        }
        // A change that no core shows any more after 10 s was replaced.
        std::erase_if(ledger.arrivals, [&](const Ledger::Arrival& a) {
            return a.seen.size() + 1 == cores.size() || now - a.at > 10;
        });
    }

    bool settled(const SharedSnapshot& stored) const {
        for (const auto& core : cores) {
            if (core->sync->pending() || !core->sync->accepted() ||
                core->sync->accepted()->revision() != stored.revision() ||
                core->sync->sharedContent() != stored.content())
                return false;
        }
        return true;
    }
};

// Every tab and project name that a recovery copy on any core holds.
struct Kept {
    std::set<QUuid> panes, tabs;
    std::set<QString> projects, titles;
    void add(const SharedContent& content, const SharedLosses* scope = nullptr) {
        for (const auto& p : content.projects) {
            if (!scope || scope->projectIDs.contains(p.id)) {
                projects.insert(p.id);
                titles.insert(p.name);
            }
        }
        for (const auto& w : content.workspaces) {
            for (const auto& t : w.tabs) {
                if (scope && !scope->tabIDs.contains(t.id)) continue;
                tabs.insert(t.id);
                titles.insert(t.title);
                for (const auto& pane : t.panes)
                    panes.insert(pane.id);
            }
        }
    }
};

}  // namespace

int runStress(const char* name, const std::function<std::shared_ptr<SharedStateTransport>()>& make,
              int instances, int durationSeconds) {
    Stress stress;
    for (int i = 0; i < instances; ++i)
        stress.cores.push_back(std::make_unique<Core>(i + 1, make()));
    Core& first = *stress.cores[0];
    test::spinUntil(
        [&] {
            return std::all_of(stress.cores.begin(), stress.cores.end(),
                               [](const auto& c) { return c->sync->accepted().has_value(); });
        },
        std::chrono::seconds(30));
    const auto root = first.f.project("shared");
    auto sharedRecord = *first.catalog->add("shared", root.root);
    first.store->openProject(sharedRecord);
    stress.shared = sharedRecord.id;
    for (std::size_t i = 1; i < stress.cores.size(); ++i) {
        Core& core = *stress.cores[i];
        if (!test::spinUntil([&] { return !core.sync->unmappedProjects().isEmpty(); },
                             std::chrono::seconds(30))) {
            std::printf("%s: the shared project never arrived\n", name);
            return 1;
        }
        core.sync->mapProject(core.sync->unmappedProjects().front(), core.f.project("shared").root);
    }
    stress.clock.start();
    for (int i = 0; i < instances; ++i) {
        Core& core = *stress.cores[i];
        core.actions.setSingleShot(true);
        QObject::connect(&core.actions, &QTimer::timeout, [&stress, &core, i] {
            stress.act(i);
            core.actions.start(static_cast<int>(QRandomGenerator::global()->bounded(601)));
        });
        core.actions.start(0);
    }
    QTimer watcher;
    QObject::connect(&watcher, &QTimer::timeout, [&] { stress.watchArrivals(); });
    watcher.start(10);
    test::spinFor(std::chrono::seconds(durationSeconds));
    for (auto& core : stress.cores) {
        core->actions.stop();
        core->transport->down = false;
    }
    auto probe = make();
    std::optional<SharedSnapshot> stored;
    const bool agreed = test::spinUntil(
        [&] {
            test::spinFor(std::chrono::milliseconds(200));
            for (auto& core : stress.cores) {
                if (!core->sync->isRefreshing()) core->sync->refresh();
            }
            try {
                stored = probe->fetch();
            } catch (...) {
                return false;
            }
            return stored && stress.settled(*stored);
        },
        std::chrono::seconds(60));
    watcher.stop();
    if (!agreed) {
        for (std::size_t i = 0; i < stress.cores.size(); ++i) {
            const auto& sync = *stress.cores[i]->sync;
            std::printf(
                "%s:   core %zu: %s, pending %d, accepted %s, same content %d\n", name, i + 1,
                qPrintable(sync.status().title()), sync.pending().has_value(),
                sync.accepted() ? qPrintable(sharedUuidText(sync.accepted()->revision())) : "none",
                stored && sync.sharedContent() == stored->content());
        }
        std::printf("%s:   record %s\n", name,
                    stored ? qPrintable(sharedUuidText(stored->revision())) : "absent");
    }

    // What survived: the record, and every core's recovery copies.
    Kept final, copies;
    if (stored) final.add(stored->content());
    int copyCount = 0;
    for (const auto& core : stress.cores) {
        for (const auto& copy : core->sync->recoveryCopies()) {
            const SharedLosses scope = copy.losses();
            copies.add(copy.snapshot.content(), &scope);
            ++copyCount;
        }
    }
    const Ledger& ledger = stress.ledger;
    int lost = 0;
    const auto report = [&](const char* what, const QString& id) {
        ++lost;
        std::printf("%s:   lost %s %s\n", name, what, qPrintable(id));
    };
    for (const auto& id : ledger.addedProjects) {
        if (ledger.removedProjects.count(id) == 0 && final.projects.count(id) == 0 &&
            copies.projects.count(id) == 0)
            report("added project", id);
    }
    for (const auto& id : ledger.removedProjects) {
        if (final.projects.count(id) != 0) report("removal of project", id);
    }
    for (const auto& id : ledger.splitPanes) {
        if (ledger.closedPanes.count(id) == 0 && final.panes.count(id) == 0 &&
            copies.panes.count(id) == 0)
            report("split pane", id.toString());
    }
    for (const auto& [pane, tab] : ledger.closes) {
        if (final.panes.count(pane) != 0 && copies.tabs.count(tab) == 0)
            report("close of pane", pane.toString());
    }
    for (const auto& title : ledger.titles) {
        if (ledger.titlesReplacedOnPurpose.count(title) == 0 && final.titles.count(title) == 0 &&
            copies.titles.count(title) == 0)
            report("title", title);
    }
    std::printf("%s: %d instances, %d s: %d acknowledged changes, %d recovery copies, %s\n", name,
                instances, durationSeconds, ledger.changes, copyCount,
                agreed ? "every instance and the record agree" : "instances DISAGREE");
    std::printf("%s: lost acknowledged changes: %d\n", name, lost);
    const double p95 = percentile(ledger.undisturbedDelays, 0.95);
    std::printf(
        "%s: change to other instance  median %.3f s  p95 %.3f s over %zu arrivals while "
        "every record was in reach (goal p95 < 1.5 s: %s)\n",
        name, percentile(ledger.undisturbedDelays, 0.5), p95, ledger.undisturbedDelays.size(),
        p95 < 1.5 ? "met" : "missed");
    std::printf("%s:   all %zu arrivals, outages included: median %.3f s  p95 %.3f s\n", name,
                ledger.delays.size(), percentile(ledger.delays, 0.5),
                percentile(ledger.delays, 0.95));
    return lost == 0 && agreed ? 0 : 1;
}

int runStressOnBoth(int instances, int durationSeconds) {
    test::TempDir dir;
    const QString folder = QString::fromStdString(dir.path().string());
    int result = runStress(
        "folder", [&] { return std::make_shared<FolderSharedStateTransport>(folder); }, instances,
        durationSeconds);
    test::ApacheServer apache;
    if (!apache.isRunning()) {
        std::printf("webdav: Apache did not start: %s\n", qPrintable(apache.error()));
        return 1;
    }
    const QUrl url = apache.url("stress.json");
    result |= runStress(
        "webdav", [&] { return std::make_shared<WebDavSharedStateTransport>(url); }, instances,
        durationSeconds);
    return result;
}

}  // namespace hl::bench
