#pragma once

#include "base/Progress.h"
#include "platform/LocalSnapshotTool.h"
#include "platform/Volumes.h"
#include "space/SpaceTreeScanner.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

// The whole disk: what the file system says of itself, then what fills it, row by row, measured
// where this account can read, and what is left unexplained with a sentence on why.
namespace sd {

// What one place on the disk holds, read leniently: a folder this account may not open is
// counted and passed over instead of spoiling the whole sum.
struct PlaceMeasure {
    std::string path;
    std::uint64_t device = 0;
    std::uint64_t bytes = 0;       // allocated bytes, folders' own blocks included, hard links once
    std::uint64_t folderBytes = 0; // of which folders' own blocks
    std::uint64_t fileCount = 0;
    std::uint64_t unreadableFolders = 0;
    std::vector<std::string> unreadableExamples; // the first few, for the sentence
    bool exists = false;
};

// Measures `path` on its own device; other file systems mounted inside are not entered.
// Throws CleanerError "Operation cancelled" once `stop` is requested.
PlaceMeasure measurePlace(const std::string& path, const std::stop_token& stop = {},
                          OperationProgress* progress = nullptr);

struct DiskRow {
    std::string id;
    std::string title;
    std::uint64_t bytes = 0;
    std::uint64_t fileCount = 0;
    std::vector<std::string> paths; // the places measured for it that exist here
    std::string sentence;
    std::vector<std::string> reclaimCommands; // named for the person; never run
    std::uint64_t unreadableFolders = 0;
    bool isComplete = true; // false when part of it could not be read or the time ran out

    friend bool operator==(const DiskRow&, const DiskRow&) = default;
};

struct DiskVolume {
    platform::VolumeFigures figures;
    bool holdsHome = false;
    std::vector<DiskRow> rows;          // sum with unexplainedBytes to figures.usedBytes
    std::uint64_t unexplainedBytes = 0; // used minus everything measured
    std::string unexplainedSentence;
    // What the rows measured beyond the used figure (blocks shared between rows, files written
    // while measuring); the rows were trimmed by it, biggest first, so the sum stays exact.
    std::uint64_t overcountBytes = 0;

    friend bool operator==(const DiskVolume&, const DiskVolume&) = default;
};

struct DiskReport {
    std::vector<DiskVolume> volumes; // the home's file system first
    std::vector<std::string> warnings;
    bool readsEverything = false; // run by the administrator, who may read every folder
};

// Puts measured rows on the volume they belong to and works out the unexplained rest so that the
// rows and the rest add up to exactly the used figure. `unreadableExamples` are folders the
// sentence may name.
DiskVolume assembleVolume(const platform::VolumeFigures& figures, bool holdsHome,
                          std::vector<DiskRow> rows, bool readsEverything,
                          const std::vector<std::string>& unreadableExamples);

// Sums the installed sizes Debian's package database records (dpkg-query, in KiB). Empty when
// dpkg-query is not there or fails.
std::optional<std::uint64_t> debianInstalledBytes(const std::stop_token& stop = {});
// The same from dpkg-query's output of one `${Installed-Size}` a line.
std::uint64_t sumInstalledSizes(std::string_view listing);

// The row for the local snapshots a snapshot tool lists: the space only they hold, where the
// tool reports it. None when there are no snapshots or the tool could not list them.
std::optional<DiskRow> snapshotRow(const platform::LocalSnapshotListing& listing,
                                   std::string_view toolName);

class DiskSurvey {
public:
    // Seconds the home scan may take; the space scan's own budget when not given.
    std::optional<double> homeBudget;
    // How many places are measured at once.
    unsigned workers = 4;
    // Called with the home scan as soon as it is done, before anything else is measured (the
    // scan history keeps it), so what it writes is in the figures read at the end.
    std::function<void(const SpaceScanResult&)> homeScanned;
    // The system's snapshot tool unless a test brings its own.
    std::shared_ptr<const platform::LocalSnapshotTool> snapshotTool;

    // Measures the file system holding the home (and the root one when it is another). Reads
    // only. Throws CleanerError "Operation cancelled" once `stop` is requested.
    DiskReport survey(const std::stop_token& stop = {}, OperationProgress* progress = nullptr);

    // The home scan the survey made, for the scan history.
    const std::optional<SpaceScanResult>& homeScan() const noexcept { return homeScan_; }

private:
    std::optional<SpaceScanResult> homeScan_;
};

} // namespace sd
