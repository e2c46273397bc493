#pragma once

#include "base/PathText.h"

#include <array>
#include <string>
#include <string_view>
#include <vector>

namespace sd {

// The account's home folder, read once per process from the user database and kept as a
// normalized absolute path with no symbolic link in it (see platform::homeDirectory).
const std::string& homeDirectory();

// NFC, then lower case, as every case-insensitive comparison of paths and names needs.
std::string foldPath(std::string_view path);

// An absolute path without NUL, "." or ".." components, with repeated and trailing slashes
// dropped. Throws InvalidPath "An absolute path without NUL bytes is required" or
// SafetyViolation "Relative path components are forbidden: <path>".
std::string normalizePath(std::string_view path);

// True when `path` is `root` or lies below it, component by component.
bool isInside(std::string_view path, std::string_view root) noexcept;

// Sparrowdeck's own records as absolute paths: the support folder that holds the journal and
// the folder that holds the settings. Moving either would silently start them anew.
std::vector<std::string> ownRecordLocations();

// True when the folded path is, or lies inside, one of the protected user locations or
// Sparrowdeck's own records.
bool isProtected(std::string_view path);

// The path a mover may act on, or a thrown CleanerError naming the first rule it breaks:
// well formed, not the home, inside the home or an owned fixture root, not protected, not the
// Library root, no symbolic link on the way.
std::string validateOperablePath(std::string_view path);

// validateOperablePath, and strictly inside one of the permitted app-data locations.
std::string validateAppDataPath(std::string_view path);

// validateOperablePath, and recognisably a cache by a component name or a known fragment.
std::string validateCachePath(std::string_view path);

// Byte-exact test against the names that suggest secrets or backups.
bool isSensitiveName(std::string_view name) noexcept;

// Quick test of one name against the four commonest cache folder names, ignoring case.
bool isCacheName(std::string_view name);

namespace scope {

inline constexpr std::array<std::string_view, 14> appDataLocations{
    "Library/Application Support",
    "Library/Caches",
    "Library/Preferences",
    "Library/Preferences/ByHost",
    "Library/Containers",
    "Library/Group Containers",
    "Library/Saved Application State",
    "Library/HTTPStorages",
    "Library/WebKit",
    "Library/Cookies",
    "Library/Logs",
    "Library/LaunchAgents",
    "Library/Application Scripts",
    "Library/SyncedPreferences",
};

inline constexpr std::array<std::string_view, 24> protectedLocations{
    "Documents",
    "Desktop",
    "Downloads",
    "Pictures",
    "Movies",
    "Music",
    "Public",
    ".ssh",
    ".gnupg",
    ".aws",
    ".config/git",
    "Library/Keychains",
    "Library/Application Support/MobileSync",
    "Library/Mail",
    "Library/Messages",
    "Library/Calendars",
    "Library/Contacts",
    "Library/Safari/Bookmarks.plist",
    "Library/Safari/History.db",
    "Library/Safari/LocalStorage",
    ".gradle/gradle.properties",
    ".gradle/init.d",
    ".m2/settings.xml",
    "Library/Containers/com.docker.docker",
};

inline constexpr std::array<std::string_view, 5> sharedOwnFolders{
    "Documents", "Desktop", "Pictures", "Movies", "Music",
};

inline constexpr std::array<std::string_view, 8> sensitiveNames{
    "keychain", "backup", ".ssh", ".gnupg", "credentials", "secrets", "tokens", ".env",
};

inline constexpr std::array<std::string_view, 20> cacheDirectoryNames{
    "caches",     "cache",       ".cache",      "cache2",          "startupcache",
    "tmp",        "temp",        "deriveddata", "_cacache",        "cacheddata",
    "gpucache",   "shadercache", "code cache",  "persistentcache", "appcache",
    "depotcache", ".pnpm-store", ".pub-cache",  "media cache",     "media cache files",
};

inline constexpr std::array<std::string_view, 4> quickCacheNames{
    "caches",
    "cache",
    ".cache",
    "deriveddata",
};

inline constexpr std::array<std::string_view, 21> recognizedCacheFragments{
    "Build/Intermediates",
    "Build/Products",
    "pnpm/store",
    "install/cache",
    "wrapper/dists",
    ".m2/repository",
    ".nuget/packages",
    "Developer/Xcode/iOS DeviceSupport",
    "Developer/Xcode/watchOS DeviceSupport",
    "Developer/Xcode/Products",
    "Library/Logs",
    "miniconda3/pkgs",
    "anaconda3/pkgs",
    ".conda/pkgs",
    ".cargo/registry/src",
    ".cargo/git/checkouts",
    ".ollama/models",
    "Application Support/Figma/Desktop",
    "Application Support/Figma/DesktopProfile",
    "Adobe/Common/Peak Files",
    "Adobe/CRLogs",
};

inline constexpr std::string_view telegramContainerSuffix = ".ru.keepcoder.telegram";
inline constexpr std::array<std::string_view, 3> telegramCacheFolders{
    "trlottie-animations",
    "wallpapers",
    "logs",
};

// The shared rows followed by the platform's own and then the desktop's record of the user's own
// folders (localized names included), as the rules apply them.
std::vector<std::string_view> allProtectedLocations();

// The folders where a person keeps their own work, relative to the home: the shared ones
// (Documents, Desktop, Pictures, Movies, Music), the platform's, and the desktop's record of the
// user's own folders. A copy there is the one a person expects to keep.
std::vector<std::string_view> ownFolders();
std::vector<std::string_view> allAppDataLocations();

} // namespace scope

} // namespace sd
