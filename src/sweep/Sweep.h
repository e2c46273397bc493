#pragma once

#include "apps/Leftovers.h"
#include "base/Progress.h"
#include "catalog/Catalog.h"
#include "catalog/CleaningService.h"
#include "core/MoveListing.h"
#include "platform/UserDefaults.h"
#include "reclaim/ReclaimJournal.h"

#include <array>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace sd {

enum class SweepTileKind { developer, appCaches, installers, redownloads, leftovers, trash };

inline constexpr std::array<SweepTileKind, 6> allTileKinds{
    SweepTileKind::developer,   SweepTileKind::appCaches, SweepTileKind::installers,
    SweepTileKind::redownloads, SweepTileKind::leftovers, SweepTileKind::trash};

std::string_view tileKindName(SweepTileKind kind);
std::optional<SweepTileKind> tileKindFromName(std::string_view name);
// True for tiles whose data returns by itself after it is removed.
bool tileComesBack(SweepTileKind kind);
// Which catalog targets make up a tile (none for installers, leftovers and the Trash).
bool tileHoldsTarget(SweepTileKind kind, std::string_view targetID);

struct SweepTile {
    SweepTileKind kind = SweepTileKind::developer;
    std::vector<Target> targets;
    std::uint64_t bytes = 0;
    std::map<std::string, std::uint64_t> perTarget;
    std::map<std::string, std::uint64_t> appBytes;
    std::vector<std::string> skippedTitles;
    std::map<std::string, std::uint64_t> measured;
    std::map<std::string, std::map<std::string, std::uint64_t>> appBytesByTarget;
    std::set<std::string> leftOut;
    std::uint64_t itemCount = 0;
    std::vector<std::string> warnings;
    std::optional<ScanResult> scanResult;
    std::optional<InstallerPlan> installers; // the installers tile's items
    std::vector<OrphanGroup> orphans;        // the leftovers tile's items, by removed app
};

std::string tileTitle(const SweepTile& tile);

// The places a tile would move, each with what it measured there, for a person to read before
// anything moves: "~/.cache/pip", "~/.cache/mozilla/firefox/*/cache2".
std::vector<ListedMove> tileLocations(const SweepTile& tile);
std::string tileSubtitle(const SweepTile& tile);

struct SweepHighlight {
    std::string title;
    std::uint64_t bytes = 0;
};

struct SweepRecord {
    struct Tile {
        std::string kind;
        std::string title;
        std::uint64_t bytes = 0;
        bool comesBack = false;
    };
    std::string date;
    std::optional<double> duration;
    std::uint64_t itemsSeen = 0;
    std::vector<Tile> tiles;
};

inline constexpr std::string_view sweepLastKey = "sd.sweep.last";
inline constexpr std::string_view sweepSkippedKey = "sd.sweep.skippedTargets";
inline constexpr std::string_view sweepExclusionsChangedText =
    "Sweep exclusions changed; nothing in this batch was moved. Sweep again.";
inline constexpr std::string_view sweepRecheckText =
    "Each item is checked again right before it moves.";
inline constexpr std::string_view leftOutTileText = "Left out of the Sweep";
inline constexpr std::string_view leftOutCatalogText =
    "Left out of every Sweep — you can still clean it here.";
inline constexpr std::string_view broughtBackText =
    "Every Sweep includes it. Switch off to leave it out.";

// Progress of a running Sweep, polled by the front ends: one progress per tile, which reads 1
// once the tile is measured.
class SweepProgress {
public:
    OperationProgress& tile(SweepTileKind kind) noexcept {
        return tiles_[static_cast<size_t>(kind)];
    }
    const OperationProgress& tile(SweepTileKind kind) const noexcept {
        return tiles_[static_cast<size_t>(kind)];
    }
    // The share of the whole Sweep done: the mean of the tiles' own shares.
    double fraction() const;

private:
    std::array<OperationProgress, allTileKinds.size()> tiles_;
};

struct SweepReclaimResult {
    std::uint64_t movedBytes = 0;
    std::uint64_t movedCount = 0;
    std::uint64_t freeableBytes = 0;
    std::map<SweepTileKind, std::uint64_t> movedByTile;
    std::optional<std::string> journalEntryID;
    std::vector<std::string> reclaimErrors;
    bool refused = false; // the exclusions changed: nothing moved
};

// The one-button measurement of everything that comes back by itself, and its reclaim.
class Sweep {
public:
    Sweep(DistributionMode distribution, platform::UserDefaults store,
          std::shared_ptr<const VaultPolicy> policy);

    // Measures every tile, the tiles side by side. Throws "Operation cancelled" when stopped.
    void run(const std::stop_token& stop = {}, SweepProgress* progress = nullptr);

    const std::vector<SweepTile>& tiles() const noexcept { return tiles_; }
    const std::vector<SweepHighlight>& highlights() const noexcept { return highlights_; }
    const std::vector<std::string>& warnings() const noexcept { return warnings_; }
    double durationSeconds() const noexcept { return duration_; }
    std::uint64_t itemsSeen() const noexcept { return itemsSeen_; }
    const std::vector<Target>& allTargets() const noexcept { return allTargets_; }
    const SweepTile* tile(SweepTileKind kind) const;

    // The targets left out of every Sweep, as the store has them now.
    std::set<std::string> skippedTargets() const;
    void leaveOut(const std::string& targetID);
    void bringBack(const std::string& targetID);

    // Moves the ticked tiles' items through the vault, unless what is left out changed since the
    // Sweep measured, and writes one Activity entry of kind sweep. Stop ends planning with
    // "Operation cancelled" and leaves the items not yet reached in place.
    SweepReclaimResult reclaim(const std::set<SweepTileKind>& kinds, ReclaimJournal& journal,
                               const std::stop_token& stop = {},
                               OperationProgress* progress = nullptr);

    // The record of the last finished Sweep, if one was kept.
    static std::optional<SweepRecord> lastRecord(platform::UserDefaults& store);
    static void saveRecord(platform::UserDefaults& store, const std::optional<SweepRecord>& record);
    SweepRecord record() const;

private:
    std::string exclusionsFingerprint() const;
    // Fills the installers and leftovers tiles from the apps subsystem's planners.
    void measureAppTiles(const std::stop_token& stop, OperationProgress* installersProgress,
                         OperationProgress* leftoversProgress);
    // Moves the ticked app tiles' items through the vault and journals them.
    void reclaimAppTiles(const std::set<SweepTileKind>& kinds, ReclaimJournal& journal,
                         SweepReclaimResult& result, const std::stop_token& stop);

    DistributionMode distribution_;
    mutable platform::UserDefaults store_;
    std::shared_ptr<const VaultPolicy> policy_;
    std::vector<Target> allTargets_;
    std::vector<SweepTile> tiles_;
    std::vector<SweepHighlight> highlights_;
    std::vector<std::string> warnings_;
    double duration_ = 0;
    std::uint64_t itemsSeen_ = 0;
    std::string startedAt_;
    std::string measuredExclusions_;
};

} // namespace sd
