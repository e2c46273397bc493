#pragma once

#include "base/Identity.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sd {

// Why the vault keeps an item where it is. The order is the order the views sort by.
enum class VaultDenyReason {
    systemPath,
    protectedUserDir,
    symlinkInPath,
    datalessFile,
    datalessStateChanged,
    cloudStorage,
    photosLibraryInternal,
    timeMachine,
    gitWorkingTree,
    multiplyLinked,
    protectedDescendant,
    sizeChangedSinceScan,
    nonTrashableVolume,
    tooShallow,
    outsideGrantedScope,
    stalePlan,
    unreadable,
    identityChanged,
};

enum class VaultClassification { catalogued, uncataloguedLarge, obviousUserData };
enum class VaultFriction { cataloguedLow, uncataloguedMedium, confirmOwnFiles };

enum class DenyTextForm { full, compact };

// The sentence a denied row shows.
std::string_view denyText(VaultDenyReason reason, DenyTextForm form = DenyTextForm::full);
// The reason's name as the views and --json use it ("symlinkInPath").
std::string_view denyReasonName(VaultDenyReason reason);
std::string_view classificationName(VaultClassification classification);
std::string_view frictionName(VaultFriction friction);

struct VaultPlanItem {
    std::string requestedPath;
    std::string resolvedPath;
    std::uint64_t dev = 0;
    std::uint64_t ino = 0;
    std::uint32_t fileType = 0; // the S_IFMT bits
    std::int64_t ctimeSec = 0;
    std::int64_t ctimeNsec = 0;
    std::int64_t birthtimeSec = 0;
    std::int64_t birthtimeNsec = 0;
    std::uint64_t size = 0;
    std::string identityToken;
    std::uint64_t physicalBytes = 0;
    std::uint64_t displayedBytes = 0;
    bool isDir = false;
    std::optional<std::string> dirFingerprint;
    VaultFriction friction = VaultFriction::uncataloguedMedium;
    VaultClassification classification = VaultClassification::uncataloguedLarge;
    std::optional<VaultDenyReason> denied;
    bool defaultSelected = false;
    std::string planNonce;
    std::uint64_t freeableBytes = 0;
    // Not persisted: whether the file was a cloud placeholder when planned.
    bool dataless = false;

    EntryIdentity identity() const noexcept { return {dev, ino, fileType}; }
};

struct VaultPlan {
    std::vector<VaultPlanItem> items;
    std::string planNonce;
};

// One object that reached the Trash and was proven to be the planned one.
struct MovedItem {
    std::string originalPath;
    std::string trashPath;
    std::uint64_t bytes = 0;
    std::string identityToken;
};

struct MoveOutcome {
    std::vector<MovedItem> moved;
    // One sentence per item that stayed, and a last one when the run ended early.
    std::vector<std::string> notes;
    // Indexes into the plan of the items that stayed, with the reason where there is one.
    std::vector<std::pair<size_t, std::optional<VaultDenyReason>>> stayed;
};

} // namespace sd
