#include "history/ScanHistory.h"

#include "base/CleanerError.h"
#include "base/FileIo.h"
#include "base/TestHooks.h"
#include "history/Database.h"
#include "platform/Dirs.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <map>
#include <set>
#include <unistd.h>

namespace sd {
namespace {

constexpr std::string_view schema = R"(
CREATE TABLE IF NOT EXISTS scans (
    id INTEGER PRIMARY KEY,
    root TEXT NOT NULL,
    taken_at INTEGER NOT NULL,
    total_bytes INTEGER NOT NULL,
    file_count INTEGER NOT NULL,
    is_complete INTEGER NOT NULL,
    folder_count INTEGER NOT NULL
);
CREATE INDEX IF NOT EXISTS scans_by_root ON scans (root, taken_at);
CREATE TABLE IF NOT EXISTS folders (
    scan_id INTEGER NOT NULL REFERENCES scans (id) ON DELETE CASCADE,
    path TEXT NOT NULL,
    bytes INTEGER NOT NULL,
    file_count INTEGER NOT NULL,
    latest_change INTEGER NOT NULL,
    PRIMARY KEY (scan_id, path)
) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS free_space (
    taken_at INTEGER PRIMARY KEY,
    free_bytes INTEGER NOT NULL,
    total_bytes INTEGER NOT NULL
);
CREATE TABLE IF NOT EXISTS settings (
    key TEXT PRIMARY KEY,
    value TEXT NOT NULL
);
)";

constexpr std::int64_t secondsPerDay = 86'400;
constexpr std::int64_t secondsPerWeek = 7 * secondsPerDay;

std::string folderOf(const std::string& file) {
    size_t slash = file.rfind('/');
    return slash == std::string::npos || slash == 0 ? "/" : file.substr(0, slash);
}

std::string nameOf(const std::string& file) {
    size_t slash = file.rfind('/');
    return slash == std::string::npos ? file : file.substr(slash + 1);
}

void collect(const SpaceNode& node, const std::string& relative, int depth,
             std::vector<SnapshotFolder>& out) {
    out.push_back({relative, node.bytes, node.fileCount, node.latestChange});
    if (depth >= snapshotDepth) {
        return;
    }
    for (const SpaceNode& child : node.children) {
        if (child.kind == SpaceNode::Kind::directory && child.bytes >= snapshotMinimumBytes) {
            collect(child, relative.empty() ? child.name : relative + "/" + child.name, depth + 1,
                    out);
        }
    }
}

std::string parentOf(const std::string& relative) {
    size_t slash = relative.rfind('/');
    return slash == std::string::npos ? std::string() : relative.substr(0, slash);
}

std::string absolute(const std::string& root, const std::string& relative) {
    if (relative.empty()) {
        return root;
    }
    return root == "/" ? "/" + relative : root + "/" + relative;
}

} // namespace

ScanSnapshot snapshotOf(const SpaceTree& tree, std::int64_t takenAt) {
    ScanSnapshot snapshot;
    snapshot.root = tree.root.path;
    snapshot.takenAt = takenAt;
    snapshot.totalBytes = tree.root.bytes;
    snapshot.fileCount = tree.root.fileCount;
    snapshot.isComplete = !tree.isTruncated && tree.root.isComplete;
    collect(tree.root, "", 0, snapshot.folders);
    std::sort(snapshot.folders.begin(), snapshot.folders.end(),
              [](const SnapshotFolder& a, const SnapshotFolder& b) { return a.path < b.path; });
    return snapshot;
}

std::string ScanHistory::defaultFile() {
    return platform::supportDirectory() + "/history.sqlite";
}

