#pragma once

#include "base/Progress.h"
#include "base/Stop.h"
#include "catalog/Catalog.h"
#include "reclaim/ReclaimJournal.h"
#include "reclaim/VaultService.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace sd {

struct TargetSize {
    std::string targetId;
    std::uint64_t bytes = 0;
};

struct PathSize {
    std::string targetId;
    std::string pathId;
    std::uint64_t bytes = 0;
};

struct ScanResult {
    std::uint64_t totalBytes = 0;
    std::vector<TargetSize> perTargetBytes;
    std::vector<PathSize> perPathBytes;
    std::vector<std::string> warnings;
    std::uint64_t durationMs = 0;
    std::uint64_t itemCount = 0;
};

struct CacheCleaningCandidate {
    std::string path;
    std::vector<std::string> excludes; // relative globs below `path` that stay
    bool preserveRoot = false;
    std::optional<std::string> targetID;
};

struct CleanPath {
    std::string url;
    std::uint64_t physicalBytes = 0;
    std::uint64_t freeableBytes = 0;
    std::uint64_t dev = 0;
    std::uint64_t ino = 0;
    std::optional<std::string> targetID;
    std::uint32_t fileType = 0; // the S_IFMT bits

    EntryIdentity identity() const noexcept { return {dev, ino, fileType}; }
};

struct CleanError {
    std::string path;
    std::string message;
};

struct CleanPlan {
    std::vector<CleanPath> paths;
    std::vector<CleanError> errors;
    std::uint64_t plannedFreeableBytes = 0;
};

struct CleanResult {
    std::uint64_t bytesRemoved = 0;
    std::uint64_t filesRemoved = 0;
    std::vector<CleanError> errors;
    std::optional<std::string> logPath;
    std::uint64_t durationMs = 0;
    std::uint64_t freeableBytes = 0;
    // Where each moved item went, for the journal and for the caller's own accounting.
    std::vector<MovedItem> moved;
    std::vector<std::optional<std::string>> movedTargets;
    std::optional<std::string> journalEntryID;
};

// How a clean is written down in Activity.
struct JournalRecording {
    ReclaimJournal* journal = nullptr;
    std::string title;
    JournalKind kind = JournalKind::caches;
    std::optional<JournalContext> context;
    // Row group of each item, by target id; items of other targets use `context`'s group.
    std::function<std::string(const std::optional<std::string>& targetID)> groupOf;
};

// The catalog's path template expanded: "~" is the home, "~/x" lies in it.
std::string expandTemplate(std::string_view pathTemplate);

// A path switched off inside an enabled target, as an absolute pattern (its literal part escaped).
// Throws InvalidPath
// "Invalid disabled relative pattern" for a pattern that is absolute, empty or climbs.
std::string resolveDisabledPath(const PathSpec& path);

// Measures catalog targets, plans what a clean would move and moves it through the vault. One
// operation runs at a time; a result of an operation that a newer one superseded is dropped.
// Each operation stops when its caller's token asks or when cancel() is called, and reports
// through `progress`: the phase ("Measuring Chrome"), the item at hand, bytes and items so far.
class CleaningService {
public:
    explicit CleaningService(std::shared_ptr<const VaultPolicy> policy);

    // Measures every enabled path of `targets` whose target and path ids `included` allows, the
    // paths side by side on the machine's cores. Empty when a newer operation started meanwhile.
    // Throws "Operation cancelled".
    std::optional<ScanResult> scan(const std::vector<Target>& targets,
                                   const std::map<std::string, bool>& included,
                                   const std::stop_token& stop = {},
                                   OperationProgress* progress = nullptr);

    // The locations a clean of `targets` would consider, with what the person switched off
    // (`cleanIncluded`) turned into exclusions. Problems land in `errors`.
    std::vector<CacheCleaningCandidate>
    buildCandidates(const std::vector<Target>& targets,
                    const std::map<std::string, bool>& cleanIncluded,
                    std::vector<CleanError>& errors);

    // The exact items a clean would move, each pinned by device and inode.
    CleanPlan plan(const std::vector<CacheCleaningCandidate>& candidates,
                   const std::stop_token& stop = {}, OperationProgress* progress = nullptr);

    // Moves the plan's items to the Trash through the vault, which checks each again right
    // before it moves, and writes the move down.
    CleanResult clean(const CleanPlan& plan, const JournalRecording& recording,
                      const std::stop_token& stop = {}, OperationProgress* progress = nullptr);

    // Stops the running operation; it ends with "Operation cancelled".
    void cancel();

    const VaultPolicy& policy() const noexcept { return *policy_; }
    // How many scans were asked for so far; a scan whose number is no longer the latest drops
    // its result.
    std::uint64_t scansRequested() const noexcept { return generation_.load(); }

private:
    class Operation;
    std::shared_ptr<const VaultPolicy> policy_;
    std::mutex operationLock_;
    std::mutex activeLock_;
    LinkedStop* active_ = nullptr; // the running operation's stop, under activeLock_
    std::atomic<std::uint64_t> generation_{0};
};

} // namespace sd
