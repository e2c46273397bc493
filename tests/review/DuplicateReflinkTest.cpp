// Copies that share their blocks free nothing when removed, so on a file system that can share
// blocks the duplicate finder must recognise them. These tests build a btrfs in a loop-mounted
// image inside the fixture home; where mounting is not permitted they skip and say why.
#include "Fixture.h"
#include "LoopVolume.h"
#include "review/DuplicateComparer.h"

#include <gtest/gtest.h>
#include <set>

namespace sd {
namespace {

constexpr std::uint64_t mib = 1'048'576;

struct CloneCase {
    const char* label;
    bool independentCopyFirst; // the plain copy is created (born) before the original
    const char* keep;          // relative to the volume
    std::vector<std::string> removable;
};

void PrintTo(const CloneCase& c, std::ostream* out) {
    *out << c.label;
}

class DuplicatesOnBtrfs : public ::testing::TestWithParam<CloneCase> {};

TEST_P(DuplicatesOnBtrfs, AReflinkedCopyIsNeverOfferedForRemoval) {
    const CloneCase& row = GetParam();
    std::string whyNot;
    std::unique_ptr<test::LoopBtrfs> volume =
        test::LoopBtrfs::mount(test::freshFolder("dups-btrfs") + "/vol", whyNot);
    if (!volume) {
        GTEST_SKIP() << whyNot;
    }
    const std::string v = volume->path();
    test::makeDirs(v + "/docs");
    test::makeDirs(v + "/elsewhere");
    const std::string bytes(2 * mib + 5, 'r');
    if (row.independentCopyFirst) {
        test::writeFile(v + "/elsewhere/plain.bin", bytes);
    }
    test::writeFile(v + "/docs/original.bin", bytes);
    volume->sync();
    test::reflinkCopy(v + "/docs/original.bin", v + "/docs/reflink.bin");
    if (!row.independentCopyFirst) {
        test::writeFile(v + "/elsewhere/plain.bin", bytes);
    }
    // A file and its reflink alone: no group at all.
    test::writeFile(v + "/docs/alone.bin", std::string(3 * mib, 'a'));
    volume->sync();
    test::reflinkCopy(v + "/docs/alone.bin", v + "/elsewhere/alone-reflink.bin");
    volume->sync();

    DuplicateComparer comparer;
    comparer.candidates = collectDuplicateCandidates({v, test::fixtureHome()}, {});
    DuplicateReport report = comparer.compare();

    EXPECT_EQ(report.cloneCopiesIgnored, 2U);
    ASSERT_EQ(report.groups.size(), 1U);
    const DuplicateGroup& group = report.groups[0];
    EXPECT_EQ(group.suggestedKeep, v + "/" + row.keep);
    std::vector<std::string> removable;
    for (const DuplicateFile* copy : removableCopies(group)) {
        removable.push_back(copy->path.substr(v.size() + 1));
    }
    EXPECT_EQ(removable, row.removable);
    const std::set<std::string> shared{v + "/docs/original.bin", v + "/docs/reflink.bin"};
    for (const DuplicateFile& file : group.files) {
        if (shared.contains(file.path)) {
            EXPECT_EQ(file.sharedWith.size(), 1U) << file.path;
            EXPECT_TRUE(shared.contains(file.sharedWith.at(0)));
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Reflink, DuplicatesOnBtrfs,
    ::testing::Values(
        // The clone pair is older: its first name is kept, the plain copy may go.
        CloneCase{"OriginalKept", false, "docs/original.bin", {"elsewhere/plain.bin"}},
        // The plain copy is older and kept; the clones share storage and stay unoffered.
        CloneCase{"PlainCopyKept", true, "elsewhere/plain.bin", {}}),
    [](const auto& info) { return std::string(info.param.label); });

} // namespace
} // namespace sd
