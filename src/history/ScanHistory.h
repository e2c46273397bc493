#pragma once

#include "space/SpaceTree.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// What Sparrowdeck remembers between runs: a compact snapshot of every space scan, the free space
// of the disk sampled over time, and a few small values (when a notice was last sent). One SQLite
// database in the support folder, written ahead (WAL), so a process killed half-way through a
// write leaves the last complete state.
namespace sd {

namespace history {
class Database;
}

// One folder of a snapshot, its path relative to the scanned root ("" is the root itself).
struct SnapshotFolder {
    std::string path;
    std::uint64_t bytes = 0;
    std::uint64_t fileCount = 0;
    std::int64_t latestChange = 0;

    friend bool operator==(const SnapshotFolder&, const SnapshotFolder&) = default;
};

struct ScanSnapshot {
    std::int64_t id = 0; // given when saved
    std::string root;
    std::int64_t takenAt = 0; // seconds since the epoch
    std::uint64_t totalBytes = 0;
    std::uint64_t fileCount = 0;
    bool isComplete = true;              // the scan was not cut short
    std::vector<SnapshotFolder> folders; // sorted by path

    friend bool operator==(const ScanSnapshot&, const ScanSnapshot&) = default;
};

// A saved snapshot without its folders, for lists.
struct SnapshotInfo {
    std::int64_t id = 0;
    std::string root;
    std::int64_t takenAt = 0;
    std::uint64_t totalBytes = 0;
    std::uint64_t fileCount = 0;
    bool isComplete = true;
    std::uint64_t folderCount = 0;
};

// Folders kept in a snapshot: down to this many levels below the root, at least this big.
inline constexpr int snapshotDepth = 6;
inline constexpr std::uint64_t snapshotMinimumBytes = 1'048'576;

// The folders of `tree` a snapshot keeps.
ScanSnapshot snapshotOf(const SpaceTree& tree, std::int64_t takenAt);

struct FreeSpaceSample {
    std::int64_t takenAt = 0;
    std::uint64_t freeBytes = 0;
    std::uint64_t totalBytes = 0;

    friend bool operator==(const FreeSpaceSample&, const FreeSpaceSample&) = default;
};

// How the history stays small: every scan of the last `keepWholeDays` days and the newest
// `keepWholeCount` scans of each root stay; older ones are thinned to the newest of each week.
struct ThinningRule {
    int keepWholeDays = 30;
    int keepWholeCount = 10;
    int freeSpaceDays = 180; // free-space samples older than this are dropped
};

class ScanHistory {
public:
    static constexpr int schemaVersion = 1;

    // The database in Sparrowdeck's support folder.
    static std::string defaultFile();

    // Opens the history in `file`, creating it (and its folder) when missing. A file that is not
    // a readable database is kept aside under a new name and a fresh one started; recoveryNotice
    // then says so. Throws CleanerError when the history cannot be used at all (a folder that
    // cannot be written, a file from a newer Sparrowdeck, which is left as it is).
    explicit ScanHistory(std::string file);
    ~ScanHistory();
    ScanHistory(const ScanHistory&) = delete;
    ScanHistory& operator=(const ScanHistory&) = delete;

    const std::string& file() const noexcept { return file_; }
    // The sentence for the person when a damaged history was replaced on opening.
    const std::optional<std::string>& recoveryNotice() const noexcept { return notice_; }

    // Saves a snapshot in one transaction and returns its id.
    std::int64_t save(const ScanSnapshot& snapshot);
    // The saved snapshots of `root`, newest first.
    std::vector<SnapshotInfo> snapshots(std::string_view root) const;
    std::optional<ScanSnapshot> load(std::int64_t id) const;
    // Applies `rule` as of `now`; returns how many snapshots were dropped.
    std::uint64_t thin(std::int64_t now, const ThinningRule& rule = {});

    void addFreeSpace(const FreeSpaceSample& sample);
    // Samples taken at or after `since`, oldest first.
    std::vector<FreeSpaceSample> freeSpaceSince(std::int64_t since) const;

    std::optional<std::string> value(std::string_view key) const;
    void setValue(std::string_view key, std::string_view value);

private:
    void open();
    void keepAside(const std::string& reason);

    std::string file_;
    std::unique_ptr<history::Database> db_;
    std::optional<std::string> notice_;
};

enum class ChangeKind { grew, shrank, appeared, vanished };

struct FolderChange {
    std::string path; // absolute
    ChangeKind kind = ChangeKind::grew;
    std::uint64_t before = 0;
    std::uint64_t after = 0;

    std::int64_t delta() const noexcept {
        return static_cast<std::int64_t>(after) - static_cast<std::int64_t>(before);
    }
    friend bool operator==(const FolderChange&, const FolderChange&) = default;
};

// The folders that grew or shrank by at least `minimumChange` between two snapshots of the same
// root, and the folders only one of them holds (only the topmost of a new or gone branch), the
// biggest change first.
std::vector<FolderChange> compareSnapshots(const ScanSnapshot& older, const ScanSnapshot& newer,
                                           std::uint64_t minimumChange = snapshotMinimumBytes);

// The snapshot to compare `current` with: the newest one of the same root taken before it, or,
// with `before`, the newest one taken before that moment (the oldest one when none is).
std::optional<SnapshotInfo> baselineFor(const std::vector<SnapshotInfo>& snapshots,
                                        std::int64_t currentId,
                                        std::optional<std::int64_t> before = std::nullopt);

} // namespace sd
