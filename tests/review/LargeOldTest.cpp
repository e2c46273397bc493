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

// Sets access and modification times; the change time becomes now, as it always does.
void setTimes(const std::string& path, double accessed, double modified) {
    auto asTimespec = [](double t) {
        return timespec{static_cast<time_t>(t), static_cast<long>((t - std::floor(t)) * 1e9)};
    };
    const timespec times[2] = {asTimespec(accessed), asTimespec(modified)};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
}

// A bookmark for the desktop's recently-used list; times are seconds since 1970, 0 for none.
struct Bookmark {
    std::string path;
    double added = 0;
    double visited = 0;
    double modified = 0;
    double appOpened = 0; // an application's own record of opening it
};

// The desktop's recently-used list written by GLib itself (called from Python through ctypes, as
// the GLib of Debian 12 offers no introspected constructor), so the reader is held to what real
// desktops write rather than to our own idea of the format.
void writeRecentlyUsedWithGLib(const std::vector<Bookmark>& bookmarks) {
    std::string script = R"(
import ctypes, sys
g = ctypes.CDLL("libglib-2.0.so.0")
g.g_bookmark_file_new.restype = ctypes.c_void_p
g.g_date_time_new_from_unix_utc.restype = ctypes.c_void_p
g.g_date_time_new_from_unix_utc.argtypes = [ctypes.c_int64]
g.g_date_time_add.restype = ctypes.c_void_p
g.g_date_time_add.argtypes = [ctypes.c_void_p, ctypes.c_int64]
g.g_filename_to_uri.restype = ctypes.c_void_p
g.g_filename_to_uri.argtypes = [ctypes.c_char_p, ctypes.c_char_p, ctypes.c_void_p]
for name in ["set_mime_type", "set_added_date_time", "set_visited_date_time", "set_modified_date_time"]:
    getattr(g, "g_bookmark_file_" + name).argtypes = [ctypes.c_void_p, ctypes.c_char_p, ctypes.c_void_p]
g.g_bookmark_file_set_application_info.argtypes = [ctypes.c_void_p, ctypes.c_char_p, ctypes.c_char_p, ctypes.c_char_p, ctypes.c_int, ctypes.c_void_p, ctypes.c_void_p]
g.g_bookmark_file_set_application_info.restype = ctypes.c_int
g.g_bookmark_file_to_file.argtypes = [ctypes.c_void_p, ctypes.c_char_p, ctypes.c_void_p]
g.g_bookmark_file_to_file.restype = ctypes.c_int
def at(t):
    t = float(t)
    if not t:
        return None
    whole = int(t // 1)
    return g.g_date_time_add(g.g_date_time_new_from_unix_utc(whole), int(round((t - whole) * 1e6)))
b = g.g_bookmark_file_new()
for line in sys.stdin.buffer.read().splitlines():
    path, added, visited, modified, opened = line.split(b"\t")
    uri = ctypes.string_at(g.g_filename_to_uri(path, None, None))
    g.g_bookmark_file_set_mime_type(b, uri, b"application/octet-stream")
    # GLib writes no bookmark without an application; one never reopened was opened once, when
    # it was recorded.
    g.g_bookmark_file_set_application_info(b, uri, b"Videos", b"totem %u", 2,
                                           at(opened) or at(modified), None)
    if at(added):
        g.g_bookmark_file_set_added_date_time(b, uri, at(added))
    # GLib stamps a new bookmark as visited now; an unvisited one reads its last change.
    g.g_bookmark_file_set_visited_date_time(b, uri, at(visited) or at(modified))
    g.g_bookmark_file_set_modified_date_time(b, uri, at(modified) or g.g_date_time_new_from_unix_utc(1))
if not g.g_bookmark_file_to_file(b, sys.argv[1].encode(), None):
    sys.exit("GLib could not write " + sys.argv[1])
)";
    std::string folder = platform::dataHome();
    test::makeDirs(folder);
    std::string rows;
    for (const Bookmark& b : bookmarks) {
        rows += b.path + "\t" + std::to_string(b.added) + "\t" + std::to_string(b.visited) + "\t" +
                std::to_string(b.modified) + "\t" + std::to_string(b.appOpened) + "\n";
    }
    std::string input = test::freshFolder("xbel-rows") + "/rows.tsv";
    test::writeFile(input, rows);
    test::CommandResult written = test::runShell(
        "/usr/bin/python3 -c " + test::shellQuote(script) + " " +
        test::shellQuote(folder + "/recently-used.xbel") + " < " + test::shellQuote(input));
    ASSERT_EQ(written.status, 0) << written.output;
}

struct Visit {
    std::string path;
    double visited;
};

