#pragma once

#include "base/CleanerError.h"
#include "catalog/DistributionMode.h"
#include "space/OpenScan.h"
#include "space/SpaceScanOptions.h"
#include "space/SpaceTree.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace sd {

struct SpaceScanResult {
    SpaceTree tree;
    OpenScanResult openScan;
    // Why the root could not be read, when it could not; the tree is then empty and its one
    // warning says the same.
    std::optional<CleanerError> rootError;
};

inline constexpr std::string_view bigItemTag = "SD_BIG";

struct SpaceProgressEvent {
    enum class Kind { started, progress, bigItem, complete };
    Kind kind = Kind::progress;
    std::string text;    // "12,345 items scanned", "Scan complete"
    double fraction = 0; // 0 to 1
    std::string tag;     // bigItemTag for a big item streamed before the scan ends
    std::string path;    // the big item
    std::uint64_t bytes = 0;
};

// What a screen gives the scan to hear from it and to stop it.
class SpaceScanCallback {
public:
    virtual ~SpaceScanCallback() = default;
    // Called on the thread that runs scan(), never on a worker.
    virtual void onProgress(const SpaceProgressEvent& event) = 0;
    // Polled by every worker before each entry, so it must be cheap and safe on any thread.
    virtual bool isCancelled() const noexcept { return false; }
};

// One scan of the home folder under a time budget: the space tree and the open-scan findings
// from a single read of the tree, walked by several workers. Reads only; changes nothing.
class SpaceTreeScanner {
public:
    static constexpr double defaultBudgetSeconds = 30;
    static constexpr std::uint64_t defaultStreamMinimumBytes = 536'870'912; // 512 MiB
    // Folders nested deeper than this are not entered, whatever maxDepth says.
    static constexpr int maxNestingDepth = 256;

    DistributionMode distribution = DistributionMode::direct;
    SpaceScanOptions options = defaultSpaceScanOptions;
    SpaceScanCallback* callback = nullptr;
    std::optional<double> budget; // seconds of wall time; defaultBudgetSeconds when not given
    // A finished item at least this big is streamed to the callback at once.
    std::uint64_t streamMinimumBytes = defaultStreamMinimumBytes;
    unsigned workerCount = 0; // 0: one per core, at most eight

    // Measures the tree under `root`, which must be a folder inside the home (or an owned
    // fixture root). A root that cannot be read gives an empty tree with one warning instead of
    // an error. Throws CleanerError "Operation cancelled" when the callback asks to stop.
    SpaceScanResult scan(std::string_view root);

    double effectiveBudget() const noexcept { return budget.value_or(defaultBudgetSeconds); }

    // How the last scan shared its work out, for tests and benchmarks.
    struct Statistics {
        unsigned workers = 0;
        std::uint64_t workItems = 0; // top-level folders plus the parts split off below them
        std::uint64_t splits = 0;    // folders whose unread rest went to another worker
    };
    const Statistics& statistics() const noexcept { return statistics_; }

    // The per-folder walk state, a worker's finished item and the results of all workers; they
    // live in the scanner's source.
    struct Frame;
    struct ItemResult;
    struct Drained;

private:
    Statistics statistics_;
};

} // namespace sd
