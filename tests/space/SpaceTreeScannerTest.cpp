// The space tree is checked against tools no one here wrote (GNU find for the blocks of distinct
// regular files, btrfs's own accounting for shared extents) and against itself: the same tree
// with one worker and with several must come out byte for byte the same.
#include "space/SpaceTreeScanner.h"

#include "Fixture.h"
#include "LoopVolume.h"
#include "SpaceFixture.h"
#include "base/TestHooks.h"
#include "core/ByteFormat.h"
#include "core/PathRules.h"

#include <cstdio>
#include <functional>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace sd {
namespace {

using test::allocateFile;
using test::makeDirs;
using test::scanWith;
using test::writeFilledFile;

constexpr std::uint64_t kib = 1024;
constexpr std::uint64_t mib = 1024 * kib;

std::uint64_t blocksOf(const std::string& path) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) {
        throw std::runtime_error("lstat " + path);
    }
    return static_cast<std::uint64_t>(st.st_blocks) * 512;
}

const SpaceNode* childNamed(const SpaceNode& node, const std::string& name) {
    for (const SpaceNode& child : node.children) {
        if (child.name == name) {
            return &child;
        }
    }
    return nullptr;
}

int deepestNode(const SpaceNode& node, int depth = 0) {
    int deepest = depth;
    for (const SpaceNode& child : node.children) {
        deepest = std::max(deepest, deepestNode(child, depth + 1));
    }
    return deepest;
}

// ---- totals against find --------------------------------------------------------------------

struct TreeCase {
    const char* label;
    std::function<void(const std::string& tree, const std::string& outside)> build;
};

const std::vector<TreeCase>& treeCases() {
    static const std::vector<TreeCase> cases{
        {"plain files and folders",
         [](const std::string& t, const std::string&) {
             makeDirs(t + "/a/b/c");
             makeDirs(t + "/empty/also-empty");
             const std::pair<const char*, std::uint64_t> files[]{
                 {"/zero", 0},
                 {"/one", 1},
                 {"/a/almost", 4095},
                 {"/a/block", 4096},
                 {"/a/b/hundred", 100000},
                 {"/a/b/c/mega", 1 * mib},
             };
             for (const auto& [name, size] : files) {
                 writeFilledFile(t + name, size);
             }
         }},
        {"hard links inside one folder, across top-level folders and to outside",
         [](const std::string& t, const std::string& outside) {
             makeDirs(t + "/a");
             makeDirs(t + "/b/deeper");
             makeDirs(t + "/c");
             writeFilledFile(t + "/b/deeper/linked", 300000);
             test::makeHardlink(t + "/b/deeper/linked", t + "/a/first");
             test::makeHardlink(t + "/b/deeper/linked", t + "/c/third");
             test::makeHardlink(t + "/b/deeper/linked", t + "/b/same-folder");
             writeFilledFile(t + "/c/also-outside", 50000);
             test::makeHardlink(t + "/c/also-outside", outside + "/its-other-link");
         }},
        {"sparse files",
         [](const std::string& t, const std::string&) {
             makeDirs(t + "/s");
             test::writeSparseFile(t + "/s/mostly-hole", 100 * mib, 10000);
             test::writeSparseFile(t + "/s/all-hole", 50 * mib, 0);
         }},
        {"symbolic links are never followed",
         [](const std::string& t, const std::string& outside) {
             makeDirs(outside + "/big");
             writeFilledFile(outside + "/big/blob", 2 * mib);
             makeDirs(t + "/inside/target");
             writeFilledFile(t + "/inside/target/file", 70000);
             test::makeSymlink(outside + "/big", t + "/to-outside");
             test::makeSymlink(t + "/inside/target", t + "/inside/to-sibling");
             test::makeSymlink("/usr/share", t + "/to-usr-share");
             test::makeSymlink(std::string(200, 'L'), t + "/dangling-with-its-own-block");
         }},
        {"odd names",
         [](const std::string& t, const std::string&) {
             makeDirs(t + "/with space/and\nnewline");
             makeDirs(t + "/Cafe\xCC\x81");
             writeFilledFile(t + "/with space/and\nnewline/x y", 7777);
             writeFilledFile(t + "/Cafe\xCC\x81/\xE6\x97\xA5", 12345);
             writeFilledFile(t + "/not-utf8-\xff\xfe", 999);
         }},
        {"one folder holding most of the tree",
         [](const std::string& t, const std::string&) {
             for (int i = 0; i < 40; ++i) {
                 std::string dir = t + "/cache/pkg" + std::to_string(i) + "/v";
                 makeDirs(dir);
                 for (int f = 0; f < 25; ++f) {
                     writeFilledFile(dir + "/f" + std::to_string(f), (f % 5) * 3000);
                 }
             }
             makeDirs(t + "/small");
             writeFilledFile(t + "/small/one", 9000);
         }},
    };
    return cases;
}

