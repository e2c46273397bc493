#include "Fixture.h"
#include "LoopVolume.h"
#include "base/CleanerError.h"
#include "core/CoreFileSystem.h"
#include "core/Ledgers.h"

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/magic.h>
#include <memory>
#include <optional>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>
#include <vector>

// Block sharing can only be seen on a file system that shares blocks, so these tests build a
// small btrfs in a loop-mounted image inside the fixture home and compare what the core reports
// with what GNU find and filefrag read from the same files.
namespace sd::test {
namespace {

constexpr std::uint64_t kib = 1024;
constexpr std::uint64_t mib = 1024 * kib;

[[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error(what);
}

std::string trimmed(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) {
        text.pop_back();
    }
    size_t start = text.find_first_not_of(' ');
    return start == std::string::npos ? std::string() : text.substr(start);
}

std::string parentOf(const std::string& path) {
    size_t slash = path.rfind('/');
    return slash == 0 ? std::string("/") : path.substr(0, slash);
}

std::string nameOf(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

struct stat lstatOrThrow(const std::string& path) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) {
        fail("lstat " + path + " failed");
    }
    return st;
}

std::uint64_t blocksOf(const struct stat& st) {
    return static_cast<std::uint64_t>(st.st_blocks) * 512;
}

// Rewrites `length` bytes at each offset without truncating, so the file keeps its size and
// only the rewritten ranges get new blocks of their own.
void overwriteInPlace(const std::string& path, const std::vector<std::uint64_t>& offsets,
                      std::uint64_t length) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        fail("open " + path + " failed");
    }
    std::string data(length, 'N');
    for (std::uint64_t offset : offsets) {
        if (::pwrite(fd, data.data(), data.size(), static_cast<off_t>(offset)) !=
            static_cast<ssize_t>(data.size())) {
            ::close(fd);
            fail("pwrite " + path + " failed");
        }
    }
    ::fsync(fd);
    ::close(fd);
}

std::uint64_t shellNumber(const std::string& command) {
    CommandResult r = runShell(command);
    if (r.status != 0) {
        fail("command failed: " + command);
    }
    std::string text = trimmed(r.output);
    return text.empty() ? 0 : std::stoull(text);
}

// GNU find's total with -xdev: distinct inodes on the starting file system only.
std::uint64_t peerAllocatedBytesXdev(const std::string& path) {
    return shellNumber("find " + shellQuote(path) +
                       " -xdev -type f -printf '%D:%i %b\\n' | sort -u | "
                       "awk '{s += $2} END {printf \"%.0f\", s * 512}'");
}

std::uint64_t peerFileCountXdev(const std::string& path) {
    return shellNumber("find " + shellQuote(path) + " -xdev -type f | wc -l");
}

// Every regular file under `path`, mounted file systems included, one path a line.
std::string fileList(const std::string& path) {
    CommandResult r = runShell("find " + shellQuote(path) + " -type f | LC_ALL=C sort");
    if (r.status != 0) {
        fail("find failed for " + path);
    }
    return r.output;
}

struct ExtentPeer {
    std::uint64_t unsharedBytes = 0; // bytes in extents filefrag does not flag as shared
    std::uint64_t extents = 0;
};

// What `filefrag -v` reads from FIEMAP for every regular file under `path`.
ExtentPeer filefragPeer(const std::string& path) {
    CommandResult r = runShell("find " + shellQuote(path) + " -type f -exec filefrag -v {} + 2>&1");
    if (r.status != 0) {
        fail("filefrag failed under " + path + ": " + r.output);
    }
    ExtentPeer peer;
    std::uint64_t blockSize = 0;
    std::istringstream lines(r.output);
    std::string line;
    while (std::getline(lines, line)) {
        // "File size of X is 1048576 (256 blocks of 4096 bytes)" sets the unit of the rows after.
        if (line.starts_with("File size of ")) {
            size_t at = line.rfind(" blocks of ");
            if (at == std::string::npos) {
                fail("unexpected filefrag header: " + line);
            }
            blockSize = std::stoull(line.substr(at + 11));
            continue;
        }
        // Extent rows: "  1:  16..  255:  3344..  3583:  240:  15632: last,shared,eof", the
        // "expected" column present only after a discontinuity.
        std::vector<std::string> fields;
        std::istringstream row(line);
        for (std::string field; std::getline(row, field, ':');) {
            fields.push_back(field);
        }
        std::string index = trimmed(fields.empty() ? std::string() : fields[0]);
        if (fields.size() < 5 || index.empty() ||
            index.find_first_not_of("0123456789") != std::string::npos) {
            continue;
        }
        ++peer.extents;
        if (fields.back().find("shared") == std::string::npos) {
            peer.unsharedBytes += std::stoull(trimmed(fields[3])) * blockSize;
        }
    }
    return peer;
}

