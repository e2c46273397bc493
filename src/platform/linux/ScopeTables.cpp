#include "platform/ScopeTables.h"

#include <array>

namespace sd::platform {
namespace {

// Key rings, certificates, password stores, mail and the Trash itself hold what a person
// cannot get back; Videos and Templates are the desktop's own folders by their English names,
// whatever the user-dirs record says.
constexpr std::array<std::string_view, 8> protectedRows{
    ".local/share/keyrings", ".pki",   ".password-store", ".thunderbird", ".local/share/evolution",
    ".local/share/Trash",    "Videos", "Templates",
};

// Where a person keeps their own work besides the shared rows.
constexpr std::array<std::string_view, 2> ownFolderRows{"Videos", "Templates"};

// Where applications keep their per-app data on a freedesktop system.
constexpr std::array<std::string_view, 6> appDataRows{
    ".config", ".cache", ".local/share", ".local/state", ".var/app", "snap",
};

constexpr std::array<std::string_view, 6> cloudRows{
    "Dropbox", "Nextcloud", "ownCloud", "pCloudDrive", "MEGA", "OneDrive",
};

// The per-user cache, the freedesktop.org Trash and Flatpak apps' caches come back by themselves
// or are already on their way out; the Sweep measures them.
constexpr std::array<std::string_view, 3> reviewExclusionRows{
    ".cache",
    ".local/share/Trash",
    ".var/app/*/cache",
};

// Emulator and virtual-machine images: large, rarely opened, and only their owner can judge them.
constexpr std::array<std::string_view, 4> developerRows{
    ".android/avd",
    ".local/share/libvirt/images",
    ".local/share/gnome-boxes/images",
    ".vagrant.d/boxes",
};

constexpr std::array<std::string_view, 17> systemRootRows{
    "/bin",  "/boot", "/dev",  "/etc", "/lib", "/lib32", "/lib64", "/libx32", "/opt",
    "/proc", "/run",  "/sbin", "/srv", "/sys", "/usr",   "/var",   "/snap",
};

constexpr std::array<std::string_view, 2> gitRows{"/usr/bin/git", "/usr/local/bin/git"};

} // namespace

std::span<const std::string_view> extraCloudFolders() {
    return cloudRows;
}
std::span<const std::string_view> extraReviewExclusions() {
    return reviewExclusionRows;
}
std::span<const std::string_view> extraDeveloperFolders() {
    return developerRows;
}
std::span<const std::string_view> systemRoots() {
    return systemRootRows;
}
std::span<const std::string_view> gitCandidates() {
    return gitRows;
}

std::span<const std::string_view> extraProtectedLocations() {
    return protectedRows;
}
std::span<const std::string_view> extraOwnFolders() {
    return ownFolderRows;
}
std::span<const std::string_view> extraAppDataLocations() {
    return appDataRows;
}

} // namespace sd::platform
