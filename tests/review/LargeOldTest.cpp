#include "Fixture.h"
#include "LoopVolume.h"
#include "base/PercentEncoding.h"
#include "platform/Dirs.h"
#include "platform/LastOpened.h"
#include "reclaim/VaultPolicy.h"
#include "review/LargeOldFinder.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <map>
#include <sys/stat.h>
#include <sys/statvfs.h>

namespace sd {
namespace {

constexpr double day = 86'400;
constexpr std::uint64_t mib = 1'048'576;

double nowSeconds() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::string isoDate(double seconds) {
    auto whole = static_cast<std::time_t>(seconds);
    std::tm utc{};
    ::gmtime_r(&whole, &utc);
    char text[40];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S.123456Z", &utc);
    return text;
}

// Sets access and modification times; the change time becomes now, as it always does.
void setTimes(const std::string& path, double accessed, double modified) {
    auto asTimespec = [](double t) {
        return timespec{static_cast<time_t>(t), static_cast<long>((t - std::floor(t)) * 1e9)};
    };
    const timespec times[2] = {asTimespec(accessed), asTimespec(modified)};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
}

struct Visit {
    std::string path;
    double visited;
};

// The desktop's recently-used list as GLib writes it.
void writeRecentlyUsed(const std::vector<Visit>& visits) {
    std::string xml =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<xbel version=\"1.0\" "
        "xmlns:bookmark=\"http://www.freedesktop.org/standards/desktop-bookmarks\">\n";
    for (const Visit& v : visits) {
        std::string href = "file://" + percentEncodePath(v.path);
        std::string escaped;
        for (char c : href) {
            escaped += c == '&' ? std::string("&amp;") : std::string(1, c);
        }
        xml += "  <bookmark href=\"" + escaped + "\" added=\"" + isoDate(v.visited - 30 * day) +
               "\" modified=\"" + isoDate(v.visited - 30 * day) + "\" visited=\"" +
               isoDate(v.visited - 30 * day) +
               "\">\n    <info><metadata owner=\"http://freedesktop.org\">"
               "<bookmark:applications><bookmark:application name=\"Videos\" exec=\"&apos;totem "
               "%u&apos;\" modified=\"" +
               isoDate(v.visited) +
               "\" count=\"2\"/></bookmark:applications></metadata></info>\n  </bookmark>\n";
    }
    xml += "</xbel>\n";
    std::string folder = platform::dataHome();
    test::makeDirs(folder);
    test::writeFile(folder + "/recently-used.xbel", xml);
}

LargeOldFinder finderFor(const std::string& home, double now) {
    LargeOldFinder finder = LargeOldFinder::standard(home);
    finder.options.now = std::chrono::system_clock::time_point(
        std::chrono::duration_cast<std::chrono::system_clock::duration>(
            std::chrono::duration<double>(now)));
    return finder;
}

// A file created today cannot be given an old creation date, so the search is run as if it
// were 500 days from now: every file here was born 500 days before that "now".
TEST(LargeOld, ListsBigFilesLastOpenedOverAYearAgo) {
    const std::string home = test::freshFolder("large-old");
    const double today = nowSeconds();
    const double now = today + 500 * day;
    struct Row {
        const char* file;
        std::uint64_t bytes;
        double openedDaysAgo; // in recently-used.xbel; 0 for none
        double modifiedDaysAgo;
        bool listed;
        EvidenceKind kind;
    };
    const std::uint64_t fifty = 52'428'800;
    const Row rows[] = {
        {"Videos/opened 400 days ago & more.mkv", fifty, 400, 600, true, EvidenceKind::opened},
        {"Videos/opened last week.mkv", fifty, 7, 600, false, EvidenceKind::opened},
        {"Videos/one byte short.mkv", fifty - 1, 400, 600, false, EvidenceKind::opened},
        {"Videos/changed last month.mkv", fifty, 400, 30, false, EvidenceKind::opened},
        {"Videos/never recorded.mkv", fifty, 0, 600, true, EvidenceKind::fileTimesOnly},
    };
    std::vector<Visit> visits;
    for (const Row& row : rows) {
        std::string path = home + "/" + row.file;
        test::makeDirs(path.substr(0, path.rfind('/')));
        test::writeFilledFile(path, row.bytes);
        setTimes(path, now - 600 * day, now - row.modifiedDaysAgo * day);
        if (row.openedDaysAgo > 0) {
            visits.push_back({path, now - row.openedDaysAgo * day});
        }
    }
    writeRecentlyUsed(visits);

    LargeOldReport report = finderFor(home, now).find();
    EXPECT_FALSE(report.truncated);
    EXPECT_DOUBLE_EQ(report.cutoff, now - 365 * day);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.file);
        std::string path = home + "/" + row.file;
        auto item = std::find_if(report.items.begin(), report.items.end(),
                                 [&](const LargeOldItem& i) { return i.path == path; });
        ASSERT_EQ(item != report.items.end(), row.listed);
        if (!row.listed) {
            continue;
        }
        EXPECT_EQ(item->evidence.kind, row.kind);
        EXPECT_EQ(item->kind, LargeOldKind::video);
        struct stat st {};
        ASSERT_EQ(::lstat(path.c_str(), &st), 0);
        EXPECT_EQ(item->physicalBytes, static_cast<std::uint64_t>(st.st_blocks) * 512);
        EXPECT_EQ(item->inode, static_cast<std::uint64_t>(st.st_ino));
        if (row.kind == EvidenceKind::opened) {
            EXPECT_NEAR(item->evidence.date, now - row.openedDaysAgo * day, 1.0);
        } else {
            // The file's own times: the later of its modification and creation.
            struct statx times {};
            ASSERT_EQ(::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW,
                              STATX_MTIME | STATX_BTIME, &times),
                      0);
            auto seconds = [](const statx_timestamp& t) {
                return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
            };
            double expected = seconds(times.stx_mtime);
            if ((times.stx_mask & STATX_BTIME) != 0) {
                expected = std::max(expected, seconds(times.stx_btime));
            }
            EXPECT_DOUBLE_EQ(item->evidence.date, expected);
        }
    }
    std::vector<std::string> notes = largeOldReportNotes(report, VaultPolicy(home));
    ASSERT_EQ(notes.size(), 1U);
    EXPECT_EQ(notes[0], "1 item has its date from the file system, because your desktop's record "
                        "of opened files had no record. Linux only records the first read after "
                        "each change, so treat it as approximate.");
}

