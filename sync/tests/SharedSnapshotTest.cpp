// The shared document's rules at their edges, its ordering, and its JSON form.
#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonDocument>

#include "CloudSyncStatus.h"
#include "SharedSnapshotCodec.h"
#include "SharedSnapshotTestSupport.h"
#include "SharedStateTransport.h"

using hl::ProjectOrigin;
using hl::SharedContent;
using hl::SharedSnapshot;
using hl::SharedSnapshotCodec;
using hl::SharedStateError;
using hl::sharedUuidText;
using Kind = hl::SharedStateError::Kind;
using namespace hl::test;

namespace {

std::optional<Kind> validationError(const SharedContent& content) {
    return errorKind<SharedStateError>([&] { content.validated(); });
}

QString repeated(const QString& piece, int times) {
    return piece.repeated(times);
}

QJsonObject encodedJson(const SharedSnapshot& snapshot) {
    return QJsonDocument::fromJson(SharedSnapshotCodec::encode(snapshot)).object();
}

// The snapshot's encoding with one piece of it replaced.
QByteArray editedEncoding(const SharedSnapshot& snapshot, const QByteArray& from,
                          const QByteArray& to) {
    QByteArray bytes = SharedSnapshotCodec::encode(snapshot);
    EXPECT_TRUE(bytes.contains(from)) << from.toStdString();
    return bytes.replace(from, to);
}

SharedSnapshot decodeJson(const QJsonObject& json) {
    return SharedSnapshotCodec::decode(QJsonDocument(json).toJson(QJsonDocument::Compact));
}

}  // namespace

TEST(ProjectOriginTest, EachRuleHoldsAtItsEdgeCountingCharactersNotBytes) {
    const ProjectOrigin valid = sampleOrigin();
    EXPECT_TRUE(valid.isValid());
    auto with = [&](auto change) {
        ProjectOrigin origin = valid;
        change(origin);
        return origin.isValid();
    };
    // Name: trimmed before it is checked; 128 characters of two scalars each pass.
    const QString accented = QString::fromUtf8("e\xCC\x81");
    EXPECT_TRUE(with([&](auto& o) { o.deviceName = "  Studio  "; }));
    EXPECT_FALSE(with([](auto& o) { o.deviceName = " \t\n "; }));
    EXPECT_TRUE(with([&](auto& o) { o.deviceName = " " + repeated(accented, 128) + " "; }));
    EXPECT_FALSE(with([&](auto& o) { o.deviceName = repeated(accented, 129); }));
    EXPECT_FALSE(with([](auto& o) { o.deviceName = QString::fromUtf8("Stu\u200Bdio"); }));
    EXPECT_FALSE(with([](auto& o) { o.deviceName = "Stu\adio"; }));
    // Host.
    EXPECT_TRUE(with([&](auto& o) { o.sshHost = repeated("a", 253); }));
    EXPECT_FALSE(with([&](auto& o) { o.sshHost = repeated("a", 254); }));
    EXPECT_FALSE(with([](auto& o) { o.sshHost = "-oProxyCommand"; }));
    EXPECT_FALSE(with([](auto& o) { o.sshHost = "studio_1"; }));
    EXPECT_FALSE(with([](auto& o) { o.sshHost = QString::fromUtf8("st\u00FCdio"); }));
    EXPECT_FALSE(with([](auto& o) { o.sshHost = ""; }));
    // User: the underscore is allowed here.
    EXPECT_TRUE(with([&](auto& o) { o.sshUser = "ada_l.x-" + repeated("u", 120); }));
    EXPECT_FALSE(with([&](auto& o) { o.sshUser = repeated("u", 129); }));
    EXPECT_FALSE(with([](auto& o) { o.sshUser = "-ada"; }));
    EXPECT_FALSE(with([](auto& o) { o.sshUser = "ada lovelace"; }));
    // Root.
    EXPECT_TRUE(with([](auto& o) { o.root = "/Users/a"; }));
    EXPECT_FALSE(with([](auto& o) { o.root = "/"; }));
    EXPECT_FALSE(with([](auto& o) { o.root = "/Users/a/"; }));
    EXPECT_FALSE(with([](auto& o) { o.root = "/Users/./a"; }));
    EXPECT_FALSE(with([](auto& o) { o.root = "/Users/b/../a"; }));
    EXPECT_FALSE(with([](auto& o) { o.root = "//Users/a"; }));
    EXPECT_FALSE(with([](auto& o) { o.root = "~/a"; }));
    EXPECT_FALSE(with([](auto& o) { o.root = "Users/a"; }));
    EXPECT_FALSE(with([](auto& o) { o.root = "/Users/a\nb"; }));
    EXPECT_TRUE(with([&](auto& o) { o.root = "/" + repeated(accented, 4095); }));
    EXPECT_FALSE(with([&](auto& o) { o.root = "/" + repeated("r", 4096); }));
}

