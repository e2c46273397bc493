#include "core/Ledgers.h"

#include "base/Saturating.h"

#include <gtest/gtest.h>
#include <limits>

namespace sd {
namespace {

constexpr std::uint64_t maxBytes = std::numeric_limits<std::uint64_t>::max();

FileSample sample(std::uint64_t inode, std::uint64_t links, std::uint64_t allocated,
                  std::uint64_t privateBytes, std::optional<std::uint64_t> clone = std::nullopt,
                  std::uint32_t references = 1) {
    return {7, inode, links, allocated, privateBytes, clone, references};
}

TEST(Ledgers, FreeableBytesCountOnlyWhatLeavingWouldGiveBack) {
    struct Case {
        const char* what;
        std::vector<FileSample> samples;
        std::uint64_t freeable;
    };
    const std::vector<Case> cases{
        {"plain files add their private bytes",
         {sample(1, 1, 4096, 4096), sample(2, 1, 8192, 8192)},
         12288},
        {"a link count of 0 is taken as 1", {sample(1, 0, 4096, 4096)}, 4096},
        {"both links inside: counted once",
         {sample(1, 2, 4096, 4096), sample(1, 2, 4096, 4096)},
         4096},
        {"one of two links inside: nothing", {sample(1, 2, 4096, 4096)}, 0},
        {"two of three links inside: nothing",
         {sample(1, 3, 4096, 4096), sample(1, 3, 4096, 4096)},
         0},
        {"a whole clone family frees its shared part once",
         {sample(1, 1, 10000, 1000, 42, 2), sample(2, 1, 10000, 3000, 42, 2)},
         1000 + 3000 + 7000},
        {"half a clone family frees only private bytes", {sample(1, 1, 10000, 1000, 42, 2)}, 1000},
        {"the highest reference count decides",
         {sample(1, 1, 10000, 0, 42, 2), sample(2, 1, 10000, 0, 42, 3)},
         0},
        {"a clone with one reference has nothing shared to add",
         {sample(1, 1, 10000, 2000, 42, 1)},
         2000},
        {"the same clone id on another device is another family",
         {sample(1, 1, 10000, 0, 42, 2), FileSample{8, 2, 1, 10000, 0, 42, 2}},
         0},
        {"sums saturate", {sample(1, 1, maxBytes, maxBytes), sample(2, 1, 10, 10)}, maxBytes},
    };
    for (const Case& c : cases) {
        FreeableAccumulator accumulator;
        for (const FileSample& s : c.samples) {
            accumulator.add(s);
        }
        EXPECT_EQ(accumulator.freeableBytes(), c.freeable) << c.what;
    }
}

TEST(Ledgers, HardLinksAreCountedAtTheirFirstSightingOnly) {
    HardlinkLedger ledger;
    struct stat single {};
    single.st_nlink = 1;
    single.st_ino = 5;
    struct stat linked {};
    linked.st_nlink = 2;
    linked.st_ino = 6;
    EXPECT_TRUE(ledger.countOnce(single));
    EXPECT_TRUE(ledger.countOnce(single)) << "single links are never remembered";
    EXPECT_TRUE(ledger.countOnce(linked));
    EXPECT_FALSE(ledger.countOnce(linked));
    linked.st_dev = 99; // same inode number on another device is another file
    EXPECT_TRUE(ledger.countOnce(linked));
    EXPECT_EQ(ledger.trackedFiles(), 2U);
    EXPECT_EQ(ledger.visited(), 5U);
}

TEST(Ledgers, SaturatingArithmeticStopsAtTheTop) {
    EXPECT_EQ(saturatingAdd(maxBytes - 1, 1), maxBytes);
    EXPECT_EQ(saturatingAdd(maxBytes, maxBytes), maxBytes);
    EXPECT_EQ(saturatingMul(maxBytes / 2, 3), maxBytes);
    struct stat st {};
    st.st_blocks = -4;
    EXPECT_EQ(allocatedBytesOf(st), 0U);
    st.st_blocks = 3;
    EXPECT_EQ(allocatedBytesOf(st), 1536U);
}

} // namespace
} // namespace sd
