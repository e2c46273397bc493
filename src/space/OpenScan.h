#pragma once

#include "catalog/DistributionMode.h"
#include "space/SpaceLedgers.h"
#include "space/SpaceScanOptions.h"

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

// The open-scan findings: the biggest files and folders of the home, gathered in the same walk
// that builds the space tree so the home is read once for both, and handed to the review lists.
namespace sd {

struct Finding {
    std::string path;
    std::uint64_t bytes = 0; // allocated, shared blocks counted once
    bool isDirectory = false;
    std::uint64_t fileCount = 0;   // 1 for a file
    std::int64_t latestChange = 0; // newest modification time of a file in it

    friend bool operator==(const Finding&, const Finding&) = default;
};

struct OpenScanResult {
    std::uint64_t totalPhysicalBytes = 0;
    std::uint64_t cloneSharedBytes = 0; // bytes several files share, each counted once
    std::vector<Finding> topFindings;   // biggest first
    std::uint64_t scannedNodeCount = 0;
    std::vector<std::string> warnings;
    std::uint64_t durationMs = 0;

    friend bool operator==(const OpenScanResult&, const OpenScanResult&) = default;
};

// Biggest first; equal sizes in the order a walk over sorted listings meets them.
bool findingBefore(const Finding& a, const Finding& b) noexcept;

// The findings one worker gathered so far. Byte counts may still shrink by the ledgers'
// corrections, so a file that may lose bytes is kept aside until they are in.
struct ScanPartial {
    std::vector<Finding> topFiles;       // at most topN settled files, kept as a heap
    std::vector<Finding> unsettledFiles; // files whose bytes another link or clone may take
    std::map<std::string, Finding, std::less<>> directoryTotals;
    std::uint64_t totalBytes = 0;
    std::uint64_t cloneSharedBytes = 0;
    std::uint64_t nodeCount = 0;
    std::vector<std::string> warnings;

    // Keeps a file if it is among the topN biggest settled ones, or may still lose bytes.
    void offerFile(Finding file, bool settled, std::uint32_t topN);
    // Takes in another worker's findings.
    void merge(ScanPartial&& other, std::uint32_t topN);
    // Takes bytes counted at `path` off the file there and every folder total above it.
    void correct(std::string_view path, std::uint64_t bytes);
};

// Which findings the running build may offer: the App Store variant cannot act on other apps'
// containers, and user data is left out unless the options ask for it.
bool findingAllowed(std::string_view path, std::string_view home, DistributionMode distribution,
                    const OpenScanOptions& options);

// The topN biggest findings, files and folders together, the scanned root itself left out.
std::vector<Finding> selectTopFindings(const ScanPartial& partial, std::string_view root,
                                       std::string_view home, DistributionMode distribution,
                                       const OpenScanOptions& options);

} // namespace sd
