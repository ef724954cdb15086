// Revealing a file through the session bus, else opening its folder.
#include "FileManagerReveal.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDesktopServices>
#include <QStringList>
#include <QUrl>

namespace hl {

QString showInFileManagerTitle(KeyPlatform platform) {
    return platform == KeyPlatform::MacOS ? QStringLiteral("Show in Finder")
                                          : QStringLiteral("Show in File Manager");
}

void revealInFileManager(const std::filesystem::path& file) {
    const QUrl item = QUrl::fromLocalFile(QString::fromStdString(file.string()));
    const QUrl folder = QUrl::fromLocalFile(QString::fromStdString(file.parent_path().string()));
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        QDesktopServices::openUrl(folder);
        return;
    }
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.FileManager1"),
        QStringLiteral("/org/freedesktop/FileManager1"),
        QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("ShowItems"));
    call << QStringList{item.toString()} << QString();
    auto* watcher = new QDBusPendingCallWatcher(bus.asyncCall(call, 10000), qApp);
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, qApp, [watcher, folder] {
        if (watcher->isError()) QDesktopServices::openUrl(folder);
        watcher->deleteLater();
    });
}

}  // namespace hl
