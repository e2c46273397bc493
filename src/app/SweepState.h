#pragma once

#include "sweep/Sweep.h"

#include <array>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

namespace sd::app {

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

// What the Sweep screen shows. The item models read it and own nothing; the screen changes it on
// the interface thread only, from finished results.
struct SweepState {
    std::shared_ptr<Sweep> sweep;          // the last finished Sweep of this session
    std::optional<SweepRecord> lastRecord; // kept from an earlier one, shown until a new Sweep
    bool sweeping = false;
    SweepReading progress; // of the running Sweep, polled
    std::set<SweepTileKind> selection;
    // The tiles the person ticked themselves, remembered between Sweeps and sessions. A new Sweep
    // ticks only these; nothing is ever ticked on the person's behalf.
    std::set<SweepTileKind> chosen;
    std::set<SweepTileKind> reclaiming;
    std::map<SweepTileKind, std::uint64_t> movedByTile; // of the last reclaim
};

// Where the person's own ticks are kept, as tile names separated by commas.
inline constexpr std::string_view chosenTilesKey = "sd.app.sweepChosenTiles";

} // namespace sd::app
