#pragma once

#include "core/Cancellation.h"
#include "core/Ledgers.h"
#include "reclaim/VaultMeter.h"
#include "reclaim/VaultPolicy.h"
#include "reclaim/VaultTypes.h"

#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace sd {

// Thrown by the validator: the item may no longer move, and why.
class VaultDenied : public std::runtime_error {
public:
    explicit VaultDenied(VaultDenyReason reason)
        : std::runtime_error(std::string(denyReasonName(reason))), reason_(reason) {}
    VaultDenyReason reason() const noexcept { return reason_; }

private:
    VaultDenyReason reason_;
};

struct RecycleRequest {
    std::string path;
    EntryIdentity identity; // what must still be at `path` when it moves
    std::uint64_t bytes = 0;
};

struct RecycleAnswer {
    std::optional<std::string> trashPath;
    std::string error; // a sentence when it did not move
};

// Whether a walk below an item judges descendants by the user-data test as well as by the policy.
// Catalogued caches are known to hold images and databases of their own (thumbnails, indexes),
// so the catalog's own rules decide for them.
enum class DescendantRules { policyAndUserData, policyOnly };

struct ClassifyOptions {
    std::vector<std::string> scopes; // expanded absolute scopes
    std::function<bool(const std::string& path)> isCatalogued;
    DescendantRules descendants = DescendantRules::policyAndUserData;
    bool checkScope = true;
};

// Classifies and measures one requested path. Never throws: every problem is a verdict.
VaultPlanItem classifyPath(const VaultPolicy& policy, const std::string& requested,
                           const ClassifyOptions& options, VaultMeter* meter,
                           const Cancellation& cancel = {});

// The vault: plans, re-checks and moves. Its three operations can be replaced (tests do).
class VaultService {
public:
    using Planner =
        std::function<VaultPlan(const std::vector<std::string>& paths,
                                const std::vector<std::string>& scopes, VaultMeter* meter)>;
    using Validator = std::function<VaultPlanItem(const VaultPlanItem& item,
                                                  const std::string& nonce, VaultMeter* meter)>;
    using Recycle = std::function<std::vector<RecycleAnswer>(const std::vector<RecycleRequest>&)>;

    Planner planner;
    Validator validator;
    Recycle recycle;

    // The production vault over `policy`. `isCatalogued` tells which paths are known catalog
    // targets; `descendants` which rules judge what lies inside an item.
    static VaultService standard(std::shared_ptr<const VaultPolicy> policy,
                                 std::function<bool(const std::string&)> isCatalogued = {},
                                 DescendantRules descendants = DescendantRules::policyAndUserData);

    // Validates each ticked item (indexes into `plan.items`, handled in plan order), hands those
    // that pass to the Trash in one call, and proves each moved object is the planned one.
    MoveOutcome move(const VaultPlan& plan, std::vector<size_t> ticked,
                     const std::function<void(const VaultMoveProgress&)>& progress,
                     const Cancellation& cancel) const;
};

// Scopes as given ("~/" expanded); the home and "/Applications" when none are given.
std::vector<std::string> expandScopes(const std::vector<std::string>& scopes,
                                      const std::string& home);

// The production recycle: the platform's Trash, renaming from a descriptor opened without
// following links, refusing anything that is no longer the expected object.
std::vector<RecycleAnswer> recycleToTrash(const std::vector<RecycleRequest>& requests);

// The closest folder above `path` that holds a repository marker (".git", ".hg", ".svn",
// ".fossil"), looked up by name without following links.
std::optional<std::string> enclosingRepository(const std::string& path);

// A short sentence for a note on an item that stayed.
std::string stayedNote(const std::string& path, VaultDenyReason reason);

} // namespace sd
