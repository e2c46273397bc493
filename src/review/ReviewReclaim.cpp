#include "review/ReviewReclaim.h"

#include "review/DuplicateComparer.h"
#include "review/LargeOldFinder.h"

#include <algorithm>
#include <sys/stat.h>

namespace sd {

ReviewMoveResult moveReviewedItems(const VaultService& vault, ReclaimJournal& journal,
                                   const std::vector<ReviewedItem>& items, const std::string& title,
                                   const std::string& group, const std::stop_token& stop) {
    ReviewMoveResult result;
    std::vector<std::string> paths;
    paths.reserve(items.size());
    for (const ReviewedItem& item : items) {
        paths.push_back(item.path);
    }
    result.plan = vault.planner(paths, {}, nullptr);
    std::vector<size_t> ticked;
    for (size_t i = 0; i < result.plan.items.size() && i < items.size(); ++i) {
        VaultPlanItem& planned = result.plan.items[i];
        const ReviewedItem& seen = items[i];
        if (!planned.denied) {
            if (planned.identity() != seen.identity) {
                planned.denied = VaultDenyReason::identityChanged;
            } else if (seen.changed && (planned.ctimeSec != seen.changed->first ||
                                        planned.ctimeNsec != seen.changed->second)) {
                planned.denied = VaultDenyReason::sizeChangedSinceScan;
            }
        }
        ticked.push_back(i); // denied items stay, each with its sentence
    }
    VaultService recorded = vault;
    recorded.writeAhead = journalWriteAhead(journal, title, JournalKind::findings, group);
    result.outcome = recorded.move(result.plan, ticked, stop);
    std::vector<TrashedItem> moved;
    for (const MovedItem& m : result.outcome.moved) {
        moved.push_back(
            {m.originalPath, m.trashPath, m.bytes, m.identityToken, group, false, std::nullopt});
    }
    // Called when nothing moved too, so the record written ahead of the move is dropped.
    std::string entryID = journal.record(std::move(moved), title, JournalKind::findings);
    if (!result.outcome.moved.empty()) {
        result.entryID = entryID;
    }
    return result;
}

std::vector<ReviewedItem> duplicateCopiesToMove(const DuplicateGroup& group,
                                                const std::vector<std::string>& ticked,
                                                std::vector<std::string>& refused) {
    std::vector<ReviewedItem> out;
    for (const std::string& path : ticked) {
        auto file = std::find_if(group.files.begin(), group.files.end(),
                                 [&](const DuplicateFile& f) { return f.path == path; });
        if (file == group.files.end()) {
            refused.push_back(path + ": not a copy in this group — left in place.");
        } else if (file->path == group.suggestedKeep) {
            refused.push_back(path + ": " + std::string(duplicateText::keptCopy) +
                              " — left in place.");
        } else if (!file->sharedWith.empty()) {
            refused.push_back(path + std::string(duplicateText::sharedReason) + ".");
        } else {
            out.push_back({file->path,
                           {file->device, file->inode, S_IFREG},
                           std::pair{file->changedSec, file->changedNsec}});
        }
    }
    return out;
}

ReviewedItem reviewedItemOf(const LargeOldItem& item) {
    return {
        item.path,
        {item.device, item.inode, static_cast<std::uint32_t>(item.isPackage ? S_IFDIR : S_IFREG)},
        std::nullopt};
}

} // namespace sd