TEST(SpaceScan, TotalsMatchFindOnTreesWithLinksSparseFilesAndSymlinks) {
    for (const TreeCase& c : treeCases()) {
        std::string base = test::freshFolder("totals");
        std::string t = base + "/tree";
        std::string outside = base + "/outside";
        makeDirs(t);
        makeDirs(outside);
        c.build(t, outside);
        ::sync();
        for (unsigned workers : {1U, 3U}) {
            SCOPED_TRACE(std::string(c.label) + ", workers " + std::to_string(workers));
            SpaceScanOptions options = test::smallOptions();
            SpaceScanResult r = scanWith(t, options, workers);
            EXPECT_EQ(r.tree.root.bytes, test::peerAllocatedBytes(t));
            EXPECT_EQ(r.tree.root.fileCount, test::peerFileCount(t));
            EXPECT_EQ(r.tree.scannedNodeCount, test::peerEntryCount(t));
            EXPECT_EQ(r.openScan.totalPhysicalBytes, r.tree.root.bytes);
            EXPECT_EQ(r.tree.warnings, std::vector<std::string>{});
            EXPECT_TRUE(r.tree.root.isComplete);
            EXPECT_FALSE(r.tree.isTruncated);
            EXPECT_EQ(test::brokenRules(r.tree, options), std::vector<std::string>{});
        }
        // The fixture teardown refuses names that are not UTF-8, which one case holds.
        EXPECT_EQ(test::runShell("rm -rf " + test::shellQuote(base)).status, 0);
    }
}

TEST(SpaceScan, CopyOfALargeRealTreeMatchesFind) {
    std::string t = test::freshFolder("real");
    for (const char* source : {"/usr/share/doc", "/usr/share/man", "/usr/share/locale"}) {
        ASSERT_EQ(
            test::runShell("cp -a " + std::string(source) + " " + test::shellQuote(t) + " 2>&1")
                .status,
            0);
    }
    ::sync();
    ASSERT_GT(test::peerEntryCount(t), 5000U) << "the copy is too small to say much";
    SpaceScanOptions options = defaultSpaceScanOptions;
    SpaceScanResult r = scanWith(t, options, 2);
    EXPECT_EQ(r.tree.root.bytes, test::peerAllocatedBytes(t));
    EXPECT_EQ(r.tree.root.fileCount, test::peerFileCount(t));
    EXPECT_EQ(r.tree.scannedNodeCount, test::peerEntryCount(t));
    EXPECT_EQ(test::brokenRules(r.tree, options), std::vector<std::string>{});
    // Every top-level folder the map draws holds what find says it holds.
    for (const SpaceNode& child : r.tree.root.children) {
        EXPECT_EQ(child.bytes, test::peerAllocatedBytes(child.path)) << child.path;
    }
}