TEST(SharedContentTest, RelativePathsAreSafeOnlyWithoutEmptyDotOrParentPieces) {
    for (const char* safe : {"", "src/app", "a", ".hidden/x"}) {
        EXPECT_TRUE(SharedContent::relativePathIsSafe(safe)) << safe;
    }
    for (const char* unsafe : {"../x", "/x", "~/x", "a/", "a//b", ".", "./a", "a/..", "a/./b"}) {
        EXPECT_FALSE(SharedContent::relativePathIsSafe(unsafe)) << unsafe;
    }
}

TEST(SharedContentTest, ValidationRaisesTheFirstFailingRuleInOrder) {
    const SharedContent valid = sampleContent();
    EXPECT_EQ(validationError(valid), std::nullopt);
    EXPECT_EQ(validationError(SharedContent{}), std::nullopt);
    EXPECT_TRUE(SharedContent{}.isEmpty());
    EXPECT_FALSE(valid.isEmpty());
    auto errorWith = [&](auto change) {
        SharedContent content = valid;
        change(content);
        return validationError(content);
    };
    auto alphaTabs = [](SharedContent& c) -> QList<hl::SharedTab>& { return c.workspaces[0].tabs; };

    EXPECT_EQ(errorWith([](auto& c) { c.projects[0].id = " alpha"; }), Kind::InvalidProject);
    EXPECT_EQ(errorWith([](auto& c) { c.projects[0].name = "  "; }), Kind::InvalidProject);
    EXPECT_EQ(errorWith([](auto& c) { c.projects[1].origin->sshHost = "-x"; }),
              Kind::InvalidProject);
    // An invalid project comes before a duplicate one.
    EXPECT_EQ(errorWith([](auto& c) {
                  c.projects.append(c.projects[0]);
                  c.projects[1].name = "";
              }),
              Kind::InvalidProject);
    EXPECT_EQ(errorWith([](auto& c) { c.projects.append(c.projects[0]); }), Kind::DuplicateProject);
    EXPECT_EQ(errorWith([](auto& c) { c.workspaces.append(c.workspaces[0]); }),
              Kind::InvalidWorkspace);
    EXPECT_EQ(errorWith([](auto& c) { c.workspaces[0].projectID = "gamma"; }),
              Kind::InvalidWorkspace);
    EXPECT_EQ(errorWith([](auto& c) { c.projects.removeAt(0); }), std::nullopt)
        << "a project without a workspace is fine";
    EXPECT_EQ(errorWith([&](auto& c) { alphaTabs(c).clear(); }), Kind::InvalidWorkspace);
    EXPECT_EQ(errorWith([](auto& c) { c.workspaces[0].selectedTabID = QUuid::createUuid(); }),
              Kind::InvalidWorkspace);
    // Tab and pane ids may not recur anywhere in the content.
    auto secondWorkspace = [](SharedContent& c, const hl::SharedTab& tab) {
        c.workspaces.append({"beta", {tab}, std::nullopt});
    };
    EXPECT_EQ(errorWith([&](auto& c) {
                  hl::SharedTab copy = tabWithPanes({QUuid::createUuid()});
                  copy.id = alphaTabs(c)[0].id;
                  secondWorkspace(c, copy);
              }),
              Kind::InvalidTab);
    EXPECT_EQ(errorWith([&](auto& c) {
                  secondWorkspace(c, tabWithPanes({alphaTabs(c)[0].panes[0].id}));
              }),
              Kind::InvalidPane);
    EXPECT_EQ(errorWith([&](auto& c) { alphaTabs(c)[0].title = "\t"; }), Kind::InvalidTab);
    EXPECT_EQ(errorWith([&](auto& c) {
                  alphaTabs(c)[0].panes.clear();
                  alphaTabs(c)[0].layout = {};
              }),
              Kind::InvalidTab);
    EXPECT_EQ(errorWith([&](auto& c) {
                  alphaTabs(c)[0].panes.append({QUuid::createUuid(), ""});
              }),
              Kind::InvalidTab)
        << "a pane missing from the layout";
    EXPECT_EQ(errorWith([&](auto& c) {
                  auto& tab = alphaTabs(c)[0];
                  tab.layout = splitLayout(tab.layout, tab.layout);
              }),
              Kind::InvalidTab)
        << "a pane twice in the layout";
    EXPECT_EQ(errorWith([&](auto& c) {
                  alphaTabs(c)[0].layout = {{"tree", 1}};
              }),
              Kind::InvalidTab);
    EXPECT_EQ(errorWith([&](auto& c) { alphaTabs(c)[0].selectedPaneID = QUuid::createUuid(); }),
              Kind::InvalidTab);
    EXPECT_EQ(errorWith([&](auto& c) { alphaTabs(c)[1].panes[1].relativeCWD = "../x"; }),
              Kind::InvalidPane);
}

