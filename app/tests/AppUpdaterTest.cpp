// Update checks against a real HTTP server on loopback serving an appcast and
// archives signed in the test: a newer signed version is offered, a bad or
// missing signature is refused, an older version is up to date, and a feed
// that fails leaves the button usable.
#include <gtest/gtest.h>

#include <fstream>

#include <sys/stat.h>

#include <QApplication>
#include <QFile>
#include <QFileInfo>
#include <QMessageBox>
#include <QPushButton>
#include <QRandomGenerator>
#include <QTemporaryDir>

#include <sodium.h>

#include <optional>
#include <vector>

#include "AppTestSupport.h"
#include "AppUpdater.h"
#include "CheckForUpdatesButton.h"
#include "UpdateResultDialog.h"
#include "UpdatesTestSupport.h"

namespace fs = std::filesystem;
using hl::AppUpdater;
using hl::UpdateCheckResult;
using Outcome = hl::UpdateCheckResult::Outcome;

namespace {

struct KeyPair {
    unsigned char publicKey[crypto_sign_PUBLICKEYBYTES];
    unsigned char secretKey[crypto_sign_SECRETKEYBYTES];
    KeyPair() { crypto_sign_keypair(publicKey, secretKey); }
    QString publicText() const {
        return QByteArray(reinterpret_cast<const char*>(publicKey), sizeof publicKey).toBase64();
    }
    QString sign(const QByteArray& bytes) const {
        unsigned char signature[crypto_sign_BYTES];
        crypto_sign_detached(signature, nullptr,
                             reinterpret_cast<const unsigned char*>(bytes.data()),
                             static_cast<unsigned long long>(bytes.size()), secretKey);
        return QByteArray(reinterpret_cast<const char*>(signature), sizeof signature).toBase64();
    }
};

struct FeedItem {
    QString version;
    QString archive;  // file name in the served folder
    QString signature;
    QString os;
};

class AppUpdaterTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { ASSERT_GE(sodium_init(), 0); }

    AppUpdaterTest() : server(served.path()) {}

