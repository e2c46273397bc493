#include "space/SpaceLedgers.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace sd {
namespace {

TEST(SpaceLedgers, WalkOrderComparesComponentByComponent) {
    struct Case {
        const char* a;
        const char* b;
        bool less;
    };
    const Case cases[]{
        {"/h/a/b", "/h/a-c", true}, // '-' is below '/' byte by byte, but "a" ends first
        {"/h/a-c", "/h/a/b", false},
        {"/h/a", "/h/a/b", true}, // a folder before what it holds
        {"/h/a b/x", "/h/a/x", false},
        {"/h/B", "/h/a", true}, // bytes, not letters: no case folding
        {"/h/a", "/h/a", false},
        {"/h/\xc3\xa9", "/h/z", false},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(walkOrderLess(c.a, c.b), c.less) << c.a << " vs " << c.b;
    }
}

// Every order in which workers might meet the links ends with the same carrier, and what was
// counted at the others comes back as corrections.
TEST(SpaceLedgers, HardlinkCarrierDoesNotDependOnTheOrderLinksAreMet) {
    std::vector<std::string> links{"/h/c/x", "/h/a-b", "/h/a/z", "/h/b"};
    std::sort(links.begin(), links.end());
    const EntryIdentity file{7, 42};
    do {
        SharedHardlinkLedger ledger;
        std::uint64_t counted = 0;
        for (const std::string& link : links) {
            if (ledger.claim(file, link, 4096)) {
                counted += 4096;
            }
        }
        EXPECT_EQ(ledger.carrierOf(file), std::optional<std::string>("/h/a/z"));
        std::uint64_t corrected = 0;
        for (const SpaceCorrection& c : ledger.takeCorrections()) {
            EXPECT_NE(c.path, "/h/a/z");
            corrected += c.bytes;
        }
        EXPECT_EQ(counted - corrected, 4096U) << "the file counts exactly once";
        EXPECT_TRUE(ledger.takeCorrections().empty());
    } while (std::next_permutation(links.begin(), links.end()));
    SharedHardlinkLedger empty;
    EXPECT_EQ(empty.carrierOf(file), std::nullopt);
}

TEST(SpaceLedgers, SharedPiecesBelongToTheSmallestFileWhateverTheOrder) {
    using platform::SharedPiece;
    const EntryIdentity first{1, 10};
    const EntryIdentity second{1, 20};
    const EntryIdentity otherDevice{2, 5};
    const std::vector<SharedPiece> wholeClone{{1000, 65536, 65536}, {5000, 4096, 4096}};
    const std::vector<SharedPiece> halfClone{{1000, 65536, 65536}};
    for (bool smallestFirst : {true, false}) {
        SharedCloneLedger ledger;
        std::uint64_t foreignAtClaim = 0;
        if (smallestFirst) {
            EXPECT_EQ(ledger.claim(first, wholeClone), 0U);
            foreignAtClaim = ledger.claim(second, halfClone);
            EXPECT_EQ(foreignAtClaim, 65536U);
        } else {
            foreignAtClaim = ledger.claim(second, halfClone);
            EXPECT_EQ(foreignAtClaim, 0U) << "nobody held it yet";
            EXPECT_EQ(ledger.claim(first, wholeClone), 0U) << "the smaller file takes it over";
        }
        // Once the walk is over both orders agree.
        EXPECT_EQ(ledger.foreignBytes(first, wholeClone), 0U);
        EXPECT_EQ(ledger.foreignBytes(second, halfClone), 65536U);
        // The same physical place on another device is another piece.
        EXPECT_EQ(ledger.claim(otherDevice, halfClone), 0U);
        EXPECT_EQ(ledger.sharedBytes(), 65536U + 4096U + 65536U);
    }
}

TEST(SpaceLedgers, RetentionKeepsTheBiggestWithinTheBudgetAboveTheFloor) {
    struct Offer {
        std::uint64_t bytes;
        bool kept;
        std::uint64_t currentAfter;
    };
    struct Case {
        const char* what;
        size_t capacity;
        std::uint64_t floor;
        std::vector<Offer> offers;
    };
    const std::vector<Case> cases{
        {"below the floor is never kept", 3, 100, {{99, false, 100}, {100, true, 100}}},
        {"once the budget is full a node must beat the smallest kept",
         3,
         100,
         {{500, true, 100},
          {300, true, 100},
          {400, true, 301},
          {300, false, 301},
          {301, true, 302},
          {301, false, 302}}},
        {"offered biggest first it keeps exactly its capacity, ties included",
         3,
         1,
         {{9, true, 1}, {8, true, 1}, {7, true, 8}, {7, false, 8}, {6, false, 8}}},
        {"no budget keeps nothing", 0, 0, {{1000, false, UINT64_MAX}}},
    };
    for (const Case& c : cases) {
        SpaceRetention retention(c.capacity, c.floor);
        for (size_t i = 0; i < c.offers.size(); ++i) {
            const Offer& o = c.offers[i];
            EXPECT_EQ(retention.offer(o.bytes), o.kept) << c.what << ", offer " << i;
            EXPECT_EQ(retention.current(), o.currentAfter) << c.what << ", offer " << i;
        }
    }
}

} // namespace
} // namespace sd
