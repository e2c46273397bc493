#include "disk/DiskSurvey.h"

#include "Fixture.h"

#include <gtest/gtest.h>
#include <numeric>
#include <optional>

namespace sd {
namespace {

std::uint64_t sumOf(const DiskVolume& volume) {
    std::uint64_t sum = volume.unexplainedBytes;
    for (const DiskRow& row : volume.rows) {
        sum += row.bytes;
    }
    return sum;
}

DiskRow row(std::string id, std::uint64_t bytes, std::uint64_t unreadable = 0) {
    DiskRow r;
    r.id = std::move(id);
    r.bytes = bytes;
    r.unreadableFolders = unreadable;
    return r;
}

TEST(DiskSurvey, RowsAndTheRestAlwaysAddUpToUsed) {
    struct Case {
        const char* name;
        std::uint64_t used;
        std::vector<DiskRow> rows;
        bool readsEverything;
        std::uint64_t unexplained;
        std::uint64_t overcount;
        std::vector<std::uint64_t> rowsAfter;
        const char* sentenceHas;
    };
    const std::vector<Case> cases{
        {"room left over",
         1000,
         {row("home", 600), row("logs", 100)},
         true,
         300,
         0,
         {600, 100},
         "/etc"},
        {"rows exactly fill it",
         700,
         {row("home", 600), row("logs", 100)},
         true,
         0,
         0,
         {600, 100},
         "/etc"},
        {"rows claim too much: biggest gives it up",
         650,
         {row("home", 600), row("logs", 100)},
         true,
         0,
         50,
         {550, 100},
         "/etc"},
        {"overcount beyond the biggest row",
         50,
         {row("home", 60), row("logs", 40)},
         true,
         0,
         50,
         {10, 40},
         "/etc"},
        {"unreadable folders are named",
         1000,
         {row("home", 200), row("logs", 100, 3)},
         false,
         700,
         0,
         {200, 100},
         "cannot read (3 folders, among them /var/log/private"},
        {"an ordinary account is told how to see more",
         1000,
         {row("home", 200)},
         false,
         800,
         0,
         {200},
         "sudo sparrowdeck disk"},
        {"nothing measured", 1000, {}, true, 1000, 0, {}, "/etc"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        platform::VolumeFigures figures;
        figures.totalBytes = c.used * 2;
        figures.usedBytes = c.used;
        DiskVolume volume =
            assembleVolume(figures, true, c.rows, c.readsEverything, {"/var/log/private"});
        EXPECT_EQ(sumOf(volume), c.used);
        EXPECT_EQ(volume.unexplainedBytes, c.unexplained);
        EXPECT_EQ(volume.overcountBytes, c.overcount);
        std::vector<std::uint64_t> after;
        for (const DiskRow& r : volume.rows) {
            after.push_back(r.bytes);
        }
        EXPECT_EQ(after, c.rowsAfter);
        EXPECT_NE(volume.unexplainedSentence.find(c.sentenceHas), std::string::npos)
            << volume.unexplainedSentence;
    }
}

TEST(DiskSurvey, SnapshotsAreARowOnlyWhenTheToolListsSome) {
    using platform::LocalSnapshot;
    using platform::LocalSnapshotListing;
    struct Case {
        const char* what;
        LocalSnapshotListing listing;
        std::optional<std::uint64_t> bytes; // none: no row
        bool complete;
        const char* says;
    };
    const std::vector<Case> cases{
        {"no snapshots", {{}, std::nullopt, "No configuration"}, std::nullopt, true, ""},
        {"the tool failed",
         {{{"1", "root:1", {}, 10}}, "snapper failed", {}},
         std::nullopt,
         true,
         ""},
        {"sizes known",
         {{{"1", "root:1", {}, 4000}, {"2", "root:2", {}, 6000}}, {}, {}},
         10000,
         true,
         "2 local snapshots kept by snapper"},
        {"one size unknown",
         {{{"1", "root:1", {}, 4000}, {"2", "root:2", {}, std::nullopt}}, {}, {}},
         4000,
         false,
         "did not report the size of 1 snapshot"},
    };
    for (const Case& c : cases) {
        std::optional<DiskRow> got = snapshotRow(c.listing, "snapper");
        ASSERT_EQ(got.has_value(), c.bytes.has_value()) << c.what;
        if (!got) {
            continue;
        }
        EXPECT_EQ(got->id, "snapshots") << c.what;
        EXPECT_EQ(got->bytes, *c.bytes) << c.what;
        EXPECT_EQ(got->isComplete, c.complete) << c.what;
        EXPECT_NE(got->sentence.find(c.says), std::string::npos) << got->sentence;
        EXPECT_TRUE(got->reclaimCommands.empty()) << "deleting snapshots is never a command to run";
    }
}

TEST(DiskSurvey, ReadsTheSystemsOwnLists) {
    struct SwapCase {
        const char* table;
        std::vector<std::string> files;
    };
    const std::vector<SwapCase> swaps{
        {"Filename\tType\tSize\tUsed\tPriority\n", {}},
        {"Filename\tType\tSize\tUsed\tPriority\n/swapfile file 2097148 0 -2\n"
         "/dev/sda2 partition 8388604 1024 -3\n",
         {"/swapfile"}},
        {"Filename Type Size Used Priority\n/var/my\\040swap file 1024 0 -2\n"
         "/old/swap\\040(deleted) file 1024 0 -3\n",
         {"/var/my swap"}},
        {"", {}},
    };
    for (const SwapCase& c : swaps) {
        SCOPED_TRACE(c.table);
        EXPECT_EQ(platform::swapFilesFrom(c.table), c.files);
    }

    struct SizeCase {
        const char* listing;
        std::uint64_t bytes;
    };
    const std::vector<SizeCase> sizes{
        {"", 0},
        {"10\n20\n", 30 * 1024ULL},
        {"10\n\n5", 15 * 1024ULL},       // a package without a size, no newline at the end
        {"10\nabc\n7x\n", 10 * 1024ULL}, // anything that is not a number is left out
    };
    for (const SizeCase& c : sizes) {
        SCOPED_TRACE(c.listing);
        EXPECT_EQ(sumInstalledSizes(c.listing), c.bytes);
    }
}

TEST(DiskSurvey, MeasuresAPlaceAsDuDoesAndLeavesOutWhatIsNotThere) {
    std::string t = test::freshFolder("disk-place");
    test::makeDirs(t + "/a/b/c");
    test::writeFilledFile(t + "/a/one", 300'000);
    test::writeFilledFile(t + "/a/b/c/two", 1'000'000);
    test::makeHardlink(t + "/a/one", t + "/a/b/one-again");
    test::makeSymlink("/usr", t + "/a/to-usr");
    for (int i = 0; i < 50; ++i) {
        test::makeDirs(t + "/many/d" + std::to_string(i));
        test::writeFile(t + "/many/d" + std::to_string(i) + "/f", "x");
    }
    PlaceMeasure m = measurePlace(t);
    EXPECT_TRUE(m.exists);
    EXPECT_EQ(m.fileCount, 53U);
    EXPECT_EQ(m.unreadableFolders, 0U);
    // du counts every inode's blocks once, folders and links included: the same rule.
    test::CommandResult du = test::runShell("du -s -x -B1 " + test::shellQuote(t) + " | cut -f1");
    EXPECT_EQ(std::to_string(m.bytes) + "\n", du.output);

    PlaceMeasure file = measurePlace(t + "/a/b/c/two");
    EXPECT_TRUE(file.exists);
    EXPECT_EQ(file.fileCount, 1U);
    EXPECT_EQ(std::to_string(file.bytes) + "\n",
              test::runShell("du -B1 " + test::shellQuote(t + "/a/b/c/two") + " | cut -f1").output);

    for (const std::string& missing : {t + "/nothing", t + "/a/to-usr"}) {
        PlaceMeasure none = measurePlace(missing);
        EXPECT_FALSE(none.exists) << missing;
        EXPECT_EQ(none.bytes, 0U);
    }
}

} // namespace
} // namespace sd
