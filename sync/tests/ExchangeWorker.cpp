// One of several processes that exchange their own snapshots with one record in a
// loop. Arguments: the record's URL, this worker's number, the number of
// exchanges. Prints one line for each: "won" or "lost", the candidate's date and
// revision, then the survivor's; or "error" and the failure.
#include <QCoreApplication>
#include <QTextStream>

#include <cstdio>

#include "SharedSnapshot.h"
#include "SharedStateTransport.h"

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() != 4) return 2;
    const auto transport = hl::makeSharedStateTransport(args[1]);
    const QString worker = "worker-" + args[2];
    const int count = args[3].toInt();
    const QUuid device = QUuid::createUuid();
    QTextStream out(stdout);
    auto line = [](const hl::SharedSnapshot& s) {
        return QString::number(s.modifiedAt().time_since_epoch().count(), 'f', 3) + " " +
               hl::sharedUuidText(s.revision());
    };
    for (int i = 0; i < count; ++i) {
        hl::SharedContent content;
        content.projects.append({worker, QStringLiteral("Round %1").arg(i), std::nullopt});
        const hl::SharedSnapshot candidate(device, content);
        try {
            const hl::SharedSnapshot survivor = transport->exchange(candidate);
            const bool won = survivor.revision() == candidate.revision();
            if (!won && !survivor.isNewer(candidate)) {
                out << "error survivor is not newer " << line(candidate) << " " << line(survivor)
                    << Qt::endl;
                continue;
            }
            out << (won ? "won " : "lost ") << line(candidate) << " " << line(survivor) << Qt::endl;
        } catch (const std::exception& error) {
            out << "error " << error.what() << Qt::endl;
        }
    }
    return 0;
}
