#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// The storage figures of a mounted file system and the places on it the system itself fills.
namespace sd::platform {

// What the file system holding a path says of itself, in bytes. `usedBytes` + `freeBytes` +
// `reservedBytes` is `totalBytes`: the reserve is the share only the administrator may fill.
struct VolumeFigures {
    std::string mountPoint;
    std::string fileSystemType; // "ext4", "btrfs", …; empty when the mount table does not say
    std::uint64_t device = 0;
    std::uint64_t totalBytes = 0;
    std::uint64_t usedBytes = 0;
    std::uint64_t freeBytes = 0; // what an ordinary account may still write
    std::uint64_t reservedBytes = 0;

    friend bool operator==(const VolumeFigures&, const VolumeFigures&) = default;
};

// The figures of the file system holding `path`. Empty, with the reason in `error`, when the path
// cannot be reached.
std::optional<VolumeFigures> volumeFigures(const std::string& path, std::string& error);

// One group of places the system fills that a disk survey measures, in the order shown.
struct DiskRowPlan {
    std::string id;    // "logs", "packageCaches", …
    std::string title; // "System logs"
    std::vector<std::string> paths;
    std::string sentence; // what the space is, for a person
    // The system's own commands that give this space back; Sparrowdeck names them, never runs
    // them.
    std::vector<std::string> reclaimCommands;
};

// The rows of this system after the home folder and its Trash, with `home` and `dataHome` filled
// into the per-account places. Rows whose places do not exist here are still listed; the survey
// leaves out what it cannot find.
std::vector<DiskRowPlan> diskRowPlans(const std::string& home, const std::string& dataHome);

// The swap files (not partitions) named in the kernel's list of swap areas, `/proc/swaps`.
std::vector<std::string> swapFilesFrom(std::string_view swapsTable);

} // namespace sd::platform