// Without a recently-used record, an access time newer than both change times is a read after
// the last change, unless the mount never records reads.
TEST(LargeOld, AccessTimesCountOnlyWhereTheMountKeepsThem) {
    struct Row {
        const char* options;
        EvidenceKind expected;
    };
    const Row rows[] = {{"size=16m,relatime", EvidenceKind::opened},
                        {"size=16m,noatime", EvidenceKind::fileTimesOnly}};
    const double today = nowSeconds();
    const double now = today + 500 * day;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.options);
        const std::string home = test::freshFolder("large-old-atime");
        std::string whyNot;
        auto mount = test::ScopedTmpfs::mount(home + "/mnt", whyNot, row.options);
        if (!mount) {
            GTEST_SKIP() << whyNot;
        }
        writeRecentlyUsed({});
        const std::string read = mount->path() + "/read a year ago.iso";
        const std::string recent = mount->path() + "/read last week.iso";
        for (const std::string& path : {read, recent}) {
            test::writeFilledFile(path, 2 * mib);
        }
        // Access times after today's change time: only a real read could have put them there.
        setTimes(read, now - 400 * day, today - 10 * day);
        setTimes(recent, now - 7 * day, today - 10 * day);

        LargeOldFinder finder = finderFor(home, now);
        finder.scope = {{mount->path(), RootRequirement::required}};
        finder.options.minimumBytes = 2 * mib;
        LargeOldReport report = finder.find();
        std::vector<std::string> listed;
        for (const LargeOldItem& item : report.items) {
            listed.push_back(item.path);
            EXPECT_EQ(item.evidence.kind, row.expected) << item.path;
            EXPECT_EQ(item.kind, LargeOldKind::diskImage);
        }
        std::vector<std::string> expected{read};
        if (row.expected == EvidenceKind::fileTimesOnly) {
            expected.push_back(recent); // its read was never recorded
            std::sort(expected.begin(), expected.end());
            std::sort(listed.begin(), listed.end());
        }
        EXPECT_EQ(listed, expected);
    }
}

