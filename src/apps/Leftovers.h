#pragma once

#include "apps/AppDataLocations.h"
#include "base/Progress.h"
#include "platform/InstalledApps.h"

#include <cstdint>
#include <set>
#include <stop_token>
#include <string>
#include <vector>

// Data of apps that are gone, and installers of apps that are there: the two Sweep tiles the
// apps subsystem fills. Every item carries its path, allocated bytes and identity, for the vault.
namespace sd {

// The places one removed app left behind.
struct OrphanGroup {
    std::string appId;
    std::string appName; // as remembered; the id when nothing else is known
    std::vector<Leftover> places;
    std::uint64_t bytes = 0;
};

struct LeftoversReport {
    std::vector<OrphanGroup> groups;
    std::uint64_t totalBytes = 0;
    std::vector<std::string> warnings;
};

// Places whose name is an app id by construction and whose app is not installed — each Flatpak
// folder in ~/.var/app without its Flatpak, each ~/snap folder without its snap — and the places
// of apps an earlier listing remembered that are gone now, found by id only, never by name.
// `remembered` are those ids. A place any installed app could claim by its id or names stays out.
LeftoversReport findRemovedAppLeftovers(const std::vector<platform::InstalledApp>& installed,
                                        const std::set<std::string>& remembered,
                                        const std::stop_token& stop = {},
                                        OperationProgress* progress = nullptr);

struct UsedInstaller {
    std::string path;
    std::uint64_t bytes = 0;
    EntryIdentity identity{};
    std::string appId;
    std::string version;          // of the installer; may be empty
    std::string installedVersion; // of the app on the machine; may be empty
    platform::AppSource source = platform::AppSource::local;
};

struct InstallerPlan {
    std::vector<UsedInstaller> items;
    std::uint64_t totalBytes = 0;
    std::vector<std::string> warnings;
};

struct InstallerSearch {
    std::vector<std::string> folders;              // looked in, not below
    std::vector<std::string> appImageFolders;      // where installed AppImages live
    std::string dpkgQuery = "/usr/bin/dpkg-query"; // asked once for every package at once
    std::string dpkgDeb = "/usr/bin/dpkg-deb";     // reads a package file's control data
};

// ~/Downloads, ~/Desktop and the home's top level; the standard AppImage folders.
InstallerSearch standardInstallerSearch();

// Installers in the search folders whose app is installed: a package at the same or a newer
// version, a Flatpak reference or bundle of an installed Flatpak, an AppImage identical to or
// older than one in the AppImage folders.
InstallerPlan planUsedInstallers(const std::vector<platform::InstalledApp>& installed,
                                 const InstallerSearch& search, const std::stop_token& stop = {},
                                 OperationProgress* progress = nullptr);

} // namespace sd
