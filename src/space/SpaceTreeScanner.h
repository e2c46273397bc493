#pragma once

#include "base/CleanerError.h"
#include "base/Progress.h"
#include "catalog/DistributionMode.h"
#include "space/OpenScan.h"
#include "space/SpaceScanOptions.h"
#include "space/SpaceTree.h"

#include <cstdint>
#include <optional>
#include <stop_token>
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
    std::optional<double> budget; // seconds of wall time; defaultBudgetSeconds when not given
    // A finished item at least this big is posted as a progress notice at once.
    std::uint64_t streamMinimumBytes = defaultStreamMinimumBytes;
    // 0: one per core to start with, and more (up to four a core) while they wait on the disk
    // rather than the processor; any other number: exactly that many.
    unsigned workerCount = 0;

    // Measures the tree under `root`, which must be a folder inside the home (or an owned
    // fixture root). A root that cannot be read gives an empty tree with one warning instead of
    // an error. Throws CleanerError "Operation cancelled" once `stop` is requested. `progress`
    // gets the entries scanned and the share done a few times a second, each item of at least
    // streamMinimumBytes as a notice as soon as it is measured, and "Scan complete" at the end.
    SpaceScanResult scan(std::string_view root, const std::stop_token& stop = {},
                         OperationProgress* progress = nullptr);

    double effectiveBudget() const noexcept { return budget.value_or(defaultBudgetSeconds); }

    // How the last scan shared its work out, for tests and benchmarks.
    struct Statistics {
        unsigned workers = 0; // workers that took part, those added while waiting on the disk too
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
