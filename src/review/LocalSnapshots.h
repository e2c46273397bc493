#pragma once

#include "platform/LocalSnapshotTool.h"

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <stop_token>
#include <string>
#include <vector>

namespace sd {

class OperationProgress;

using LocalSnapshot = platform::LocalSnapshot;
using LocalSnapshotListing = platform::LocalSnapshotListing;

struct SnapshotDeletionConsent {
    std::set<std::string> stamps;
    bool acknowledgedIrreversible = false; // the user confirmed that deletion is permanent
};

struct SnapshotDeletionOutcome {
    std::vector<std::string> deleted;          // confirmed gone by a new listing
    std::map<std::string, std::string> failed; // stamp → message
    std::vector<std::string> refused;          // not a current snapshot: never attempted
    std::vector<LocalSnapshot> remaining;      // the listing after the run
    std::vector<std::string> stopped;          // not attempted because the user stopped
    std::optional<std::string> toolReason;     // the first thing the tool said on a failure
};

inline constexpr std::string_view unconfirmedText =
    "Couldn't confirm: the snapshot list could not be read again";
inline constexpr std::string_view notAcknowledgedText =
    "Snapshots can't go to the Trash, so deleting one can't be undone. Confirm that first; "
    "nothing was deleted.";

// Deletes the chosen snapshots one at a time, in the listing's order. Only a stamp that names a
// snapshot of `listing` exactly is ever passed to the tool; the others are refused. A stop is read
// between snapshots: the one being deleted finishes, the rest are `stopped`. Afterwards the list
// is read again and only a snapshot no longer listed counts as deleted.
//
// Progress: the total is the number to attempt, the current path the stamp being deleted, and
// each finished stamp is posted as a notice whose bytes are 1 when the tool reported it deleted
// and 0 when it failed.
//
// Throws CleanerError (safety) with notAcknowledgedText, before touching anything, when the
// consent does not acknowledge that deletion is permanent.
SnapshotDeletionOutcome deleteSnapshots(const platform::LocalSnapshotTool& tool,
                                        const std::vector<LocalSnapshot>& listing,
                                        const SnapshotDeletionConsent& consent,
                                        OperationProgress& progress,
                                        const std::stop_token& stop = {});

// "Deleted 2 snapshots. macOS hands their space back over the next few minutes.", with
// "; stopped, N left" when the user stopped, or "Nothing was deleted." (with what the tool said,
// where it said something).
std::string deletionSummary(const SnapshotDeletionOutcome& outcome,
                            const platform::LocalSnapshotTool& tool);

// The state of the snapshot review screen, without any drawing: browsing (choosing) →
// confirming (the acknowledgement must be given) → deleting → done.
class SnapshotReviewSession {
public:
    enum class Stage { browsing, confirming, deleting, done };

    struct Progress {
        std::size_t total = 0;
        std::chrono::system_clock::time_point startedAt;
        std::optional<std::string> current;
        std::map<std::string, bool> finished;
    };

    explicit SnapshotReviewSession(
        std::vector<LocalSnapshot> snapshots,
        std::function<void(const std::vector<LocalSnapshot>&)> onChanged = {});

    Stage stage() const noexcept { return stage_; }
    const std::vector<LocalSnapshot>& snapshots() const noexcept { return snapshots_; }
    const std::set<std::string>& selection() const noexcept { return selection_; }
    bool acknowledged() const noexcept { return acknowledged_; }
    bool stopping() const noexcept { return stopping_; }
    const std::optional<Progress>& progress() const noexcept { return progress_; }
    const std::optional<SnapshotDeletionOutcome>& outcome() const noexcept { return outcome_; }

    // Browsing only: ticks or unticks a listed snapshot.
    void setSelected(const std::string& stamp, bool selected);
    // Browsing with something chosen → confirming, the acknowledgement cleared.
    bool review();
    void acknowledge(bool given);
    // Confirming → browsing.
    void back();
    // Confirming and acknowledged → deleting; the consent to hand to the deletion.
    std::optional<SnapshotDeletionConsent> start();
    // While deleting, from the deletion's progress.
    void observe(const std::optional<std::string>& current, const std::string& finishedStamp,
                 bool ok);
    // Deleting: asks the deletion to stop after the current snapshot.
    void stop();
    // Deleting → done; the list becomes what remained.
    void finish(SnapshotDeletionOutcome outcome);
    // Done → browsing over the new list.
    void dismiss();

private:
    std::vector<LocalSnapshot> snapshots_;
    std::function<void(const std::vector<LocalSnapshot>&)> onChanged_;
    std::set<std::string> selection_;
    bool acknowledged_ = false;
    Stage stage_ = Stage::browsing;
    std::optional<SnapshotDeletionOutcome> outcome_;
    std::optional<Progress> progress_;
    bool stopping_ = false;
};

} // namespace sd
