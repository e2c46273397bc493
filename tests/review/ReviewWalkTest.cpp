#include "review/ReviewWalk.h"

#include "Fixture.h"
#include "base/CleanerError.h"
#include "base/Stop.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <set>
#include <unistd.h>

namespace sd {
namespace {

std::set<std::string> pathsOf(const ReviewWalkResult& walk, const std::string& root) {
    std::set<std::string> out;
    for (const ReviewCandidate& c : walk.candidates) {
        out.insert(c.path.substr(root.size() + 1));
    }
    return out;
}

// One tree, both scopes: which files each search may see is the contract with the Sweep.
TEST(ReviewWalk, EachSearchLeavesOutWhatTheSweepCovers) {
    const std::string home = test::freshFolder("walk-home");
    struct Row {
        const char* file;
        bool duplicates;
        bool largeOld;
    };
    const Row rows[] = {
        {"mine/a.bin", true, true},
        {"Documents/report.pdf", true, true},
        {".hidden/notes.bin", true, false},
        {".var/app/org.x/data/keep.bin", true, false},
        {".cache/thumb.bin", false, false},
        {".local/share/Trash/files/gone.bin", false, false},
        {".var/app/org.x/cache/blob.bin", false, false},
        {"Dropbox/shared.bin", false, true},
        {"Library/Preferences/x.bin", false, false},
        {"Library/Developer/sim.img", false, true},
        {".android/avd/pixel.img", true, true},
        {".Trash/old.bin", false, false},
        {".npm/_cacache/blob.bin", false, false},
        {"proj/.git/objects/pack.bin", false, false},
        {"proj/build/Cache/x.bin", false, false},
        {"proj/src/main.bin", true, true},
        {"Trip.photoslibrary/originals/p.bin", false, false},
    };
    for (const Row& row : rows) {
        std::string path = home + "/" + row.file;
        test::makeDirs(path.substr(0, path.rfind('/')));
        test::writeFilledFile(path, 4096);
    }
    test::makeSymlink(home + "/mine", home + "/link-to-mine");
    test::writeFilledFile(home + "/mine/small.bin", 10);

    ReviewWalkOptions duplicates = duplicateWalkOptions(home, home);
    duplicates.minimumBytes = 4096;
    ReviewWalkOptions largeOld = largeOldWalkOptions(home);
    largeOld.minimumBytes = 4096;
    ReviewWalkResult seenByDuplicates = walkForReview(duplicates);
    ReviewWalkResult seenByLargeOld = walkForReview(largeOld);

    std::set<std::string> wantDuplicates;
    std::set<std::string> wantLargeOld{"Trip.photoslibrary"}; // one item, measured whole
    for (const Row& row : rows) {
        if (row.duplicates) {
            wantDuplicates.insert(row.file);
        }
        if (row.largeOld) {
            wantLargeOld.insert(row.file);
        }
    }
    EXPECT_EQ(pathsOf(seenByDuplicates, home), wantDuplicates);
    EXPECT_EQ(pathsOf(seenByLargeOld, home), wantLargeOld);
    EXPECT_EQ(seenByDuplicates.warnings, std::vector<std::string>{});
    auto package = std::find_if(seenByLargeOld.candidates.begin(), seenByLargeOld.candidates.end(),
                                [](const ReviewCandidate& c) { return c.isPackage; });
    ASSERT_NE(package, seenByLargeOld.candidates.end());
    EXPECT_EQ(package->logicalSize, 4096U);
    EXPECT_EQ(package->physicalBytes, test::peerAllocatedBytes(package->path));
}

TEST(ReviewWalk, RootsThatAreNotReadableFoldersAreRefusedWithASentence) {
    const std::string base = test::freshFolder("walk-roots");
    test::writeFile(base + "/file", "x");
    test::makeDirs(base + "/real");
    test::makeSymlink(base + "/real", base + "/link");
    struct Row {
        std::string root;
        CleanerError::Kind kind;
        std::string why;
    };
    const Row rows[] = {
        {base + "/missing", CleanerError::Kind::ioError, "it does not exist"},
        {base + "/link", CleanerError::Kind::safetyViolation,
         "it is a symbolic link, and links are never followed"},
        {base + "/link/inside", CleanerError::Kind::safetyViolation,
         "a folder on its way is a symbolic link, and links are never followed"},
        {base + "/file", CleanerError::Kind::invalidPath, "it is not a folder"},
        {"/usr/share", CleanerError::Kind::invalidPath,
         "only folders inside your home folder are searched"},
        {"relative/path", CleanerError::Kind::invalidPath, "it is not an absolute path"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.root);
        try {
            walkForReview(duplicateWalkOptions(row.root, test::fixtureHome()));
            ADD_FAILURE() << "the walk accepted its root";
        } catch (const CleanerError& error) {
            EXPECT_EQ(error.kind(), row.kind);
            EXPECT_EQ(error.message(), "Can’t look in " + row.root + ": " + row.why +
                                           ". Nothing on your disk was changed.");
        }
    }
    ReviewWalkOptions optional = duplicateWalkOptions(base + "/real", test::fixtureHome());
    optional.roots.push_back({base + "/not-there", RootRequirement::optional});
    ReviewWalkResult walk = walkForReview(optional);
    EXPECT_TRUE(walk.warnings.empty()) << "a missing optional root is passed over in silence";
}

TEST(ReviewWalk, StopsEarlyAndReadsPastFoldersItCannotRead) {
    const std::string base = test::freshFolder("walk-stop");
    for (int i = 0; i < 300; ++i) {
        test::writeFilledFile(base + "/f" + std::to_string(i), 16);
    }
    // A name that is not UTF-8 is left out with a sentence naming its folder; the walk goes on.
    // The fixture's own teardown could not remove it, so it goes when the test ends.
    test::makeDirs(base + "/bad");
    const std::string badName = base + "/bad/\xff\xfe";
    test::writeFile(badName, "x");
    struct Unlink {
        std::string path;
        ~Unlink() { ::unlink(path.c_str()); }
    } cleanup{badName};
    ReviewWalkOptions options = duplicateWalkOptions(base, test::fixtureHome());
    options.minimumBytes = 16;

    ReviewWalkResult full = walkForReview(options);
    EXPECT_EQ(full.candidates.size(), 300U);
    EXPECT_EQ(full.unreadable, 0U) << "the folder itself was read";
    ASSERT_EQ(full.warnings.size(), 1U);
    EXPECT_EQ(full.warnings[0], "Directory contains a filename that is not valid UTF-8: " + base +
                                    "/bad — left out.");
    EXPECT_FALSE(full.truncated);

    options.budget = 0;
    ReviewWalkResult timed = walkForReview(options);
    EXPECT_TRUE(timed.truncated);
    EXPECT_LT(timed.candidates.size(), 300U);

    options.budget = 30;
    CoreCancellationState stop;
    stop.cancel();
    ReviewWalkResult cancelled = walkForReview(options, stop.token());
    EXPECT_TRUE(cancelled.cancelled);
    EXPECT_TRUE(cancelled.candidates.empty());
}

} // namespace
} // namespace sd
