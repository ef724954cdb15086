// The idea inbox on real folders: the report as stored, the limits of an idea,
// hostile folders (links, another owner, an open mode), and several processes
// saving the same ids at once while a reader watches the folder.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include <cstdio>
#include <fstream>
#include <set>
#include <vector>

#include "IdeaInboxStore.h"
#include "TestSupport.h"

namespace fs = std::filesystem;
using hl::IdeaInboxStore;
using SaveError = hl::IdeaInboxStore::SaveError;
using hl::test::modeOf;

namespace {

std::vector<std::string> namesIn(const fs::path& folder) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

// The case a save failed with; -1 when it did not fail with a SaveError.
int failureOf(const std::function<void()>& save) {
    try {
        save();
    } catch (const SaveError& error) {
        return error.which();
    } catch (...) {
        return -2;
    }
    return -1;
}

class IdeaInboxStoreTest : public ::testing::Test {
  protected:
    IdeaInboxStoreTest()
        : base(fs::canonical(dir.path())), inbox(base / "support" / "Idea Inbox") {}

    hl::test::TempDir dir;
    fs::path base;
    fs::path inbox;
    const QUuid id = QUuid::fromString(QStringLiteral("6F1C2A3B-4D5E-4F60-8172-93A4B5C6D7E8"));
};

TEST_F(IdeaInboxStoreTest, AReportIsOnePrivateFileWithExactlyItsFiveKeys) {
    const QDateTime now = QDateTime::fromString("2026-03-04T05:06:07Z", Qt::ISODate);
    const auto saved =
        IdeaInboxStore::save("  Split panes by dragging a tab \u00e9\n\n", inbox, now, id);
    EXPECT_EQ(saved.id, id);
    EXPECT_EQ(saved.reportURL, inbox / "6f1c2a3b-4d5e-4f60-8172-93a4b5c6d7e8.queued.json");
    EXPECT_EQ(namesIn(inbox), std::vector<std::string>{saved.reportURL.filename().string()});
    EXPECT_EQ(modeOf(inbox), 0700u);
    EXPECT_EQ(modeOf(saved.reportURL), 0600u);

    const auto text = hl::test::readFile(saved.reportURL);
    const auto record = nlohmann::json::parse(text);
    EXPECT_EQ(record, (nlohmann::json{{"schemaVersion", 1},
                                      {"id", "6F1C2A3B-4D5E-4F60-8172-93A4B5C6D7E8"},
                                      {"createdAt", "2026-03-04T05:06:07Z"},
                                      {"processingConsent", "agent_director_review"},
                                      {"idea", "Split panes by dragging a tab \u00e9"}}));
    // Pretty-printed, keys in order.
    EXPECT_LT(text.find("\"createdAt\""), text.find("\"id\""));
    EXPECT_LT(text.find("\"processingConsent\""), text.find("\"schemaVersion\""));
    EXPECT_NE(text.find("\n  \"idea\""), std::string::npos);
}

TEST_F(IdeaInboxStoreTest, EmptyOrOversizedIdeasAreRefusedBeforeTheFolderIsTouched) {
    const auto save = [&](const QString& idea) {
        return failureOf([&] { IdeaInboxStore::save(idea, inbox); });
    };
    EXPECT_EQ(save(" \n\t \r\n"), SaveError::invalidIdea);
    EXPECT_EQ(save("\n" + QString(8001, 'x') + "\n"), SaveError::invalidIdea);
    // Passes the idea's limit, but its escaped JSON grows past the record's.
    EXPECT_EQ(save(QString(8000, '"')), SaveError::invalidIdea);
    EXPECT_EQ(save(QString(2001, QChar(1))), SaveError::invalidIdea);
    EXPECT_FALSE(fs::exists(inbox.parent_path()));

    EXPECT_EQ(save("\n " + QString(8000, 'x') + " \n"), -1);
    EXPECT_EQ(namesIn(inbox).size(), 1u);
}

TEST_F(IdeaInboxStoreTest, LinksAndNonFoldersOnTheWayAreRefused) {
    fs::create_directories(base / "elsewhere");
    fs::create_directories(base / "support");
    const auto save = [&](const fs::path& folder) {
        return failureOf([&] { IdeaInboxStore::save("idea", folder); });
    };

    // (What the refusal says is read through the composer: IdeaComposerViewTest.)
    fs::create_directory_symlink(base / "elsewhere", inbox);
    EXPECT_EQ(save(inbox), SaveError::unsafeDirectory);
    fs::remove(inbox);

    fs::create_directory_symlink(base / "support", base / "linked");
    EXPECT_EQ(save(base / "linked" / "Idea Inbox"), SaveError::unsafeDirectory);

    std::ofstream(base / "support" / "file") << "x";
    fs::create_symlink(base / "support" / "file", inbox);
    EXPECT_EQ(save(inbox), SaveError::unsafeDirectory);
    EXPECT_EQ(save(base / "support" / "file"), SaveError::unsafeDirectory);
    // A parent that cannot be made is the file system's own error.
    EXPECT_THROW(IdeaInboxStore::save("idea", base / "support" / "file" / "sub" / "Idea Inbox"),
                 fs::filesystem_error);

    EXPECT_TRUE(fs::is_empty(base / "elsewhere"));
    EXPECT_EQ(hl::test::readFile(base / "support" / "file"), "x");
    EXPECT_FALSE(fs::exists(base / "support" / "Idea Inbox" / "sub"));
}

TEST_F(IdeaInboxStoreTest, AnotherOwnersFolderIsRefusedAndAnOpenModeIsRepaired) {
    fs::create_directories(inbox);
    ASSERT_EQ(::chmod(inbox.c_str(), 0755), 0);
    IdeaInboxStore::save("first", inbox);
    EXPECT_EQ(modeOf(inbox), 0700u);

    if (::geteuid() != 0) GTEST_SKIP() << "giving a folder to another owner needs root";
    const fs::path foreign = base / "support" / "Foreign Inbox";
    fs::create_directories(foreign);
    ASSERT_EQ(::chmod(foreign.c_str(), 0755), 0);
    ASSERT_EQ(::chown(foreign.c_str(), 4242, 4242), 0);
    try {
        IdeaInboxStore::save("idea", foreign);
        ADD_FAILURE() << "another owner's folder must be refused";
    } catch (const SaveError& error) {
        EXPECT_EQ(error.which(), SaveError::unsafeDirectory);
        EXPECT_EQ(std::string(error.what()),
                  "The idea inbox folder " + foreign.string() +
                      " is not private to this user (owned by user 4242, not by user 0).");
    }
    EXPECT_EQ(modeOf(foreign), 0755u);
    EXPECT_TRUE(fs::is_empty(foreign));
}

QString ideaText(int process, int index) {
    return QString("process %1 idea %2 ").arg(process).arg(index) +
           QString(6000, QChar('a' + process));
}

// Six processes queue the same forty ids at once while this one reads every
// report that appears: each id is published exactly once (every other save of
// it fails to write), every visible report is whole, no temporary file is left.
TEST_F(IdeaInboxStoreTest, ConcurrentSavesFromSeveralProcessesPublishOnlyWholeReports) {
    constexpr int processes = 6;
    constexpr int ideas = 40;
    std::vector<QUuid> ids;
    for (int i = 0; i < ideas; ++i)
        ids.push_back(QUuid::createUuid());
    fs::create_directories(inbox.parent_path());

    std::vector<pid_t> children;
    for (int p = 0; p < processes; ++p) {
        const pid_t pid = ::fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            int published = 0;
            for (int i = 0; i < ideas; ++i) {
                try {
                    IdeaInboxStore::save(ideaText(p, i), inbox, QDateTime::currentDateTimeUtc(),
                                         ids[i]);
                    ++published;
                } catch (const SaveError& error) {
                    if (error.which() != SaveError::writeFailed) ::_exit(200);
                } catch (...) {
                    ::_exit(201);
                }
            }
            ::_exit(published);
        }
        children.push_back(pid);
    }

