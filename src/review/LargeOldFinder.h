#pragma once

#include "base/Progress.h"
#include "platform/LastOpened.h"
#include "review/ReviewWalk.h"

#include <chrono>
#include <cstdint>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

// Large and old files: big files in the person's own folders that have not been opened for a
// long time, dated by the system's own record of opened files rather than guessed from file
// dates. Only the person knows what they are, so nothing is selected for them.
namespace sd {

class VaultPolicy;

struct LargeOldOptions {
    std::uint64_t minimumBytes = 52'428'800;
    double unusedFor = 31'536'000; // seconds
    double budget = 30;            // seconds
    size_t maximumItems = 500;
    std::chrono::system_clock::time_point now = std::chrono::system_clock::now();
};

enum class LargeOldKind { video, diskImage, archive, other };
std::string_view largeOldKindName(LargeOldKind kind);
// Decided by the lower-cased extension of the name alone.
LargeOldKind largeOldKindOf(std::string_view name);

// How the date of an item is known. Dates are seconds since 1970.
enum class EvidenceKind {
    opened,         // the system recorded the last time it was opened
    notOpenedSince, // the system knows the file but has no open recorded: when it was added
    fileTimesOnly,  // the system had no record: the file's own times
};
std::string_view evidenceKindName(EvidenceKind kind);

// Which date the evidence rests on: the last time the file was opened, the day it was added
// (to the system's record, or created on this disk), or the last change of its contents.
enum class DateSource { opened, added, modified };
std::string_view dateSourceName(DateSource source);

struct LastUseEvidence {
    EvidenceKind kind = EvidenceKind::fileTimesOnly;
    double date = 0;
    DateSource source = DateSource::modified;
};

struct LargeOldItem {
    std::string path;
    std::uint64_t physicalBytes = 0;
    LargeOldKind kind = LargeOldKind::other;
    bool isPackage = false;
    LastUseEvidence evidence;
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
};

struct LargeOldReport {
    std::vector<LargeOldItem> items; // largest first
    std::uint64_t scannedCount = 0;
    bool truncated = false;
    std::uint64_t datalessSkipped = 0;
    std::vector<std::string> warnings;
    std::uint64_t durationMs = 0;
    double cutoff = 0;
};

struct LargeOldFinder {
    std::string home;
    // The folders walked, and the globs below the home left to the Sweep.
    std::vector<ReviewRoot> scope;
    std::vector<std::string> coverage;
    LargeOldOptions options;
    platform::LastOpenedReader reader;
    std::stop_token stop;
    OperationProgress* progress = nullptr;

    // The person's folders and developer folders of `home`, dated by the system's record.
    static LargeOldFinder standard(const std::string& home);

    // Throws CleanerError with a sentence when the home cannot be walked, and "Operation
    // cancelled" on Stop. The time limit keeps what was found and marks the report truncated.
    LargeOldReport find() const;
};

// "Not opened since 3 Mar 2023 · added then", in local time: the date and where it came from.
std::string evidenceText(const LastUseEvidence& evidence);

// The sentences under a report: time limit, approximate dates, items in protected folders.
std::vector<std::string> largeOldReportNotes(const LargeOldReport& report,
                                             const VaultPolicy& policy);

// What the screen says above the list, and, when the list is empty, its two lines.
std::string largeOldDescription();
std::string largeOldNothingFound(const LargeOldOptions& options);
std::string largeOldNothingFoundDetail(const LargeOldOptions& options);

} // namespace sd
