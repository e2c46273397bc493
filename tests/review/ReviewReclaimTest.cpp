#include "review/ReviewReclaim.h"

#include "Fixture.h"
#include "core/PathRules.h"
#include "review/DuplicateComparer.h"
#include "review/LargeOldFinder.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace sd {
namespace {

constexpr std::uint64_t mib = 1'048'576;

bool exists(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

VaultService testVault() {
    auto policy = std::make_shared<const VaultPolicy>(
        homeDirectory(), VCSIgnoreCheck{[](const std::string&, const std::string&) {
            return false;
        }});
    return VaultService::standard(policy);
}

// Ticked copies go to the Trash through the vault and into the journal as findings; the copy to
// keep, and a copy that changed since the report, stay where they are.
TEST(ReviewReclaim, TickedCopiesMoveThroughTheVaultAndAreJournalled) {
    const std::string root = test::freshFolder("review-move");
    const std::string bytes(2 * mib, 'd');
    for (const char* name : {"/a/photo.raw", "/b/photo.raw", "/c/photo.raw"}) {
        test::makeDirs(root + std::string(name).substr(0, 2));
        test::writeFile(root + name, bytes);
    }
    DuplicateComparer comparer;
    comparer.candidates = collectDuplicateCandidates({root, homeDirectory()}, {});
    DuplicateReport report = comparer.compare();
    ASSERT_EQ(report.groups.size(), 1U);
    const DuplicateGroup& group = report.groups[0];
    std::vector<const DuplicateFile*> removable = removableCopies(group);
    ASSERT_EQ(removable.size(), 2U);
    const std::string moving = removable[0]->path;
    const std::string changed = removable[1]->path;
    {
        int fd = ::open(changed.c_str(), O_WRONLY | O_CLOEXEC);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(::pwrite(fd, "d", 1, 0), 1); // same bytes, but a new change time
        ::close(fd);
    }

    std::vector<std::string> refused;
    std::vector<ReviewedItem> items =
        duplicateCopiesToMove(group, {group.suggestedKeep, moving, changed}, refused);
    ASSERT_EQ(refused.size(), 1U);
    EXPECT_EQ(refused[0],
              group.suggestedKeep + ": The last copy in a group always stays — left in place.");
    ASSERT_EQ(items.size(), 2U);

    ReclaimJournal journal(test::freshFolder("review-journal") + "/journal.json");
    journal.load();
    ReviewMoveResult result =
        moveReviewedItems(testVault(), journal, items, "Duplicates", "duplicates");
    ASSERT_EQ(result.outcome.moved.size(), 1U) << ::testing::PrintToString(result.outcome.notes);
    EXPECT_EQ(result.outcome.moved[0].originalPath, moving);
    EXPECT_FALSE(exists(moving));
    EXPECT_TRUE(exists(result.outcome.moved[0].trashPath));
    EXPECT_TRUE(exists(group.suggestedKeep));
    EXPECT_TRUE(exists(changed));
    EXPECT_EQ(result.outcome.notes,
              std::vector<std::string>{changed + ": it changed since it was measured — left in "
                                                 "place."});

    const JournalEntry* entry = journal.find(result.entryID);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->kind, JournalKind::findings);
    ASSERT_EQ(entry->items.size(), 1U);
    EXPECT_EQ(entry->items[0].originalPath, moving);
    EXPECT_EQ(entry->items[0].group, "duplicates");
}

TEST(ReviewReclaim, ALargeOldItemReplacedSinceTheReportStays) {
    const std::string root = test::freshFolder("review-large");
    test::writeFilledFile(root + "/kept.iso", 3 * mib);
    test::writeFilledFile(root + "/moves.iso", 3 * mib);
    LargeOldFinder finder = LargeOldFinder::standard(homeDirectory());
    finder.scope = {{root, RootRequirement::required}};
    finder.options.minimumBytes = 3 * mib;
    finder.options.unusedFor = 0;
    finder.options.now = std::chrono::system_clock::now() + std::chrono::hours(1);
    LargeOldReport report = finder.find();
    ASSERT_EQ(report.items.size(), 2U);

    // Another file now sits at the path of the first item: same name, another inode.
    ASSERT_EQ(::rename((root + "/kept.iso").c_str(), (root + "/elsewhere.iso").c_str()), 0);
    test::writeFilledFile(root + "/kept.iso", 3 * mib);

    ReclaimJournal journal(test::freshFolder("review-journal") + "/journal.json");
    journal.load();
    std::vector<ReviewedItem> items;
    for (const LargeOldItem& item : report.items) {
        items.push_back(reviewedItemOf(item));
    }
    ReviewMoveResult result =
        moveReviewedItems(testVault(), journal, items, "Large and old", "largeOld");
    ASSERT_EQ(result.outcome.moved.size(), 1U);
    EXPECT_EQ(result.outcome.moved[0].originalPath, root + "/moves.iso");
    EXPECT_TRUE(exists(root + "/kept.iso"));
    ASSERT_EQ(result.outcome.stayed.size(), 1U);
    EXPECT_EQ(result.outcome.stayed[0].second, VaultDenyReason::identityChanged);
}

} // namespace
} // namespace sd
