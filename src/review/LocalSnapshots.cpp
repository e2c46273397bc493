#include "review/LocalSnapshots.h"

#include "base/CleanerError.h"
#include "base/Progress.h"

#include <algorithm>

namespace sd {

SnapshotDeletionOutcome deleteSnapshots(const platform::LocalSnapshotTool& tool,
                                        const std::vector<LocalSnapshot>& listing,
                                        const SnapshotDeletionConsent& consent,
                                        OperationProgress& progress, const std::stop_token& stop) {
    if (!consent.acknowledgedIrreversible) {
        throw CleanerError::safety(std::string(notAcknowledgedText));
    }
    SnapshotDeletionOutcome outcome;
    // The listing's order, which is the order the tool keeps them in (oldest first).
    std::vector<const LocalSnapshot*> chosen;
    for (const std::string& stamp : consent.stamps) {
        auto found = std::find_if(listing.begin(), listing.end(),
                                  [&](const LocalSnapshot& s) { return tool.names(s, stamp); });
        if (found == listing.end()) {
            outcome.refused.push_back(stamp);
        } else {
            chosen.push_back(&*found);
        }
    }
    std::sort(chosen.begin(), chosen.end());

    progress.setPhase("Deleting snapshots");
    progress.setTotal(chosen.size());
    std::vector<std::string> attempted;
    for (const LocalSnapshot* snapshot : chosen) {
        if (stop.stop_requested()) {
            outcome.stopped.push_back(snapshot->stamp);
            continue;
        }
        progress.setCurrentPath(snapshot->stamp);
        platform::SnapshotDeletionRun run = tool.remove(*snapshot);
        attempted.push_back(snapshot->stamp);
        if (!run.ok) {
            outcome.failed[snapshot->stamp] = run.message;
            if (!outcome.toolReason && !run.reason.empty()) {
                outcome.toolReason = run.reason;
            }
        }
        progress.notice(snapshot->stamp, run.ok ? 1 : 0);
        progress.addDone();
    }
    progress.clearCurrentPath();

    progress.setPhase("Reading the snapshot list again");
    LocalSnapshotListing after = tool.list();
    if (after.failure) {
        for (const std::string& stamp : attempted) {
            outcome.failed[stamp] = std::string(unconfirmedText);
        }
        outcome.remaining = listing;
        return outcome;
    }
    for (const std::string& stamp : attempted) {
        const bool stillListed =
            std::any_of(after.snapshots.begin(), after.snapshots.end(),
                        [&](const LocalSnapshot& s) { return s.stamp == stamp; });
        if (!stillListed) {
            outcome.deleted.push_back(stamp);
            outcome.failed.erase(stamp);
        } else if (!outcome.failed.contains(stamp)) {
            outcome.failed[stamp] = "It is still listed after " + std::string(tool.toolName()) +
                                    " reported it deleted.";
        }
    }
    outcome.remaining = std::move(after.snapshots);
    return outcome;
}

std::string deletionSummary(const SnapshotDeletionOutcome& outcome,
                            const platform::LocalSnapshotTool& tool) {
    const size_t deleted = outcome.deleted.size();
    if (deleted == 0) {
        if (outcome.toolReason) {
            return "Nothing was deleted — " + std::string(tool.speaker()) +
                   " said: " + *outcome.toolReason;
        }
        return "Nothing was deleted.";
    }
    std::string text =
        "Deleted " + std::to_string(deleted) + (deleted == 1 ? " snapshot" : " snapshots");
    if (!outcome.stopped.empty()) {
        text += "; stopped, " + std::to_string(outcome.stopped.size()) + " left";
    }
    return text + ". " + std::string(tool.spaceReturnText());
}

SnapshotReviewSession::SnapshotReviewSession(
    std::vector<LocalSnapshot> snapshots,
    std::function<void(const std::vector<LocalSnapshot>&)> onChanged)
    : snapshots_(std::move(snapshots)), onChanged_(std::move(onChanged)) {}

void SnapshotReviewSession::setSelected(const std::string& stamp, bool selected) {
    if (stage_ != Stage::browsing) {
        return;
    }
    const bool listed = std::any_of(snapshots_.begin(), snapshots_.end(),
                                    [&](const LocalSnapshot& s) { return s.stamp == stamp; });
    if (selected && listed) {
        selection_.insert(stamp);
    } else {
        selection_.erase(stamp);
    }
}

bool SnapshotReviewSession::review() {
    if (stage_ != Stage::browsing || selection_.empty()) {
        return false;
    }
    acknowledged_ = false;
    stage_ = Stage::confirming;
    return true;
}

void SnapshotReviewSession::acknowledge(bool given) {
    if (stage_ == Stage::confirming) {
        acknowledged_ = given;
    }
}

void SnapshotReviewSession::back() {
    if (stage_ == Stage::confirming) {
        acknowledged_ = false;
        stage_ = Stage::browsing;
    }
}

std::optional<SnapshotDeletionConsent> SnapshotReviewSession::start() {
    if (stage_ != Stage::confirming || !acknowledged_) {
        return std::nullopt;
    }
    stage_ = Stage::deleting;
    stopping_ = false;
    progress_ = Progress{selection_.size(), std::chrono::system_clock::now(), std::nullopt, {}};
    return SnapshotDeletionConsent{selection_, true};
}

void SnapshotReviewSession::observe(const std::optional<std::string>& current,
                                    const std::string& finishedStamp, bool ok) {
    if (stage_ != Stage::deleting || !progress_) {
        return;
    }
    progress_->current = current;
    if (!finishedStamp.empty()) {
        progress_->finished[finishedStamp] = ok;
    }
}

void SnapshotReviewSession::stop() {
    if (stage_ == Stage::deleting) {
        stopping_ = true;
    }
}

void SnapshotReviewSession::finish(SnapshotDeletionOutcome outcome) {
    if (stage_ != Stage::deleting) {
        return;
    }
    snapshots_ = outcome.remaining;
    outcome_ = std::move(outcome);
    stage_ = Stage::done;
    selection_.clear();
    acknowledged_ = false;
    stopping_ = false;
    if (progress_) {
        progress_->current.reset();
    }
    if (onChanged_) {
        onChanged_(snapshots_);
    }
}

void SnapshotReviewSession::dismiss() {
    if (stage_ == Stage::done) {
        stage_ = Stage::browsing;
        outcome_.reset();
        progress_.reset();
    }
}

} // namespace sd
