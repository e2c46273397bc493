#include "history/ScanHistory.h"

#include "Fixture.h"
#include "base/CleanerError.h"
#include "base/TestHooks.h"

#include <csignal>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <set>
#include <sys/wait.h>
#include <unistd.h>

namespace sd {
namespace {

constexpr std::uint64_t MB = 1'000'000;

ScanSnapshot snapshot(std::int64_t takenAt, std::vector<SnapshotFolder> folders,
                      std::string root = "/home/u") {
    ScanSnapshot s;
    s.root = std::move(root);
    s.takenAt = takenAt;
    s.totalBytes = folders.empty() ? 0 : folders.front().bytes;
    s.folders = std::move(folders);
    return s;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

TEST(ScanHistory, ComparesTwoSnapshotsFolderByFolder) {
    struct Case {
        const char* name;
        std::vector<SnapshotFolder> older;
        std::vector<SnapshotFolder> newer;
        std::vector<FolderChange> expected;
    };
    const std::vector<Case> cases{
        {"a file grew: exactly its chain of folders",
         {{"", 50 * MB}, {"a", 30 * MB}, {"a/b", 20 * MB}, {"c", 20 * MB}},
         {{"", 150 * MB}, {"a", 130 * MB}, {"a/b", 120 * MB}, {"c", 20 * MB}},
         {{"/home/u", ChangeKind::grew, 50 * MB, 150 * MB},
          {"/home/u/a", ChangeKind::grew, 30 * MB, 130 * MB},
          {"/home/u/a/b", ChangeKind::grew, 20 * MB, 120 * MB}}},
        {"changes under the threshold are not news",
         {{"", 50 * MB}, {"a", 30 * MB}},
         {{"", 50 * MB + 4096}, {"a", 30 * MB + 4096}},
         {}},
        {"a new branch shows at its top only, a gone one too",
         {{"", 40 * MB}, {"old", 10 * MB}, {"old/deep", 5 * MB}},
         {{"", 40 * MB}, {"new", 10 * MB}, {"new/deep", 5 * MB}},
         {{"/home/u/new", ChangeKind::appeared, 0, 10 * MB},
          {"/home/u/old", ChangeKind::vanished, 10 * MB, 0}}},
        {"shrinking is signed",
         {{"", 90 * MB}, {"x", 80 * MB}},
         {{"", 20 * MB}, {"x", 10 * MB}},
         {{"/home/u", ChangeKind::shrank, 90 * MB, 20 * MB},
          {"/home/u/x", ChangeKind::shrank, 80 * MB, 10 * MB}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(compareSnapshots(snapshot(1, c.older), snapshot(2, c.newer)), c.expected);
    }
    EXPECT_LT(FolderChange({"/x", ChangeKind::shrank, 80, 10}).delta(), 0);
}

TEST(ScanHistory, PicksTheScanToCompareWith) {
    // Newest first, as the history lists them.
    std::vector<SnapshotInfo> scans{
        {5, "/h", 500, 0, 0, true, 0},
        {4, "/h", 400, 0, 0, true, 0},
        {3, "/h", 300, 0, 0, true, 0},
        {2, "/h", 200, 0, 0, true, 0},
    };
    struct Case {
        std::int64_t current;
        std::optional<std::int64_t> before;
        std::optional<std::int64_t> expected;
    };
    const std::vector<Case> cases{
        {5, std::nullopt, 4},            // the previous scan
        {2, std::nullopt, std::nullopt}, // the first one has nothing before it
        {5, 301, 3},                     // the newest before the date
        {5, 300, 2},                     // a scan exactly at the moment is not before it
        {5, 100, 2},                     // nothing that early: the oldest kept
        {4, 1000, 3},                    // never the current one or a later one
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.current);
        std::optional<SnapshotInfo> got = baselineFor(scans, c.current, c.before);
        EXPECT_EQ(got ? std::optional<std::int64_t>(got->id) : std::nullopt, c.expected);
    }
}

TEST(ScanHistory, KeepsSnapshotsWholeAndThinsOldOnesToOneAWeek) {
    std::string folder = test::freshFolder("history-thin");
    ScanHistory history(folder + "/history.sqlite");
    EXPECT_FALSE(history.recoveryNotice());
    const std::int64_t day = 86'400;
    const std::int64_t now = 1'700'000'000; // a Tuesday
    ScanSnapshot first = snapshot(now - 100 * day, {{"", 5 * MB}, {"a", 2 * MB}, {"a/b", 2 * MB}});
    first.folders[0].latestChange = 1234;
    first.fileCount = 7;
    first.isComplete = false;
    std::int64_t firstId = history.save(first);
    std::optional<ScanSnapshot> loaded = history.load(firstId);
    ASSERT_TRUE(loaded);
    first.id = firstId;
    EXPECT_EQ(*loaded, first);

    // Three scans a day for 60 days before that "now", and a few recent ones.
    for (std::int64_t d = 90; d > 30; --d) {
        for (int k = 0; k < 3; ++k) {
            history.save(snapshot(now - d * day + k * 3600, {{"", MB}}));
        }
    }
    for (std::int64_t d = 5; d > 0; --d) {
        history.save(snapshot(now - d * day, {{"", MB}}));
    }
    history.save(snapshot(now, {{"", MB}}, "/elsewhere"));
    history.addFreeSpace({now - 400 * day, 1, 2});
    history.addFreeSpace({now - day, 3, 4});

    std::uint64_t dropped = history.thin(now, ThinningRule{30, 3, 180});
    std::vector<SnapshotInfo> kept = history.snapshots("/home/u");
    EXPECT_EQ(dropped + kept.size(), 1 + 60 * 3 + 5U);
    std::set<std::int64_t> weeks;
    for (const SnapshotInfo& s : kept) {
        if (now - s.takenAt >= 30 * day) {
            EXPECT_TRUE(weeks.insert((s.takenAt + 3 * day) / (7 * day)).second)
                << "two old scans kept in one week";
        }
    }
    EXPECT_GE(kept.size(), 5U + 8U) << "the recent five and about one a week before";
    EXPECT_EQ(history.snapshots("/elsewhere").size(), 1U);
    EXPECT_TRUE(history.load(firstId)) << "the lone scan of its week is the newest of it";
    EXPECT_EQ(history.freeSpaceSince(0), (std::vector<FreeSpaceSample>{{now - day, 3, 4}}));
}

TEST(ScanHistory, ADamagedFileIsKeptAsideAndAFreshOneStarted) {
    struct Case {
        const char* name;
        std::function<void(const std::string& file)> damage;
    };
    const std::vector<Case> cases{
        {"not a database at all",
         [](const std::string& file) {
             test::writeFile(file, std::string(8192, 'x'));
         }},
        {"a database whose pages were overwritten", [](const std::string& file) {
             {
                 ScanHistory history(file);
                 for (int i = 0; i < 20; ++i) {
                     std::vector<SnapshotFolder> folders;
                     for (int k = 0; k < 200; ++k) {
                         folders.push_back({"f" + std::to_string(k), MB, 1, 0});
                     }
                     history.save(snapshot(i, folders));
                 }
             }
             std::string bytes = readFile(file);
             ASSERT_GT(bytes.size(), 40'000U);
             std::fill(bytes.begin() + 8192, bytes.begin() + 40'000, '\xAB');
             test::writeFile(file, bytes);
         }}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::string folder = test::freshFolder("history-damaged");
        std::string file = folder + "/history.sqlite";
        c.damage(file);
        std::string damaged = readFile(file);
        ScanHistory history(file);
        ASSERT_TRUE(history.recoveryNotice());
        EXPECT_NE(history.recoveryNotice()->find("kept aside as history.sqlite.damaged-"),
                  std::string::npos)
            << *history.recoveryNotice();
        // The damaged bytes are all still there under the new name, and the fresh file works.
        std::string aside = test::runShell("ls " + test::shellQuote(folder) +
                                           " | grep -x 'history.sqlite.damaged-[0-9-]*'")
                                .output;
        ASSERT_FALSE(aside.empty());
        aside.pop_back();
        EXPECT_EQ(readFile(folder + "/" + aside), damaged);
        EXPECT_TRUE(history.snapshots("/home/u").empty());
        EXPECT_GT(history.save(snapshot(1, {{"", MB}})), 0);
        ScanHistory again(file);
        EXPECT_FALSE(again.recoveryNotice());
        EXPECT_EQ(again.snapshots("/home/u").size(), 1U);
    }
}

TEST(ScanHistory, AFileFromANewerVersionIsLeftAlone) {
    std::string file = test::freshFolder("history-newer") + "/history.sqlite";
    { ScanHistory history(file); }
    test::runShell("sqlite3 " + test::shellQuote(file) + " 'PRAGMA user_version=99'");
    if (!test::haveTool("sqlite3")) {
        GTEST_SKIP() << "sqlite3 is not installed";
    }
    std::string before = readFile(file);
    try {
        ScanHistory history(file);
        FAIL() << "opened a history of a newer schema";
    } catch (const CleanerError& error) {
        EXPECT_NE(std::string(error.what()).find("newer Sparrowdeck"), std::string::npos);
    }
    EXPECT_EQ(readFile(file), before);
}

TEST(ScanHistory, SurvivesAProcessKilledHalfWayThroughASave) {
    if (!testhooks::enabled) {
        GTEST_SKIP() << "needs the test hooks";
    }
    std::string file = test::freshFolder("history-killed") + "/history.sqlite";
    std::vector<SnapshotFolder> folders;
    for (int k = 0; k < 4000; ++k) {
        folders.push_back({"folder-" + std::to_string(k), MB + k, 1, k});
    }
    {
        ScanHistory history(file);
        history.save(snapshot(100, folders));
    }
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // Half the folders of the second snapshot are written when the process dies, as it would
        // in a power cut or a kill -9.
        testhooks::setMidHistorySave([] { ::raise(SIGKILL); });
        ScanHistory history(file);
        history.save(snapshot(200, folders));
        ::_exit(0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;

    ScanHistory history(file);
    EXPECT_FALSE(history.recoveryNotice()) << *history.recoveryNotice();
    std::vector<SnapshotInfo> scans = history.snapshots("/home/u");
    ASSERT_EQ(scans.size(), 1U) << "the half-written snapshot left nothing";
    std::optional<ScanSnapshot> first = history.load(scans[0].id);
    ASSERT_TRUE(first);
    EXPECT_EQ(first->folders.size(), folders.size());
    EXPECT_EQ(
        test::runShell("sqlite3 " + test::shellQuote(file) + " 'PRAGMA integrity_check'").output,
        test::haveTool("sqlite3") ? "ok\n" : "");
}

} // namespace
} // namespace sd
