#pragma once

#include "base/Identity.h"
#include "base/Progress.h"

#include <cstdint>
#include <optional>
#include <span>
#include <stop_token>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// The places where an app keeps data outside itself, and the strict rule that ties a place to
// one app: its identifier or, in a few named rows, exactly its name — never a loose or partial
// name.
namespace sd {

enum class MatchStrategy { bundleId, appName };

// The order is the order categories are listed in.
enum class LeftoverCategory { appData, cache, preferences, container, state, logs, system };

std::string_view leftoverCategoryName(LeftoverCategory category);

struct LeftoverLocation {
    std::string_view id;
    std::string_view label;
    std::string_view pathTemplate; // "~/…" holding "{match}"
    std::vector<MatchStrategy> matchBy;
    LeftoverCategory category = LeftoverCategory::appData;
    std::string_view description; // shown beside a found place; may be empty
};

// Every row, the shared ones first in their fixed order, then this system's own rows.
const std::vector<LeftoverLocation>& leftoverLocations();

struct ExtraPath {
    std::string_view pathTemplate;
    std::string_view label;
};

struct AppOverride {
    std::string_view bundleId;
    std::vector<std::string_view> nameAliases;
    std::vector<ExtraPath> extraPaths;
    std::vector<std::string_view> excludeLocations;
};

const std::vector<AppOverride>& appOverrides();
const AppOverride* findOverride(std::string_view bundleId);

// Trims the value, refuses it when it cannot name exactly one folder (empty, ".", "..", a "/",
// control characters, not UTF-8, too long) and escapes the glob characters so that it matches
// only itself. Throws the safety error "Invalid leftover match value".
std::string prepareMatchValue(std::string_view value);

// One place found for one app.
struct Leftover {
    std::string locationId;
    std::string label;
    std::string path;
    std::uint64_t bytes = 0;
    LeftoverCategory category = LeftoverCategory::appData;
    bool selected = true;
    std::string description;
    EntryIdentity identity{};
};

struct LeftoverScanResult {
    std::string bundleId;
    std::string appName;
    std::vector<Leftover> leftovers;
    std::uint64_t totalBytes = 0;
    std::vector<std::string> warnings;
    std::uint64_t durationMs = 0;
};

// Which app to look for.
struct AppDataQuery {
    std::string bundleId;
    std::string appName;
    std::vector<std::string> nameAliases; // further exact names tried with `appName`
    // Further places of this app: an absolute or "~/…" path, and its label.
    std::vector<std::pair<std::string, std::string>> extraPlaces;
    std::vector<MatchStrategy> strategies{MatchStrategy::bundleId, MatchStrategy::appName};
    // Whether the named extra places of the app's override are looked at too. They name folders
    // by what the app calls them, not by id, so a search by id alone leaves them out.
    bool overridePlaces = true;
};

// Looks in every row for the app, in table order, and measures each place found (hard links
// once across them). Stop throws "Operation cancelled". Progress: phase "scanningLeftovers".
LeftoverScanResult findAppData(const AppDataQuery& query, const std::stop_token& stop = {},
                               OperationProgress* progress = nullptr);

// True when `path` is a place findAppData could list for some app: strictly inside an app-data
// location, or one of the named extra places of an override.
bool isAppDataPlace(std::string_view path);

namespace appDataText {
inline constexpr std::string_view invalidMatchValue = "Invalid leftover match value";
inline constexpr std::string_view skippedMatchValue = "Skipped match value: ";
inline constexpr std::string_view skippedProtected = "Skipped protected path: ";
inline constexpr std::string_view couldNotResolve = "Could not resolve ";
inline constexpr std::string_view lookupFailed = "Could not look for what the app keeps: ";
inline constexpr std::string_view scanComplete = "Leftover scan complete";
inline constexpr std::string_view phase = "scanningLeftovers";
} // namespace appDataText

} // namespace sd