// Each file opened by an application at its visit, first recorded 30 days before.
void writeRecentlyUsed(const std::vector<Visit>& visits) {
    std::vector<Bookmark> bookmarks;
    for (const Visit& v : visits) {
        double before = v.visited - 30 * day;
        bookmarks.push_back({v.path, before, before, before, v.visited});
    }
    writeRecentlyUsedWithGLib(bookmarks);
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
        {"Films/opened 400 days ago & more.mkv", fifty, 400, 600, true, EvidenceKind::opened},
        {"Films/opened last week.mkv", fifty, 7, 600, false, EvidenceKind::opened},
        {"Films/one byte short.mkv", fifty - 1, 400, 600, false, EvidenceKind::opened},
        {"Films/changed last month.mkv", fifty, 400, 30, false, EvidenceKind::opened},
        {"Films/never recorded.mkv", fifty, 0, 600, true, EvidenceKind::fileTimesOnly},
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

// The reader takes what GLib writes: escaped and non-ASCII names, applications' own dates, a
// fraction of a second; a web page is no local file.
TEST(LargeOld, RecentlyUsedRecordsAreReadAsGLibWritesThem) {
    struct Row {
        Bookmark bookmark;
        bool indexed;
        std::optional<double> opened;
        std::optional<double> added;
    };
    const Row rows[] = {
        {{"/data/Tom & Jerry.mkv", 1577934245, 0, 1620284889.5, 0}, true, 1620284889.5, 1577934245},
        {{"/data/Vidéos/été 2019.mkv", 1546300800, 1550000000, 1546300800, 1600000000},
         true,
         1600000000,
         1546300800},
        {{"/data/100% <sure> \"x\".zip", 1514764800, 0, 1514764800, 0},
         true,
         1514764800,
         1514764800},
    };
    std::vector<Bookmark> bookmarks;
    for (const Row& row : rows) {
        bookmarks.push_back(row.bookmark);
    }
    writeRecentlyUsedWithGLib(bookmarks);
    platform::LastOpenedReader reader = platform::systemLastOpenedReader();
    for (const Row& row : rows) {
        SCOPED_TRACE(row.bookmark.path);
        platform::LastOpenedRecord record = reader(row.bookmark.path, {});
        EXPECT_EQ(record.indexed, row.indexed);
        ASSERT_TRUE(record.lastOpened.has_value());
        EXPECT_NEAR(*record.lastOpened, *row.opened, 1e-6);
        ASSERT_TRUE(record.dateAdded.has_value());
        EXPECT_NEAR(*record.dateAdded, *row.added, 1e-6);
    }
    EXPECT_FALSE(reader("/data/unknown.iso", {}).indexed);
}

// XML the desktop may legitimately hold, which a reader that searches for substrings gets wrong:
// comments, character data, blanks around "=", numeric character references. A file GLib
// refuses gives no records rather than wrong ones.
TEST(LargeOld, RecentlyUsedRecordsAreReadAsXml) {
    const std::string folder = platform::dataHome();
    test::makeDirs(folder);
    const std::string header =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<xbel version=\"1.0\" "
        "xmlns:bookmark=\"http://www.freedesktop.org/standards/desktop-bookmarks\" "
        "xmlns:mime=\"http://www.freedesktop.org/standards/shared-mime-info\">\n";
    test::writeFile(folder + "/recently-used.xbel",
                    header +
                        "<!-- <bookmark href=\"file:///data/commented.iso\" "
                        "added=\"2001-01-01T00:00:00Z\"/> -->\n"
                        "<bookmark href = \"file:///data/caf&#xE9;.iso\" "
                        "added = \"2019-01-01T00:00:00Z\" modified=\"2019-01-01T00:00:00Z\" "
                        "visited=\"2019-01-01T00:00:00Z\">\n"
                        "<title><![CDATA[<bookmark href=\"file:///data/cdata.iso\">]]></title>\n"
                        "</bookmark>\n</xbel>\n");
    platform::LastOpenedReader reader = platform::systemLastOpenedReader();
    platform::LastOpenedRecord cafe = reader("/data/café.iso", {});
    EXPECT_TRUE(cafe.indexed);
    EXPECT_EQ(cafe.dateAdded, 1546300800.0);
    EXPECT_FALSE(reader("/data/commented.iso", {}).indexed);
    EXPECT_FALSE(reader("/data/cdata.iso", {}).indexed);

    test::writeFile(folder + "/recently-used.xbel",
                    header + "<bookmark href=\"file:///data/torn.iso\" added=\"2019-");
    EXPECT_FALSE(platform::systemLastOpenedReader()("/data/torn.iso", {}).indexed);
}

} // namespace
} // namespace sd