TEST(SpaceScan, HardLinkedFileCountsAtItsFirstPathInNameOrder) {
    std::string t = test::freshFolder("carrier");
    for (const char* dir : {"/a", "/b", "/c/d"}) {
        makeDirs(t + dir);
    }
    writeFilledFile(t + "/c/d/file", 2 * mib);
    test::makeHardlink(t + "/c/d/file", t + "/b/file");
    test::makeHardlink(t + "/c/d/file", t + "/a-x");
    test::makeHardlink(t + "/c/d/file", t + "/a/link");
    writeFilledFile(t + "/a/own", 2 * mib);
    const std::uint64_t linked = blocksOf(t + "/c/d/file");
    for (unsigned workers : {1U, 2U, 4U}) {
        SCOPED_TRACE(workers);
        SpaceScanResult r = scanWith(t, defaultSpaceScanOptions, workers);
        EXPECT_EQ(r.tree.root.bytes, test::peerAllocatedBytes(t));
        EXPECT_EQ(r.tree.root.fileCount, 5U);
        // Component by component "a/link" comes before "a-x", although '-' sorts before '/'
        // byte by byte: the folder a carries the file, whichever worker met which link first.
        const SpaceNode* a = childNamed(r.tree.root, "a");
        ASSERT_NE(a, nullptr);
        EXPECT_EQ(a->bytes, blocksOf(t + "/a/own") + linked);
        for (const char* name : {"a-x", "b", "c"}) {
            EXPECT_EQ(childNamed(r.tree.root, name), nullptr)
                << name << " holds nothing of its own";
        }
        EXPECT_EQ(r.tree.root.otherBytes, 0U);
    }
}

// ---- the limits of the map ------------------------------------------------------------------