ScanHistory::ScanHistory(std::string file) : file_(std::move(file)) {
    makeDirectories(folderOf(file_), 0700);
    try {
        open();
    } catch (const history::DatabaseError& error) {
        if (!error.isDamage()) {
            db_.reset();
            throw CleanerError(CleanerError::Kind::ioError,
                               "The scan history " + file_ + " could not be opened (" +
                                   error.what() + "); nothing was changed.");
        }
        db_.reset();
        keepAside(error.what());
        try {
            open();
        } catch (const history::DatabaseError& again) {
            db_.reset();
            throw CleanerError(CleanerError::Kind::ioError,
                               "A new scan history could not be started in " + file_ + " (" +
                                   again.what() + ").");
        }
    }
}

ScanHistory::~ScanHistory() = default;

void ScanHistory::open() {
    db_ = std::make_unique<history::Database>(file_, history::Database::Create::yes);
    db_->execute("PRAGMA journal_mode=WAL");
    db_->execute("PRAGMA synchronous=NORMAL");
    db_->execute("PRAGMA foreign_keys=ON");
    {
        history::Statement check = db_->prepare("PRAGMA quick_check");
        if (check.step() && check.text(0) != "ok") {
            throw history::DatabaseError(11 /* SQLITE_CORRUPT */,
                                         "its pages are damaged (" + check.text(0) + ")");
        }
    }
    std::int64_t version = 0;
    {
        history::Statement read = db_->prepare("PRAGMA user_version");
        if (read.step()) {
            version = read.integer(0);
        }
    }
    if (version > schemaVersion) {
        db_.reset();
        throw CleanerError(CleanerError::Kind::ioError,
                           "The scan history " + file_ +
                               " was written by a newer Sparrowdeck, so it was left as it is and "
                               "nothing was saved.");
    }
    if (version < schemaVersion) {
        history::Transaction transaction(*db_);
        db_->execute(schema);
        db_->execute("PRAGMA user_version=" + std::to_string(schemaVersion));
        transaction.commit();
    }
}

void ScanHistory::keepAside(const std::string& reason) {
    std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y%m%d-%H%M%S", &local);
    std::string aside = file_ + ".damaged-" + stamp;
    for (int n = 2; ::access(aside.c_str(), F_OK) == 0; ++n) {
        aside = file_ + ".damaged-" + stamp + "-" + std::to_string(n);
    }
    // The write-ahead log and its index belong to the damaged file; a fresh database must not
    // pick them up.
    if (std::rename(file_.c_str(), aside.c_str()) != 0) {
        throw CleanerError(CleanerError::Kind::ioError,
                           "The scan history " + file_ + " is damaged (" + reason +
                               ") and could not be kept aside: " + errorText(errno) +
                               ". It was left as it is.");
    }
    for (const char* suffix : {"-wal", "-shm"}) {
        std::string companion = file_ + suffix;
        if (::access(companion.c_str(), F_OK) == 0) {
            std::rename(companion.c_str(), (aside + suffix).c_str());
        }
    }
    notice_ = "The scan history could not be read (" + reason + "), so it was kept aside as " +
              nameOf(aside) + " and a new one was started. Earlier scans are not compared.";
}

std::int64_t ScanHistory::save(const ScanSnapshot& snapshot) {
    history::Transaction transaction(*db_);
    db_->prepare("INSERT INTO scans (root, taken_at, total_bytes, file_count, is_complete, "
                 "folder_count) VALUES (?, ?, ?, ?, ?, ?)")
        .bind(1, snapshot.root)
        .bind(2, snapshot.takenAt)
        .bind(3, snapshot.totalBytes)
        .bind(4, snapshot.fileCount)
        .bind(5, std::int64_t{snapshot.isComplete ? 1 : 0})
        .bind(6, static_cast<std::uint64_t>(snapshot.folders.size()))
        .run();
    std::int64_t id = db_->lastInsertId();
    history::Statement insert =
        db_->prepare("INSERT INTO folders (scan_id, path, bytes, file_count, latest_change) VALUES "
                     "(?, ?, ?, ?, ?)");
    for (size_t i = 0; i < snapshot.folders.size(); ++i) {
        const SnapshotFolder& f = snapshot.folders[i];
        insert.bind(1, id)
            .bind(2, f.path)
            .bind(3, f.bytes)
            .bind(4, f.fileCount)
            .bind(5, f.latestChange);
        insert.run();
        if (i == snapshot.folders.size() / 2) {
            testhooks::midHistorySave();
        }
    }
    transaction.commit();
    return id;
}

