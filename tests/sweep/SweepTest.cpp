#include "sweep/Sweep.h"

#include "Fixture.h"
#include "core/PathRules.h"

#include <gtest/gtest.h>

namespace sd {
namespace {

// Real-looking caches of the tools a developer's home fills up with, keyed by catalog target.
struct FixtureCache {
    const char* target;
    const char* folder; // relative to the home; the location the catalog names
    const char* files[3];
};

const FixtureCache caches[]{
    {"python_tools",
     ".cache/pip",
     {"http-v2/a/b/c/1f2e", "wheels/ab/cd/pkg-1.0-py3-none-any.whl", "selfcheck.json"}},
    {"javascript_tools",
     ".npm/_cacache",
     {"content-v2/sha512/ab/cd/ef01", "index-v5/12/34/abcd", "tmp/x"}},
    {"rust_go",
     ".cargo/registry/cache",
     {"index.crates.io-6f17d22bba15001f/serde-1.0.0.crate",
      "index.crates.io-6f17d22bba15001f/libc-0.2.0.crate", ""}},
    {"rust_go", ".cache/go-build", {"00/0012ab-d", "ff/ffee01-a", "README"}},
    {"browser_caches",
     ".cache/google-chrome",
     {"Default/Cache/Cache_Data/data_1", "Default/Cache/Cache_Data/f_000001", ""}},
    {"browser_caches",
     ".cache/mozilla/firefox/k3x9.default-release/cache2",
     {"entries/0A1B2C3D", "index", ""}},
    {"ide_caches",
     ".config/Code/CachedData",
     {"1a2b3c/chrome/js/main.code", "1a2b3c/node/x.code", ""}},
    {"ml_framework_caches",
     ".cache/huggingface/hub",
     {"models--org--tiny/blobs/9f8e7d", "models--org--tiny/refs/main", ""}},
};

std::vector<std::string> tileFolders(const char* const* targets, size_t n) {
    std::vector<std::string> out;
    for (const FixtureCache& c : caches) {
        for (size_t i = 0; i < n; ++i) {
            if (std::string(c.target) == targets[i]) {
                out.push_back(test::fixtureHome() + "/" + c.folder);
            }
        }
    }
    return out;
}

std::uint64_t peerBytes(const std::vector<std::string>& folders) {
    std::string list;
    for (const std::string& f : folders) {
        list += " " + test::shellQuote(f);
    }
    test::CommandResult r = test::runShell("find" + list +
                                           " -type f -printf '%D:%i %b\\n' | sort -u | "
                                           "awk '{s += $2} END {printf \"%d\", s * 512}'");
    return std::stoull(r.output.empty() ? "0" : r.output);
}

std::string checksums(const std::vector<std::string>& folders) {
    std::string list;
    for (const std::string& f : folders) {
        list += " " + test::shellQuote(f);
    }
    return test::runShell("find" + list + " -type f -exec sha256sum {} + 2>/dev/null | sort")
        .output;
}

class SweepOnAFixtureHome : public ::testing::Test {
protected:
    void SetUp() override {
        std::uint64_t size = 300'000;
        for (const FixtureCache& c : caches) {
            for (const char* file : c.files) {
                if (*file == '\0') {
                    continue;
                }
                std::string path = test::fixtureHome() + "/" + c.folder + "/" + file;
                test::makeDirs(path.substr(0, path.rfind('/')));
                test::writeFilledFile(path, size, static_cast<char>('a' + size % 26));
                size = size * 3 / 2 % 5'000'000 + 4097;
            }
        }
        // A sparse blob counts what the disk holds, not its length.
        test::writeSparseFile(test::fixtureHome() +
                                  "/.cache/huggingface/hub/models--org--tiny/blobs/sparse",
                              50'000'000, 8192);
        store = std::make_unique<platform::UserDefaults>(test::freshFolder("sweep-store") +
                                                         "/defaults.json");
        policy = std::make_shared<const VaultPolicy>(
            homeDirectory(), VCSIgnoreCheck{[](const std::string&, const std::string&) {
                return false;
            }});
    }
    void TearDown() override {
        for (const FixtureCache& c : caches) {
            test::runShell("rm -rf " + test::shellQuote(test::fixtureHome() + "/" + c.folder));
        }
    }
    std::vector<std::string> allFolders() const {
        std::vector<std::string> out;
        for (const FixtureCache& c : caches) {
            out.push_back(test::fixtureHome() + "/" + c.folder);
        }
        return out;
    }
    std::unique_ptr<platform::UserDefaults> store;
    std::shared_ptr<const VaultPolicy> policy;
};

TEST_F(SweepOnAFixtureHome, TilesAndTargetsMatchFindToTheByte) {
    Sweep sweep(DistributionMode::direct, *store, policy);
    SweepProgress progress;
    sweep.run({}, &progress);

    const char* developer[]{"python_tools", "javascript_tools", "rust_go"};
    const char* apps[]{"browser_caches", "ide_caches"};
    const char* models[]{"ml_framework_caches"};
    EXPECT_EQ(sweep.tile(SweepTileKind::developer)->bytes, peerBytes(tileFolders(developer, 3)));
    EXPECT_EQ(sweep.tile(SweepTileKind::appCaches)->bytes, peerBytes(tileFolders(apps, 2)));
    EXPECT_EQ(sweep.tile(SweepTileKind::redownloads)->bytes, peerBytes(tileFolders(models, 1)));
    for (const char* target :
         {"python_tools", "javascript_tools", "rust_go", "browser_caches", "ide_caches"}) {
        const SweepTile* tile = sweep.tile(tileHoldsTarget(SweepTileKind::developer, target)
                                               ? SweepTileKind::developer
                                               : SweepTileKind::appCaches);
        EXPECT_EQ(tile->perTarget.at(target), peerBytes(tileFolders(&target, 1))) << target;
    }
    EXPECT_EQ(sweep.tile(SweepTileKind::trash)->bytes,
              peerBytes({test::fixtureHome() + "/.local/share/Trash/files"}));
    EXPECT_EQ(tileTitle(*sweep.tile(SweepTileKind::redownloads)), "AI models you can re-download");
    EXPECT_EQ(tileSubtitle(*sweep.tile(SweepTileKind::appCaches)),
              "3 apps · each rebuilds what it needs");
    EXPECT_DOUBLE_EQ(progress.fraction(), 1.0);
    EXPECT_EQ(progress.tile(SweepTileKind::developer).read().bytes,
              sweep.tile(SweepTileKind::developer)->bytes);
    EXPECT_EQ(progress.tile(SweepTileKind::trash).read().bytes,
              sweep.tile(SweepTileKind::trash)->bytes);

    std::optional<SweepRecord> record = Sweep::lastRecord(*store);
    ASSERT_TRUE(record.has_value());
    ASSERT_EQ(record->tiles.size(), 6U);
    EXPECT_EQ(record->tiles[0].kind, "developer");
    EXPECT_EQ(record->tiles[0].bytes, sweep.tile(SweepTileKind::developer)->bytes);
    EXPECT_TRUE(record->tiles[0].comesBack);
    EXPECT_FALSE(record->tiles[5].comesBack);
}

TEST_F(SweepOnAFixtureHome, ReclaimMovesEverythingAndPutBackReturnsItByteForByte) {
    std::string before = checksums(allFolders());
    Sweep sweep(DistributionMode::direct, *store, policy);
    sweep.run();
    ReclaimJournal journal(test::freshFolder("sweep-journal") + "/journal.json");
    journal.load();
    SweepReclaimResult result = sweep.reclaim(
        {SweepTileKind::developer, SweepTileKind::appCaches, SweepTileKind::redownloads}, journal);
    EXPECT_FALSE(result.refused);
    EXPECT_TRUE(result.reclaimErrors.empty()) << ::testing::PrintToString(result.reclaimErrors);
    EXPECT_EQ(result.movedCount, std::size(caches));
    EXPECT_EQ(result.movedByTile.at(SweepTileKind::developer),
              sweep.tile(SweepTileKind::developer)->bytes);
    EXPECT_EQ(result.movedBytes, sweep.tile(SweepTileKind::developer)->bytes +
                                     sweep.tile(SweepTileKind::appCaches)->bytes +
                                     sweep.tile(SweepTileKind::redownloads)->bytes);
    for (const std::string& folder : allFolders()) {
        EXPECT_NE(::access(folder.c_str(), F_OK), 0) << folder;
    }
    if (test::haveTool("trash-list")) {
        std::string listed =
            test::runShell("XDG_DATA_HOME=" +
                           test::shellQuote(test::fixtureHome() + "/.local/share") + " trash-list")
                .output;
        for (const std::string& folder : allFolders()) {
            EXPECT_NE(listed.find(" " + folder + "\n"), std::string::npos) << folder;
        }
    }
    ASSERT_TRUE(result.journalEntryID.has_value());
    const JournalEntry* entry = journal.find(*result.journalEntryID);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->kind, JournalKind::sweep);
    EXPECT_EQ(entry->items.size(), std::size(caches));
    std::set<std::string> groups;
    for (const TrashedItem& item : entry->items) {
        groups.insert(item.group);
    }
    EXPECT_EQ(groups, (std::set<std::string>{"developer", "appCaches", "redownloads"}));