TEST(SpaceScan, DeepFileLandsInItsCollapsedDepthSixAncestorAndIsStreamedEarly) {
    std::string t = test::freshFolder("deep-file");
    std::string dir = t;
    std::vector<std::string> levels;
    for (int depth = 1; depth <= 8; ++depth) {
        dir += "/d" + std::to_string(depth);
        levels.push_back(dir);
    }
    makeDirs(dir);
    const std::string file = dir + "/two-gigabytes.bin"; // at depth 9
    if (!allocateFile(file, 2048 * mib)) {
        GTEST_SKIP() << "The fixture's file system cannot reserve 2 GB without writing it.";
    }
    OperationProgress progress;
    SpaceScanResult r = scanWith(t, defaultSpaceScanOptions, 2, &progress);
    EXPECT_EQ(deepestNode(r.tree.root), 6);
    const SpaceNode* node = &r.tree.root;
    for (int depth = 1; depth <= 6; ++depth) {
        const std::string& level = levels[static_cast<size_t>(depth - 1)];
        node = childNamed(*node, level.substr(level.rfind('/') + 1));
        ASSERT_NE(node, nullptr) << "depth " << depth;
        EXPECT_EQ(node->bytes, blocksOf(file));
        EXPECT_EQ(node->path, levels[static_cast<size_t>(depth - 1)]);
    }
    EXPECT_TRUE(node->isCollapsed);
    EXPECT_TRUE(node->children.empty());
    EXPECT_EQ(node->otherBytes, blocksOf(file));
    EXPECT_EQ(node->otherCount, 1U) << "the depth-7 folder is its one entry";
    EXPECT_EQ(test::brokenRules(r.tree, defaultSpaceScanOptions), std::vector<std::string>{});

    // The file and the folders the map draws above it are told as soon as they finish.
    std::vector<std::string> streamed;
    for (const OperationProgress::Notice& notice : progress.takeNotices()) {
        EXPECT_EQ(notice.bytes, blocksOf(file));
        streamed.push_back(notice.path);
    }
    std::vector<std::string> expected(levels.begin(), levels.begin() + 6);
    expected.push_back(file);
    std::sort(streamed.begin(), streamed.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(streamed, expected);
    // The progress ends complete, with every entry the scan examined counted.
    OperationProgress::Reading done = progress.read();
    EXPECT_EQ(done.phase, "Scan complete");
    EXPECT_EQ(done.fraction, 1.0);
    EXPECT_EQ(done.items, r.tree.scannedNodeCount);
}

TEST(SpaceScan, HundredFilesOfTwoMegabytesKeepFortyEightAndFoldFiftyTwo) {
    std::string t = test::freshFolder("hundred");
    for (int i = 0; i < 100; ++i) {
        char name[32];
        std::snprintf(name, sizeof name, "/file-%03d", i);
        if (!allocateFile(t + name, 2'000'000)) {
            GTEST_SKIP() << "The fixture's file system cannot reserve blocks without writing.";
        }
    }
    const std::uint64_t each = blocksOf(t + "/file-000");
    for (unsigned workers : {1U, 2U}) {
        SpaceScanResult r = scanWith(t, defaultSpaceScanOptions, workers);
        const SpaceNode& root = r.tree.root;
        ASSERT_EQ(root.children.size(), 48U);
        EXPECT_EQ(root.otherCount, 52U);
        EXPECT_EQ(root.otherBytes, 52 * each);
        EXPECT_EQ(root.bytes, 100 * each);
        // Equal sizes are kept in name order, so the same 48 are drawn every time.
        EXPECT_EQ(root.children.front().name, "file-000");
        EXPECT_EQ(root.children.back().name, "file-047");
        EXPECT_EQ(otherShareNote(root), "52 more items, " + formatBytes(52 * each) +
                                            ", each too small to draw on its own.");
    }
}

TEST(SpaceScan, BudgetOfZeroEndsAtOnceWithATruncatedTree) {
    std::string t = test::freshFolder("budget");
    makeDirs(t + "/a/b");
    writeFilledFile(t + "/a/b/f", 50000);
    SpaceScanResult r = scanWith(t, defaultSpaceScanOptions, 2, nullptr, 0.0);
    const std::string stopped =
        "Scan stopped at the time limit — showing the biggest items found so far.";
    EXPECT_TRUE(r.tree.isTruncated);
    EXPECT_FALSE(r.tree.root.isComplete);
    EXPECT_EQ(r.tree.root.bytes, 0U);
    EXPECT_EQ(r.tree.scannedNodeCount, 0U);
    EXPECT_EQ(r.tree.warnings, std::vector<std::string>{stopped});
    EXPECT_EQ(r.openScan.warnings, std::vector<std::string>{stopped});
    EXPECT_EQ(spaceStatusLine(r.tree, 30, 6),
              "Stopped at the 30-second limit — the map shows what was measured.");

    // A negative budget is no budget at all, and a finished tree says how deep the map goes.
    SpaceScanResult negative = scanWith(t, defaultSpaceScanOptions, 1, nullptr, -5.0);
    EXPECT_TRUE(negative.tree.isTruncated);
    SpaceScanResult whole = scanWith(t, defaultSpaceScanOptions, 1);
    EXPECT_FALSE(whole.tree.isTruncated);
    EXPECT_EQ(spaceStatusLine(whole.tree, 30, 6),
              " Measured whole — the map stops six levels down.");
}

TEST(SpaceScan, FoldersNestedDeeperThan256LevelsAreSkippedWithOneWarning) {
    std::string t = test::freshFolder("nesting");
    for (const char* chain : {"/a", "/b"}) {
        std::string dir = t + chain;
        for (int level = 1; level <= 300; ++level) {
            dir += "/d";
            makeDirs(dir);
            if (level % 50 == 0 || level == 255 || level == 256) {
                writeFilledFile(dir + "/f", static_cast<std::uint64_t>(level) * 100);
            }
        }
    }
    SpaceScanResult r = scanWith(t, test::smallOptions(), 2);
    EXPECT_EQ(r.tree.warnings,
              std::vector<std::string>{"Scan skipped folders nested deeper than 256 levels"});
    // Folders down to depth 256 are read, so their files, at depth 257, are counted.
    EXPECT_EQ(r.tree.root.bytes, test::peerAllocatedBytes(t, 257));
    EXPECT_LT(r.tree.root.bytes, test::peerAllocatedBytes(t));
    EXPECT_FALSE(r.tree.root.isComplete);
    // The fixture teardown stops at the same depth limit, so the test clears what lies past it.
    EXPECT_EQ(test::runShell("rm -rf " + test::shellQuote(t)).status, 0);
}

TEST(SpaceScan, MountedFileSystemIsNotEnteredAndSaysSo) {
    std::string t = test::freshFolder("mounted");
    makeDirs(t + "/data");
    writeFilledFile(t + "/data/here", 300000);
    std::string whyNot;
    auto volume = test::LoopVolume::mount("btrfs", t + "/data/vol", whyNot);
    if (!volume) {
        GTEST_SKIP() << whyNot;
    }
    writeFilledFile(volume->path() + "/there", 2 * mib);
    volume->sync();
    const std::uint64_t onVolume = test::peerAllocatedBytes(volume->path());
    ASSERT_GT(onVolume, 0U);

    SpaceScanResult r = scanWith(t, test::smallOptions(), 2);
    EXPECT_EQ(r.tree.warnings, std::vector<std::string>{"Scan didn't enter " + volume->path() +
                                                        ": another disk is mounted there"});
    EXPECT_EQ(r.tree.root.bytes, test::peerAllocatedBytes(t) - onVolume);
    EXPECT_EQ(r.tree.root.fileCount, 1U);
    EXPECT_EQ(findDeepestNode(r.tree.root, volume->path() + "/there")->path, t + "/data");
    EXPECT_TRUE(r.tree.root.isComplete) << "a disk left alone is not a gap in the map";

    // Scanned from its own mount point, the volume is the tree and nothing is skipped.
    SpaceScanResult inside = scanWith(volume->path(), test::smallOptions(), 2);
    EXPECT_EQ(inside.tree.warnings, std::vector<std::string>{});
    EXPECT_EQ(inside.tree.root.bytes, onVolume);
}

// ---- the same tree whatever the workers do --------------------------------------------------

TEST(SpaceScan, SameTreeWithOneAndSeveralWorkersIsIdentical) {
    std::string base = test::freshFolder("determinism");
    std::string t = base + "/tree";
    for (int top = 0; top < 24; ++top) {
        for (int sub = 0; sub < 4; ++sub) {
            std::string dir = t + "/top" + std::to_string(top) + "/s" + std::to_string(sub);
            makeDirs(dir);
            for (int f = 0; f < 6; ++f) {
                writeFilledFile(dir + "/f" + std::to_string(f),
                                static_cast<std::uint64_t>(((top * 7 + sub * 3 + f) % 11) * 4096));
            }
        }
    }
    // One folder holding most of the tree, so idle workers take parts of it.
    for (int pkg = 0; pkg < 60; ++pkg) {
        for (int v = 0; v < 3; ++v) {
            std::string dir = t + "/huge/p" + std::to_string(pkg) + "/v" + std::to_string(v);
            makeDirs(dir);
            for (int f = 0; f < 30; ++f) {
                writeFilledFile(dir + "/f" + std::to_string(f),
                                static_cast<std::uint64_t>(((pkg + v + f) % 7) * 2000));
            }
        }
    }
    // Links met by different workers in any order, one of them outside the tree.
    writeFilledFile(t + "/top17/s2/linked", 90000);
    test::makeHardlink(t + "/top17/s2/linked", t + "/top3/s1/linked-again");
    test::makeHardlink(t + "/top17/s2/linked", t + "/huge/p40/v1/and-again");
    test::makeHardlink(t + "/top17/s2/linked", base + "/outside-link");
    writeFilledFile(t + "/huge/p59/v2/big", 200000);
    test::makeHardlink(t + "/huge/p59/v2/big", t + "/huge/p2/v0/big-too");
    ::sync();

    // A tight budget and child limit, so which nodes survive is decided over and over.
    SpaceScanOptions options;
    options.minimumNodeBytes = 4096;
    options.nodeBudget = 60;
    options.maxChildren = 6;
    options.maxDepth = 3;
    options.findings.minNodeBytes = 16 * kib;
    options.findings.topN = 15;

    SpaceScanResult reference = scanWith(t, options, 1);
    EXPECT_EQ(reference.tree.root.bytes, test::peerAllocatedBytes(t));
    EXPECT_EQ(test::brokenRules(reference.tree, options), std::vector<std::string>{});
    EXPECT_EQ(reference.openScan.topFindings.size(), 15U);
    const std::string expected = test::describe(reference);
    std::uint64_t splits = 0;
    for (unsigned workers : {2U, 3U, 4U, 8U, 2U, 4U}) {
        SpaceTreeScanner scanner;
        scanner.options = options;
        scanner.workerCount = workers;
        scanner.budget = 600;
        SpaceScanResult r = scanner.scan(t);
        splits += scanner.statistics().splits;
        EXPECT_EQ(test::describe(r), expected) << workers << " workers";
    }
    EXPECT_GT(splits, 0U) << "no run split the big folder, so the split was not exercised";
}

// ---- what cannot be read, what changes and what is stopped ----------------------------------

TEST(SpaceScan, UnreadableRootGivesAnEmptyTreeWithOneWarning) {
    std::string t = test::freshFolder("roots");
    writeFilledFile(t + "/file", 100);
    makeDirs(t + "/real");
    test::makeSymlink(t + "/real", t + "/link");
    struct Case {
        std::string root;
        std::string error;
    };
    const std::vector<Case> cases{
        {t + "/missing", "Opening directory " + t + "/missing: No such file or directory"},
        {t + "/link", "Symlinks are not allowed: " + t + "/link"},
        {t + "/file", "Opening directory " + t + "/file: Not a directory"},
        {"/etc", "Protected or out-of-home path: /etc"},
        {"relative/path", "An absolute path without NUL bytes is required"},
        {t + "/real/..", "Relative path components are forbidden: " + t + "/real/.."},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.root);
        SpaceScanResult r = scanWith(c.root, defaultSpaceScanOptions, 2);
        ASSERT_TRUE(r.rootError.has_value());
        EXPECT_EQ(r.rootError->message(), c.error);
        EXPECT_EQ(r.tree.warnings,
                  std::vector<std::string>{"Cannot read " + c.root + ": " + c.error});
        EXPECT_EQ(r.tree.root.bytes, 0U);
        EXPECT_TRUE(r.tree.root.children.empty());
        EXPECT_FALSE(r.tree.root.isComplete);
    }
}