struct Measured {
    Footprint footprint;
    std::uint64_t freeable = 0;
    std::vector<std::string> warnings;
};

Measured measure(const std::string& path) {
    Measured out;
    FootprintTally tally;
    out.footprint = measureFootprint(path, std::nullopt, out.warnings, tally);
    out.freeable = tally.freeable.freeableBytes();
    return out;
}

// Every test gets a fresh tree in the fixture home with a btrfs mounted somewhere inside it.
class ReflinkVolume : public ::testing::Test {
protected:
    void SetUp() override {
        tree_ = freshFolder("ReflinkTree");
        std::string whyNot;
        volume_ = LoopBtrfs::mount(tree_ + "/" + mountRelative(), whyNot);
        if (!volume_) {
            GTEST_SKIP() << whyNot;
        }
        if (!haveTool("filefrag")) {
            GTEST_SKIP() << "filefrag (e2fsprogs) is needed as the independent reading of "
                            "shared extents and is not installed.";
        }
    }
    // Unmounts before the fixture's folders go, and after a failed assertion just the same.
    void TearDown() override { volume_.reset(); }

    virtual std::string mountRelative() const { return "vol"; }

    std::string onVolume(const std::string& relative) const {
        return relative.empty() ? volume_->path() : volume_->path() + "/" + relative;
    }

    // pair/a and pair/b share every block, frag/c and frag/d too; plain/p shares nothing.
    void makeClonedFiles() const {
        makeDirs(onVolume("pair"));
        makeDirs(onVolume("frag"));
        makeDirs(onVolume("plain"));
        writeFilledFile(onVolume("pair/a"), 1 * mib, 'a');
        writeFilledFile(onVolume("frag/c"), 2 * mib, 'c');
        writeFilledFile(onVolume("plain/p"), 1 * mib, 'p');
        volume_->sync();
        reflinkCopy(onVolume("pair/a"), onVolume("pair/b"));
        reflinkCopy(onVolume("frag/c"), onVolume("frag/d"));
        volume_->sync();
    }

    // Gives pair/a its first 64 KiB to itself, and frag/c every other 4 KiB block: 256 private
    // pieces between shared ones, more extents than one FIEMAP batch of 128 holds.
    void divergeCopies() const {
        overwriteInPlace(onVolume("pair/a"), {0}, 64 * kib);
        std::vector<std::uint64_t> everyOther;
        for (std::uint64_t block = 0; block < 256; ++block) {
            everyOther.push_back(block * 8 * kib);
        }
        overwriteInPlace(onVolume("frag/c"), everyOther, 4 * kib);
        volume_->sync();
    }

    std::string tree_;
    std::unique_ptr<LoopBtrfs> volume_;
};

struct FreeableCase {
    const char* relative;   // on the volume
    std::uint64_t ownBytes; // bytes that only the measured files hold
    bool wholeFile;         // nothing is shared: the whole allocation is expected instead
};

void expectFreeable(const std::string& path, const FreeableCase& row) {
    SCOPED_TRACE(path);
    Measured m = measure(path);
    EXPECT_EQ(m.warnings, std::vector<std::string>{});
    EXPECT_EQ(m.footprint.allocatedBytes, peerAllocatedBytes(path));
    EXPECT_EQ(m.freeable, filefragPeer(path).unsharedBytes);
    EXPECT_EQ(m.freeable, row.wholeFile ? m.footprint.allocatedBytes : row.ownBytes);
}

