#pragma once

#include "base/Progress.h"
#include "core/Ledgers.h"
#include "reclaim/ReclaimJournal.h"
#include "reclaim/VaultPolicy.h"
#include "reclaim/VaultTypes.h"

#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <stop_token>
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

// Classifies and measures one requested path; `progress` counts the entries examined. Every
// problem is a verdict; only a stop throws ("Operation cancelled").
VaultPlanItem classifyPath(const VaultPolicy& policy, const std::string& requested,
                           const ClassifyOptions& options, OperationProgress* progress,
                           const std::stop_token& stop = {});

// The vault: plans, re-checks and moves. Its three operations can be replaced (tests do).
class VaultService {
public:
    // Plans on up to four workers; `progress` counts items done (of the paths given) and
    // entries examined.
    using Planner = std::function<VaultPlan(const std::vector<std::string>& paths,
                                            const std::vector<std::string>& scopes,
                                            OperationProgress* progress)>;
    using Validator =
        std::function<VaultPlanItem(const VaultPlanItem& item, const std::string& nonce)>;
    using Recycle = std::function<std::vector<RecycleAnswer>(const std::vector<RecycleRequest>&)>;
    // Records what is about to move before anything moves (the journal's write-ahead). Throws
    // when it cannot; then nothing moves.
    using WriteAhead = std::function<void(const std::vector<RecycleRequest>&)>;

    Planner planner;
    Validator validator;
    Recycle recycle;
    WriteAhead writeAhead;

    // The production vault over `policy`. `isCatalogued` tells which paths are known catalog
    // targets; `descendants` which rules judge what lies inside an item.
    static VaultService standard(std::shared_ptr<const VaultPolicy> policy,
                                 const std::function<bool(const std::string&)>& isCatalogued = {},
                                 DescendantRules descendants = DescendantRules::policyAndUserData);

    // Validates each ticked item (indexes into `plan.items`, handled in plan order), hands those
    // that pass to the Trash in one call, and proves each moved object is the planned one. A stop
    // is looked at before each item; what was not reached stays where it is. `progress` counts
    // items finished of those ticked, items and bytes moved.
    MoveOutcome move(const VaultPlan& plan, std::vector<size_t> ticked,
                     const std::stop_token& stop = {}, OperationProgress* progress = nullptr) const;
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

// The sentence of a move that stopped before anything moved because the journal could not
// record it first.
std::string unrecordedMoveNote(const std::string& why);

// A write-ahead into `journal` for the items a move is about to hand to the Trash.
VaultService::WriteAhead journalWriteAhead(ReclaimJournal& journal, std::string title,
                                           JournalKind kind, std::string group,
                                           std::optional<JournalContext> context = std::nullopt);

// The last note of a move that a stop ended early.
inline constexpr std::string_view stoppedNote = "Stopped; the rest wasn't moved.";

// A short sentence for a note on an item that stayed.
std::string stayedNote(const std::string& path, VaultDenyReason reason);

} // namespace sd
