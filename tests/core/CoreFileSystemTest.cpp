#include "core/CoreFileSystem.h"

#include "Fixture.h"
#include "base/CleanerError.h"
#include "base/Saturating.h"
#include "base/Stop.h"
#include "base/TestHooks.h"
#include "core/MockRoots.h"
#include "core/PathRules.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <optional>
#include <stop_token>
#include <sys/stat.h>
#include <unistd.h>

namespace sd {
namespace {

using Kind = CleanerError::Kind;

template <typename Call> std::optional<CleanerError> errorOf(Call&& call) {
    try {
        call();
    } catch (const CleanerError& e) {
        return e;
    }
    return std::nullopt;
}

struct stat lstatOf(const std::string& path) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) {
        throw std::runtime_error("lstat " + path);
    }
    return st;
}

// Clears the between-list-and-open hook however a test ends.
struct HookGuard {
    ~HookGuard() {
#ifdef SPARROWDECK_TEST_HOOKS
        testhooks::setBeforeOpenDirectory(nullptr);
#endif
    }
};

TEST(CoreErrors, SystemCallFailuresBecomeOneSentenceAndKind) {
    struct Case {
        int error;
        Kind kind;
    };
    const Case cases[]{{EPERM, Kind::accessDenied},    {EACCES, Kind::accessDenied},
                       {ELOOP, Kind::safetyViolation}, {ENOENT, Kind::ioError},
                       {EIO, Kind::ioError},           {ENOTDIR, Kind::ioError}};
    for (const Case& c : cases) {
        CleanerError e = makeCoreError(operation::openingDirectory, "/h/a b", c.error);
        EXPECT_EQ(e.kind(), c.kind) << c.error;
        EXPECT_EQ(std::string(e.what()),
                  std::string("Opening directory /h/a b: ") + std::strerror(c.error));
    }
    EXPECT_EQ(CleanerError::cancelled().message(), "Operation cancelled");
}

