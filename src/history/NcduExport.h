#pragma once

#include "space/SpaceTree.h"

#include <cstdint>
#include <string>

namespace sd {

// The space tree in ncdu's JSON export format (version 1.2), which `ncdu -f` and `gdu -f` open.
// Each node's "other" share becomes one file entry named for what it stands for, so the totals
// those tools add up are the tree's own. `timestamp` is seconds since the epoch.
std::string ncduExport(const SpaceTree& tree, const std::string& programVersion,
                       std::int64_t timestamp);

// Writes the export to `file`, replacing it whole. Throws CleanerError.
void writeNcduExport(const SpaceTree& tree, const std::string& file,
                     const std::string& programVersion, std::int64_t timestamp);

} // namespace sd