TEST(SpaceScan, FolderSwappedForALinkMidScanIsNotFollowed) {
    if (!testhooks::enabled) {
        GTEST_SKIP() << "Needs a build with SPARROWDECK_TEST_HOOKS to act between listing and "
                        "opening a folder.";
    }
    std::string base = test::freshFolder("swap");
    std::string t = base + "/tree";
    makeDirs(t + "/victim");
    makeDirs(t + "/kept");
    writeFilledFile(t + "/victim/inside", 40000);
    writeFilledFile(t + "/kept/file", 40000);
    makeDirs(base + "/big");
    writeFilledFile(base + "/big/blob", 3 * mib);
#ifdef SPARROWDECK_TEST_HOOKS
    struct HookGuard {
        ~HookGuard() { testhooks::setBeforeOpenDirectory(nullptr); }
    } guard;
    testhooks::setBeforeOpenDirectory([&](const std::string& path) {
        if (path == t + "/victim") {
            ::rename(path.c_str(), (base + "/victim-moved").c_str());
            test::makeSymlink(base + "/big", path);
        }
    });
#endif
    SpaceScanResult r = scanWith(t, test::smallOptions(), 2);
    EXPECT_EQ(r.tree.root.bytes, blocksOf(t + "/kept/file")) << "nothing behind the link counts";
    EXPECT_FALSE(r.tree.root.isComplete);
    EXPECT_EQ(r.tree.warnings, std::vector<std::string>{"Directory changed during traversal: " + t +
                                                        "/victim — counted what could be read."});
    EXPECT_EQ(blocksOf(base + "/big/blob"), test::peerAllocatedBytes(base + "/big"))
        << "the scan changed nothing";
}

