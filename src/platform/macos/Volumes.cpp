#include "platform/Volumes.h"

#include "base/CleanerError.h"

#include <cerrno>
#include <sstream>
#include <sys/mount.h>
#include <sys/stat.h>

namespace sd::platform {

std::optional<VolumeFigures> volumeFigures(const std::string& path, std::string& error) {
    struct statfs fs {};
    struct stat st {};
    if (::statfs(path.c_str(), &fs) != 0 || ::stat(path.c_str(), &st) != 0) {
        error = "Reading the storage figures of " + path + ": " + errorText(errno);
        return std::nullopt;
    }
    const std::uint64_t unit = fs.f_bsize;
    VolumeFigures figures;
    figures.device = static_cast<std::uint64_t>(st.st_dev);
    figures.mountPoint = fs.f_mntonname;
    figures.fileSystemType = fs.f_fstypename;
    figures.totalBytes = static_cast<std::uint64_t>(fs.f_blocks) * unit;
    figures.usedBytes = static_cast<std::uint64_t>(fs.f_blocks - fs.f_bfree) * unit;
    figures.freeBytes = static_cast<std::uint64_t>(fs.f_bavail) * unit;
    figures.reservedBytes =
        static_cast<std::uint64_t>(fs.f_bfree > fs.f_bavail ? fs.f_bfree - fs.f_bavail : 0) * unit;
    return figures;
}

// The categories the system files under System Data, each where a walk can see it.
std::vector<DiskRowPlan> diskRowPlans(const std::string& home, const std::string&) {
    return {
        {"apps", "Applications", {"/Applications"}, "The apps in your Applications folder.", {}},
        {"virtualMemory",
         "Virtual memory",
         {"/System/Volumes/VM"},
         "Swap files and the sleep image the system keeps while it runs.",
         {}},
        {"simulators",
         "Simulators",
         {home + "/Library/Developer/CoreSimulator", "/Library/Developer/CoreSimulator"},
         "Simulated devices and their runtimes for app development.",
         {"xcrun simctl delete unavailable"}},
        {"updates",
         "Updates",
         {"/Library/Updates", "/System/Library/AssetsV2"},
         "Updates downloaded and waiting to install.",
         {}},
        {"logs", "Logs", {"/private/var/log", "/Library/Logs"}, "What the system writes down.", {}},
        {"temporary",
         "Temporary files",
         {"/private/var/folders", "/private/tmp"},
         "Files programs keep for a short while.",
         {}},
        {"system",
         "The system itself",
         {"/System", "/usr", "/Library"},
         "macOS and its parts.",
         {}},
    };
}

std::vector<std::string> swapFilesFrom(std::string_view) {
    return {};
}

} // namespace sd::platform
