#pragma once

#include "base/Descriptors.h"
#include "base/Progress.h"
#include "base/UniqueFd.h"
#include "core/Ledgers.h"
#include "core/Walk.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <vector>

// The one place that touches the file tree for measuring, listing and removing. Every walk goes
// through open directory descriptors with no-follow opens; a path string is never resolved again
// once its parent is open, and every descriptor's device and inode are checked against what the
// listing said before it is trusted.
namespace sd {

inline constexpr size_t maxRootComponents = 256;

// The names in an open directory, "." and ".." left out, sorted ascending. The caller's
// descriptor stays open. Throws SafetyViolation for a name that is not valid UTF-8.
std::vector<std::string> listDirectory(int fd, std::string_view path,
                                       const std::stop_token& stop = {});

// Throws SafetyViolation when any component of the path is a symbolic link.
void refuseSymlink(std::string_view path);

// The clone accounting of one regular file, with its identity checked against the listing.
// Empty when the file vanished. Throws "Entry changed during measurement: <path>".
std::optional<FileSample> readCloneAttributes(int parentFd, const char* name, std::string_view path,
                                              const EntryIdentity& expected, const struct stat& st);

struct ResolvedRoot {
    std::string path;
    EntryIdentity identity;
    mode_t type = 0; // the S_IFMT bits
};

// Expands "~", appends an optional relative glob and walks the result from "/", matching glob
// components against sorted listings. Problems that only drop the root land in `warnings`.
std::vector<ResolvedRoot> resolveRoots(std::string_view pathTemplate,
                                       std::optional<std::string_view> relativeGlob,
                                       std::vector<std::string>& warnings,
                                       const std::stop_token& stop = {});

struct Footprint {
    std::uint64_t allocatedBytes = 0; // hard links counted once across the tally
    std::uint64_t fileCount = 0;      // regular files met
    std::uint64_t directoryCount = 0; // directories entered, the root included
    bool vanished = false;            // the entry was gone before it could be measured
};

// Allocated bytes and counts of one entry; regular files also feed `tally.freeable`. Symbolic
// links count nothing; other file systems, levels past the depth limit and names that are not
// UTF-8 become warnings and are left out. `progress` counts entries and measured bytes.
Footprint measureFootprint(std::string_view path, std::optional<EntryIdentity> expected,
                           std::vector<std::string>& warnings, FootprintTally& tally,
                           const std::stop_token& stop = {}, OperationProgress* progress = nullptr);

struct InventoryNode {
    std::string name;
    std::string path;
    bool isDirectory = false;
    std::uint64_t physicalBytes = 0;
    std::uint64_t logicalBytes = 0;
    std::uint64_t fileCount = 0;
    std::int64_t newest = 0;
    std::int64_t oldest = 0;
    std::vector<InventoryNode> children;
    bool isComplete = true;

    friend bool operator==(const InventoryNode&, const InventoryNode&) = default;
};

// A measured tree of one entry in `parentFd`, cut off (isComplete false) at depth 257 or once the
// deadline has passed.
InventoryNode buildInventory(int parentFd, const std::string& name, const std::string& path,
                             const struct stat& st, int depth,
                             std::chrono::steady_clock::time_point deadline, HardlinkLedger& ledger,
                             const std::stop_token& stop = {});

struct RemovalCounts {
    std::uint64_t removedEntries = 0;
    std::uint64_t freedBytes = 0;
};

struct RemovalOptions {
    // Entries for which this answers true stay where they are.
    std::function<bool(const std::string& path)> keep;
    // Runs before each removal, for progress; it may throw to stop.
    std::function<void(const std::string& path)> perEntry;
    // When set, no path outside this folder may be touched.
    std::optional<std::string> ownedRoot;
    std::stop_token stop;
};

// Removes one entry of `parentFd` after checking it is still the one `recorded` describes.
// Returns false when it was kept or already gone.
bool removeEntry(int parentFd, const std::string& name, const std::string& path,
                 const struct stat& recorded, const RemovalOptions& options, RemovalCounts& counts);

// Removes a tree depth-first, never crossing onto another device. Serves only the teardown of
// the test-fixture roots this process created.
RemovalCounts removeTree(std::string_view path, std::uint64_t expectedDevice,
                         const RemovalOptions& options);

} // namespace sd