std::vector<SnapshotInfo> ScanHistory::snapshots(std::string_view root) const {
    history::Statement query =
        db_->prepare("SELECT id, root, taken_at, total_bytes, file_count, is_complete, "
                     "folder_count FROM scans WHERE root = ? ORDER BY taken_at DESC, id DESC");
    query.bind(1, root);
    std::vector<SnapshotInfo> out;
    while (query.step()) {
        out.push_back({query.integer(0), query.text(1), query.integer(2), query.count(3),
                       query.count(4), query.integer(5) != 0, query.count(6)});
    }
    return out;
}

std::optional<ScanSnapshot> ScanHistory::load(std::int64_t id) const {
    history::Statement scan = db_->prepare(
        "SELECT root, taken_at, total_bytes, file_count, is_complete FROM scans WHERE id = ?");
    scan.bind(1, id);
    if (!scan.step()) {
        return std::nullopt;
    }
    ScanSnapshot snapshot{
        id, scan.text(0), scan.integer(1), scan.count(2), scan.count(3), scan.integer(4) != 0, {}};
    history::Statement folders = db_->prepare("SELECT path, bytes, file_count, latest_change "
                                              "FROM folders WHERE scan_id = ? ORDER BY path");
    folders.bind(1, id);
    while (folders.step()) {
        snapshot.folders.push_back(
            {folders.text(0), folders.count(1), folders.count(2), folders.integer(3)});
    }
    return snapshot;
}

std::uint64_t ScanHistory::thin(std::int64_t now, const ThinningRule& rule) {
    std::vector<std::string> roots;
    {
        history::Statement query = db_->prepare("SELECT DISTINCT root FROM scans");
        while (query.step()) {
            roots.push_back(query.text(0));
        }
    }
    std::vector<std::int64_t> drop;
    for (const std::string& root : roots) {
        std::set<std::int64_t> weeksKept;
        std::vector<SnapshotInfo> all = snapshots(root); // newest first
        for (size_t i = 0; i < all.size(); ++i) {
            const SnapshotInfo& s = all[i];
            bool recent = now - s.takenAt < rule.keepWholeDays * secondsPerDay;
            if (recent || i < static_cast<size_t>(rule.keepWholeCount)) {
                continue;
            }
            // Weeks counted from a Monday (the epoch was a Thursday): the newest of each stays.
            std::int64_t week = (s.takenAt + 3 * secondsPerDay) / secondsPerWeek;
            if (!weeksKept.insert(week).second) {
                drop.push_back(s.id);
            }
        }
    }
    history::Transaction transaction(*db_);
    history::Statement remove = db_->prepare("DELETE FROM scans WHERE id = ?");
    for (std::int64_t id : drop) {
        remove.bind(1, id);
        remove.run();
    }
    db_->prepare("DELETE FROM free_space WHERE taken_at < ?")
        .bind(1, now - rule.freeSpaceDays * secondsPerDay)
        .run();
    transaction.commit();
    return drop.size();
}

void ScanHistory::addFreeSpace(const FreeSpaceSample& sample) {
    db_->prepare("INSERT OR REPLACE INTO free_space (taken_at, free_bytes, total_bytes) VALUES "
                 "(?, ?, ?)")
        .bind(1, sample.takenAt)
        .bind(2, sample.freeBytes)
        .bind(3, sample.totalBytes)
        .run();
}

