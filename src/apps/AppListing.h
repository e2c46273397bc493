#pragma once

#include "apps/AppDataLocations.h"
#include "base/Progress.h"
#include "platform/InstalledApps.h"

#include <cstdint>
#include <optional>
#include <set>
#include <stop_token>
#include <string>
#include <vector>

// The installed apps with what they take: the app itself, measured where it is a deploy of its
// own, and the data it keeps in the home.
namespace sd {

struct AppListEntry {
    platform::InstalledApp app;
    std::uint64_t appBytes = 0;
    bool appBytesFromPackage = false; // the package's own figure, not a measurement
    std::uint64_t dataBytes = 0;
    std::vector<Leftover> data; // filled when the listing looked for data
};

struct AppListing {
    std::vector<AppListEntry> apps;
    std::vector<std::string> warnings;
    bool complete = true;
    std::uint64_t durationMs = 0;
};

enum class DataLookup { skip, measure };

// Reads every installed app, measures the app deploys and, when asked, the data of each, on
// several workers. A complete listing is remembered in the support folder, so that apps removed
// later are recognised. Stop throws "Operation cancelled".
AppListing listApps(const platform::AppSearchRoots& roots, DataLookup data,
                    const std::stop_token& stop = {}, OperationProgress* progress = nullptr);

// What to look for when asking where an app keeps its data.
AppDataQuery dataQueryFor(const platform::InstalledApp& app);

enum class AppOrder { name, size, used };

// The apps of `listing` in `order`: the listing's own (by name), the biggest app and data
// together first, or the most recently used first (apps never seen in use last).
std::vector<const AppListEntry*> orderedApps(const AppListing& listing, AppOrder order);

// The app of `listing` whose id is `id` (exactly), or whose name is (ignoring case) when no id
// matches.
const AppListEntry* findApp(const AppListing& listing, std::string_view id);

// The ids of apps remembered from earlier complete listings.
std::set<std::string> rememberedAppIds();
// Remembers the ids of `apps` (kept with those remembered before, so an app that is missing from
// one listing is still known later).
void rememberApps(const std::vector<platform::InstalledApp>& apps);

// "2 MB · package size" and the like for lists: how the app's own size was found.
std::string appSizeNote(const AppListEntry& entry);
// "Last used 3 days ago (your desktop's record of opened files)".
std::string lastUsedText(const platform::InstalledApp& app, double now);

} // namespace sd
