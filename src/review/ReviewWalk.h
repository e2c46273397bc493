#pragma once

#include "base/Identity.h"
#include "base/Progress.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

// The walk of the user's folders that feeds the large-and-old and duplicate searches: descriptor
// relative, never following a link or leaving a file system, within a time budget, and leaving
// out what the Sweep already covers.
namespace sd {

// A file (or a package, counted whole) the walk found.
struct ReviewCandidate {
    std::string path;
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::uint64_t links = 1;
    std::uint64_t logicalSize = 0;
    std::uint64_t physicalBytes = 0; // allocated
    Timestamp modified;
    Timestamp born; // the modification time where the file system keeps no creation time
    Timestamp accessed;
    std::int64_t changedSec = 0;
    std::int64_t changedNsec = 0;
    bool isPackage = false;
    std::optional<std::uint64_t> cloneID;

    Timestamp changed() const noexcept { return {changedSec, changedNsec}; }
};

// The stages of a review search, as their progress phase names them.
namespace reviewStage {
inline constexpr std::string_view walking = "Reading your folders";
inline constexpr std::string_view dating = "Checking when files were last opened";
inline constexpr std::string_view comparing = "Comparing contents";
} // namespace reviewStage

// The line a front end shows for a progress reading: "Reading your folders — 1,234 items".
std::string reviewProgressText(const OperationProgress::Reading& progress);

struct ReviewWalkResult {
    std::vector<ReviewCandidate> candidates;
    std::uint64_t nodeCount = 0; // entries examined
    std::uint64_t datalessSkipped = 0;
    std::uint64_t unreadable = 0; // folders that could not be read
    bool truncated = false;       // stopped at the time limit
    bool cancelled = false;
    std::vector<std::string> warnings;
};

// A folder to walk. A required one that cannot be walked makes the search throw; an optional one
// that does not exist is passed over in silence.
enum class RootRequirement { required, optional };
struct ReviewRoot {
    std::string path;
    RootRequirement requirement = RootRequirement::required;
};

// Packages (bundle folders such as "x.sparsebundle") are never entered: they are either passed
// over or found as one item, measured whole.
enum class PackageHandling { skip, asItems };
// Whether hidden folders below a root are entered at all.
enum class HiddenFolders { walk, skip };
// Which size a file must reach: its length, or its length and its allocated bytes both.
enum class SizeRule { logical, logicalAndAllocated };

struct ReviewWalkOptions {
    std::vector<ReviewRoot> roots;
    std::string home;
    // Folders left out, as component-wise globs relative to `home` (".var/app/*/cache").
    std::vector<std::string> excluded;
    HiddenFolders hidden = HiddenFolders::walk;
    PackageHandling packages = PackageHandling::skip;
    SizeRule sizeRule = SizeRule::logical;
    std::uint64_t minimumBytes = 0;
    double budget = 30; // seconds
};

// Walks the roots in order, each in sorted name order. Throws CleanerError with a sentence when a
// required root is not a readable folder inside the home (or an owned fixture root); problems
// below a root become warnings. A stop and the time limit end the walk early and are reported in
// the result, never thrown. `progress` gets the phase, the items seen, the folder being read and
// the share of the budget used.
ReviewWalkResult walkForReview(const ReviewWalkOptions& options, const std::stop_token& stop = {},
                               OperationProgress* progress = nullptr);

// The duplicate search's scope: the home (or `root`) without Library, the Trash, cloud folders
// and tool caches.
ReviewWalkOptions duplicateWalkOptions(const std::string& root, const std::string& home);

// The large-and-old search's scope: the person's own folders and the developer folders, without
// the rest of Library, hidden folders, the Trash and caches.
ReviewWalkOptions largeOldWalkOptions(const std::string& home);

// True for a folder name that the system treats as one document ("Trip.photoslibrary").
bool isPackageName(std::string_view name);

// The lower-cased text after the last dot of a name, empty when there is none.
std::string lowerExtension(std::string_view name);

} // namespace sd