TEST(SpaceScan, StopThrowsOperationCancelledAndKeepsNothing) {
    std::string t = test::freshFolder("stop");
    for (int i = 0; i < 30; ++i) {
        makeDirs(t + "/d" + std::to_string(i));
        writeFilledFile(t + "/d" + std::to_string(i) + "/f", 5000);
    }
    // Stopped before it starts, and in the middle of the walk (as the workers open d5).
    for (bool midway : {false, true}) {
        if (midway && !testhooks::enabled) {
            continue;
        }
        std::stop_source stop;
        if (midway) {
            testhooks::setBeforeOpenDirectory([&](const std::string& path) {
                if (path == t + "/d5") {
                    stop.request_stop();
                }
            });
        } else {
            stop.request_stop();
        }
        OperationProgress progress;
        try {
            scanWith(t, defaultSpaceScanOptions, 2, &progress, 600, stop.get_token());
            ADD_FAILURE() << "a stopped scan returned a result";
        } catch (const CleanerError& e) {
            EXPECT_EQ(e.kind(), CleanerError::Kind::operationCancelled);
            EXPECT_EQ(e.message(), "Operation cancelled");
        }
        testhooks::setBeforeOpenDirectory({});
        EXPECT_NE(progress.read().phase, "Scan complete");
    }
}