    TrashRestoreResult back = journal.putBack(*result.journalEntryID, std::nullopt);
    EXPECT_EQ(back.restoredIDs.size(), std::size(caches));
    EXPECT_TRUE(back.skipped.empty());
    EXPECT_EQ(checksums(allFolders()), before);
}

TEST_F(SweepOnAFixtureHome, ChangingWhatIsLeftOutBeforeReclaimingMovesNothing) {
    Sweep sweep(DistributionMode::direct, *store, policy);
    sweep.leaveOut("ide_caches");
    sweep.run();
    EXPECT_EQ(sweep.tile(SweepTileKind::appCaches)->leftOut, std::set<std::string>{"ide_caches"});
    EXPECT_EQ(tileSubtitle(*sweep.tile(SweepTileKind::appCaches)),
              "2 apps · each rebuilds what it needs · 1 left out");
    EXPECT_EQ(store->string(sweepSkippedKey), "ide_caches");

    sweep.bringBack("ide_caches");
    EXPECT_FALSE(store->string(sweepSkippedKey).has_value()) << "nothing left out, nothing stored";
    ReclaimJournal journal(std::nullopt);
    SweepReclaimResult result = sweep.reclaim({SweepTileKind::developer}, journal);
    EXPECT_TRUE(result.refused);
    EXPECT_EQ(result.reclaimErrors,
              std::vector<std::string>{std::string(sweepExclusionsChangedText)});
    EXPECT_EQ(result.movedCount, 0U);
    for (const std::string& folder : allFolders()) {
        EXPECT_EQ(::access(folder.c_str(), F_OK), 0) << folder;
    }
}

TEST(SweepTiles, TitlesFollowWhatTheTilesHold) {
    SweepTile developer;
    developer.kind = SweepTileKind::developer;
    EXPECT_EQ(tileTitle(developer), "Build products & tool caches");
    EXPECT_EQ(tileSubtitle(developer), "Build products and tool caches");
    developer.targets = {Target{}, Target{}};
    developer.targets[0].id = "xcode_ios";
    developer.targets[1].id = "rust_go";
    developer.perTarget = {{"xcode_ios", 10}, {"rust_go", 20}};
    EXPECT_EQ(tileTitle(developer), "Build products & tool caches");
    EXPECT_EQ(tileSubtitle(developer), "Build products from Xcode and Cargo & Go");
    developer.perTarget["xcode_ios"] = 30;
    EXPECT_EQ(tileTitle(developer), "Xcode build products & caches");

    SweepTile trash;
    trash.kind = SweepTileKind::trash;
    EXPECT_EQ(tileSubtitle(trash),
              "Only emptying it frees space, and that can’t be undone — so it’s its own button.");
    SweepTile downloads;
    downloads.kind = SweepTileKind::redownloads;
    EXPECT_EQ(tileTitle(downloads), "Downloads apps fetch again");
    EXPECT_FALSE(tileComesBack(SweepTileKind::trash));
    EXPECT_EQ(tileKindFromName("appCaches"), SweepTileKind::appCaches);
    EXPECT_FALSE(tileKindFromName("everything").has_value());
}

TEST(SweepRecords, AMissingOrBrokenRecordIsNoRecord) {
    platform::UserDefaults store(test::freshFolder("records") + "/defaults.json");
    EXPECT_FALSE(Sweep::lastRecord(store).has_value());
    store.setString(sweepLastKey, "{\"date\": 3}");
    EXPECT_FALSE(Sweep::lastRecord(store).has_value());
    Sweep::saveRecord(
        store, SweepRecord{
                   "2026-01-02T03:04:05Z", 1.5, 7, {{"trash", "Already in your Trash", 9, false}}});
    std::optional<SweepRecord> back = Sweep::lastRecord(store);
    ASSERT_TRUE(back.has_value());
    EXPECT_EQ(back->itemsSeen, 7U);
    EXPECT_EQ(back->tiles[0].bytes, 9U);
    // A record that cannot be encoded removes the stored one rather than leaving it stale.
    Sweep::saveRecord(
        store, SweepRecord{"2026-01-02T03:04:05Z", 1.5, 7, {{"trash", "bad \xFF", 9, false}}});
    EXPECT_FALSE(store.string(sweepLastKey).has_value());
}

} // namespace
} // namespace sd