TEST_F(ReflinkVolume, SharingIsAskedAgainWhenADeviceNumberComesBack) {
    // Device numbers of unmounted file systems are handed out again. An answer remembered for
    // a tmpfs must not be given to the btrfs that later gets the same number. This test comes
    // first in the file so that no earlier measurement has already remembered that number.
    const std::uint64_t number = volume_->device();
    volume_.reset();
    std::string whyNot;
    std::vector<std::unique_ptr<ScopedTmpfs>> standIns;
    while (standIns.size() < 4 && (standIns.empty() || standIns.back()->device() != number)) {
        standIns.push_back(
            ScopedTmpfs::mount(tree_ + "/tmpfs" + std::to_string(standIns.size()), whyNot));
        if (!standIns.back()) {
            GTEST_SKIP() << whyNot;
        }
    }
    if (standIns.back()->device() != number) {
        GTEST_SKIP() << "No tmpfs was given the unmounted volume's device number, so no stale "
                        "answer can be provoked here.";
    }
    std::string onTmpfs = standIns.back()->path() + "/files";
    makeDirs(onTmpfs);
    writeFilledFile(onTmpfs + "/x", 64 * kib);
    Measured before = measure(onTmpfs);
    ASSERT_GT(before.footprint.allocatedBytes, 0U);
    ASSERT_EQ(before.freeable, before.footprint.allocatedBytes);
    standIns.clear();

    volume_ = LoopBtrfs::mount(tree_ + "/again", whyNot);
    if (!volume_) {
        GTEST_SKIP() << whyNot;
    }
    if (volume_->device() != number) {
        GTEST_SKIP() << "The second btrfs was given another device number than the tmpfs had, "
                        "so no stale answer can be provoked here.";
    }
    makeClonedFiles();
    // The mount point first: its parent cannot speak for the volume, so only the files'
    // own directories can replace the tmpfs's answer.
    const FreeableCase rows[] = {
        {"", blocksOf(lstatOrThrow(onVolume("plain/p"))), false},
        {"pair", 0, false},
    };
    for (const FreeableCase& row : rows) {
        expectFreeable(onVolume(row.relative), row);
    }
}

TEST_F(ReflinkVolume, SharedExtentsAreNeverPromisedAsFreeable) {
    makeClonedFiles();
    const std::uint64_t plain = blocksOf(lstatOrThrow(onVolume("plain/p")));
    {
        SCOPED_TRACE("right after cp --reflink=always");
        // Removing both copies would free their blocks, but Linux names no clone family to
        // prove the set is complete, so nothing shared is promised. The volume is measured at
        // its mount point first: that walk starts from a directory on another file system, and
        // no earlier measurement of the volume may have answered for it.
        const FreeableCase rows[] = {
            {"", plain, false},       {"pair", 0, false}, {"pair/a", 0, false},
            {"pair/b", 0, false},     {"frag", 0, false}, {"frag/d", 0, false},
            {"plain/p", plain, true},
        };
        for (const FreeableCase& row : rows) {
            expectFreeable(onVolume(row.relative), row);
        }
        Measured pair = measure(onVolume("pair"));
        EXPECT_EQ(pair.footprint.allocatedBytes, blocksOf(lstatOrThrow(onVolume("pair/a"))) +
                                                     blocksOf(lstatOrThrow(onVolume("pair/b"))));
        EXPECT_EQ(pair.footprint.allocatedBytes, 2 * mib);
        EXPECT_EQ(pair.footprint.fileCount, 2U);
    }

    divergeCopies();
    ASSERT_GT(filefragPeer(onVolume("frag/c")).extents, 128U)
        << "the every-other-block rewrite was meant to split frag/c past one FIEMAP batch";
    {
        SCOPED_TRACE("after rewriting part of one copy in place");
        const FreeableCase rows[] = {
            {"", 64 * kib + 1 * mib + plain, false},
            {"pair", 64 * kib, false},
            {"pair/a", 64 * kib, false},
            {"pair/b", 0, false},
            {"frag/c", 1 * mib, false},
            {"frag/d", 0, false},
            {"frag", 1 * mib, false},
            {"plain/p", plain, true},
            {"plain", plain, true},
        };
        for (const FreeableCase& row : rows) {
            expectFreeable(onVolume(row.relative), row);
        }
    }
}

