// Measurement is checked against tools no one here wrote: GNU find for the blocks of distinct
// regular files, and du for the same figure once folders' and links' own blocks are taken out.
#include "Fixture.h"
#include "base/Saturating.h"
#include "core/CoreFileSystem.h"

#include <gtest/gtest.h>

namespace sd {
namespace {

std::uint64_t sumBlocks(const std::string& path, const char* type) {
    test::CommandResult r = test::runShell(
        "find " + test::shellQuote(path) + " -type " + type +
        " -printf '%D:%i %b\\n' | sort -u | awk '{s += $2} END {printf \"%d\", s * 512}'");
    return std::stoull(r.output.empty() ? "0" : r.output);
}

// What du says the regular files under `path` hold.
std::uint64_t duFileBytes(const std::string& path) {
    test::CommandResult r = test::runShell("du -sB1 " + test::shellQuote(path) + " | cut -f1");
    EXPECT_EQ(r.status, 0);
    return std::stoull(r.output) - sumBlocks(path, "d") - sumBlocks(path, "l");
}

struct Measured {
    Footprint footprint;
    std::uint64_t freeable = 0;
    std::vector<std::string> warnings;
};

Measured measure(const std::string& path) {
    Measured m;
    FootprintTally tally;
    m.footprint = measureFootprint(path, std::nullopt, m.warnings, tally);
    m.freeable = tally.freeable.freeableBytes();
    return m;
}

TEST(MeasureAgainstPeers, AllocatedBytesMatchFindAndDuToTheByte) {
    std::string base = test::freshFolder("peers");
    std::string t = base + "/tree";
    test::makeDirs(t + "/nested/deeper");
    test::makeDirs(t + "/with space/and\nnewline");
    test::makeDirs(t + "/Cafe\xCC\x81 de\xCC\x81"
                       "compose\xCC\x81");
    const std::pair<const char*, std::uint64_t> files[]{
        {"/empty", 0},
        {"/one", 1},
        {"/almost-block", 4095},
        {"/block", 4096},
        {"/nested/hundred-k", 100000},
        {"/nested/deeper/mega", 1 << 20},
        {"/with space/and\nnewline/x y", 7777},
        {"/Cafe\xCC\x81 de\xCC\x81"
         "compose\xCC\x81/\xE6\x97\xA5\xE6\x9C\xAC",
         12345},
    };
    for (const auto& [name, size] : files) {
        test::writeFilledFile(t + name, size);
    }
    test::writeSparseFile(t + "/sparse", 100 << 20, 10000);
    // Hard links: a pair inside the tree, and one file whose second link lives outside it.
    test::writeFilledFile(t + "/nested/linked", 50000);
    test::makeHardlink(t + "/nested/linked", t + "/nested/deeper/linked-again");
    test::writeFilledFile(t + "/shared-outside", 30000);
    test::makeHardlink(t + "/shared-outside", base + "/outside-link");
    // Links to big folders, inside and outside the home, are never followed.
    test::makeDirs(base + "/big");
    test::writeFilledFile(base + "/big/blob", 2 << 20);
    test::makeSymlink(base + "/big", t + "/to-big");
    test::makeSymlink("/usr/share", t + "/to-usr-share");
    test::makeSymlink(std::string(200, 'L'), t + "/long-dangling-link-with-its-own-block");
    ::sync();

    Measured m = measure(t);
    EXPECT_TRUE(m.warnings.empty());
    std::uint64_t byFind = test::peerAllocatedBytes(t);
    EXPECT_EQ(m.footprint.allocatedBytes, byFind);
    EXPECT_EQ(m.footprint.allocatedBytes, duFileBytes(t));
    EXPECT_EQ(m.footprint.fileCount, 12U);
    EXPECT_EQ(m.footprint.directoryCount, 6U);

    // The file linked from outside stays on disk when the tree goes, so it frees nothing.
    struct stat outside {};
    ASSERT_EQ(::lstat((t + "/shared-outside").c_str(), &outside), 0);
    EXPECT_EQ(m.freeable, m.footprint.allocatedBytes - allocatedBytesOf(outside));
    // With both of its links in the measured set it is freeable again.
    Measured whole = measure(base);
    EXPECT_EQ(whole.freeable, whole.footprint.allocatedBytes);
    EXPECT_EQ(whole.footprint.allocatedBytes, test::peerAllocatedBytes(base));
}

TEST(MeasureAgainstPeers, DeepTreesStopAtTheDepthLimitWithOneWarning) {
    std::string t = test::freshFolder("deep");
    std::string dir = t;
    std::string limitPath;
    for (int level = 1; level <= 300; ++level) {
        dir += "/d";
        test::makeDirs(dir);
        if (level == 256) {
            limitPath = dir;
        }
        if (level % 10 == 5 || level == 255 || level == 256) {
            test::writeFilledFile(dir + "/f", static_cast<std::uint64_t>(level) * 100);
        }
    }
    Measured m = measure(t);
    ASSERT_EQ(m.warnings.size(), 1U);
    EXPECT_EQ(m.warnings[0], "Traversal depth limit: " + limitPath);
    // Folders down to level 255 are entered, so files down to depth 256 are counted.
    EXPECT_EQ(m.footprint.allocatedBytes, test::peerAllocatedBytes(t, 256));
    EXPECT_LT(m.footprint.allocatedBytes, test::peerAllocatedBytes(t));
    EXPECT_EQ(m.footprint.directoryCount, 256U);
    // The fixture teardown stops at the same depth limit, so the test clears what lies past it.
    EXPECT_EQ(test::runShell("rm -rf " + test::shellQuote(t)).status, 0);
}

} // namespace
} // namespace sd
