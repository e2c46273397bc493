#pragma once

#include "catalog/Catalog.h"
#include "catalog/CleaningService.h"
#include "catalog/InclusionPreferences.h"
#include "platform/UserDefaults.h"
#include "sweep/Sweep.h"

#include <array>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace sd::app {

// What the screens show, held in one place per screen. The item models read these and own
// nothing; the screens change them on the interface thread only, from finished results.

// The Sweep's per-tile progress as the tiles show it, read from the running Sweep.
struct SweepReading {
    struct Tile {
        double fraction = 0;
        std::uint64_t bytes = 0;
        std::uint64_t items = 0;
        bool finished = false;
    };
    std::array<Tile, allTileKinds.size()> tiles{};
    double fraction = 0;
    std::optional<std::string> currentPath;

    const Tile& tile(SweepTileKind kind) const { return tiles[static_cast<size_t>(kind)]; }
    Tile& tile(SweepTileKind kind) { return tiles[static_cast<size_t>(kind)]; }
};

struct SweepState {
    std::shared_ptr<Sweep> sweep;          // the last finished Sweep of this session
    std::optional<SweepRecord> lastRecord; // kept from an earlier one, shown until a new Sweep
    bool sweeping = false;
    SweepReading progress; // of the running Sweep, polled
    std::set<SweepTileKind> selection;
    std::set<SweepTileKind> reclaiming;
    std::map<SweepTileKind, std::uint64_t> movedByTile; // of the last reclaim
};

// The catalog with the person's switches and the last measurement.
struct CatalogState {
    explicit CatalogState(platform::UserDefaults store);

    // Switches a target or path on or off, for measuring and cleaning alike, and saves it.
    void setIncluded(const std::string& id, bool included);
    bool isIncluded(const std::string& id) const;
    bool isIncluded(const Target& target, const PathSpec& path) const;
    // Targets left out of every Sweep, read again from the settings store.
    void reloadLeftOut();
    void leaveOut(const std::string& targetID, bool leftOut);
    void setScan(std::optional<ScanResult> result);

    platform::UserDefaults store;
    std::vector<Target> catalog;
    InclusionPreferences prefs;
    std::set<std::string> leftOutOfSweep;
    std::optional<ScanResult> scan;
    std::map<std::string, std::uint64_t> bytesByTarget;
    std::map<std::string, std::uint64_t> bytesByPath; // "<target>/<path id>"
};

// The key a path's measured bytes are kept under.
std::string pathKey(const Target& target, const PathSpec& path);

} // namespace sd::app
