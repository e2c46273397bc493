#pragma once

#include "base/Progress.h"
#include "base/Stop.h"
#include "review/ReviewWalk.h"

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// Exact duplicates: files of 1 MB or more that exist more than once with identical contents,
// grouped by content only. Copies that share their storage (hard links, clones) are recognised
// and never offered, because removing one frees nothing.
namespace sd {

class VaultPolicy;

struct DuplicateScope {
    std::string root; // the folder searched: the home, or one the person chose
    std::string home;
};

struct DuplicateOptions {
    std::uint64_t minimumBytes = 1'048'576;
    std::uint64_t sampleBytes = 65'536;
    double walkBudget = 30;    // seconds for reading the folders
    double compareBudget = 60; // seconds for comparing contents
    size_t maximumGroups = 1000;
    // Files hashed at once; 0 picks one per core, at most four.
    unsigned hashThreads = 0;
};

struct DuplicateCandidates {
    DuplicateScope scope;
    ReviewWalkResult walk;
    std::chrono::system_clock::time_point started;
};

// One copy in a group.
struct DuplicateFile {
    std::string path;
    // Other names for this copy's storage, hard links or clones; such a copy is never offered.
    std::vector<std::string> sharedWith;
    std::uint64_t physicalBytes = 0;
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::int64_t changedSec = 0;
    std::int64_t changedNsec = 0;
    Timestamp born;
};

struct DuplicateGroup {
    std::string id; // the contents' SHA-256 in hexadecimal
    std::uint64_t size = 0;
    std::vector<DuplicateFile> files;
    std::string suggestedKeep;
};

struct DuplicateReport {
    std::vector<DuplicateGroup> groups;
    DuplicateScope scope;
    std::uint64_t scannedCount = 0;
    std::uint64_t comparedFiles = 0;
    std::uint64_t cloneCopiesIgnored = 0;
    std::uint64_t hardLinksIgnored = 0;
    bool truncated = false;
    std::uint64_t unconfirmedBytes = 0;
    std::uint64_t datalessSkipped = 0;
    std::vector<std::string> warnings;
    std::uint64_t durationMs = 0;
};

// Walks the scope for candidates within the walk budget. Throws CleanerError with a sentence when
// the root is not a readable folder, and "Operation cancelled" on Stop.
DuplicateCandidates collectDuplicateCandidates(const DuplicateScope& scope,
                                               const DuplicateOptions& options,
                                               const std::stop_token& stop = {},
                                               OperationProgress* progress = nullptr);

// Turns candidates into confirmed groups within the compare budget.
class DuplicateComparer {
public:
    DuplicateCandidates candidates;
    DuplicateOptions options;
    std::stop_token stop;
    OperationProgress* progress = nullptr;

    // Throws "Operation cancelled" on Stop; a time limit keeps what was confirmed and marks the
    // report truncated.
    DuplicateReport compare() const;
};

// The copy to keep: one in the person's own folders over one outside them, then the older
// creation date, the shorter path, the path that sorts first. `files` is not empty.
std::string suggestKeep(const std::vector<DuplicateFile>& files, const std::string& home);

// Copies that may be offered: not the one to keep, sharing storage with no other name.
std::vector<const DuplicateFile*> removableCopies(const DuplicateGroup& group);
std::uint64_t reclaimableBytes(const DuplicateGroup& group);

// What one copy's row says about it, or nothing for an ordinary removable copy.
std::string duplicateFileNote(const DuplicateGroup& group, const DuplicateFile& file,
                              const VaultPolicy& policy);

// The sentences shown under a report: time limit, what could not be compared, clones left out.
std::vector<std::string> duplicateReportNotes(const DuplicateReport& report);

namespace duplicateText {
inline constexpr std::string_view description =
    "Files of 1 MB or more that are the same byte for byte — compared by their contents, never by "
    "name or date. One copy in each group is suggested to keep and always stays; nothing is "
    "selected for you.";
inline constexpr std::string_view keepLabel = "Oldest copy in your own folders";
inline constexpr std::string_view timeLimit =
    "Stopped at the time limit — these groups are confirmed.";
inline constexpr std::string_view noGroups = "No exact copies found.";
inline constexpr std::string_view noGroupsDetail =
    "Nothing over 1 MB here has an exact twin taking its own space.";
inline constexpr std::string_view keptCopy = "The last copy in a group always stays";
inline constexpr std::string_view sharedCopy =
    "Shares its space with another name, so removing it alone frees nothing";
inline constexpr std::string_view sharedReason = " (a clone or hard link) — nothing to free here";
inline constexpr std::string_view protectedCopy = "In a folder Sparrowdeck never moves things from";
inline constexpr std::string_view gitCopy = "Inside a Git project";
} // namespace duplicateText

} // namespace sd
