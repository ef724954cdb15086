// The preferences windows: plain message boxes with the system's own texts.
#include "StoredDataPrompts.h"

#include <QApplication>
#include <QMessageBox>
#include <QProcess>
#include <QPushButton>

namespace hl {

QString preferencesUnavailableText(const PreferencesError& error,
                                   const std::filesystem::path& file) {
    const QString path = QString::fromStdString(file.string());
    if (error.kind() == PreferencesError::Kind::busy) {
        return QStringLiteral(
                   "The preferences database %1 is in use by another process or "
                   "did not answer. Nothing was read or changed.")
            .arg(path);
    }
    return QStringLiteral(
               "The preferences database %1 cannot be opened for writing. Nothing "
               "was changed. (%2)")
        .arg(path, QString::fromStdString(error.what()));
}

bool askToRetryOpeningPreferences(const PreferencesError& error,
                                  const std::filesystem::path& file) {
    QMessageBox box(QMessageBox::Warning, QStringLiteral("Harborlattice"),
                    preferencesUnavailableText(error, file));
    box.setObjectName("preferences.unavailable");
    QPushButton* retry = box.addButton(QStringLiteral("Retry"), QMessageBox::AcceptRole);
    box.addButton(QStringLiteral("Quit"), QMessageBox::RejectRole);
    box.setDefaultButton(retry);
    box.exec();
    return box.clickedButton() == retry;
}

void offerKeepCopyAndStartOver(HarborlatticeApp& app, QWidget* parent) {
    const QString folder = QString::fromStdString(StoredDataRecovery::defaultFolder().string());
    QMessageBox confirm(QMessageBox::Warning, QStringLiteral("Keep a Copy and Start Over"),
                        QStringLiteral("The saved data that cannot be read is copied, byte for "
                                       "byte, to %1. Only then is it cleared, and Harborlattice "
                                       "starts again with what could be read.")
                            .arg(folder),
                        QMessageBox::NoButton, parent);
    confirm.setObjectName("startOver.confirm");
    QPushButton* proceed =
        confirm.addButton(QStringLiteral("Keep a Copy and Start Over"), QMessageBox::AcceptRole);
    confirm.addButton(QMessageBox::Cancel);
    confirm.exec();
    if (confirm.clickedButton() != proceed) return;
    try {
        const auto copies = app.keepCopyAndStartOver();
        QStringList files;
        for (const auto& copy : copies)
            files << QString::fromStdString(copy.file.string());
        QMessageBox::information(parent, QStringLiteral("Keep a Copy and Start Over"),
                                 QStringLiteral("The damaged data was kept at:\n%1\n\n"
                                                "Harborlattice starts again now.")
                                     .arg(files.join('\n')));
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
