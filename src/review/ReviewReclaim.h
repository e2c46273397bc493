#pragma once

#include "base/Stop.h"
#include "core/Ledgers.h"
#include "reclaim/ReclaimJournal.h"
#include "reclaim/VaultService.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// What the person ticked in a review list goes to the Trash the way everything else does: the
// vault plans it, checks it again and moves it, and the journal records it as findings.
namespace sd {

struct DuplicateGroup;
struct LargeOldItem;

// A ticked file with what the review recorded of it, to prove it is still that file.
struct ReviewedItem {
    std::string path;
    EntryIdentity identity;
    // The status-change time the review saw, where it kept one: any write moves it.
    std::optional<std::pair<std::int64_t, std::int64_t>> changed;
};

struct ReviewMoveResult {
    VaultPlan plan;
    MoveOutcome outcome;
    std::string entryID; // the journal entry, empty when nothing moved
};

// Plans the items with the vault, keeps in place any that is no longer what the review saw,
// moves the rest and records them in `journal` under `title` (kind findings, row group `group`).
ReviewMoveResult moveReviewedItems(const VaultService& vault, ReclaimJournal& journal,
                                   const std::vector<ReviewedItem>& items, const std::string& title,
                                   const std::string& group, const std::stop_token& stop = {});

// The ticked copies of a group that may move. The copy to keep and copies that share their
// storage never do: each such path gets a sentence in `refused`.
std::vector<ReviewedItem> duplicateCopiesToMove(const DuplicateGroup& group,
                                                const std::vector<std::string>& ticked,
                                                std::vector<std::string>& refused);

ReviewedItem reviewedItemOf(const LargeOldItem& item);

} // namespace sd