TEST(SharedSnapshotTest, ContentIsCanonicalWhateverOrderItCameIn) {
    SharedContent content = sampleContent();
    content.workspaces.prepend({"beta", {tabWithPanes({QUuid::createUuid()})}, std::nullopt});
    const SharedSnapshot snapshot(QUuid::createUuid(), content);
    EXPECT_EQ(snapshot.content().projects[0].id, "alpha");
    EXPECT_EQ(snapshot.content().workspaces[0].projectID, "alpha");
    EXPECT_EQ(snapshot.content().workspaces[0].tabs, content.workspaces[1].tabs)
        << "tabs keep their order";
    // Decoding a document whose projects are out of order gives canonical order.
    QJsonObject json = encodedJson(snapshot);
    QJsonObject jsonContent = json["content"].toObject();
    QJsonArray projects = jsonContent["projects"].toArray();
    const QJsonValue first = projects[0];
    projects[0] = projects[1];
    projects[1] = first;
    jsonContent["projects"] = projects;
    json["content"] = jsonContent;
    EXPECT_EQ(decodeJson(json), snapshot);
}

TEST(SharedSnapshotTest, NewerIsTheLaterDateThenTheLowerRevisionText) {
    const QUuid low = QUuid::fromString(QStringLiteral("0F000000-0000-4000-8000-000000000000"));
    const QUuid high = QUuid::fromString(QStringLiteral("a0000000-0000-4000-8000-000000000000"));
    const SharedSnapshot early = snapshotAt(1000.5, {}, low);
    const SharedSnapshot late = snapshotAt(1000.75, {}, high);
    EXPECT_TRUE(late.isNewer(early));
    EXPECT_FALSE(early.isNewer(late));
    const SharedSnapshot tieLow = snapshotAt(2000, {}, low);
    const SharedSnapshot tieHigh = snapshotAt(2000, sampleContent(), high);
    EXPECT_TRUE(tieLow.isNewer(tieHigh));
    EXPECT_FALSE(tieHigh.isNewer(tieLow));
    EXPECT_FALSE(tieLow.isNewer(snapshotAt(2000, sampleContent(), low)));
    EXPECT_FALSE(tieLow.isNewer(tieLow));
}

