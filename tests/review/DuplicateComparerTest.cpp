#include "review/DuplicateComparer.h"

#include "Fixture.h"
#include "base/CleanerError.h"
#include "base/Stop.h"
#include "base/TestHooks.h"
#include "base/UniqueFd.h"
#include "core/ByteFormat.h"
#include "reclaim/VaultPolicy.h"
#include "reclaim/VaultTypes.h"
#include "review/ContentDigest.h"

#include <algorithm>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace sd {
namespace {

constexpr std::uint64_t mib = 1'048'576;

std::string randomBytes(std::uint64_t size, std::uint64_t seed) {
    std::mt19937_64 random(seed);
    std::string out(size, '\0');
    for (std::uint64_t i = 0; i < size; i += 8) {
        std::uint64_t word = random();
        for (std::uint64_t k = 0; k < 8 && i + k < size; ++k) {
            out[i + k] = static_cast<char>(word >> (8 * k));
        }
    }
    return out;
}

std::string flipped(std::string bytes, std::uint64_t at) {
    bytes[at] = static_cast<char>(~bytes[at]);
    return bytes;
}

void put(const std::string& path, const std::string& bytes) {
    test::makeDirs(path.substr(0, path.rfind('/')));
    test::writeFile(path, bytes);
}

struct stat lstatOf(const std::string& path) {
    struct stat st {};
    EXPECT_EQ(::lstat(path.c_str(), &st), 0) << path;
    return st;
}

DuplicateReport findDuplicates(const std::string& root, DuplicateOptions options = {}) {
    DuplicateComparer comparer;
    comparer.options = options;
    comparer.candidates = collectDuplicateCandidates({root, test::fixtureHome()}, options);
    return comparer.compare();
}

using Identity = std::pair<std::uint64_t, std::uint64_t>;
using IdentitySet = std::set<Identity>;

std::set<IdentitySet> groupsOf(const DuplicateReport& report) {
    std::set<IdentitySet> out;
    for (const DuplicateGroup& group : report.groups) {
        IdentitySet members;
        for (const DuplicateFile& file : group.files) {
            members.insert({file.device, file.inode});
            for (const std::string& other : file.sharedWith) {
                struct stat st = lstatOf(other);
                members.insert({st.st_dev, st.st_ino});
            }
        }
        out.insert(members);
    }
    return out;
}

// What jdupes finds under `root`, as sets of distinct files: hard links collapsed, groups of
// files under `minimum` bytes or of a single file left out.
std::set<IdentitySet> jdupesGroups(const std::string& root, std::uint64_t minimum) {
    test::CommandResult r = test::runShell("jdupes -r -q " + test::shellQuote(root));
    EXPECT_EQ(r.status, 0) << r.output;
    std::set<IdentitySet> out;
    IdentitySet group;
    std::uint64_t size = 0;
    auto close = [&] {
        if (group.size() >= 2 && size >= minimum) {
            out.insert(group);
        }
        group.clear();
    };
    std::istringstream lines(r.output);
    for (std::string line; std::getline(lines, line);) {
        if (line.empty()) {
            close();
            continue;
        }
        struct stat st = lstatOf(line);
        group.insert({st.st_dev, st.st_ino});
        size = static_cast<std::uint64_t>(st.st_size);
    }
    close();
    return out;
}

// Copies, decoys that agree in their first and last 64 KiB, hard links, files either side of
// 1 MiB, and names that differ only in Unicode form.
void mixedCorpus(const std::string& root) {
    const std::string copy = randomBytes(2 * mib + 123, 1);
    put(root + "/a/copy.bin", copy);
    put(root + "/b/copy.bin", copy);
    put(root + "/c/deep/er/copy (2).bin", copy);
    const std::string base = randomBytes(3 * mib, 2);
    put(root + "/decoy/base.bin", base);
    put(root + "/decoy/same.bin", base);
    put(root + "/decoy/middle-1.bin", flipped(base, 3 * mib / 2));
    put(root + "/decoy/middle-2.bin", flipped(base, 3 * mib / 2 + 1));
    const std::string head = randomBytes(3 * mib / 2, 3);
    put(root + "/head/h1", head);
    put(root + "/head/h2", flipped(head, 0));
    const std::string tail = randomBytes(3 * mib / 2 + 1, 4);
    put(root + "/tail/t1", tail);
    put(root + "/tail/t2", flipped(tail, tail.size() - 1));
    const std::string linked = randomBytes(5 * mib / 2, 5);
    put(root + "/links/orig.bin", linked);
    test::makeHardlink(root + "/links/orig.bin", root + "/links/hard.bin");
    put(root + "/links/other/copy.bin", linked);
    put(root + "/links/lonely.bin", randomBytes(9 * mib / 4, 6));
    test::makeHardlink(root + "/links/lonely.bin", root + "/links/lonely-link.bin");
    const std::string under = randomBytes(mib - 1, 7);
    put(root + "/edge/under-a", under);
    put(root + "/edge/under-b", under);
    const std::string at = randomBytes(mib, 8);
    put(root + "/edge/at-a", at);
    put(root + "/edge/at-b", at);
    const std::string small = randomBytes(10'000, 9);
    put(root + "/small/s1", small);
    put(root + "/small/s2", small);
    const std::string named = randomBytes(5 * mib / 4, 10);
    put(root + "/unicode/caf\xc3\xa9.bin", named);
    put(root + "/unicode/cafe\xcc\x81.bin", named);
}

// Many files of one size: five contents seen one to three times each, and for each a decoy
// changed at the front, the middle or the end. Half the decoys sort before their originals, so
// files read side by side are measured against a decoy as often as against a true copy.
void crowdCorpus(const std::string& root) {
    const std::uint64_t size = mib + 4096;
    for (int content = 0; content < 5; ++content) {
        const std::string folder = root + "/c" + std::to_string(content);
        const std::string bytes = randomBytes(size, 100 + content);
        for (int copy = 0; copy <= content % 3; ++copy) {
            put(folder + "/copy" + std::to_string(copy), bytes);
        }
        const std::uint64_t where[] = {100, size / 2, size - 100};
        put(content % 2 == 0 ? folder + "/0-decoy" : root + "/decoys/d" + std::to_string(content),
            flipped(bytes, where[content % 3]));
    }
}

struct PeerCase {
    const char* name;
    void (*build)(const std::string& root);
};

void PrintTo(const PeerCase& c, std::ostream* out) {
    *out << c.name;
}

class DuplicatesAgainstJdupes : public ::testing::TestWithParam<PeerCase> {};

TEST_P(DuplicatesAgainstJdupes, GroupsAreTheOnesJdupesFinds) {
    if (!test::haveTool("jdupes")) {
        GTEST_SKIP() << "jdupes is not installed (scripts/install-deps), so there is no peer.";
    }
    const std::string root = test::freshFolder(std::string("dups-") + GetParam().name);
    GetParam().build(root);
    ::sync();
    DuplicateReport report = findDuplicates(root);
    std::set<IdentitySet> expected = jdupesGroups(root, mib);
    ASSERT_FALSE(expected.empty());
    EXPECT_EQ(groupsOf(report), expected);
    EXPECT_FALSE(report.truncated);
    EXPECT_EQ(report.unconfirmedBytes, 0U);
    EXPECT_EQ(report.warnings, std::vector<std::string>{});
    for (size_t i = 1; i < report.groups.size(); ++i) {
        const DuplicateGroup& before = report.groups[i - 1];
        const DuplicateGroup& after = report.groups[i];
        EXPECT_TRUE(reclaimableBytes(before) > reclaimableBytes(after) ||
                    (reclaimableBytes(before) == reclaimableBytes(after) && before.id < after.id))
            << "groups out of order at " << i;
    }

    DuplicateOptions capped;
    capped.maximumGroups = 1;
    DuplicateReport top = findDuplicates(root, capped);
    ASSERT_EQ(top.groups.size(), 1U);
    EXPECT_EQ(top.groups[0].id, report.groups[0].id);
}

INSTANTIATE_TEST_SUITE_P(Corpora, DuplicatesAgainstJdupes,
                         ::testing::Values(PeerCase{"mixed", &mixedCorpus},
                                           PeerCase{"crowd", &crowdCorpus}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(DuplicateComparer, HardLinksCollapseAndShareTheirStorage) {
    const std::string root = test::freshFolder("dups-links");
    mixedCorpus(root);
    DuplicateReport report = findDuplicates(root);
    EXPECT_EQ(report.hardLinksIgnored, 2U); // hard.bin, lonely-link.bin
    EXPECT_EQ(report.cloneCopiesIgnored, 0U);
    for (const DuplicateGroup& group : report.groups) {
        for (const DuplicateFile& file : group.files) {
            EXPECT_EQ(file.path.find("lonely"), std::string::npos) << "a file and its link";
            if (file.path == root + "/links/orig.bin") {
                EXPECT_EQ(file.sharedWith, std::vector<std::string>{root + "/links/hard.bin"});
                EXPECT_EQ(duplicateFileNote(group, file, VaultPolicy(test::fixtureHome())),
                          file.path == group.suggestedKeep ? duplicateText::keptCopy
                                                           : duplicateText::sharedCopy);
            }
        }
        for (const DuplicateFile* copy : removableCopies(group)) {
            EXPECT_TRUE(copy->sharedWith.empty());
            EXPECT_NE(copy->path, group.suggestedKeep);
        }
    }
}

TEST(DuplicateComparer, DigestsAreWhatSha256sumReads) {
    const std::string root = test::freshFolder("dups-digest");
    const std::uint64_t sizes[] = {100'000, 131'072, 131'073, 3 * mib + 7};
    for (std::uint64_t size : sizes) {
        SCOPED_TRACE(size);
        const std::string path = root + "/f" + std::to_string(size);
        put(path, randomBytes(size, size));
        UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
        ASSERT_TRUE(fd);
        std::vector<unsigned char> buffer(contentChunkBytes);
        Sha256 sha;
        FullDigest full =
            fullDigest(fd.get(), size, std::chrono::steady_clock::now() + std::chrono::minutes(1),
                       {}, buffer, sha);
        ASSERT_TRUE(full.digest);
        test::CommandResult peer = test::runShell("sha256sum " + test::shellQuote(path));
        EXPECT_EQ(hexDigest(*full.digest), peer.output.substr(0, 64));

        // The sample: the size as eight little-endian bytes, then head and tail (or all).
        std::optional<ContentDigest> sample = sampleDigest(fd.get(), size, 65'536, buffer, sha);
        ASSERT_TRUE(sample);
        test::CommandResult samplePeer =
            test::runShell("python3 -c 'import hashlib,sys,struct\n"
                           "d=open(sys.argv[1],\"rb\").read(); n=len(d)\n"
                           "body=d if n<=131072 else d[:65536]+d[-65536:]\n"
                           "print(hashlib.sha256(struct.pack(\"<Q\",n)+body).hexdigest())' " +
                           test::shellQuote(path));
        EXPECT_EQ(hexDigest(*sample) + "\n", samplePeer.output);
    }
}

// A file that changes after the walk, or after it was hashed, is never part of a group.
TEST(DuplicateComparer, AFileChangedBeforeTheReportIsInNoGroup) {
    enum class When { beforeComparing, afterHashing };
    for (When when : {When::beforeComparing, When::afterHashing}) {
        SCOPED_TRACE(when == When::beforeComparing ? "before comparing" : "after hashing");
        if (when == When::afterHashing && !testhooks::enabled) {
            GTEST_SKIP() << "This build has no test hooks (configure with the debug preset).";
        }
        const std::string root = test::freshFolder("dups-changed");
        const std::string bytes = randomBytes(2 * mib, 42);
        for (const char* name : {"one", "two", "three"}) {
            put(root + "/" + name, bytes);
        }
        put(root + "/pair-a", bytes.substr(0, mib + 1));
        put(root + "/pair-b", bytes.substr(0, mib + 1));
        // Rewrites one byte in place: same size, same inode, new change time.
        auto touch = [&] {
            for (const char* name : {"/two", "/pair-b"}) {
                int fd = ::open((root + name).c_str(), O_WRONLY | O_CLOEXEC);
                ASSERT_GE(fd, 0);
                ASSERT_EQ(::pwrite(fd, "x", 1, 4096), 1);
                ::close(fd);
            }
        };
        DuplicateComparer comparer;
        comparer.candidates = collectDuplicateCandidates({root, test::fixtureHome()}, {});
        struct HookGuard {
            ~HookGuard() { testhooks::setAfterHashing({}); }
        } guard;
        if (when == When::beforeComparing) {
            touch();
        } else {
            testhooks::setAfterHashing(touch);
        }
        DuplicateReport report = comparer.compare();
        ASSERT_EQ(report.groups.size(), 1U);
        std::vector<std::string> paths;
        for (const DuplicateFile& file : report.groups[0].files) {
            paths.push_back(file.path);
        }
        EXPECT_EQ(paths, (std::vector<std::string>{root + "/one", root + "/three"}));
    }
}

TEST(DuplicateComparer, WithNoTimeToCompareEveryPairedByteIsUnconfirmed) {
    const std::string root = test::freshFolder("dups-budget");
    const std::string a = randomBytes(2 * mib, 1);
    put(root + "/a1", a);
    put(root + "/a2", a);
    test::makeHardlink(root + "/a1", root + "/a1-link");
    const std::string b = randomBytes(3 * mib, 2);
    put(root + "/b1", b);
    put(root + "/b2", flipped(b, 5));
    put(root + "/lonely", randomBytes(4 * mib, 3));
    ::sync();
    std::uint64_t paired = 0;
    for (const char* name : {"/a1", "/a2", "/b1", "/b2"}) {
        paired += static_cast<std::uint64_t>(lstatOf(root + name).st_blocks) * 512;
    }

    DuplicateOptions options;
    options.compareBudget = 0;
    DuplicateReport report = findDuplicates(root, options);
    EXPECT_TRUE(report.groups.empty());
    EXPECT_TRUE(report.truncated);
    EXPECT_EQ(report.unconfirmedBytes, paired);
    EXPECT_EQ(report.comparedFiles, 0U);
    std::vector<std::string> notes = duplicateReportNotes(report);
    ASSERT_EQ(notes.size(), 2U);
    EXPECT_EQ(notes[0], "Stopped at the time limit — these groups are confirmed.");
    EXPECT_EQ(notes[1], "Up to " + formatBytes(paired) +
                            " of possible copies couldn’t be compared byte for byte in time, so "
                            "they aren’t listed.");

    CoreCancellationState stop;
    stop.cancel();
    DuplicateComparer cancelled;
    cancelled.candidates = collectDuplicateCandidates({root, test::fixtureHome()}, {});
    cancelled.stop = stop.token();
    try {
        cancelled.compare();
        ADD_FAILURE() << "a stopped comparison returned a report";
    } catch (const CleanerError& error) {
        EXPECT_EQ(error.message(), "Operation cancelled");
    }
}

// Every order of the same copies keeps the same one, and names the rule that decided it.
TEST(DuplicateComparer, SuggestsTheOldestCopyInTheOwnFoldersWhateverTheOrder) {
    const std::string h = "/home/u";
    struct File {
        std::string path;
        double born;
    };
    struct Case {
        const char* label;
        std::vector<File> files;
        std::string keep;
        KeepRule rule;
    };
    const double lastYear = 1.70e9;
    const double earlier = 1.60e9;
    const Case cases[] = {
        {"own folder beats older copies elsewhere",
         {{h + "/Downloads/a.bin", earlier},
          {h + "/Documents/a.bin", lastYear},
          {h + "/Downloads/b.bin", earlier}},
         h + "/Documents/a.bin",
         KeepRule::ownFolders},
        {"own folders compare without case",
         {{h + "/x/a.bin", earlier}, {h + "/MUSIC/a.bin", lastYear}},
         h + "/MUSIC/a.bin",
         KeepRule::ownFolders},
        {"a prefix of a folder's name is not that folder",
         {{h + "/DocumentsOld/a.bin", lastYear}, {h + "/x/a.bin", earlier}},
         h + "/x/a.bin",
         KeepRule::oldest},
        {"older creation date",
         {{h + "/Pictures/new.bin", lastYear}, {h + "/Desktop/old.bin", earlier}},
         h + "/Desktop/old.bin",
         KeepRule::oldest},
        {"oldest of the own folders, the rest elsewhere",
         {{h + "/Pictures/b.bin", lastYear},
          {h + "/Pictures/a.bin", earlier + 1},
          {h + "/Downloads/a.bin", earlier}},
         h + "/Pictures/a.bin",
         KeepRule::oldest},
        {"dates a fraction of a second apart",
         {{h + "/x/a.bin", earlier + 0.5e-6}, {h + "/x/b.bin", earlier}},
         h + "/x/b.bin",
         KeepRule::oldest},
        {"shorter path on equal dates",
         {{h + "/longer/x.bin", earlier}, {h + "/x.bin", earlier}},
         h + "/x.bin",
         KeepRule::shortestPath},
        {"first in order on equal lengths",
         {{h + "/b/x.bin", earlier}, {h + "/a/x.bin", earlier}, {h + "/c/x.bin", earlier}},
         h + "/a/x.bin",
         KeepRule::firstByName},
        // Byte order, not the locale's: "é" (0xC3 0xA9) sorts after every ASCII letter, "B"
        // before "a".
        {"byte order of the paths",
         {{h + "/Pictures/\xC3\xA9t\xC3\xA9.jpg", earlier},
          {h + "/Pictures/Bbete.jpg", earlier},
          {h + "/Pictures/abete.jpg", earlier}},
         h + "/Pictures/Bbete.jpg",
         KeepRule::firstByName},
    };
    for (const Case& c : cases) {
        std::vector<DuplicateFile> files;
        for (const File& f : c.files) {
            DuplicateFile file;
            file.path = f.path;
            file.born = Timestamp::fromSeconds(f.born);
            files.push_back(file);
        }
        std::sort(files.begin(), files.end(),
                  [](const DuplicateFile& a, const DuplicateFile& b) { return a.path < b.path; });
        do {
            KeepChoice choice = chooseKeep(files, h);
            EXPECT_EQ(choice.path, c.keep) << c.label << ", first " << files.front().path;
            EXPECT_EQ(choice.rule, c.rule) << c.label << ", first " << files.front().path;
        } while (std::next_permutation(
            files.begin(), files.end(),
            [](const DuplicateFile& a, const DuplicateFile& b) { return a.path < b.path; }));
    }
}

// Copies whose dates tie, made in reverse name order so that the disk's order, the walk's and
// the readers' all differ from the names': whatever order the comparer is handed them in and
// however many files it reads at once, it keeps the same copy and says why.
TEST(DuplicateComparer, TiedCopiesKeepTheSameCopyWhateverTheOrderAndWorkers) {
    const std::string h = test::freshFolder("dups-tie");
    const std::string bytes = randomBytes(mib + 4096, 77);
    const std::vector<std::string> names{"Pictures/2019/e.jpg", "Pictures/2019/d.jpg",
                                         "Pictures/backup/c.jpg", "Pictures/2019/b.jpg",
                                         "Pictures/copy/a.jpg"};
    for (const std::string& name : names) {
        put(h + "/" + name, bytes);
    }
    put(h + "/Pictures/elsewhere/longest-of-all.jpg", bytes);

    DuplicateOptions options;
    DuplicateCandidates walked = collectDuplicateCandidates({h, h}, options);
    ASSERT_EQ(walked.walk.candidates.size(), names.size() + 1);
    const Timestamp tie{1'600'000'000, 0};
    for (ReviewCandidate& c : walked.walk.candidates) {
        c.born = tie;
    }
    std::vector<std::vector<ReviewCandidate>> orders{walked.walk.candidates};
    orders.emplace_back(walked.walk.candidates.rbegin(), walked.walk.candidates.rend());
    std::vector<ReviewCandidate> shuffled = walked.walk.candidates;
    std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937_64(5));
    orders.push_back(shuffled);

    for (size_t o = 0; o < orders.size(); ++o) {
        for (unsigned threads : {1U, 2U, 5U}) {
            SCOPED_TRACE("order " + std::to_string(o) + ", " + std::to_string(threads) +
                         " workers");
            DuplicateComparer comparer;
            comparer.options = options;
            comparer.options.hashThreads = threads;
            comparer.candidates = walked;
            comparer.candidates.walk.candidates = orders[o];
            DuplicateReport report = comparer.compare();
            ASSERT_EQ(report.groups.size(), 1U);
            const DuplicateGroup& group = report.groups[0];
            EXPECT_EQ(group.files.size(), names.size() + 1);
            // Equally old and equally long: the path that sorts first.
            EXPECT_EQ(group.suggestedKeep, h + "/Pictures/2019/b.jpg");
            EXPECT_EQ(group.keepRule, KeepRule::firstByName);
        }
    }
}

// A group whose every copy stays where it is says so once; what it holds is for the person to
// review, not to give back.
TEST(DuplicateComparer, GroupsInFoldersThatNeverMoveAreForReview) {
    const std::string h = "/home/u";
    auto groupOf = [&](std::vector<std::string> paths) {
        DuplicateGroup group;
        for (const std::string& path : paths) {
            DuplicateFile file;
            file.path = path;
            file.physicalBytes = 1000;
            group.files.push_back(file);
        }
        group.suggestedKeep = group.files.front().path;
        return group;
    };
    const std::map<std::string, VaultDenyReason> denied{
        {h + "/Pictures/a.jpg", VaultDenyReason::protectedUserDir},
        {h + "/Pictures/b.jpg", VaultDenyReason::protectedUserDir},
        {h + "/Dropbox/a.jpg", VaultDenyReason::cloudStorage},
        {h + "/site/a.jpg", VaultDenyReason::gitWorkingTree},
    };
    StayVerdict verdictOf = [&](const std::string& path) -> std::optional<VaultDenyReason> {
        auto found = denied.find(path);
        return found == denied.end() ? std::nullopt : std::optional(found->second);
    };
    struct Case {
        const char* label;
        std::vector<std::string> paths;
        bool stays;
        std::uint64_t toReview;
    };
    const Case cases[] = {
        {"all in the person's folders", {h + "/Pictures/a.jpg", h + "/Pictures/b.jpg"}, true, 1000},
        {"own and cloud folders", {h + "/Pictures/a.jpg", h + "/Dropbox/a.jpg"}, true, 1000},
        {"one copy elsewhere", {h + "/Pictures/a.jpg", h + "/x/a.jpg"}, false, 0},
        {"kept elsewhere, the copy in Pictures to review",
         {h + "/x/a.jpg", h + "/Pictures/a.jpg"},
         false,
         1000},
        {"a Git project is not a folder that never moves",
         {h + "/Pictures/a.jpg", h + "/site/a.jpg"},
         false,
         0},
    };
    for (const Case& c : cases) {
        DuplicateGroup group = groupOf(c.paths);
        EXPECT_EQ(everyCopyStays(group, verdictOf), c.stays) << c.label;
        EXPECT_EQ(bytesToReview(group, verdictOf), c.toReview) << c.label;
    }
    EXPECT_EQ(duplicateTotalsText(2, 0, 3'000'000),
              "2 groups · 3.0 MB duplicated in your own folders, for you to review");
    EXPECT_EQ(duplicateTotalsText(1, 2'000'000, 0), "1 group · 2.0 MB could be given back");
    EXPECT_EQ(duplicateTotalsText(3, 2'000'000, 3'000'000),
              "3 groups · 2.0 MB could be given back, and 3.0 MB more is duplicated in your own "
              "folders, for you to review");
    EXPECT_EQ(duplicateTotalsText(1, 0, 0), "1 group · 0 bytes could be given back");
}

} // namespace
} // namespace sd
