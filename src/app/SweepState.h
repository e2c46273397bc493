#pragma once

#include "sweep/Sweep.h"

#include <map>
#include <memory>
#include <optional>
#include <set>

namespace sd::app {

// What the Sweep screen shows. The item models read it and own nothing; the screen changes it on
// the interface thread only, from finished results.
struct SweepState {
    std::shared_ptr<Sweep> sweep;          // the last finished Sweep of this session
    std::optional<SweepRecord> lastRecord; // kept from an earlier one, shown until a new Sweep
    bool sweeping = false;
    SweepProgress progress; // of the running Sweep, polled
    std::set<SweepTileKind> selection;
    std::set<SweepTileKind> reclaiming;
    std::map<SweepTileKind, std::uint64_t> movedByTile; // of the last reclaim
};

} // namespace sd::app
