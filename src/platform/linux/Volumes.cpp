#include "platform/Volumes.h"

#include "base/CleanerError.h"
#include "platform/linux/MountTable.h"

#include <cerrno>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <sys/statvfs.h>

namespace sd::platform {
namespace {

// The highest folder at or above `path` still on `device`: where that file system is mounted.
std::string mountPointOf(const std::string& path, dev_t device) {
    std::string at = path;
    while (at != "/") {
        size_t slash = at.rfind('/');
        std::string parent = slash == 0 ? "/" : at.substr(0, slash);
        struct stat st {};
        if (::lstat(parent.c_str(), &st) != 0 || st.st_dev != device) {
            return at;
        }
        at = parent;
    }
    return at;
}

std::string fileSystemTypeAt(const std::string& mountPoint) {
    std::ifstream lines("/proc/self/mounts");
    std::string line;
    std::string type;
    // The last mount on a point is the one in effect.
    while (std::getline(lines, line)) {
        std::istringstream fields(line);
        std::string source;
        std::string point;
        std::string kind;
        if (fields >> source >> point >> kind && unescapeMountField(point) == mountPoint) {
            type = kind;
        }
    }
    return type;
}

} // namespace

std::string unescapeMountField(std::string_view field) {
    std::string out;
    for (size_t i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size()) {
            int value = 0;
            bool octal = true;
            for (size_t k = 1; k <= 3; ++k) {
                char c = field[i + k];
                octal = octal && c >= '0' && c <= '7';
                value = value * 8 + (c - '0');
            }
            if (octal) {
                out.push_back(static_cast<char>(value));
                i += 3;
                continue;
            }
        }
        out.push_back(field[i]);
    }
    return out;
}

std::optional<VolumeFigures> volumeFigures(const std::string& path, std::string& error) {
    struct statvfs vfs {};
    struct stat st {};
    if (::statvfs(path.c_str(), &vfs) != 0 || ::stat(path.c_str(), &st) != 0) {
        error = "Reading the storage figures of " + path + ": " + errorText(errno);
        return std::nullopt;
    }
    const std::uint64_t unit = vfs.f_frsize != 0 ? vfs.f_frsize : vfs.f_bsize;
    VolumeFigures figures;
    figures.device = static_cast<std::uint64_t>(st.st_dev);
    figures.mountPoint = mountPointOf(path, st.st_dev);
    figures.fileSystemType = fileSystemTypeAt(figures.mountPoint);
    figures.totalBytes = static_cast<std::uint64_t>(vfs.f_blocks) * unit;
    figures.usedBytes = static_cast<std::uint64_t>(vfs.f_blocks - vfs.f_bfree) * unit;
    figures.freeBytes = static_cast<std::uint64_t>(vfs.f_bavail) * unit;
    figures.reservedBytes =
        static_cast<std::uint64_t>(vfs.f_bfree > vfs.f_bavail ? vfs.f_bfree - vfs.f_bavail : 0) *
        unit;
    return figures;
}

std::vector<std::string> swapFilesFrom(std::string_view swapsTable) {
    std::vector<std::string> files;
    std::istringstream lines{std::string(swapsTable)};
    std::string line;
    bool header = true;
    while (std::getline(lines, line)) {
        if (header) {
            header = false;
            continue;
        }
        std::istringstream fields(line);
        std::string name;
        std::string type;
        if (fields >> name >> type && type == "file") {
            // A swap file that was deleted while in use carries the kernel's note; it has no
            // place to measure any more.
            std::string path = unescapeMountField(name);
            if (!path.ends_with("(deleted)")) {
                files.push_back(std::move(path));
            }
        }
    }
    return files;
}

std::vector<DiskRowPlan> diskRowPlans(const std::string& home, const std::string& dataHome) {
    std::ifstream table("/proc/swaps");
    std::stringstream text;
    text << table.rdbuf();
    std::vector<std::string> swaps = swapFilesFrom(text.str());
    return {
        {"apps",
         "Installed apps",
         {"/var/lib/flatpak", dataHome + "/flatpak", "/var/lib/snapd/snaps"},
         "Flatpak and Snap apps with the runtimes they share.",
         {"flatpak uninstall --unused"}},
        {"logs",
         "System logs",
         {"/var/log"},
         "What the system and its services write down as they run, the journal among it.",
         {"sudo journalctl --vacuum-size=200M"}},
        {"packageCaches",
         "Package caches",
         {"/var/cache/apt"},
         "Packages apt downloaded to install or update; it fetches them again when it needs "
         "them.",
         {"sudo apt-get clean"}},
        {"containers",
         "Containers and images",
         {"/var/lib/docker", "/var/lib/containers", dataHome + "/containers"},
         "Container images, their layers and the containers made from them.",
         {"docker system prune", "podman system prune"}},
        {"virtualMachines",
         "Virtual machines",
         {"/var/lib/libvirt/images", dataHome + "/libvirt/images", dataHome + "/gnome-boxes/images",
          home + "/VirtualBox VMs"},
         "Disk images of virtual machines; each holds a whole computer's files.",
         {}},
        {"swap",
         "Swap files",
         swaps,
         "Files the system uses as extra memory; they keep their size while swap is on.",
         {}},
        {"temporary",
         "Temporary files",
         {"/tmp", "/var/tmp"},
         "Files programs keep for a short while; the system clears them at restart or after some "
         "days.",
         {}},
        {"system",
         "The system itself",
         {"/usr", "/boot", "/opt"},
         "The operating system and the programs installed with it.",
         {"sudo apt-get autoremove"}},
    };
}

} // namespace sd::platform