// Each row says which date its verdict rests on and where that date came from: the record's
// last open or addition when that is the latest thing known, else the file's own latest date.
TEST(LargeOld, EvidenceNamesTheDateItRestsOn) {
    const std::string home = test::freshFolder("large-old-source");
    const double today = nowSeconds();
    const double now = today + 500 * day;
    struct Row {
        const char* file;
        platform::LastOpenedRecord record;
        double modified; // later than the file's creation today when in the future
        EvidenceKind kind;
        DateSource source;
        const char* then;
    };
    const double future = today + 10 * day;
    const double past = today - 10 * day;
    const Row rows[] = {
        {"opened.iso",
         {now - 400 * day, std::nullopt, true},
         future,
         EvidenceKind::opened,
         DateSource::opened,
         "opened then"},
        {"opened before its change.iso",
         {now - 700 * day, std::nullopt, true},
         future,
         EvidenceKind::opened,
         DateSource::modified,
         "modified then"},
        {"added.iso",
         {std::nullopt, now - 400 * day, true},
         past,
         EvidenceKind::notOpenedSince,
         DateSource::added,
         "added then"},
        {"indexed, changed later.iso",
         {std::nullopt, now - 700 * day, true},
         future,
         EvidenceKind::notOpenedSince,
         DateSource::modified,
         "modified then"},
        {"created after its change.iso",
         {},
         past,
         EvidenceKind::fileTimesOnly,
         DateSource::added,
         "added then"},
        {"changed after its creation.iso",
         {},
         future,
         EvidenceKind::fileTimesOnly,
         DateSource::modified,
         "modified then"},
    };
    std::map<std::string, platform::LastOpenedRecord> records;
    for (const Row& row : rows) {
        std::string path = home + "/Disks/" + row.file;
        test::makeDirs(home + "/Disks");
        test::writeFilledFile(path, 2 * mib);
        setTimes(path, row.modified, row.modified);
        records[path] = row.record;
    }
    LargeOldFinder finder = finderFor(home, now);
    finder.options.minimumBytes = 2 * mib;
    finder.reader = [&](const std::string& path, const platform::FileTimes&) {
        return records.at(path);
    };
    LargeOldReport report = finder.find();
    ASSERT_EQ(report.items.size(), std::size(rows));
    for (const Row& row : rows) {
        SCOPED_TRACE(row.file);
        auto item =
            std::find_if(report.items.begin(), report.items.end(), [&](const LargeOldItem& i) {
                return i.path == home + "/Disks/" + row.file;
            });
        ASSERT_NE(item, report.items.end());
        EXPECT_EQ(item->evidence.kind, row.kind);
        EXPECT_EQ(item->evidence.source, row.source);
        if (row.source == DateSource::opened) {
            EXPECT_DOUBLE_EQ(item->evidence.date, *row.record.lastOpened);
        } else if (row.source == DateSource::added && row.record.dateAdded) {
            EXPECT_DOUBLE_EQ(item->evidence.date, *row.record.dateAdded);
        } else if (row.source == DateSource::modified) {
            EXPECT_NEAR(item->evidence.date, row.modified, 1e-6);
        } else {
            EXPECT_GT(item->evidence.date, row.modified); // created today, after its change
        }
        std::string text = evidenceText(item->evidence);
        EXPECT_TRUE(text.starts_with("Not opened since ")) << text;
        EXPECT_TRUE(text.ends_with(std::string(" · ") + row.then)) << text;
    }
}

