// The preferences windows: message boxes with the system's own texts.
#include "StoredDataPrompts.h"

#include <QApplication>
#include <QMessageBox>
#include <QProcess>
#include <QPushButton>
#include <QTimer>

#include <cstdio>

namespace hl {

namespace {

QString pathText(const std::filesystem::path& path) {
    return QString::fromStdString(path.string());
}

QString folderText() {
    return pathText(StoredDataRecovery::defaultFolder());
}

// Moves the file that is no database aside and leaves in its place a new
// database that names the shells to open again. True when it was done.
bool startOverWithNewDatabase(const std::filesystem::path& file, const NodeClientTransport& client,
                              QWidget* parent) {
    const std::vector<RecoveredSession> sessions =
        WorkspaceStore::runningSessions(client, {}, {},
                                        WorkspaceStore::scratchFolders(QString::fromStdString(
                                            RuntimePaths::scratchRoot().string())))
            .value_or(std::vector<RecoveredSession>{});
    QMessageBox confirm(
        QMessageBox::Warning, QStringLiteral("Keep a Copy and Start Over"),
        QStringLiteral("%1 is moved whole, with its companion files, to %2. Harborlattice then "
                       "starts with new preferences, to which projects are added again. %3")
            .arg(pathText(file), folderText(), recoveredTerminalsText(sessions.size())),
        QMessageBox::NoButton, parent);
    confirm.setObjectName("startOver.confirm");
    QPushButton* proceed =
        confirm.addButton(QStringLiteral("Keep a Copy and Start Over"), QMessageBox::AcceptRole);
    confirm.addButton(QMessageBox::Cancel);
    confirm.exec();
    if (confirm.clickedButton() != proceed) return false;
    QStringList moved;
    try {
        for (const auto& each : StoredDataRecovery::moveDatabaseAside(file))
            moved << pathText(each.file);
        auto fresh = Preferences::open(file);
        if (!WorkspaceStore::keepSessionsForRecovery(*fresh, sessions))
            throw StoredDataRecoveryError(fresh->lastWriteFailure());
    } catch (const std::exception& error) {
        QMessageBox failed(QMessageBox::Warning, QStringLiteral("Keep a Copy and Start Over"),
                           QStringLiteral("The preferences could not be started over. (%1)")
                               .arg(QString::fromStdString(error.what())),
                           QMessageBox::Ok, parent);
        failed.setObjectName("startOver.failed");
        failed.exec();
        return false;
    }
    QMessageBox done(QMessageBox::Information, QStringLiteral("Keep a Copy and Start Over"),
                     QStringLiteral("The unreadable preferences were kept at:\n%1\n\n%2")
                         .arg(moved.join('\n'), recoveredTerminalsText(sessions.size())),
                     QMessageBox::Ok, parent);
    done.setObjectName("startOver.done");
    done.exec();
    return true;
}

}  // namespace

QString recoveredTerminalsText(std::size_t count) {
    if (count == 0) return QStringLiteral("No terminal is running, so none is closed.");
    return (count == 1
                ? QStringLiteral("The running terminal is kept: it opens again")
                : QStringLiteral("All %1 running terminals are kept: they open again").arg(count)) +
           QStringLiteral(
               " in a \"Recovered terminals\" tab of the Scratch workspace, or of "
               "the project whose folder they run in.");
}

QString preferencesUnavailableText(const PreferencesError& error,
                                   const std::filesystem::path& file) {
    const QString path = pathText(file);
    const QString detail = QString::fromStdString(error.what());
    switch (error.kind()) {
        case PreferencesError::Kind::busy:
            return QStringLiteral(
                       "The preferences database %1 is in use by another process. Nothing was "
                       "read or changed. Harborlattice tries again every second and starts as "
                       "soon as the other process lets the database go.")
                .arg(path);
        case PreferencesError::Kind::notWritable:
            return QStringLiteral(
                       "The preferences database %1 cannot be opened for writing. Nothing was "
                       "changed. %2")
                .arg(path, detail);
        case PreferencesError::Kind::notADatabase:
            return QStringLiteral(
                       "The preferences file %1 is not a database Harborlattice can read (%2). "
                       "Nothing was changed. Keep a Copy and Start Over… moves the file whole to "
                       "%3 and starts with new preferences; running terminals are kept.")
                .arg(path, QString::fromStdString(error.reason()), folderText());
        case PreferencesError::Kind::cannotOpen:
            break;
    }
    return QStringLiteral(
               "The preferences database %1 cannot be opened for writing. Nothing was changed. "
               "(%2)")
        .arg(path, detail);
}

std::unique_ptr<HarborlatticeApp> openApplication(
    const std::filesystem::path& file,
    const std::function<std::unique_ptr<HarborlatticeApp>()>& build,
    std::shared_ptr<const NodeClientTransport> client) {
    if (!client) client = std::make_shared<UnixSocketClient>();
    while (true) {
        std::optional<PreferencesError> fault;
        try {
            return build();
        } catch (const PreferencesError& error) {
            std::fprintf(stderr, "harborlattice: %s\n", error.what());
            fault = error;
        }
        std::unique_ptr<HarborlatticeApp> app;
        QMessageBox box(QMessageBox::Warning, QStringLiteral("Harborlattice"),
                        preferencesUnavailableText(*fault, file));
        box.setObjectName("preferences.unavailable");
        QPushButton* retry = box.addButton(QStringLiteral("Retry"), QMessageBox::AcceptRole);
        QPushButton* startOver = nullptr;
        if (fault->kind() == PreferencesError::Kind::notADatabase) {
            startOver = box.addButton(QStringLiteral("Keep a Copy and Start Over…"),
                                      QMessageBox::DestructiveRole);
            startOver->setObjectName("preferences.startOver");
        }
        QPushButton* quit = box.addButton(QStringLiteral("Quit"), QMessageBox::RejectRole);
        box.setDefaultButton(retry);
        // A busy database is let go by its holder: tried again without a click.
        QTimer again;
        if (fault->kind() == PreferencesError::Kind::busy) {
            QObject::connect(&again, &QTimer::timeout, &box, [&] {
                try {
                    app = build();
                    box.done(QMessageBox::Ok);
                } catch (const PreferencesError& error) {
                    box.setText(preferencesUnavailableText(error, file));
                }
            });
            again.start(1000);
        }
        box.exec();
        again.stop();
        if (app) return app;
        if (box.clickedButton() == quit) return nullptr;
        if (startOver && box.clickedButton() == startOver)
            startOverWithNewDatabase(file, *client, nullptr);
    }
}

void offerKeepCopyAndStartOver(HarborlatticeApp& app, QWidget* parent) {
    const std::vector<RecoveredSession> sessions = app.sessionsToKeepAcrossStartOver();
    QMessageBox confirm(QMessageBox::Warning, QStringLiteral("Keep a Copy and Start Over"),
                        QStringLiteral("The saved data that cannot be read is copied, byte for "
                                       "byte, to %1. Only then is it cleared, and Harborlattice "
                                       "starts again with what could be read. %2")
                            .arg(folderText(), recoveredTerminalsText(sessions.size())),
                        QMessageBox::NoButton, parent);
    confirm.setObjectName("startOver.confirm");
    QPushButton* proceed =
        confirm.addButton(QStringLiteral("Keep a Copy and Start Over"), QMessageBox::AcceptRole);
    confirm.addButton(QMessageBox::Cancel);
    confirm.exec();
    if (confirm.clickedButton() != proceed) return;
    try {
        const auto copies = app.keepCopyAndStartOver(sessions);
        QStringList files;
        for (const auto& copy : copies)
            files << pathText(copy.file);
        QMessageBox done(QMessageBox::Information, QStringLiteral("Keep a Copy and Start Over"),
                         QStringLiteral("The damaged data was kept at:\n%1\n\n%2 Harborlattice "
                                        "starts again now.")
                             .arg(files.join('\n'), recoveredTerminalsText(sessions.size())),
                         QMessageBox::Ok, parent);
        done.setObjectName("startOver.done");
        done.exec();
    } catch (const StoredDataRecoveryError& error) {
        QMessageBox::warning(parent, QStringLiteral("Keep a Copy and Start Over"),
                             QStringLiteral("No copy could be made, so nothing was cleared. (%1)")
                                 .arg(QString::fromStdString(error.what())));
        return;
    }
    QProcess::startDetached(QCoreApplication::applicationFilePath(),
                            QCoreApplication::arguments().mid(1));
    QCoreApplication::quit();
}

}  // namespace hl