std::vector<FreeSpaceSample> ScanHistory::freeSpaceSince(std::int64_t since) const {
    history::Statement query = db_->prepare("SELECT taken_at, free_bytes, total_bytes FROM "
                                            "free_space WHERE taken_at >= ? ORDER BY taken_at");
    query.bind(1, since);
    std::vector<FreeSpaceSample> out;
    while (query.step()) {
        out.push_back({query.integer(0), query.count(1), query.count(2)});
    }
    return out;
}

std::optional<std::string> ScanHistory::value(std::string_view key) const {
    history::Statement query = db_->prepare("SELECT value FROM settings WHERE key = ?");
    query.bind(1, key);
    if (!query.step()) {
        return std::nullopt;
    }
    return query.text(0);
}

void ScanHistory::setValue(std::string_view key, std::string_view value) {
    db_->prepare("INSERT OR REPLACE INTO settings (key, value) VALUES (?, ?)")
        .bind(1, key)
        .bind(2, value)
        .run();
}

std::vector<FolderChange> compareSnapshots(const ScanSnapshot& older, const ScanSnapshot& newer,
                                           std::uint64_t minimumChange) {
    std::map<std::string, std::uint64_t> before;
    for (const SnapshotFolder& f : older.folders) {
        before.emplace(f.path, f.bytes);
    }
    std::map<std::string, std::uint64_t> after;
    for (const SnapshotFolder& f : newer.folders) {
        after.emplace(f.path, f.bytes);
    }
    std::vector<FolderChange> changes;
    for (const auto& [path, bytes] : after) {
        auto was = before.find(path);
        if (was == before.end()) {
            // Only the top of a new branch: its parent was there before (or is the root).
            if (path.empty() || before.contains(parentOf(path))) {
                changes.push_back({absolute(newer.root, path), ChangeKind::appeared, 0, bytes});
            }
            continue;
        }
        std::uint64_t difference = bytes > was->second ? bytes - was->second : was->second - bytes;
        if (difference >= minimumChange && difference > 0) {
            changes.push_back({absolute(newer.root, path),
                               bytes > was->second ? ChangeKind::grew : ChangeKind::shrank,
                               was->second, bytes});
        }
    }
    for (const auto& [path, bytes] : before) {
        if (!after.contains(path) && (path.empty() || after.contains(parentOf(path)))) {
            changes.push_back({absolute(older.root, path), ChangeKind::vanished, bytes, 0});
        }
    }
    std::stable_sort(changes.begin(), changes.end(),
                     [](const FolderChange& a, const FolderChange& b) {
                         std::int64_t da = a.delta() < 0 ? -a.delta() : a.delta();
                         std::int64_t db = b.delta() < 0 ? -b.delta() : b.delta();
                         return da != db ? da > db : a.path < b.path;
                     });
    return changes;
}

std::optional<SnapshotInfo> baselineFor(const std::vector<SnapshotInfo>& snapshots,
                                        std::int64_t currentId,
                                        std::optional<std::int64_t> before) {
    std::optional<std::int64_t> currentTime;
    for (const SnapshotInfo& s : snapshots) {
        if (s.id == currentId) {
            currentTime = s.takenAt;
        }
    }
    std::optional<SnapshotInfo> best;
    std::optional<SnapshotInfo> oldest;
    for (const SnapshotInfo& s : snapshots) {
        if (s.id == currentId || (currentTime && s.takenAt > *currentTime)) {
            continue;
        }
        bool earlier = currentTime && s.takenAt == *currentTime ? s.id < currentId : true;
        if (!earlier) {
            continue;
        }
        if (!oldest || s.takenAt < oldest->takenAt) {
            oldest = s;
        }
        if (before && s.takenAt >= *before) {
            continue;
        }
        if (!best || s.takenAt > best->takenAt || (s.takenAt == best->takenAt && s.id > best->id)) {
            best = s;
        }
    }
    return best ? best : (before ? oldest : std::nullopt);
}

} // namespace sd