// ---- findings -------------------------------------------------------------------------------

TEST(SpaceScan, FindingsRankTheBiggestAndLeaveOutWhatTheBuildMayNotOffer) {
    const std::string& home = test::fixtureHome();
    std::string mine = test::freshFolder("findings");
    const std::vector<std::pair<std::string, std::uint64_t>> files{
        {home + "/Documents/findings-report.bin", 30 * mib},
        {home + "/Library/Containers/com.example.app/Data/findings.bin", 25 * mib},
        {mine + "/media/movie.bin", 40 * mib},
        {mine + "/media/small.bin", 5 * mib},
        {mine + "/a/b/c/d/e/f/g/deep.bin", 12 * mib},
    };
    for (const auto& [path, bytes] : files) {
        makeDirs(path.substr(0, path.rfind('/')));
        if (!allocateFile(path, bytes)) {
            GTEST_SKIP() << "The fixture's file system cannot reserve blocks without writing.";
        }
    }
    auto pathsOf = [&](const SpaceScanResult& r) {
        std::vector<std::string> paths;
        for (const Finding& f : r.openScan.topFindings) {
            EXPECT_GE(f.bytes, 10 * mib) << f.path;
            if (f.path.find("findings") != std::string::npos) {
                paths.push_back(f.path + (f.isDirectory ? "/" : ""));
            }
        }
        EXPECT_TRUE(std::is_sorted(r.openScan.topFindings.begin(), r.openScan.topFindings.end(),
                                   findingBefore));
        return paths;
    };
    SpaceTreeScanner scanner;
    scanner.options.findings.topN = 200;
    scanner.workerCount = 2;
    SpaceScanResult all = scanner.scan(home);
    std::vector<std::string> expectedAll{
        mine + "/",
        mine + "/media/",
        mine + "/media/movie.bin",
        home + "/Documents/findings-report.bin",
        home + "/Library/Containers/com.example.app/Data/findings.bin",
        mine + "/a/",
        mine + "/a/b/",
        mine + "/a/b/c/",
        mine + "/a/b/c/d/",
        mine + "/a/b/c/d/e/",
        mine + "/a/b/c/d/e/f/g/deep.bin",
    };
    std::vector<std::string> found = pathsOf(all);
    for (const std::string& path : expectedAll) {
        EXPECT_NE(std::find(found.begin(), found.end(), path), found.end()) << path;
    }
    EXPECT_EQ(std::count(found.begin(), found.end(), mine + "/media/small.bin"), 0);
    // mine is one level below the home, so its folder f is seven levels down.
    EXPECT_EQ(std::count(found.begin(), found.end(), mine + "/a/b/c/d/e/f/"), 0)
        << "folders deeper than maxTreeDepth are not findings";

    scanner.options.findings.includeUserData = false;
    found = pathsOf(scanner.scan(home));
    EXPECT_EQ(std::count(found.begin(), found.end(), home + "/Documents/findings-report.bin"), 0);
    EXPECT_EQ(std::count(found.begin(), found.end(), mine + "/media/movie.bin"), 1);

    scanner.options.findings.includeUserData = true;
    scanner.distribution = DistributionMode::appStore;
    found = pathsOf(scanner.scan(home));
    EXPECT_EQ(std::count(found.begin(), found.end(),
                         home + "/Library/Containers/com.example.app/Data/findings.bin"),
              0);
    EXPECT_EQ(std::count(found.begin(), found.end(), home + "/Documents/findings-report.bin"), 1);

    scanner.options.findings.topN = 3;
    EXPECT_EQ(scanner.scan(home).openScan.topFindings.size(), 3U);
}

