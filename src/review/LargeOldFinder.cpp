#include "review/LargeOldFinder.h"

#include "base/CleanerError.h"
#include "base/Stop.h"
#include "core/ByteFormat.h"
#include "core/PathRules.h"
#include "platform/Words.h"
#include "reclaim/VaultPolicy.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <ctime>

namespace sd {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::array<std::string_view, 20> videoExtensions{
    "mov", "mp4",  "m4v", "avi",  "mkv", "wmv", "flv", "webm", "mpg",  "mpeg",
    "mts", "m2ts", "3gp", "braw", "r3d", "mxf", "vob", "dv",   "hevc", "prproj",
};
constexpr std::array<std::string_view, 17> diskImageExtensions{
    "dmg", "iso",  "img",   "sparseimage", "sparsebundle", "toast",    "cdr", "vmdk", "vdi",
    "vhd", "vhdx", "qcow2", "hdd",         "pvm",          "vmwarevm", "utm", "ipsw",
};
constexpr std::array<std::string_view, 24> archiveExtensions{
    "zip", "tar",  "gz",  "tgz",  "bz2", "tbz",  "tbz2", "xz",  "txz", "7z",        "rar", "zst",
    "lz4", "lzma", "xip", "cpio", "pkg", "mpkg", "jar",  "ipa", "apk", "xcarchive", "sit", "sitx",
};

constexpr std::uint64_t defaultMinimum = 52'428'800;
constexpr double aYear = 31'536'000;

template <size_t N>
bool contains(const std::array<std::string_view, N>& table, std::string_view value) {
    return std::find(table.begin(), table.end(), value) != table.end();
}

double toSeconds(std::chrono::system_clock::time_point t) {
    return std::chrono::duration<double>(t.time_since_epoch()).count();
}

std::string periodText(double seconds) {
    if (seconds == aYear) {
        return "a year";
    }
    auto days = static_cast<std::uint64_t>(std::llround(seconds / 86'400));
    return formatCount(days) + (days == 1 ? " day" : " days");
}

std::string sizeText(std::uint64_t bytes) {
    return bytes == defaultMinimum ? std::string("50 MB") : formatBytes(bytes);
}

} // namespace

std::string_view largeOldKindName(LargeOldKind kind) {
    switch (kind) {
    case LargeOldKind::video:
        return "video";
    case LargeOldKind::diskImage:
        return "diskImage";
    case LargeOldKind::archive:
        return "archive";
    case LargeOldKind::other:
        return "other";
    }
    return "other";
}

LargeOldKind largeOldKindOf(std::string_view name) {
    std::string extension = lowerExtension(name);
    if (contains(videoExtensions, extension)) {
        return LargeOldKind::video;
    }
    if (contains(diskImageExtensions, extension)) {
        return LargeOldKind::diskImage;
    }
    if (contains(archiveExtensions, extension)) {
        return LargeOldKind::archive;
    }
    return LargeOldKind::other;
}

std::string_view evidenceKindName(EvidenceKind kind) {
    switch (kind) {
    case EvidenceKind::opened:
        return "opened";
    case EvidenceKind::notOpenedSince:
        return "notOpenedSince";
    case EvidenceKind::fileTimesOnly:
        return "fileTimesOnly";
    }
    return "fileTimesOnly";
}

LargeOldFinder LargeOldFinder::standard(const std::string& home) {
    ReviewWalkOptions walk = largeOldWalkOptions(home);
    LargeOldFinder finder;
    finder.home = home;
    finder.scope = walk.roots;
    finder.coverage = walk.excluded;
    finder.reader = platform::systemLastOpenedReader();
    return finder;
}

LargeOldReport LargeOldFinder::find() const {
    const Clock::time_point started = Clock::now();
    const Clock::time_point deadline =
        started + std::chrono::duration_cast<Clock::duration>(
                      std::chrono::duration<double>(std::max(0.0, options.budget)));
    LargeOldReport report;
    report.cutoff = toSeconds(options.now) - options.unusedFor;

    ReviewWalkOptions walk = largeOldWalkOptions(home);
    walk.roots = scope;
    walk.excluded = coverage;
    walk.minimumBytes = options.minimumBytes;
    walk.budget = options.budget;
    ReviewWalkResult found = walkForReview(walk, stop, progress);
    if (found.cancelled) {
        throw CleanerError::cancelled();
    }
    report.scannedCount = found.nodeCount;
    report.truncated = found.truncated;
    report.datalessSkipped = found.datalessSkipped;
    report.warnings = std::move(found.warnings);

    // Anything changed or added within the period was certainly in use; only the rest needs the
    // system's record.
    std::vector<ReviewCandidate> old;
    for (ReviewCandidate& c : found.candidates) {
        if (std::max(c.modified, c.born).seconds() <= report.cutoff) {
            old.push_back(std::move(c));
        }
    }

    if (progress != nullptr) {
        progress->setPhase(reviewStage::dating);
        progress->setItems(0);
    }
    for (const ReviewCandidate& c : old) {
        throwIfStopped(stop);
        if (Clock::now() >= deadline) {
            report.truncated = true;
            break;
        }
        if (progress != nullptr) {
            double elapsed = std::chrono::duration<double>(Clock::now() - started).count();
            progress->addItems(1);
            progress->setCurrentPath(c.path);
            progress->setFraction(options.budget > 0 ? std::min(1.0, elapsed / options.budget)
                                                     : 1.0);
        }
        const double fileTime = std::max(c.modified, c.born).seconds();
        platform::LastOpenedRecord record;
        if (reader) {
            platform::FileTimes times;
            times.modified = c.modified.seconds();
            times.changed = c.changed().seconds();
            times.accessed = c.accessed.seconds();
            times.device = c.device;
            record = reader(c.path, times);
        }
        LastUseEvidence evidence;
        if (record.lastOpened) {
            evidence = {EvidenceKind::opened, std::max(*record.lastOpened, fileTime)};
        } else if (record.indexed) {
            evidence = {EvidenceKind::notOpenedSince,
                        std::max(record.dateAdded.value_or(fileTime), fileTime)};
        } else {
            evidence = {EvidenceKind::fileTimesOnly, fileTime};
        }
        if (evidence.date > report.cutoff) {
            continue;
        }
        size_t slash = c.path.rfind('/');
        report.items.push_back({c.path, c.physicalBytes,
                                largeOldKindOf(std::string_view(c.path).substr(slash + 1)),
                                c.isPackage, evidence, c.device, c.inode});
    }

    std::sort(report.items.begin(), report.items.end(),
              [](const LargeOldItem& a, const LargeOldItem& b) {
                  if (a.physicalBytes != b.physicalBytes) {
                      return a.physicalBytes > b.physicalBytes;
                  }
                  return a.path < b.path;
              });
    if (report.items.size() > options.maximumItems) {
        report.items.resize(options.maximumItems);
    }
    report.durationMs = static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - started).count());
    return report;
}