TEST(SharedSnapshotTest, TheEncodedSizeLimitIsNineHundredThousandBytes) {
    auto snapshotOfSize = [](qsizetype bytes) {
        SharedContent content = sampleContent();
        const SharedSnapshot probe = snapshotAt(1.5e12, content);
        const qsizetype base = SharedSnapshotCodec::encode(probe).size();
        content.projects[0].name = "B" + QString(bytes - base + 1, u'e') + "ta";
        return SharedSnapshot(probe.deviceID(), content, probe.revision(), probe.modifiedAt());
    };
    const SharedSnapshot atLimit = snapshotOfSize(900'000);
    ASSERT_EQ(SharedSnapshotCodec::encode(atLimit).size(), 900'000);
    EXPECT_EQ(atLimit.validated(), atLimit);
    EXPECT_EQ(SharedSnapshotCodec::decode(SharedSnapshotCodec::encode(atLimit)), atLimit);
    const SharedSnapshot over = snapshotOfSize(900'001);
    ASSERT_EQ(SharedSnapshotCodec::encode(over).size(), 900'001);
    EXPECT_EQ(errorKind<SharedStateError>([&] { over.validated(); }), Kind::TooLarge);
    EXPECT_THROW(SharedSnapshotCodec::decode(SharedSnapshotCodec::encode(over)), SharedStateError);
}

TEST(SharedSnapshotCodecTest, TheJsonFormHasSortedKeysMillisecondDatesAndNoAbsentMembers) {
    SharedContent content;
    content.projects.append({"p", "P", std::nullopt});
    hl::SharedTab tab =
        tabWithPanes({QUuid::fromString(QStringLiteral("11111111-1111-4111-8111-111111111111"))});
    tab.id = QUuid::fromString(QStringLiteral("22222222-2222-4222-8222-222222222222"));
    content.workspaces.append({"p", {tab}, std::nullopt});
    const SharedSnapshot snapshot(
        QUuid::fromString(QStringLiteral("33333333-3333-4333-8333-333333333333")), content,
        QUuid::fromString(QStringLiteral("aaaaaaaa-3333-4333-8333-333333333333")),
        hl::SharedDate(std::chrono::duration<double, std::milli>(1700000000123.25)));
    EXPECT_EQ(
        QString::fromUtf8(SharedSnapshotCodec::encode(snapshot)),
        "{\"content\":{\"projects\":[{\"id\":\"p\",\"name\":\"P\"}],\"workspaces\":[{"
        "\"projectID\":\"p\",\"tabs\":[{\"id\":\"22222222-2222-4222-8222-222222222222\","
        "\"layout\":{\"pane\":{\"_0\":\"11111111-1111-4111-8111-111111111111\"}},"
        "\"panes\":[{\"id\":\"11111111-1111-4111-8111-111111111111\",\"relativeCWD\":\"\"}],"
        "\"title\":\"shell\"}]}]},\"deviceID\":\"33333333-3333-4333-8333-333333333333\","
        "\"modifiedAt\":1700000000123.25,\"revision\":\"AAAAAAAA-3333-4333-8333-333333333333\","
        "\"schemaVersion\":1}");
    // A whole-millisecond date stays an integer, and decodes to the same value.
    const SharedSnapshot whole = snapshotAt(1700000000123, sampleContent());
    EXPECT_EQ(encodedJson(whole)["modifiedAt"].toInteger(), 1700000000123);
    EXPECT_EQ(SharedSnapshotCodec::decode(SharedSnapshotCodec::encode(whole)), whole);
}

TEST(SharedSnapshotCodecTest, DecodingRequiresEveryMemberAndValidatesWhatItReads) {
    const SharedSnapshot snapshot = snapshotAt(1700000000000, sampleContent());
    const QJsonObject json = encodedJson(snapshot);
    // Unknown keys are ignored; optional ones may be null; lower-case UUIDs are read.
    const QByteArray selected =
        sharedUuidText(*snapshot.content().workspaces[0].selectedTabID).toLatin1();
    QByteArray tolerant = editedEncoding(snapshot, "\"selectedTabID\":\"" + selected + "\"",
                                         "\"selectedTabID\":null,\"extra\":[1]");
    const QByteArray revision = sharedUuidText(snapshot.revision()).toLatin1();
    tolerant.replace(revision, revision.toLower());
    const SharedSnapshot decoded = SharedSnapshotCodec::decode(tolerant);
    EXPECT_EQ(decoded.revision(), snapshot.revision());
    EXPECT_EQ(decoded.content().workspaces[0].selectedTabID, std::nullopt);

    for (const char* key : {"schemaVersion", "revision", "modifiedAt", "deviceID", "content"}) {
        QJsonObject missing = json;
        missing.remove(key);
        EXPECT_THROW(decodeJson(missing), hl::SharedSnapshotCodecError) << key;
    }
    QJsonObject textDate = json;
    textDate["modifiedAt"] = "yesterday";
    EXPECT_THROW(decodeJson(textDate), hl::SharedSnapshotCodecError);
    for (const char* bytes : {"{\"schemaVersion\":1,", "[]", "{\"revision\":\"\\ud800\"}"}) {
        EXPECT_THROW(SharedSnapshotCodec::decode(bytes), hl::SharedSnapshotCodecError) << bytes;
    }

    // A later schema is refused before its content is looked at.
    QJsonObject later = json;
    later["schemaVersion"] = 2;
    later["content"] = QJsonObject{
        {"projects", QJsonArray{}},
        {"workspaces", QJsonArray{QJsonObject{{"projectID", "nowhere"}, {"tabs", QJsonArray{}}}}}};
    EXPECT_EQ(errorKind<SharedStateError>([&] { decodeJson(later); }), Kind::UnsupportedSchema);
    later["schemaVersion"] = 1;
    EXPECT_THROW(decodeJson(later), SharedStateError);
}

TEST(SharedSnapshotCodecTest, LayoutsAreReadAsThePaneTreeWritesThem) {
    const QUuid a = QUuid::createUuid();
    const QUuid b = QUuid::createUuid();
    SharedContent content;
    content.projects.append({"p", "P", std::nullopt});
    const hl::SharedTab tab = tabWithPanes({a, b});
    content.workspaces.append({"p", {tab}, std::nullopt});
    const SharedSnapshot snapshot(QUuid::createUuid(), content);
    const QByteArray layout = QJsonDocument(tab.layout).toJson(QJsonDocument::Compact);
    // A foreign writer: lower-case ids, a ratio out of range, an unknown member.
    const QJsonObject lowerLeaf{{"pane", QJsonObject{{"_0", sharedUuidText(b).toLower()}}}};
    const QJsonObject foreign{{"split", QJsonObject{{"id", "0b5e2f4c-1d2a-4c3b-9e8f-7a6b5c4d3e2f"},
                                                    {"axis", "vertical"},
                                                    {"ratio", 7},
                                                    {"note", "x"},
                                                    {"first", leafLayout(a)},
                                                    {"second", lowerLeaf}}}};
    const QByteArray edited =
        editedEncoding(snapshot, layout, QJsonDocument(foreign).toJson(QJsonDocument::Compact));
    EXPECT_EQ(SharedSnapshotCodec::decode(edited).content().workspaces[0].tabs[0].layout,
              (QJsonObject{{"split", QJsonObject{{"id", "0B5E2F4C-1D2A-4C3B-9E8F-7A6B5C4D3E2F"},
                                                 {"axis", "vertical"},
                                                 {"ratio", 0.9},
                                                 {"first", leafLayout(a)},
                                                 {"second", leafLayout(b)}}}}));
    EXPECT_THROW(SharedSnapshotCodec::decode(
                     editedEncoding(snapshot, layout, "{\"split\":{\"axis\":\"diagonal\"}}")),
                 hl::SharedSnapshotCodecError);
}

TEST(SharedStateTextsTest, PlatformWordsAndStatusesReadAsTheyShould) {
    const SharedStateError structural(Kind::InvalidPane);
    EXPECT_EQ(structural.errorDescription(hl::TextPlatform::Linux),
              "The Cloud workspace is structurally invalid and was not applied.");
    EXPECT_EQ(structural.errorDescription(hl::TextPlatform::MacOS),
              "The iCloud workspace is structurally invalid and was not applied.");
    EXPECT_STREQ(SharedStateError(Kind::TooLarge).what(),
                 "The Cloud workspace is too large to sync safely.");
    using Status = hl::CloudSyncStatus;
    EXPECT_EQ(Status::needsFolder(0).title(hl::TextPlatform::Linux),
              "0 Cloud projects need local folder setup");
    EXPECT_EQ(Status::of(Status::Kind::Syncing).title(hl::TextPlatform::Linux),
              "Syncing with Cloud…");
    // The statuses that name the macOS service itself say what they mean on Linux.
    const std::pair<Status::Kind, std::pair<const char*, const char*>> serviceWords[] = {
        {Status::Kind::LocalOnly,
         {"Local only · CloudKit entitlement missing", "Local only · sync is not set up"}},
        {Status::Kind::CloudSchema,
         {"CloudKit schema unavailable · changes saved locally",
          "Sync location not supported · changes saved locally"}},
        {Status::Kind::CloudSigning,
         {"CloudKit signing mismatch · changes saved locally",
          "Sync server certificate not trusted · changes saved locally"}},
    };
    for (const auto& [kind, words] : serviceWords) {
        EXPECT_EQ(Status::of(kind).title(hl::TextPlatform::MacOS), QString::fromUtf8(words.first));
        EXPECT_EQ(Status::of(kind).title(hl::TextPlatform::Linux), QString::fromUtf8(words.second));
    }
}
