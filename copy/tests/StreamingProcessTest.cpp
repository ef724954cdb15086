// StreamingProcess against real children: everything a quick child printed
// arrives before its exit, a cancellation before the launch starts nothing, a
// terminate reaches the child's whole process group; LockedData keeps the tail.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <future>
#include <thread>

#include "StreamingProcess.h"
#include "TestSupport.h"

using namespace hl;
namespace fs = std::filesystem;

namespace {

struct Collected {
    LockedData out, err;
    std::promise<StreamingProcess::Result> exit;
};

// Runs the process and waits (generously) for its result.
StreamingProcess::Result runToEnd(StreamingProcess& process, Collected& collected) {
    auto result = collected.exit.get_future();
    process.run([&](const QByteArray& b) { collected.out.append(b); },
                [&](const QByteArray& b) { collected.err.append(b); },
                [&](StreamingProcess::Result r) { collected.exit.set_value(r); });
    if (result.wait_for(std::chrono::seconds(60)) != std::future_status::ready) {
        ADD_FAILURE() << "no exit";
        return CopyCancelled{};
    }
    return result.get();
}

// Running and not yet a zombie.
bool isAlive(pid_t pid) {
    const std::string stat = test::readFile("/proc/" + std::to_string(pid) + "/stat");
    const auto close = stat.rfind(')');
    return close != std::string::npos && close + 2 < stat.size() && stat[close + 2] != 'Z';
}

}  // namespace

TEST(StreamingProcessTest, QuickChildLosesNoOutput) {
    StreamingProcess process("/bin/sh", {"-c", "head -c 60000 /dev/zero; printf late >&2; exit 3"},
                             {{"HL_ADDED", "yes"}, {"HOME", std::nullopt}});
    Collected collected;
    EXPECT_EQ(std::get<int>(runToEnd(process, collected)), 3);
    EXPECT_EQ(collected.out.value(), QByteArray(60000, '\0'));
    EXPECT_EQ(collected.err.value(), "late");
}

TEST(StreamingProcessTest, CancelBeforeLaunchStartsNothing) {
    test::TempDir dir;
    const auto marker = dir / "started";
    StreamingProcess process("/bin/sh", {"-c", "touch '" + QString::fromStdString(marker) + "'"});
    process.terminate();
    Collected collected;
    EXPECT_TRUE(std::holds_alternative<CopyCancelled>(runToEnd(process, collected)));
    EXPECT_FALSE(fs::exists(marker));
}

TEST(StreamingProcessTest, FailedLaunchIsThePlatformsError) {
    StreamingProcess process("/nonexistent/rsync", {});
    Collected collected;
    const auto result = runToEnd(process, collected);
    ASSERT_TRUE(std::holds_alternative<CopyPlatformError>(result));
    EXPECT_TRUE(std::get<CopyPlatformError>(result).description.contains("/nonexistent/rsync"));
}

TEST(StreamingProcessTest, TerminateEndsTheWholeProcessGroup) {
    test::TempDir dir;
    const QString pidFile = QString::fromStdString(dir / "grandchild");
    StreamingProcess process("/bin/sh",
                             {"-c", "sleep 300 & echo $! > '" + pidFile + "'; echo up; wait"});
    Collected collected;
    auto result = collected.exit.get_future();
    process.run([&](const QByteArray& b) { collected.out.append(b); }, [](const QByteArray&) {},
                [&](StreamingProcess::Result r) { collected.exit.set_value(r); });
    ASSERT_TRUE(
        test::waitUntil([&] { return collected.out.value() == "up\n"; }, std::chrono::seconds(30)));
    const pid_t grandchild = test::readFile(dir / "grandchild").empty()
                                 ? -1
                                 : std::stoi(test::readFile(dir / "grandchild"));
    process.terminate();
    ASSERT_EQ(result.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    EXPECT_EQ(std::get<int>(result.get()), SIGTERM);
    ASSERT_GT(grandchild, 0);
    EXPECT_TRUE(test::waitUntil([&] { return !isAlive(grandchild); }, std::chrono::seconds(30)));
}

TEST(StreamingProcessTest, LockedDataKeepsTheTailUnderConcurrentAppends) {
    LockedData data;
    data.append(QByteArray(70000 - 4, 'a') + "tail");
    EXPECT_EQ(data.value().size(), LockedData::maximumBytes);
    EXPECT_TRUE(data.value().endsWith("aatail"));

    LockedData shared;
    std::vector<std::thread> writers;
    for (int t = 0; t < 4; ++t)
        writers.emplace_back([&] {
            for (int i = 0; i < 2000; ++i)
                shared.append(QByteArray(100, 'x'));
        });
    for (int i = 0; i < 200; ++i)
        EXPECT_LE(shared.value().size(), LockedData::maximumBytes);
    for (auto& writer : writers)
        writer.join();
    EXPECT_EQ(shared.value(), QByteArray(LockedData::maximumBytes, 'x'));
}