TEST(LargeOld, PackagesCountWholeAndTheLargestAreKept) {
    const std::string home = test::freshFolder("large-old-cap");
    const double now = nowSeconds() + 500 * day;
    writeRecentlyUsed({});
    test::makeDirs(home + "/Disks/Old.sparsebundle/bands");
    test::writeFilledFile(home + "/Disks/Old.sparsebundle/bands/0", 2 * mib);
    test::writeFilledFile(home + "/Disks/Old.sparsebundle/bands/1", 2 * mib);
    test::writeFilledFile(home + "/Disks/b.zip", 3 * mib);
    test::writeFilledFile(home + "/Disks/c.bin", 2 * mib);
    test::makeDirs(home + "/.tool");
    test::writeFilledFile(home + "/.tool/hidden.iso", 8 * mib);

    LargeOldFinder finder = finderFor(home, now);
    finder.options.minimumBytes = 2 * mib;
    finder.options.maximumItems = 2;
    LargeOldReport report = finder.find();
    ASSERT_EQ(report.items.size(), 2U);
    EXPECT_EQ(report.items[0].path, home + "/Disks/Old.sparsebundle");
    EXPECT_TRUE(report.items[0].isPackage);
    EXPECT_EQ(report.items[0].kind, LargeOldKind::diskImage);
    EXPECT_EQ(report.items[0].physicalBytes,
              test::peerAllocatedBytes(home + "/Disks/Old.sparsebundle"));
    EXPECT_EQ(report.items[1].path, home + "/Disks/b.zip");
    EXPECT_EQ(report.items[1].kind, LargeOldKind::archive);
}

TEST(LargeOld, KindsComeFromTheExtension) {
    const std::pair<const char*, LargeOldKind> cases[] = {
        {"Trip.MOV", LargeOldKind::video},        {"clip.hevc", LargeOldKind::video},
        {"ubuntu.iso", LargeOldKind::diskImage},  {"vm.qcow2", LargeOldKind::diskImage},
        {"Backup.tar.GZ", LargeOldKind::archive}, {"app.apk", LargeOldKind::archive},
        {"notes", LargeOldKind::other},           {".iso", LargeOldKind::other},
        {"movie.mkv.part", LargeOldKind::other},  {"x.sparsebundle", LargeOldKind::diskImage},
    };
    for (const auto& [name, kind] : cases) {
        EXPECT_EQ(largeOldKindOf(name), kind) << name;
    }
}

// The reader takes what GLib and older GTK versions write: escaped names, a "localhost" host,
// applications' own dates, seconds since 1970.
TEST(LargeOld, RecentlyUsedRecordsAreReadAsDesktopsWriteThem) {
    const std::string folder = platform::dataHome();
    test::makeDirs(folder);
    test::writeFile(
        folder + "/recently-used.xbel",
        "<xbel>\n"
        "<bookmark href=\"file:///data/Tom%20%26%20Jerry.mkv\" "
        "added=\"2020-01-02T03:04:05Z\" modified=\"2021-05-06T07:08:09.5Z\">\n"
        "</bookmark>\n"
        "<bookmark href=\"file://localhost/data/old.iso\" added=\"2019-01-01T00:00:00Z\">"
        "<bookmark:application name=\"x\" timestamp=\"1600000000\"/></bookmark>\n"
        "<bookmark href=\"file:///data/only-added.zip\" added=\"2018-01-01T00:00:00Z\"/>\n"
        "<bookmark href=\"https://example.org/x.iso\" visited=\"2022-01-01T00:00:00Z\"/>\n"
        "</xbel>\n");
    platform::LastOpenedReader reader = platform::systemLastOpenedReader();
    struct Row {
        const char* path;
        bool indexed;
        std::optional<double> opened;
        std::optional<double> added;
    };
    const Row rows[] = {
        {"/data/Tom & Jerry.mkv", true, 1620284889.5, 1577934245},
        {"/data/old.iso", true, 1600000000, 1546300800},
        {"/data/only-added.zip", true, std::nullopt, 1514764800},
        {"/data/x.iso", false, std::nullopt, std::nullopt},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.path);
        platform::LastOpenedRecord record = reader(row.path, {});
        EXPECT_EQ(record.indexed, row.indexed);
        EXPECT_EQ(record.lastOpened, row.opened);
        EXPECT_EQ(record.dateAdded, row.added);
    }
}

} // namespace
} // namespace sd
