// The exchange against the real stand-ins of the shared record: a folder, Apache
// httpd with mod_dav (weak ETags for a second after each write, with LOCK), and a
// small strong-ETag server without LOCK; their failures as statuses; the folder's
// change signal; and eight processes exchanging at once without a lost update.
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QProcess>
#include <QSslCertificate>
#include <QSslKey>
#include <QSslServer>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>

#include <atomic>
#include <thread>

#include "ApacheServer.h"
#include "CloudSyncStatus.h"
#include "FolderSharedStateTransport.h"
#include "SharedSnapshotCodec.h"
#include "SharedSnapshotTestSupport.h"
#include "TinyRecordServer.h"
#include "WebDavSharedStateTransport.h"

using hl::SharedSnapshot;
using hl::SharedSnapshotCodec;
using hl::SharedStateError;
using namespace hl::test;

namespace {

// Raw access to what a stand-in stores, behind its transport's back.
struct StandIn {
    std::unique_ptr<hl::SharedStateTransport> transport;
    std::function<void(const QByteArray&)> storeRaw;
    std::function<std::optional<QByteArray>()> readRaw;
};

QByteArray readFile(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void writeFile(const QString& path, const QByteArray& bytes) {
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(bytes);
}

QByteArray laterSchemaPayload() {
    QJsonObject json = QJsonDocument::fromJson(SharedSnapshotCodec::encode(snapshotAt(1))).object();
    json["schemaVersion"] = 2;
    return QJsonDocument(json).toJson(QJsonDocument::Compact);
}

template <typename Exception>
void expectUntouched(StandIn& standIn, const std::function<void()>& action) {
    const auto before = standIn.readRaw();
    EXPECT_THROW(action(), Exception);
    EXPECT_EQ(standIn.readRaw(), before);
}

// The exchange's scenarios, the same for every stand-in.
void runExchangeScenarios(StandIn& standIn) {
    hl::SharedStateTransport& transport = *standIn.transport;
    EXPECT_TRUE(transport.accountIsAvailable());
    EXPECT_EQ(transport.fetch(), std::nullopt);
    const SharedSnapshot first = snapshotAt(1000);
    EXPECT_EQ(transport.exchange(first), first);
    EXPECT_EQ(transport.fetch(), first);
    // At once after a write, while a weak tag would refuse If-Match.
    const SharedSnapshot second = snapshotAt(2000);
    EXPECT_EQ(transport.exchange(second), second);
    EXPECT_EQ(transport.exchange(second), second) << "the same snapshot again";
    // A newer record wins without a write.
    const auto stored = standIn.readRaw();
    EXPECT_EQ(transport.exchange(snapshotAt(500)), second);
    EXPECT_EQ(standIn.readRaw(), stored);
    // Records that cannot be read are never overwritten.
    standIn.storeRaw(laterSchemaPayload());
    EXPECT_EQ(errorKind<SharedStateError>([&] { transport.fetch(); }),
              SharedStateError::Kind::UnsupportedSchema);
    expectUntouched<SharedStateError>(standIn, [&] { transport.exchange(snapshotAt(3000)); });
    standIn.storeRaw("{\"schemaVersion\":1,\"content\":");
    expectUntouched<hl::SharedSnapshotCodecError>(standIn,
                                                  [&] { transport.exchange(snapshotAt(3000)); });
}

hl::CloudSyncStatus::Kind statusOfFetch(hl::SharedStateTransport& transport) {
    try {
        transport.fetch();
    } catch (const std::exception& error) {
        return hl::syncStatusForError(error).kind;
    }
    ADD_FAILURE() << "the fetch did not fail";
    return hl::CloudSyncStatus::Kind::Synced;
}

// The ETag of a plain GET.
QByteArray etagOf(const QUrl& url) {
    QNetworkAccessManager manager;
    QNetworkReply* reply = manager.get(QNetworkRequest(url));
    QEventLoop loop;
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    loop.exec();
    reply->deleteLater();
    return reply->rawHeader("ETag");
}

// A stand-in whose record is the file at `path`, stored behind `header`.
StandIn fileStandIn(std::unique_ptr<hl::SharedStateTransport> transport, const QString& path,
                    const QByteArray& header = {}) {
    return {std::move(transport),
            [=](const QByteArray& payload) { writeFile(path, header + payload); },
            [=]() -> std::optional<QByteArray> {
                if (!QFile::exists(path)) return std::nullopt;
                return readFile(path);
            }};
}

// Starts `count` workers against `url` and gives every line they printed.
QStringList runWorkers(const QString& url, int count, int exchanges) {
    std::vector<std::unique_ptr<QProcess>> workers;
    for (int i = 0; i < count; ++i) {
        auto worker = std::make_unique<QProcess>();
        worker->start(HL_EXCHANGE_WORKER, {url, QString::number(i), QString::number(exchanges)});
        workers.push_back(std::move(worker));
    }
    QStringList lines;
    for (auto& worker : workers) {
        EXPECT_TRUE(worker->waitForFinished(600'000));
        lines += QString::fromUtf8(worker->readAllStandardOutput()).split('\n', Qt::SkipEmptyParts);
        EXPECT_EQ(worker->exitCode(), 0) << worker->readAllStandardError().toStdString();
    }
    return lines;
}

// Eight processes exchange at once; afterwards the record holds the newest of all
// candidates, and each exchange either won or gave something newer.
void expectNoLostUpdate(const QString& url, hl::SharedStateTransport& transport) {
    constexpr int workers = 8;
    constexpr int exchanges = 12;
    const QStringList lines = runWorkers(url, workers, exchanges);
    ASSERT_EQ(lines.size(), workers * exchanges);
    std::optional<SharedSnapshot> newest;
    int won = 0;
    for (const QString& line : lines) {
        const QStringList fields = line.split(' ');
        ASSERT_EQ(fields.size(), 5) << line.toStdString();
        ASSERT_TRUE(fields[0] == "won" || fields[0] == "lost") << line.toStdString();
        won += fields[0] == "won";
        const SharedSnapshot candidate =
            snapshotAt(fields[1].toDouble(), {}, QUuid::fromString(fields[2]));
        if (!newest || candidate.isNewer(*newest)) newest = candidate;
    }
    EXPECT_GT(won, 0);
    const auto stored = transport.fetch();
    ASSERT_TRUE(stored.has_value());
    EXPECT_EQ(stored->revision(), newest->revision());
}

// Runs the event loop until `condition` holds or `ms` milliseconds have passed.
bool spinUntil(const std::function<bool()>& condition, int ms) {
    QDeadlineTimer deadline(ms);
    while (!condition() && !deadline.hasExpired())
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    return condition();
}

}  // namespace

TEST(FolderTransportTest, ExchangesAgainstARealFolder) {
    QTemporaryDir folder;
    const QString record = folder.path() + "/harborlattice-state-v1.record";
    StandIn standIn = fileStandIn(std::make_unique<hl::FolderSharedStateTransport>(folder.path()),
                                  record, "harborlattice-state-v1 41\n");
    runExchangeScenarios(standIn);
    // A header that cannot be read is an unreadable record, also left alone.
    writeFile(record, "garbage");
    EXPECT_EQ(errorKind<SharedStateError>([&] { standIn.transport->exchange(snapshotAt(9000)); }),
              SharedStateError::Kind::InvalidCloudRecord);
    EXPECT_EQ(readFile(record), "garbage");
}

TEST(FolderTransportTest, AMissingFolderIsUnavailableNotAnEmptyRecord) {
    QTemporaryDir parent;
    hl::FolderSharedStateTransport transport(parent.path() + "/unmounted");
    EXPECT_FALSE(transport.accountIsAvailable());
    EXPECT_EQ(statusOfFetch(transport), hl::CloudSyncStatus::Kind::Offline);
    EXPECT_THROW(transport.exchange(snapshotAt(1)), hl::SharedStateTransportError);
    EXPECT_FALSE(QFileInfo::exists(parent.path() + "/unmounted"));
}

TEST(FolderTransportTest, AnotherInstancesPublishedRevisionIsSignalledAtOnce) {
    QTemporaryDir folder;
    hl::FolderSharedStateTransport mine(folder.path());
    hl::FolderSharedStateTransport theirs(folder.path());
    QObject context;
    int myChanges = 0;
    int theirChanges = 0;
    mine.watchChanges(&context, [&] { ++myChanges; });
    theirs.watchChanges(&context, [&] { ++theirChanges; });
    // Saved and published off the main thread, as the sync does.
    std::atomic<bool> published = false;
    std::thread saver([&] {
        mine.publishChange(mine.exchange(snapshotAt(1000)).revision());
        published = true;
    });
    spinUntil([&] { return theirChanges > 0 && published; }, 30'000);
    saver.join();
    EXPECT_EQ(theirChanges, 1);
    spinUntil([] { return false; }, 200);
    EXPECT_EQ(myChanges, 0) << "an instance is not told of its own revision";
    EXPECT_EQ(theirChanges, 1);
}

TEST(FolderTransportTest, EightProcessesLoseNoUpdate) {
    QTemporaryDir folder;
    hl::FolderSharedStateTransport transport(folder.path());
    expectNoLostUpdate(QUrl::fromLocalFile(folder.path()).toString(), transport);
}

class ApacheTransportTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { apache = new ApacheServer; }
    static void TearDownTestSuite() {
        delete apache;
        apache = nullptr;
    }
    void SetUp() override { ASSERT_TRUE(apache->isRunning()) << apache->error().toStdString(); }
    static ApacheServer* apache;
};
ApacheServer* ApacheTransportTest::apache = nullptr;

TEST_F(ApacheTransportTest, ExchangesAgainstModDavWithItsWeakTags) {
    const QString name = "exchange.json";
    const QString file = apache->filePath(name);
    StandIn standIn =
        fileStandIn(std::make_unique<hl::WebDavSharedStateTransport>(apache->url(name)), file);
    runExchangeScenarios(standIn);
    // The server under test does mark a fresh write's tag weak.
    QFile::remove(file);
    const SharedSnapshot fresh = snapshotAt(8000);
    standIn.transport->exchange(fresh);
    EXPECT_TRUE(etagOf(apache->url(name)).startsWith("W/"));
}

TEST_F(ApacheTransportTest, TheChangeWatcherSignalsAnotherClientsSaveOnly) {
    const QUrl url = apache->url("watched.json");
    hl::WebDavSharedStateTransport mine(url), theirs(url);
    theirs.exchange(snapshotAt(1000));
    mine.fetch();
    QObject context;
    int mySignals = 0, theirSignals = 0;
    mine.watchChanges(&context, [&] { ++mySignals; });
    theirs.watchChanges(&context, [&] { ++theirSignals; });
    // Nothing changes, while Apache's tag turns from weak to strong.
    spinUntil([] { return false; }, 1500);
    EXPECT_EQ(mySignals + theirSignals, 0);

    std::atomic<bool> saved = false;
    const SharedSnapshot second = snapshotAt(2000);
    std::thread saver([&] {
        theirs.exchange(second);
        saved = true;
    });
    EXPECT_TRUE(spinUntil([&] { return mySignals > 0; }, 30'000));
    EXPECT_EQ(mine.fetch(), second);
    spinUntil([&] { return saved.load(); }, 30'000);
    saver.join();
    spinUntil([] { return false; }, 1500);
    EXPECT_EQ(mySignals, 1) << "read since: no reminder";
    EXPECT_EQ(theirSignals, 0) << "a save is not signalled back to its writer";
    EXPECT_LE(mine.changeWatcher()->requestCount(), 30) << "about four requests a second";
}

TEST(WebDavChangeWatcherTest, AFailingServerIsAskedLessAndLessOften) {
    TinyRecordServer failing({0, true, 503, false});
    hl::WebDavSharedStateTransport::Options options;
    options.changeInterval = std::chrono::milliseconds(100);
    hl::WebDavSharedStateTransport transport(failing.url(), options);
    QObject context;
    int heard = 0;
    transport.watchChanges(&context, [&] { ++heard; });
    spinUntil([] { return false; }, 3500);
    // Pauses of 0.2, 0.4, 0.8 and 1.6 s; without them, 35 requests.
    EXPECT_GE(failing.requests, 3);
    EXPECT_LE(failing.requests, 6);
    EXPECT_EQ(heard, 0);
}

TEST_F(ApacheTransportTest, EightProcessesLoseNoUpdate) {
    const QUrl url = apache->url("concurrent.json");
    hl::WebDavSharedStateTransport transport(url);
    expectNoLostUpdate(url.toString(), transport);
}

TEST(StrongTagServerTest, ExchangesWithIfMatchAndWaitsOutAWeakTag) {
    for (const int weakMs : {0, 400}) {
        TinyRecordServer server({weakMs, true, 0, false});
        StandIn standIn{std::make_unique<hl::WebDavSharedStateTransport>(server.url()),
                        [&server](const QByteArray& payload) { server.replace(payload); },
                        [&server] { return server.body; }};
        runExchangeScenarios(standIn);
        EXPECT_EQ(server.refusedPuts, 0) << "never sent a tag the server could not match";
    }
}

TEST(StrongTagServerTest, AReadTakesAWeakTagAndAsksOnlyForAChangedRecord) {
    TinyRecordServer server({60'000, true, 0, false});  // weak for a minute after a write
    const SharedSnapshot first = snapshotAt(1000), second = snapshotAt(2000);
    server.replace(SharedSnapshotCodec::encode(first));
    hl::WebDavSharedStateTransport transport(server.url());
    EXPECT_EQ(transport.fetch(), first);
    EXPECT_EQ(server.requests, 1) << "no wait for a strong tag";
    EXPECT_EQ(transport.fetch(), first);
    EXPECT_EQ(server.notModified, 1);
    server.replace(SharedSnapshotCodec::encode(second));
    EXPECT_EQ(transport.fetch(), second);
    EXPECT_EQ(server.notModified, 1);
}

TEST(StrongTagServerTest, AMovedTagIsRefusedAndTheExchangeReadsAgain) {
    TinyRecordServer server({});
    hl::WebDavSharedStateTransport transport(server.url());
    transport.exchange(snapshotAt(1000));
    // Another writer saves between this read and this write.
    server.afterNextGet = [&] { server.replace(SharedSnapshotCodec::encode(snapshotAt(1500))); };
    const SharedSnapshot mine = snapshotAt(2000);
    EXPECT_EQ(transport.exchange(mine), mine);
    EXPECT_EQ(server.refusedPuts, 1);
    EXPECT_EQ(SharedSnapshotCodec::decode(*server.body), mine);
    // This time the other writer's save is newer: it survives.
    const SharedSnapshot theirs = snapshotAt(4000);
    server.afterNextGet = [&] { server.replace(SharedSnapshotCodec::encode(theirs)); };
    EXPECT_EQ(transport.exchange(snapshotAt(3000)), theirs);
    EXPECT_EQ(server.refusedPuts, 2);
    EXPECT_EQ(SharedSnapshotCodec::decode(*server.body), theirs);
}

TEST(WebDavFailureTest, EachFailureShowsItsStatus) {
    using Status = hl::CloudSyncStatus::Kind;
    hl::WebDavSharedStateTransport::Options quick;
    quick.requestTimeout = std::chrono::milliseconds(800);
    quick.strongTagWait = std::chrono::milliseconds(300);
    auto statusAt = [&](const QUrl& url) {
        hl::WebDavSharedStateTransport transport(url, quick);
        return statusOfFetch(transport);
    };
    quint16 closedPort = 0;
    {
        QTcpServer probe;
        probe.listen(QHostAddress::LocalHost, 0);
        closedPort = probe.serverPort();
    }
    EXPECT_EQ(statusAt(QUrl(QStringLiteral("http://127.0.0.1:%1/x").arg(closedPort))),
              Status::Offline);
    EXPECT_EQ(statusAt(QUrl("http://record.invalid/state.json")), Status::Offline);
    TinyRecordServer silent({0, true, 0, true});
    EXPECT_EQ(statusAt(silent.url()), Status::Offline);
    for (const auto& [code, status] :
         std::vector<std::pair<int, Status>>{{401, Status::CloudPermission},
                                             {403, Status::CloudPermission},
                                             {503, Status::Offline},
                                             {429, Status::Offline},
                                             {405, Status::CloudSchema},
                                             {400, Status::CloudSchema},
                                             {418, Status::SyncFailed}}) {
        TinyRecordServer server({0, true, code, false});
        EXPECT_EQ(statusAt(server.url()), status) << code;
    }
    TinyRecordServer tagless({0, false, 0, false});
    tagless.body = SharedSnapshotCodec::encode(snapshotAt(1));
    EXPECT_EQ(statusAt(tagless.url()), Status::CloudSchema);
    EXPECT_EQ(statusAt(QUrl("ftp://example.org/state.json")), Status::CloudSchema);
}

TEST(WebDavFailureTest, AnUntrustedCertificateAndAFailedHandshakeShowTheirStatus) {
    using Status = hl::CloudSyncStatus::Kind;
    QTemporaryDir folder;
    QProcess openssl;
    openssl.start("openssl", {"req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2",
                              "-subj", "/CN=127.0.0.1", "-keyout", folder.filePath("key.pem"),
                              "-out", folder.filePath("cert.pem")});
    ASSERT_TRUE(openssl.waitForFinished(120'000) && openssl.exitCode() == 0)
        << "openssl is needed (scripts/install-deps.sh installs it)";
    QFile key(folder.filePath("key.pem"));
    QFile certificate(folder.filePath("cert.pem"));
    ASSERT_TRUE(key.open(QIODevice::ReadOnly) && certificate.open(QIODevice::ReadOnly));
    QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
    configuration.setPrivateKey(QSslKey(&key, QSsl::Rsa));
    configuration.setLocalCertificate(QSslCertificate(&certificate));
    QSslServer server;
    server.setSslConfiguration(configuration);
    ASSERT_TRUE(server.listen(QHostAddress::LocalHost, 0));
    hl::WebDavSharedStateTransport selfSigned(
        QUrl(QStringLiteral("https://127.0.0.1:%1/state.json").arg(server.serverPort())));
    EXPECT_EQ(statusOfFetch(selfSigned), Status::CloudSigning);

    // A server that answers in plain text.
    QTcpServer plain;
    ASSERT_TRUE(plain.listen(QHostAddress::LocalHost, 0));
    QObject::connect(&plain, &QTcpServer::newConnection, &plain, [&plain] {
        while (QTcpSocket* socket = plain.nextPendingConnection()) {
            socket->write("HTTP/1.1 400 Bad Request\r\nConnection: close\r\n\r\n");
            socket->disconnectFromHost();
        }
    });
    hl::WebDavSharedStateTransport noTls(
        QUrl(QStringLiteral("https://127.0.0.1:%1/state.json").arg(plain.serverPort())));
    EXPECT_EQ(errorKind<hl::SharedStateTransportError>([&] { noTls.fetch(); }),
              hl::SharedStateTransportError::Kind::TlsHandshake);
    EXPECT_EQ(statusOfFetch(noTls), Status::Offline);
}

TEST(WebDavCredentialsTest, TheUrlOrTheNetrcFileLogsIn) {
    QTemporaryDir home;
    const QString netrc = home.filePath(".netrc");
    writeFile(netrc,
              "machine elsewhere login x password y\n"
              "machine 127.0.0.1 login ada password s3cret\n"
              "default login anon password none\n");
    TinyRecordServer server({0, true, 0, false, "ada:s3cret"});
    hl::WebDavSharedStateTransport::Options options;
    options.netrcPath = netrc;
    hl::WebDavSharedStateTransport fromNetrc(server.url(), options);
    EXPECT_EQ(fromNetrc.fetch(), std::nullopt);
    QUrl withLogin = server.url();
    withLogin.setUserInfo("ada:s3cret");
    const SharedSnapshot mine = snapshotAt(5);
    EXPECT_EQ(hl::WebDavSharedStateTransport(withLogin).exchange(mine), mine);
    options.netrcPath = home.filePath("missing");
    hl::WebDavSharedStateTransport anonymous(server.url(), options);
    EXPECT_EQ(statusOfFetch(anonymous), hl::CloudSyncStatus::Kind::CloudPermission);
    EXPECT_EQ(hl::netrcCredentials(netrc, "other.example"),
              std::make_pair(QString("anon"), QString("none")));
}

TEST(TransportChoiceTest, TheSyncUrlNamesTheTransport) {
    EXPECT_FALSE(hl::makeSharedStateTransport(QString())->isConfigured());
    EXPECT_NE(dynamic_cast<hl::FolderSharedStateTransport*>(
                  hl::makeSharedStateTransport("file:///srv/sync").get()),
              nullptr);
    EXPECT_NE(dynamic_cast<hl::WebDavSharedStateTransport*>(
                  hl::makeSharedStateTransport("https://dav.example.org/state.json").get()),
              nullptr);
}