    void writeFile(const QString& name, const QByteArray& bytes) {
        QFile file(served.filePath(name));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(bytes);
    }
    QByteArray archiveBytes(int size) {
        QByteArray bytes(size, '\0');
        for (auto& byte : bytes)
            byte = static_cast<char>(QRandomGenerator::global()->generate());
        return bytes;
    }
    void writeFeed(const std::vector<FeedItem>& items) {
        QByteArray xml =
            "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<rss version=\"2.0\" "
            "xmlns:sparkle=\"http://www.andymatuschak.org/xml-namespaces/sparkle\">"
            "<channel><title>Harborlattice</title>\n";
        for (const auto& item : items) {
            const qint64 length = QFileInfo(served.filePath(item.archive)).size();
            xml +=
                QString(
                    "<item><title>Version %1</title><sparkle:version>%1</sparkle:version>"
                    "<enclosure url=\"%2\" length=\"%3\" type=\"application/gzip\"%4%5/>"
                    "</item>\n")
                    .arg(item.version, item.archive)
                    .arg(length)
                    .arg(item.signature.isEmpty()
                             ? QString()
                             : QString(" sparkle:edSignature=\"%1\"").arg(item.signature),
                         item.os.isEmpty() ? QString() : QString(" sparkle:os=\"%1\"").arg(item.os))
                    .toUtf8();
        }
        writeFile("appcast.xml", xml + "</channel></rss>\n");
    }
    hl::UpdateChannel channel(const QString& feed) const {
        hl::UpdateChannel channel;
        channel.feedURL = QUrl(feed);
        channel.publicKey = keys.publicText();
        channel.currentVersion = "1.4.0";
        channel.downloadDirectory = fs::path(downloads.path().toStdString()) / "Updates";
        return channel;
    }
    // Runs one check from the button, as a user would, and returns its result
    // with the updater's states seen on the way.
    UpdateCheckResult check(AppUpdater& updater, std::vector<bool>* states = nullptr,
                            bool keepDialog = false) {
        hl::CheckForUpdatesButton button(&updater);
        EXPECT_TRUE(button.isEnabled());
        std::optional<UpdateCheckResult> result;
        QObject::connect(updater.standardController(), &hl::AppcastUpdater::checkFinished, &button,
                         [&](const UpdateCheckResult& r) { result = r; });
        std::vector<bool> seen;
        QObject::connect(&updater, &AppUpdater::canCheckForUpdatesChanged, &button,
                         [&] { seen.push_back(button.isEnabled()); });
        button.click();
        EXPECT_TRUE(seen.empty());  // the change reaches the button through the event loop
        EXPECT_TRUE(hl::apptest::spinUntil(
            [&] { return result.has_value() && !seen.empty() && seen.back(); },
            std::chrono::seconds(60)));
        EXPECT_TRUE(button.isEnabled());
        if (states) *states = seen;
        if (!keepDialog) closeResultDialogs();
        return result.value_or(UpdateCheckResult{});
    }
    QMessageBox* resultDialog() const {
        for (QWidget* widget : QApplication::topLevelWidgets()) {
            if (widget->objectName() == "updates.result" && widget->isVisible())
                return static_cast<QMessageBox*>(widget);
        }
        return nullptr;
    }
    void closeResultDialogs() {
        while (QMessageBox* box = resultDialog())
            box->close();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
    std::vector<std::string> downloaded() const {
        std::vector<std::string> names;
        const fs::path folder = fs::path(downloads.path().toStdString()) / "Updates";
        if (!fs::exists(folder)) return names;
        for (const auto& entry : fs::directory_iterator(folder))
            names.push_back(entry.path().filename().string());
        return names;
    }

    KeyPair keys;
    QTemporaryDir served;
    QTemporaryDir downloads;
    hl::updatestest::HttpFolderServer server;
};

TEST_F(AppUpdaterTest, ANewerSignedVersionIsOfferedWithItsVerifiedArchive) {
    const QByteArray archive = archiveBytes(300 * 1024);
    writeFile("harborlattice-1.5.0.tar.gz", archive);
    writeFile("harborlattice-1.3.0.tar.gz", "old");
    writeFile("harborlattice-9.0.zip", "for another system");
    writeFeed({{"1.3.0", "harborlattice-1.3.0.tar.gz", keys.sign("old"), {}},
               {"1.5.0", "harborlattice-1.5.0.tar.gz", keys.sign(archive), {}},
               {"9.0", "harborlattice-9.0.zip", keys.sign("for another system"), "macos"}});

    AppUpdater updater(std::make_unique<hl::AppcastUpdater>(channel(server.url("appcast.xml"))));
    std::vector<bool> states;
    const auto result = check(updater, &states, /*keepDialog=*/true);
    // The running check reached the button through the event loop, and ended.
    EXPECT_EQ(states, (std::vector<bool>{false, true}));

    EXPECT_EQ(result.outcome, Outcome::updateAvailable) << result.failure.toStdString();
    EXPECT_EQ(result.offeredVersion, "1.5.0");
    const fs::path kept =
        fs::path(downloads.path().toStdString()) / "Updates" / "harborlattice-1.5.0.tar.gz";
    EXPECT_EQ(result.archivePath, kept);
    QFile file(QString::fromStdString(kept.string()));
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_EQ(file.readAll(), archive);
    struct stat info {};
    ASSERT_EQ(::stat(kept.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);

    QMessageBox* box = resultDialog();
    ASSERT_NE(box, nullptr);
    EXPECT_EQ(box->text(), "Harborlattice 1.5.0 is available");
    EXPECT_TRUE(box->informativeText().startsWith("You have 1.4.0."));
    EXPECT_NE(box->findChild<QPushButton*>("updates.reveal"), nullptr);
    hl::apptest::spinFor(std::chrono::milliseconds(100));
    hl::apptest::saveScreenshot(box, "update-offered");
    closeResultDialogs();
}

TEST_F(AppUpdaterTest, ABadOrMissingSignatureIsRefusedAndNoNewerVersionIsUpToDate) {
    const QByteArray archive = archiveBytes(64 * 1024);
    KeyPair stranger;
    QByteArray tampered = archive;
    tampered[1000] = static_cast<char>(tampered[1000] ^ 1);
    writeFile("signed-by-a-stranger.tar.gz", archive);
    writeFile("tampered.tar.gz", tampered);
    writeFile("unsigned.tar.gz", archive);
    AppUpdater updater(std::make_unique<hl::AppcastUpdater>(channel(server.url("appcast.xml"))));

    writeFeed({{"2.0", "signed-by-a-stranger.tar.gz", stranger.sign(archive), {}}});
    auto result = check(updater);
    EXPECT_EQ(result.outcome, Outcome::failed);
    EXPECT_EQ(result.failure,
              "The signature of Harborlattice 2.0 is not valid; the update was not "
              "offered.");

    writeFeed({{"2.1", "tampered.tar.gz", keys.sign(archive), {}}});
    result = check(updater);
    EXPECT_EQ(result.failure,
              "The signature of Harborlattice 2.1 is not valid; the update was not "
              "offered.");

    writeFeed({{"2.2", "unsigned.tar.gz", {}, {}}});
    result = check(updater);
    EXPECT_EQ(result.failure, "Harborlattice 2.2 is not signed and was not offered.");

    // An older or the same version, and a newer one for another system.
    writeFile("a.tar.gz", "a");
    writeFeed({{"1.2.9", "a.tar.gz", keys.sign("a"), {}},
               {"1.4", "a.tar.gz", keys.sign("a"), {}},
               {"7.0", "a.tar.gz", keys.sign("a"), "windows"}});
    result = check(updater);
    EXPECT_EQ(result.outcome, Outcome::upToDate) << result.failure.toStdString();
    EXPECT_EQ(hl::updateResultText(result).title, "You're up to date");
    EXPECT_TRUE(downloaded().empty());
}

TEST_F(AppUpdaterTest, FeedFailuresAreToldApartAndLeaveTheButtonUsable) {
    writeFile("broken.xml", "<rss><channel><item><title>1.9</title>");
    AppUpdater insecure(
        std::make_unique<hl::AppcastUpdater>(channel("http://updates.example/appcast.xml")));
    const QString unreachableURL = server.url("appcast.xml");
    server.stop();
    AppUpdater unreachable(std::make_unique<hl::AppcastUpdater>(channel(unreachableURL)));

    auto result = check(unreachable);
    EXPECT_EQ(result.outcome, Outcome::failed);
    EXPECT_TRUE(result.failure.startsWith("The update feed could not be reached ("))
        << result.failure.toStdString();

    hl::updatestest::HttpFolderServer again(served.path());
    AppUpdater absent(std::make_unique<hl::AppcastUpdater>(channel(again.url("appcast.xml"))));
    EXPECT_EQ(check(absent).failure, "The update feed answered with HTTP status 404.");
    AppUpdater malformed(std::make_unique<hl::AppcastUpdater>(channel(again.url("broken.xml"))));
    EXPECT_EQ(check(malformed).failure, "The update feed could not be read.");
    EXPECT_EQ(check(insecure).failure,
              "The update feed is not an HTTPS address, so it is not used.");

    // Usable again: a second check runs, and the user sees why it failed.
    EXPECT_EQ(check(unreachable, nullptr, /*keepDialog=*/true).failure, result.failure);
    QMessageBox* box = resultDialog();
    ASSERT_NE(box, nullptr);
    EXPECT_EQ(box->text(), "Update check failed");
    hl::apptest::spinFor(std::chrono::milliseconds(100));
    hl::apptest::saveScreenshot(box, "update-failed");
    closeResultDialogs();
}

TEST(AppUpdaterWithoutServiceTest, ACheckRunsOnlyWhenOneCanStart) {
    int checks = 0;
    AppUpdater off(false, [&] { ++checks; });
    off.checkForUpdates();
    hl::CheckForUpdatesButton button(&off);
    EXPECT_FALSE(button.isEnabled());
    AppUpdater on(true, [&] { ++checks; });
    on.checkForUpdates();
    EXPECT_EQ(checks, 1);

    // The recorded key decodes.
    const auto standard = hl::UpdateChannel::standard();
    EXPECT_NE(hl::verifyArchiveSignature("x", QString(88, 'A'), standard.publicKey),
              hl::SignatureCheck::badKey);
}

TEST_F(AppUpdaterTest, APackagedBuildSaysItsPackageManagerUpdatesItAndFetchesNothing) {
    // dpkg's list of the package's files names the executable, and only that package counts.
    QTemporaryDir dpkg;
    const fs::path info = dpkg.path().toStdString();
    const fs::path executable = "/usr/bin/harborlattice";
    auto list = [&](const char* name, const std::string& lines) {
        std::ofstream(info / name) << lines;
    };
    list("other.list", "/usr/bin/harborlattice\n");
    EXPECT_FALSE(hl::executableIsPackaged(executable, info));
    list("harborlattice:amd64.list", "/.\n/usr\n/usr/bin\n/usr/bin/harborlattice\n");
    EXPECT_TRUE(hl::executableIsPackaged(executable, info));
    EXPECT_FALSE(hl::executableIsPackaged("/usr/local/bin/harborlattice", info));

    writeFile("harborlattice-1.9.0.tar.gz", "new");
    writeFeed({{"1.9.0", "harborlattice-1.9.0.tar.gz", keys.sign("new"), {}}});
    auto packaged = channel(server.url("appcast.xml"));
    packaged.packageManaged = true;
    AppUpdater updater(std::make_unique<hl::AppcastUpdater>(packaged));
    const auto result = check(updater);
    EXPECT_EQ(result.outcome, Outcome::packageManaged);
    EXPECT_EQ(hl::updateResultText(result).title, "Updates come from your package manager");
    EXPECT_FALSE(fs::exists(packaged.downloadDirectory)) << "nothing was downloaded";
}

}  // namespace