// ---- clones, on a file system that shares blocks --------------------------------------------

TEST(SpaceScanOnBtrfs, ClonesCountTheirSharedExtentsOnceAsBtrfsDoes) {
    std::string t = test::freshFolder("clones");
    std::string whyNot;
    auto volume = test::LoopVolume::mount("btrfs", t + "/vol", whyNot);
    if (!volume) {
        GTEST_SKIP() << whyNot;
    }
    const std::string v = volume->path();
    makeDirs(v + "/one");
    makeDirs(v + "/two");
    ASSERT_EQ(
        test::runShell("head -c 1048576 /dev/urandom > " + test::shellQuote(v + "/one/a")).status,
        0);
    volume->sync();
    for (const char* copy : {"/two/b", "/two/d"}) {
        ASSERT_EQ(test::runShell("cp --reflink=always " + test::shellQuote(v + "/one/a") + " " +
                                 test::shellQuote(v + copy) + " 2>&1")
                      .status,
                  0);
    }
    ASSERT_EQ(
        test::runShell("head -c 65536 /dev/urandom >> " + test::shellQuote(v + "/two/d")).status,
        0);
    test::makeHardlink(v + "/two/b", v + "/one/b-again");
    writeFilledFile(v + "/two/plain", 300000);
    volume->sync();

    // btrfs's own accounting: what only one file holds, plus what several share, once.
    test::CommandResult du =
        test::runShell("btrfs filesystem du -s --raw " + test::shellQuote(v) + " | tail -1");
    ASSERT_EQ(du.status, 0) << du.output;
    std::uint64_t total = 0;
    std::uint64_t exclusive = 0;
    std::uint64_t shared = 0;
    ASSERT_EQ(std::sscanf(du.output.c_str(), "%lu %lu %lu", &total, &exclusive, &shared), 3)
        << du.output;
    ASSERT_EQ(shared, 1 * mib);

    std::string expected;
    for (unsigned workers : {1U, 3U}) {
        SpaceScanResult r = scanWith(v, test::smallOptions(), workers);
        EXPECT_EQ(r.tree.root.bytes, exclusive + shared);
        EXPECT_EQ(r.openScan.cloneSharedBytes, shared);
        EXPECT_LT(r.tree.root.bytes, test::peerAllocatedBytes(v)) << "find counts clones twice";
        EXPECT_EQ(r.tree.root.fileCount, 5U);
        EXPECT_EQ(test::brokenRules(r.tree, test::smallOptions()), std::vector<std::string>{});
        // The extent belongs to the file with the smallest inode, the first one written.
        const SpaceNode* one = childNamed(r.tree.root, "one");
        ASSERT_NE(one, nullptr);
        EXPECT_EQ(one->bytes, blocksOf(v + "/one/a"));
        if (expected.empty()) {
            expected = test::describe(r);
        } else {
            EXPECT_EQ(test::describe(r), expected);
        }
    }
}

} // namespace
} // namespace sd