std::string evidenceText(const LastUseEvidence& evidence) {
    auto seconds = static_cast<std::time_t>(std::floor(evidence.date));
    std::tm local{};
    ::localtime_r(&seconds, &local);
    char text[32];
    std::strftime(text, sizeof text, "%e %b %Y", &local);
    std::string date(text);
    if (!date.empty() && date.front() == ' ') {
        date.erase(0, 1);
    }
    return "Not opened since " + date;
}

std::vector<std::string> largeOldReportNotes(const LargeOldReport& report,
                                             const VaultPolicy& policy) {
    std::vector<std::string> notes;
    if (report.truncated) {
        notes.push_back("Stopped at the time limit after " + formatCount(report.scannedCount) +
                        " items — these are the ones found so far.");
    }
    std::uint64_t approximate = 0;
    std::uint64_t kept = 0;
    for (const LargeOldItem& item : report.items) {
        approximate += item.evidence.kind == EvidenceKind::fileTimesOnly ? 1 : 0;
        std::optional<VaultDenyReason> verdict = policy.verdict(foldPath(item.path));
        kept +=
            verdict == VaultDenyReason::protectedUserDir || verdict == VaultDenyReason::cloudStorage
                ? 1
                : 0;
    }
    if (approximate > 0) {
        bool one = approximate == 1;
        notes.push_back(
            formatCount(approximate) + (one ? " item has its date" : " items have their dates") +
            " from the file system, because " + std::string(platform::openedRecordName()) +
            " had no record. " + std::string(platform::systemName()) +
            " only records the first read after each change, so treat " + (one ? "it" : "them") +
            " as approximate.");
    }
    if (kept > 0) {
        bool one = kept == 1;
        notes.push_back(formatCount(kept) + (one ? " item is" : " items are") + " in " +
                        std::string(platform::ownFoldersExamples()) +
                        " or another folder Sparrowdeck never moves things from. Open " +
                        (one ? "it" : "them") + " in " + std::string(platform::fileManagerName()) +
                        " to decide.");
    }
    notes.insert(notes.end(), report.warnings.begin(), report.warnings.end());
    return notes;
}

std::string largeOldDescription() {
    return "Files of 50 MB or more in your folders whose last-opened date — " +
           std::string(platform::openedRecordDescription()) +
           " — is more than a year ago. Only you know what these are, so nothing is selected.";
}

std::string largeOldNothingFound(const LargeOldOptions& options) {
    return "Nothing large has gone unopened for " + periodText(options.unusedFor) + ".";
}

std::string largeOldNothingFoundDetail(const LargeOldOptions& options) {
    std::string period = options.unusedFor == aYear ? std::string("the last year")
                                                    : "the last " + periodText(options.unusedFor);
    return "Everything over " + sizeText(options.minimumBytes) +
           " here was opened, changed or added within " + period + ".";
}

} // namespace sd
