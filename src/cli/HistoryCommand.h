#pragma once

#include "space/SpaceTreeScanner.h"

#include <cstdint>
#include <optional>
#include <string>

namespace CLI {
class App;
}

namespace sd::cli {

// What `space` does with the scan history besides drawing the tree.
struct SpaceHistoryOptions {
    bool changes = false;
    std::string since;      // YYYY-MM-DD, empty for the previous scan
    std::string exportFile; // ncdu's JSON format
};

// Adds --changes, --since and --export to the `space` command.
void addSpaceHistoryOptions(CLI::App& space, SpaceHistoryOptions& options);

// Saves the scan in the history (telling on standard error when that failed or a damaged history
// was replaced) and returns its id.
std::optional<std::int64_t> keepInHistory(const SpaceScanResult& result);

// After a `space` scan: keeps it, writes the export, and prints what changed when asked. Returns
// true when it printed the result itself, so the tree is not printed as well.
bool finishSpaceScan(const SpaceScanResult& result, const SpaceHistoryOptions& options, bool json,
                     int& exitStatus);

// `sparrowdeck history [PATH] [--json]`: the scans kept of a folder and the free-space record.
void addHistoryCommand(CLI::App& app, int& exitStatus);

} // namespace sd::cli
