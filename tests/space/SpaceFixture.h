#pragma once

#include "space/SpaceTreeScanner.h"

#include <cstdint>
#include <string>
#include <vector>

namespace sd::test {

// A file of `bytes` whose blocks are reserved without writing them (fallocate), so tests can
// hold gigabytes of allocated space at no cost. False when the file system cannot reserve.
bool allocateFile(const std::string& path, std::uint64_t bytes);

// Regular-file names under `path`, every hard link counted, as GNU find lists them.
std::uint64_t peerFileCount(const std::string& path);
// Names under `path` below it (everything find lists but the path itself).
std::uint64_t peerEntryCount(const std::string& path);

// Options small enough for fixture trees: nodes from 8 KiB, findings from 64 KiB.
SpaceScanOptions smallOptions();

// Scans `root` with `workers` workers and no time pressure.
SpaceScanResult scanWith(const std::string& root, const SpaceScanOptions& options, unsigned workers,
                         OperationProgress* progress = nullptr, std::optional<double> budget = 600,
                         const std::stop_token& stop = {});

// The tree and findings as text, without the duration, for comparing two scans and showing
// where they differ.
std::string describe(const SpaceScanResult& result);

// Every rule a finished tree keeps, as a list of broken rules (empty when it is sound): sizes
// add up, children are sorted and within the limits, paths follow names, no node is deeper than
// maxDepth or smaller than the floor, and the whole tree holds at most nodeBudget nodes.
std::vector<std::string> brokenRules(const SpaceTree& tree, const SpaceScanOptions& options);

} // namespace sd::test