    int published = 0;
    int running = processes;
    std::set<std::string> seen;
    while (running > 0) {
        if (fs::exists(inbox)) {
            for (const auto& name : namesIn(inbox)) {
                if (!name.ends_with(".queued.json")) continue;
                const auto record = nlohmann::json::parse(hl::test::readFile(inbox / name));
                ASSERT_EQ(record.size(), 5u) << name;
                // Whole: the text is exactly what its writer queued.
                const auto idea = record.at("idea").get<std::string>();
                int p = -1, i = -1;
                ASSERT_EQ(std::sscanf(idea.c_str(), "process %d idea %d ", &p, &i), 2) << name;
                ASSERT_EQ(idea, ideaText(p, i).toStdString()) << name;
                ASSERT_EQ(name, IdeaInboxStore::reportName(ids.at(i)));
                seen.insert(name);
            }
        }
        int status = 0;
        const pid_t done = ::waitpid(-1, &status, WNOHANG);
        if (done > 0) {
            ASSERT_TRUE(WIFEXITED(status));
            ASSERT_LE(WEXITSTATUS(status), ideas);
            published += WEXITSTATUS(status);
            --running;
        }
    }
    EXPECT_EQ(published, ideas);
    const auto names = namesIn(inbox);
    EXPECT_EQ(names.size(), static_cast<std::size_t>(ideas));
    for (const auto& id : ids)
        EXPECT_TRUE(fs::exists(inbox / IdeaInboxStore::reportName(id)));
    EXPECT_GT(seen.size(), 0u);
}

}  // namespace