TEST_F(ReflinkVolume, CloneAttributesCountOnlyUnsharedBytesAndCheckIdentity) {
    makeClonedFiles();
    divergeCopies();

    auto read = [](const std::string& path, const std::optional<EntryIdentity>& claimed) {
        int dir = ::open(parentOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (dir < 0) {
            fail("open " + parentOf(path) + " failed");
        }
        struct stat st = lstatOrThrow(path);
        std::string name = nameOf(path);
        try {
            auto sample = readCloneAttributes(dir, name.c_str(), path,
                                              claimed.value_or(EntryIdentity::of(st)), st);
            ::close(dir);
            return sample;
        } catch (...) {
            ::close(dir);
            throw;
        }
    };

    const FreeableCase rows[] = {
        {"pair/a", 64 * kib, false},
        {"pair/b", 0, false},
        {"frag/c", 1 * mib, false},
        {"plain/p", 0, true},
    };
    for (const FreeableCase& row : rows) {
        std::string path = onVolume(row.relative);
        SCOPED_TRACE(path);
        struct stat st = lstatOrThrow(path);
        std::optional<FileSample> sample = read(path, std::nullopt);
        ASSERT_TRUE(sample.has_value());
        EXPECT_EQ(sample->device, static_cast<std::uint64_t>(st.st_dev));
        EXPECT_EQ(sample->inode, static_cast<std::uint64_t>(st.st_ino));
        EXPECT_EQ(sample->allocatedBytes, blocksOf(st));
        EXPECT_LE(sample->privateBytes, sample->allocatedBytes);
        EXPECT_EQ(sample->privateBytes, filefragPeer(path).unsharedBytes);
        EXPECT_EQ(sample->privateBytes, row.wholeFile ? sample->allocatedBytes : row.ownBytes);
        // btrfs keeps no clone family, so no file may be grouped with others.
        EXPECT_FALSE(sample->cloneID.has_value());
        EXPECT_EQ(sample->cloneReferences, 1U);
    }

    std::string path = onVolume("pair/a");
    EntryIdentity real = EntryIdentity::of(lstatOrThrow(path));
    struct Mismatch {
        const char* label;
        EntryIdentity claimed;
    };
    const Mismatch mismatches[] = {
        {"another inode", {real.device, real.inode + 1}},
        {"another device", {real.device + 1, real.inode}},
    };
    for (const Mismatch& row : mismatches) {
        SCOPED_TRACE(row.label);
        try {
            read(path, row.claimed);
            ADD_FAILURE() << "a file read under the wrong identity was accepted";
        } catch (const CleanerError& error) {
            EXPECT_EQ(error.kind(), CleanerError::Kind::safetyViolation);
            EXPECT_EQ(error.message(), "Entry changed during measurement: " + path);
        }
    }

    // Gone between the listing and the read: no sample rather than an error.
    int dir = ::open(onVolume("pair").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(dir, 0);
    struct stat st = lstatOrThrow(onVolume("pair/b"));
    ASSERT_EQ(::unlink(onVolume("pair/b").c_str()), 0);
    EXPECT_FALSE(
        readCloneAttributes(dir, "b", onVolume("pair/b"), EntryIdentity::of(st), st).has_value());
    ::close(dir);
}

// Files on the fixture's own file system around the mount, one of them sorted after it so a
// walk that stopped at the mount would miss it.
void makeSurroundings(const std::string& tree) {
    makeDirs(tree + "/docs");
    makeDirs(tree + "/zeta");
    makeDirs(tree + "/deep/er");
    writeFilledFile(tree + "/docs/note.txt", 8 * kib);
    writeFilledFile(tree + "/top.bin", 12 * kib);
    writeFilledFile(tree + "/zeta/after.bin", 20 * kib);
    writeFilledFile(tree + "/deep/er/beside.bin", 4 * kib);
}

struct MountCase {
    const char* label;
    const char* mountAt;  // relative to the tree
    const char* measured; // relative to the tree, "" for the tree itself
    bool crossesMount;    // the mount lies strictly inside what is measured
};

void PrintTo(const MountCase& row, std::ostream* out) {
    *out << row.label;
}

class ReflinkMountedTree : public ReflinkVolume, public ::testing::WithParamInterface<MountCase> {
protected:
    std::string mountRelative() const override { return GetParam().mountAt; }
};

TEST_P(ReflinkMountedTree, MeasuringStopsAtTheMountAndSaysSo) {
    const MountCase& row = GetParam();
    makeSurroundings(tree_);
    makeClonedFiles();
    std::string measured = *row.measured ? tree_ + "/" + row.measured : tree_;
    ASSERT_GT(peerAllocatedBytes(volume_->path()), 0U);

    Measured m = measure(measured);
    if (row.crossesMount) {
        EXPECT_EQ(m.warnings,
                  std::vector<std::string>{"Skipped mounted filesystem: " + volume_->path()});
        EXPECT_EQ(m.footprint.allocatedBytes, peerAllocatedBytesXdev(measured));
        EXPECT_EQ(m.footprint.allocatedBytes + peerAllocatedBytes(volume_->path()),
                  peerAllocatedBytes(measured));
        EXPECT_EQ(m.footprint.fileCount, peerFileCountXdev(measured));
        // Nothing on the fixture's file system is shared, and nothing of the volume may leak
        // into what is promised.
        EXPECT_EQ(m.freeable, m.footprint.allocatedBytes);
    } else {
        EXPECT_EQ(m.warnings, std::vector<std::string>{});
        EXPECT_EQ(m.footprint.allocatedBytes, peerAllocatedBytes(measured));
        EXPECT_EQ(m.footprint.fileCount, 5U);
        EXPECT_EQ(m.freeable, filefragPeer(measured).unsharedBytes);
        EXPECT_EQ(m.freeable, blocksOf(lstatOrThrow(onVolume("plain/p"))));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Reflink, ReflinkMountedTree,
    ::testing::Values(MountCase{"MountAtTop", "vol", "", true},
                      MountCase{"MountTwoLevelsDown", "deep/er/vol", "", true},
                      MountCase{"MeasuredFromTheMountsParent", "deep/er/vol", "deep/er", true},
                      MountCase{"MeasuredAtTheMountPoint", "vol", "vol", false}),
    [](const ::testing::TestParamInfo<MountCase>& info) { return info.param.label; });

struct RemovalCase {
    const char* label;
    const char* target;      // relative to the tree, "" for the tree itself
    bool claimVolumeDevice;  // pass the volume's device instead of the fixture's
    const char* refusedPath; // relative to the tree
    bool removesNothing;     // the refusal comes before any entry is touched
};

void PrintTo(const RemovalCase& row, std::ostream* out) {
    *out << row.label;
}

class ReflinkRemoveTree : public ReflinkVolume,
                          public ::testing::WithParamInterface<RemovalCase> {};

TEST_P(ReflinkRemoveTree, RefusesToCrossOntoAnotherDevice) {
    const RemovalCase& row = GetParam();
    makeSurroundings(tree_);
    makeClonedFiles();
    std::string target = *row.target ? tree_ + "/" + row.target : tree_;
    std::uint64_t device = row.claimVolumeDevice
                               ? volume_->device()
                               : static_cast<std::uint64_t>(lstatOrThrow(tree_).st_dev);
    std::string volumeBefore = fileList(volume_->path());
    std::string treeBefore = fileList(tree_);
    ASSERT_NE(volumeBefore, "");

    RemovalOptions options;
    options.ownedRoot = fixtureRoot();
    try {
        removeTree(target, device, options);
        ADD_FAILURE() << "removeTree crossed onto another device";
    } catch (const CleanerError& error) {
        EXPECT_EQ(error.kind(), CleanerError::Kind::safetyViolation);
        EXPECT_EQ(error.message(),
                  "Refusing to cross mounted filesystem: " + tree_ + "/" + row.refusedPath);
    }
    EXPECT_TRUE(isMountPoint(volume_->path()));
    EXPECT_EQ(fileList(volume_->path()), volumeBefore);
    if (row.removesNothing) {
        EXPECT_EQ(fileList(tree_), treeBefore);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Reflink, ReflinkRemoveTree,
    ::testing::Values(RemovalCase{"TreeHoldingTheMount", "", false, "vol", false},
                      RemovalCase{"TheMountPointItself", "vol", false, "vol", true},
                      RemovalCase{"FileOnTheVolume", "vol/pair/a", false, "vol/pair/a", true},
                      RemovalCase{"FolderClaimedOnTheVolume", "docs", true, "docs", true}),
    [](const ::testing::TestParamInfo<RemovalCase>& info) { return info.param.label; });

} // namespace
} // namespace sd::test