TEST(CoreListing, ListsSortedNamesAndRefusesNamesThatAreNotUtf8) {
    std::string dir = test::freshFolder("listing");
    const std::vector<std::string> names{"b", "a b", "line\nbreak", "Cafe\xCC\x81", ".hidden", "Z"};
    for (const std::string& name : names) {
        test::writeFile(dir + "/" + name, "x");
    }
    UniqueFd fd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ASSERT_TRUE(fd);
    std::vector<std::string> expected = names;
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(listDirectory(fd.get(), dir), expected);
    // Listing twice from the same descriptor gives the same answer: the caller's is untouched.
    EXPECT_EQ(listDirectory(fd.get(), dir), expected);

    test::writeFile(dir + "/bad\xFF", "x");
    auto error = errorOf([&] { listDirectory(fd.get(), dir); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->kind(), Kind::safetyViolation);
    EXPECT_EQ(error->message(), "Directory contains a filename that is not valid UTF-8: " + dir);

    // Overlong and surrogate encodings are not UTF-8 either.
    ::unlink((dir + "/bad\xFF").c_str());
    for (const char* bad : {"over\xC0\xAF", "sur\xED\xA0\x80", "cut\xE2\x82"}) {
        std::string path = dir + "/" + bad;
        test::writeFile(path, "x");
        EXPECT_TRUE(errorOf([&] { listDirectory(fd.get(), dir); })) << bad;
        ::unlink(path.c_str());
    }
}

TEST(CoreOpening, NoFollowOpensRefuseLinksAndParentsAreOpenedFromRoot) {
    std::string dir = test::freshFolder("opening");
    test::makeDirs(dir + "/real");
    test::makeSymlink(dir + "/real", dir + "/link");
    UniqueFd base(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ASSERT_TRUE(base);

    EXPECT_TRUE(openSearch(base.get(), "real"));
    EXPECT_TRUE(openListing(base.get(), "real"));
    for (auto open : {&openSearch, &openListing}) {
        errno = 0;
        EXPECT_FALSE(open(base.get(), "link"));
        EXPECT_EQ(errno, ELOOP);
    }

    auto root = errorOf([] { openParent("/"); });
    ASSERT_TRUE(root);
    EXPECT_EQ(root->message(), "The filesystem root cannot be operated on");
    EXPECT_EQ(root->kind(), Kind::safetyViolation);

    std::optional<ParentHandle> parent = openParent(dir + "/real/file");
    ASSERT_TRUE(parent);
    EXPECT_EQ(parent->name, "file");
    struct stat opened {};
    ASSERT_EQ(::fstat(parent->fd.get(), &opened), 0);
    EXPECT_EQ(EntryIdentity::of(opened), EntryIdentity::of(lstatOf(dir + "/real")));

    EXPECT_FALSE(openParent(dir + "/gone/deeper/file")) << "a vanished ancestor is not an error";
    auto through = errorOf([&] { openParent(dir + "/link/file"); });
    ASSERT_TRUE(through);
    EXPECT_EQ(through->kind(), Kind::safetyViolation);

    EXPECT_FALSE(errorOf([&] { refuseSymlink(dir + "/real"); }));
    auto last = errorOf([&] { refuseSymlink(dir + "/link"); });
    ASSERT_TRUE(last);
    EXPECT_EQ(last->message(), "Symlinks are not allowed: " + dir + "/link");
}

TEST(CoreRoots, TemplatesAndGlobsResolveInsideTheHomeOnly) {
    const std::string& home = test::fixtureHome();
    std::string base = test::freshFolder("roots");
    std::string rel = base.substr(home.size() + 1);
    for (const char* d : {"apps/b.app/cache", "apps/a.app/cache", "apps/.hidden/cache",
                          "apps/c.app/nocache", "apps/star*/cache", "plain"}) {
        test::makeDirs(base + "/" + d);
    }
    test::writeFile(base + "/apps/file.app", "not a folder");
    test::makeDirs(base + "/elsewhere/cache");
    test::makeSymlink(base + "/elsewhere", base + "/apps/link.app");

    struct Case {
        std::string pathTemplate;
        std::optional<std::string> glob;
        std::vector<std::string> roots; // relative to base
        std::vector<std::string> warnings;
    };
    const std::vector<Case> cases{
        {"~/" + rel + "/plain", std::nullopt, {"plain"}, {}},
        {"~/" + rel + "/apps",
         "*/cache",
         {"apps/a.app/cache", "apps/b.app/cache", "apps/star*/cache"},
         {}},
        {"~/" + rel + "/apps", "*.app/cache", {"apps/a.app/cache", "apps/b.app/cache"}, {}},
        {"~/" + rel + "/apps", ".*/cache", {"apps/.hidden/cache"}, {}},
        {"~/" + rel + "/apps", "star\\*/cache", {"apps/star*/cache"}, {}},
        {"~/" + rel + "/apps", "[ab].app", {"apps/a.app", "apps/b.app"}, {}},
        {"~/" + rel + "/missing", std::nullopt, {}, {}},
        {"~/" + rel + "/apps/file.app/cache", std::nullopt, {}, {}},
        {"~/" + rel + "/apps", "/abs", {}, {"Rejected invalid relative glob: /abs"}},
        {"~/" + rel + "/apps", "a/../b", {}, {"Rejected invalid relative glob: a/../b"}},
        {"~/" + rel + "/apps", "./a", {}, {"Rejected invalid relative glob: ./a"}},
        {"/etc",
         std::nullopt,
         {},
         {"Skipped path outside the user home and owned mock roots: /etc"}},
        {"~other/x",
         std::nullopt,
         {},
         {"Skipped path outside the user home and owned mock roots: ~other/x"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.pathTemplate + (c.glob ? " + " + *c.glob : ""));
        std::vector<std::string> warnings;
        std::vector<ResolvedRoot> roots = resolveRoots(
            c.pathTemplate, c.glob ? std::optional<std::string_view>(*c.glob) : std::nullopt,
            warnings);
        std::vector<std::string> got;
        for (const ResolvedRoot& r : roots) {
            ASSERT_TRUE(r.path.starts_with(base + "/"));
            got.push_back(r.path.substr(base.size() + 1));
            EXPECT_EQ(r.identity, EntryIdentity::of(lstatOf(r.path)));
        }
        EXPECT_EQ(got, c.roots);
        EXPECT_EQ(warnings, c.warnings);
    }

    std::vector<std::string> warnings;
    auto homeRoots = resolveRoots("~", std::nullopt, warnings);
    ASSERT_EQ(homeRoots.size(), 1U);
    EXPECT_EQ(homeRoots[0].path, home);
    EXPECT_EQ(homeRoots[0].type, S_IFDIR);

    // A link named in the template is refused outright; one among glob matches is never followed.
    auto link =
        errorOf([&] { resolveRoots("~/" + rel + "/apps/link.app/cache", std::nullopt, warnings); });
    ASSERT_TRUE(link);
    EXPECT_EQ(link->kind(), Kind::safetyViolation);
    EXPECT_EQ(link->message(), "Symlinks are not allowed: " + base + "/apps/link.app");
}

TEST(CoreRoots, DepthLimitAndCancellation) {
    std::string deep = test::fixtureHome();
    size_t components = splitComponents(deep).size();
    for (size_t i = components; i < 257; ++i) {
        deep += "/d";
    }
    std::vector<std::string> warnings;
    EXPECT_TRUE(resolveRoots(deep, std::nullopt, warnings).empty());
    ASSERT_EQ(warnings.size(), 1U);
    EXPECT_EQ(warnings[0], "Root resolution depth limit (256 components): " + deep);

    CoreCancellationState flag;
    flag.cancel();
    auto cancelled = errorOf([&] { resolveRoots("~", std::nullopt, warnings, flag.token()); });
    ASSERT_TRUE(cancelled);
    EXPECT_EQ(cancelled->kind(), Kind::operationCancelled);
    EXPECT_EQ(cancelled->message(), "Operation cancelled");
}

TEST(CoreMeasure, EntriesOfEveryKindMeasureByTheirOwnRules) {
    std::string dir = test::freshFolder("kinds");
    test::makeDirs(dir + "/tree/sub");
    test::writeFilledFile(dir + "/tree/a", 10000);
    test::writeFilledFile(dir + "/tree/sub/b", 5000);
    test::makeSymlink(dir + "/tree", dir + "/link");
    test::writeFilledFile(dir + "/single", 3000);
    ASSERT_EQ(::mkfifo((dir + "/tree/pipe").c_str(), 0600), 0);

    auto measure = [](const std::string& path,
                      std::optional<EntryIdentity> expected = std::nullopt) {
        std::vector<std::string> warnings;
        FootprintTally tally;
        Footprint f = measureFootprint(path, expected, warnings, tally);
        EXPECT_TRUE(warnings.empty());
        return std::pair(f, tally.freeable.freeableBytes());
    };
    auto [tree, treeFreeable] = measure(dir + "/tree");
    EXPECT_EQ(tree.allocatedBytes, test::peerAllocatedBytes(dir + "/tree"));
    EXPECT_EQ(tree.fileCount, 2U);
    EXPECT_EQ(tree.directoryCount, 2U);
    EXPECT_EQ(treeFreeable, tree.allocatedBytes);

    auto [link, linkFreeable] = measure(dir + "/link");
    EXPECT_EQ(link.allocatedBytes, 0U) << "a link is not followed";
    EXPECT_EQ(linkFreeable, 0U);

    auto [single, singleFreeable] =
        measure(dir + "/single", EntryIdentity::of(lstatOf(dir + "/single")));
    EXPECT_EQ(single.allocatedBytes, allocatedBytesOf(lstatOf(dir + "/single")));
    EXPECT_EQ(single.fileCount, 1U);

    ::unlink((dir + "/tree/pipe").c_str()); // teardown leaves pipes alone
    auto [gone, goneFreeable] = measure(dir + "/gone");
    EXPECT_TRUE(gone.vanished);
    EXPECT_EQ(gone.allocatedBytes, 0U);

    std::vector<std::string> warnings;
    FootprintTally tally;
    auto changed = errorOf([&] {
        measureFootprint(dir + "/tree", EntryIdentity{1, 2}, warnings, tally);
    });
    ASSERT_TRUE(changed);
    EXPECT_EQ(changed->message(), "Changed since it was measured: " + dir + "/tree");
}

TEST(CoreMeasure, StopAndStopRequestsEndTheWalk) {
    std::string dir = test::freshFolder("stop");
    test::makeDirs(dir + "/a");
    test::writeFile(dir + "/a/f", "x");
    std::vector<std::string> warnings;
    FootprintTally tally;

    CoreCancellationState flag;
    flag.cancel();
    auto byFlag =
        errorOf([&] { measureFootprint(dir, std::nullopt, warnings, tally, flag.token()); });
    ASSERT_TRUE(byFlag);
    EXPECT_EQ(byFlag->kind(), Kind::operationCancelled);
    CoreCancellationState fresh;
    EXPECT_FALSE(
        errorOf([&] { measureFootprint(dir, std::nullopt, warnings, tally, fresh.token()); }));

    // A stop that arrives in the middle of the walk ends it before the next entry.
    if (testhooks::enabled) {
        std::stop_source source;
        testhooks::setBeforeOpenDirectory([&](const std::string& path) {
            if (path == dir + "/a") {
                source.request_stop();
            }
        });
        auto midway = errorOf(
            [&] { measureFootprint(dir, std::nullopt, warnings, tally, source.get_token()); });
        testhooks::setBeforeOpenDirectory({});
        ASSERT_TRUE(midway);
        EXPECT_EQ(midway->message(), "Operation cancelled");
    }
}

// The tree is changed at the one moment that matters: after the entry was read, before it is
// opened. Whatever is swapped in, the walk must stop with the race sentence, not follow it.
TEST(CoreRaces, ADirectorySwappedBetweenListingAndOpeningIsRefused) {
    if (!testhooks::enabled) {
        GTEST_SKIP() << "built without SPARROWDECK_TEST_HOOKS, so the race cannot be staged";
    }
#ifdef SPARROWDECK_TEST_HOOKS
    HookGuard guard;
    ScopedMockRoot outsideRoot;
    std::string outside = outsideRoot.path() + "/outside";
    test::makeDirs(outside);
    test::writeFilledFile(outside + "/precious", 50000);

    enum class Swap { symlinkOutside, otherDirectory, plainFile };
    for (Swap swap : {Swap::symlinkOutside, Swap::otherDirectory, Swap::plainFile}) {
        std::string dir = test::freshFolder("race");
        std::string victim = dir + "/victim";
        test::makeDirs(victim + "/inner");
        test::writeFilledFile(victim + "/inner/f", 4096);
        testhooks::setBeforeOpenDirectory([&](const std::string& path) {
            if (path != victim) {
                return;
            }
            ASSERT_EQ(::rename(victim.c_str(), (victim + ".moved").c_str()), 0);
            switch (swap) {
            case Swap::symlinkOutside:
                test::makeSymlink(outside, victim);
                break;
            case Swap::otherDirectory:
                test::makeDirs(victim);
                break;
            case Swap::plainFile:
                test::writeFile(victim, "now a file");
                break;
            }
        });
        SCOPED_TRACE(static_cast<int>(swap));
        std::vector<std::string> warnings;
        FootprintTally tally;
        auto measured = errorOf([&] { measureFootprint(dir, std::nullopt, warnings, tally); });
        ASSERT_TRUE(measured);
        EXPECT_EQ(measured->kind(), Kind::safetyViolation);
        EXPECT_EQ(measured->message(), "Directory changed during traversal: " + victim);

        // Root resolution through the same folder meets the same refusal once it is swapped
        // back and swapped again.
        testhooks::setBeforeOpenDirectory(nullptr);
        ::unlink(victim.c_str());
        ::rmdir(victim.c_str());
        ASSERT_EQ(::rename((victim + ".moved").c_str(), victim.c_str()), 0);
        testhooks::setBeforeOpenDirectory([&](const std::string& path) {
            if (path == victim) {
                ::rename(victim.c_str(), (victim + ".moved").c_str());
                test::makeSymlink(outside, victim);
            }
        });
        auto resolved = errorOf([&] { resolveRoots(victim + "/inner", std::nullopt, warnings); });
        ASSERT_TRUE(resolved);
        EXPECT_EQ(resolved->message(), "Directory changed during traversal: " + victim);
        testhooks::setBeforeOpenDirectory(nullptr);
    }
    EXPECT_EQ(lstatOf(outside + "/precious").st_size, 50000);
#endif
}

TEST(CoreRaces, TeardownNeverFollowsASwappedInLink) {
    if (!testhooks::enabled) {
        GTEST_SKIP() << "built without SPARROWDECK_TEST_HOOKS, so the race cannot be staged";
    }
#ifdef SPARROWDECK_TEST_HOOKS
    HookGuard guard;
    std::string keep = test::freshFolder("keep");
    test::writeFilledFile(keep + "/precious", 8192);

    std::string rootPath;
    {
        ScopedMockRoot root;
        rootPath = root.path();
        std::string victim = root.path() + "/victim";
        test::makeDirs(victim);
        test::writeFile(victim + "/f", "x");
        testhooks::setBeforeOpenDirectory([&](const std::string& path) {
            if (path == victim) {
                ::rename(victim.c_str(), (victim + ".moved").c_str());
                test::makeSymlink(keep, victim);
            }
        });
        auto error = errorOf([&] { MockRoots::tearDown(root.path()); });
        ASSERT_TRUE(error);
        EXPECT_EQ(error->message(), "Directory changed during traversal: " + victim);
        testhooks::setBeforeOpenDirectory(nullptr);
    } // the scoped root now tears down cleanly
    EXPECT_EQ(lstatOf(keep + "/precious").st_size, 8192);
    EXPECT_NE(::access(rootPath.c_str(), F_OK), 0);
#endif
}

TEST(CoreInventory, TreesSumOnceAndStopAtTheDeadline) {
    std::string dir = test::freshFolder("inventory");
    test::makeDirs(dir + "/t/a/empty");
    test::writeFilledFile(dir + "/t/a/one", 6000);
    test::writeFilledFile(dir + "/t/two", 9000);
    test::makeHardlink(dir + "/t/two", dir + "/t/a/two-again");
    test::makeSymlink(dir + "/t/two", dir + "/t/link");
    auto setTime = [](const std::string& path, time_t when) {
        struct timespec times[2] = {{when, 0}, {when, 0}};
        ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
    };
    setTime(dir + "/t/a/one", 1000000);
    setTime(dir + "/t/two", 2000000);

    std::optional<ParentHandle> parent = openParent(dir + "/t");
    ASSERT_TRUE(parent);
    struct stat st = lstatOf(dir + "/t");
    HardlinkLedger ledger;
    auto far = std::chrono::steady_clock::now() + std::chrono::hours(1);
    InventoryNode node = buildInventory(parent->fd.get(), "t", dir + "/t", st, 0, far, ledger);

    EXPECT_TRUE(node.isDirectory);
    EXPECT_TRUE(node.isComplete);
    EXPECT_EQ(node.physicalBytes, test::peerAllocatedBytes(dir + "/t"));
    EXPECT_EQ(node.logicalBytes, 6000U + 9000U + 9000U);
    EXPECT_EQ(node.fileCount, 3U);
    EXPECT_EQ(node.oldest, 1000000);
    EXPECT_EQ(node.newest, 2000000);
    ASSERT_EQ(node.children.size(), 2U) << "the link is left out";
    EXPECT_EQ(node.children[0].name, "a");
    EXPECT_EQ(node.children[1].name, "two");
    ASSERT_EQ(node.children[0].children.size(), 3U);
    EXPECT_EQ(node.children[0].children[0].name, "empty");
    // The hard link met first ("a/two-again") carries the blocks; the second carries none.
    EXPECT_EQ(node.children[0].children[2].physicalBytes,
              allocatedBytesOf(lstatOf(dir + "/t/two")));
    EXPECT_EQ(node.children[1].physicalBytes, 0U);

    HardlinkLedger again;
    EXPECT_EQ(buildInventory(parent->fd.get(), "t", dir + "/t", st, 0, far, again), node);

    HardlinkLedger late;
    InventoryNode cut = buildInventory(parent->fd.get(), "t", dir + "/t", st, 0,
                                       std::chrono::steady_clock::now(), late);
    EXPECT_FALSE(cut.isComplete);
    EXPECT_TRUE(cut.children.empty());
    InventoryNode tooDeep = buildInventory(parent->fd.get(), "t", dir + "/t", st, 257, far, late);
    EXPECT_FALSE(tooDeep.isComplete);
}

TEST(CoreRemoval, EntriesAreRemovedOnlyWhileTheyAreWhatWasListed) {
    ScopedMockRoot root;
    std::string dir = root.path() + "/r";
    test::makeDirs(dir);
    test::writeFilledFile(dir + "/file", 8192);
    test::writeFilledFile(dir + "/linked", 8192);
    test::makeHardlink(dir + "/linked", dir + "/linked2");
    test::writeFile(dir + "/swapped", "x");

    std::optional<ParentHandle> parent = openParent(dir + "/x");
    ASSERT_TRUE(parent);
    int fd = parent->fd.get();
    RemovalOptions options;
    RemovalCounts counts;

    struct stat file = lstatOf(dir + "/file");
    EXPECT_TRUE(removeEntry(fd, "file", dir + "/file", file, options, counts));
    EXPECT_EQ(counts.removedEntries, 1U);
    EXPECT_EQ(counts.freedBytes, allocatedBytesOf(file));
    EXPECT_FALSE(removeEntry(fd, "file", dir + "/file", file, options, counts))
        << "already gone is not an error";
    EXPECT_EQ(counts.removedEntries, 1U);

    struct stat linked = lstatOf(dir + "/linked");
    EXPECT_TRUE(removeEntry(fd, "linked", dir + "/linked", linked, options, counts));
    EXPECT_EQ(counts.freedBytes, allocatedBytesOf(file)) << "one link of two frees nothing";

    struct stat swapped = lstatOf(dir + "/swapped");
    // A second link keeps the old inode alive, so the newcomer cannot reuse its number.
    test::makeHardlink(dir + "/swapped", dir + "/swapped-original");
    ::unlink((dir + "/swapped").c_str());
    test::writeFile(dir + "/swapped", "another file");
    auto changed =
        errorOf([&] { removeEntry(fd, "swapped", dir + "/swapped", swapped, options, counts); });
    ASSERT_TRUE(changed);
    EXPECT_EQ(changed->message(), "Entry changed before removal: " + dir + "/swapped");
    EXPECT_EQ(::access((dir + "/swapped").c_str(), F_OK), 0);

    RemovalOptions keeping;
    keeping.keep = [&](const std::string& path) {
        return path == dir + "/swapped";
    };
    EXPECT_FALSE(
        removeEntry(fd, "swapped", dir + "/swapped", lstatOf(dir + "/swapped"), keeping, counts));
    EXPECT_EQ(::access((dir + "/swapped").c_str(), F_OK), 0);
}

TEST(CoreRemoval, TreesAreRemovedDepthFirstWithinTheirOwnedRoot) {
    ScopedMockRoot root;
    std::string dir = root.path() + "/tree";
    test::makeDirs(dir + "/a/b/c");
    test::writeFilledFile(dir + "/a/b/c/f", 4096);
    test::writeFilledFile(dir + "/a/g", 4096);
    test::makeSymlink("/etc/passwd", dir + "/a/link");
    std::string outside = test::freshFolder("untouched");
    test::writeFile(outside + "/keep", "keep");
    test::makeSymlink(outside, dir + "/a/b/to-outside");

    std::vector<std::string> seen;
    RemovalOptions options;
    options.ownedRoot = root.path();
    options.perEntry = [&](const std::string& path) {
        seen.push_back(path);
    };
    struct stat st = lstatOf(dir);
    std::uint64_t fileBytes =
        allocatedBytesOf(lstatOf(dir + "/a/b/c/f")) + allocatedBytesOf(lstatOf(dir + "/a/g"));
    RemovalCounts counts = removeTree(dir, st.st_dev, options);
    EXPECT_EQ(counts.removedEntries, 8U); // four folders, two files and two links
    EXPECT_EQ(counts.freedBytes, fileBytes);
    EXPECT_NE(::access(dir.c_str(), F_OK), 0);
    EXPECT_EQ(::access((outside + "/keep").c_str(), F_OK), 0);
    EXPECT_EQ(::access("/etc/passwd", F_OK), 0);
    ASSERT_FALSE(seen.empty());
    EXPECT_EQ(seen.back(), dir) << "the folder itself goes last";

    auto escaped = errorOf([&] {
        RemovalOptions other;
        other.ownedRoot = root.path();
        removeTree(outside, lstatOf(outside).st_dev, other);
    });
    ASSERT_TRUE(escaped);
    EXPECT_EQ(escaped->message(), "Mock teardown escaped its owned root");
    EXPECT_EQ(::access((outside + "/keep").c_str(), F_OK), 0);

    auto refused = errorOf([&] { MockRoots::tearDown(outside); });
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->message(), "Mock teardown escaped its owned root");
}

} // namespace
} // namespace sd
