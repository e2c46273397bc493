#pragma once

#include "base/Identity.h"

#include <cstdint>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// The apps installed for this account, as the system records them. This layer reads records
// only: what each app is, where it lives and which object stands for it; measuring is the apps
// subsystem's.
namespace sd::platform {

// How an app came onto the machine. `bundle` is an app bundle in the Applications folder.
enum class AppSource { deb, flatpak, snap, appImage, local, bundle };

std::string_view appSourceName(AppSource source);

// Where the last-used date of an app comes from.
enum class LastUsedEvidence {
    recentlyUsed, // the desktop's record of which app opened files
    accessTime,   // the executable's access time on a mount that keeps it
    spotlight,    // the system index's last-used date
    none,
};

std::string_view lastUsedEvidenceName(LastUsedEvidence evidence);

struct InstalledApp {
    std::string id;      // desktop-file id (without ".desktop"), Flatpak id, snap name, bundle id
    std::string name;    // what the menu shows
    std::string version; // empty when unknown
    AppSource source = AppSource::local;
    std::string icon;  // an icon theme name or an absolute icon file
    std::string entry; // the desktop entry or bundle the app was read from
    // The object that is the app on disk and whose identity is re-checked before it may move:
    // the AppImage, the folder in the Applications folder, the Flatpak deploy, the snap's folder,
    // the desktop entry for a package. Empty when there is none.
    std::string location;
    EntryIdentity identity{};
    // What to measure for the app's own bytes (a deploy folder, an AppImage, the snap's
    // squashfs images); empty for packages, whose size is the package's own figure.
    std::vector<std::string> measurePaths;
    std::optional<std::string> package;        // the Debian package that owns the entry
    std::optional<std::uint64_t> packageBytes; // the package's installed size, in bytes
    bool userInstallation = false;             // a Flatpak installed with --user
    std::optional<std::string> executable;     // absolute path of what the entry runs
    std::optional<double> lastUsed;            // seconds since 1970
    LastUsedEvidence lastUsedEvidence = LastUsedEvidence::none;
    std::vector<std::string> nameAliases; // further exact names the app's data goes by
};

// Where apps are looked for. The standard value reads the environment; tests point every folder
// at a fixture.
struct AppSearchRoots {
    std::string home;
    // Folders that hold an "applications" folder, most important first ($XDG_DATA_HOME, then
    // each of $XDG_DATA_DIRS).
    std::vector<std::string> dataDirs;
    // Flatpak installations: the folder holding "app", and whether it is the user's own.
    std::vector<std::pair<std::string, bool>> flatpakInstallations;
    std::string snapRoot;           // "/snap"
    std::string snapImages;         // "/var/lib/snapd/snaps"
    std::string snapDesktopEntries; // where snapd exports the snaps' desktop entries
    std::vector<std::string> appImageFolders;
    std::string dpkgQuery; // the package database's query tool; empty to skip packages
    std::string recentlyUsed;
    std::vector<std::string> executableFolders; // where a bare Exec name is looked for
};

AppSearchRoots standardAppRoots();

struct AppRecords {
    std::vector<InstalledApp> apps; // sorted by name, then id
    std::vector<std::string> warnings;
    bool complete = true; // every source could be read
};

// Reads every source once. Throws "Operation cancelled" when stopped.
AppRecords readInstalledApps(const AppSearchRoots& roots, const std::stop_token& stop = {});

// Re-reads the identity of an app's location without following a link; empty when it is gone.
std::optional<EntryIdentity> currentIdentity(const std::string& location);

// What an installer file on disk is for.
struct InstallerInfo {
    std::string appId;   // a Debian package name, a Flatpak id, an AppImage's name, a bundle id
    std::string version; // empty when the file does not say
    AppSource source = AppSource::local;
};

// Reads what an installer in a download folder installs. Empty for files that are not
// installers or cannot be read. `dpkgDeb` runs the package tool for ".deb" files.
std::optional<InstallerInfo> readInstaller(const std::string& path, const std::string& dpkgDeb,
                                           const std::stop_token& stop = {});

// True when version `a` is the same as or newer than `b`, by the package system's ordering.
bool versionAtLeast(std::string_view a, std::string_view b);

// The exact command a person runs to remove a packaged app; empty for apps Sparrowdeck moves.
std::string removalCommand(const InstalledApp& app);

// An AppImage's app name and version as its file name gives them: "Tool-1.2.3-x86_64.AppImage"
// is "Tool" at "1.2.3".
std::pair<std::string, std::string> appImageNameAndVersion(std::string_view file);

// The file name suffixes of installers this platform recognises (".deb", ".AppImage", ...).
std::vector<std::string_view> installerSuffixes();

// True where apps keep their data under ~/Library; elsewhere those rows of the app-data table
// are never looked at.
bool appDataUnderLibrary();

// The installers tile's subtitle for `count` used installers (0: what the tile holds).
std::string installersTileText(std::uint64_t count);

} // namespace sd::platform
