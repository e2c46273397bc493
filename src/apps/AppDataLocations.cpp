#include "apps/AppDataLocations.h"

#include "base/CleanerError.h"
#include "base/PathText.h"
#include "base/Saturating.h"
#include "base/Stop.h"
#include "core/CoreFileSystem.h"
#include "core/PathRules.h"
#include "platform/InstalledApps.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <set>

namespace sd {
namespace {

using enum MatchStrategy;
using enum LeftoverCategory;

std::vector<LeftoverLocation> buildLocations() {
    std::vector<LeftoverLocation> rows{
        {"application_support",
         "Application Support",
         "~/Library/Application Support/{match}",
         {bundleId, appName},
         appData,
         "Files the app kept for itself — libraries, databases, downloads"},
        {"caches", "Caches", "~/Library/Caches/{match}", {bundleId}, cache, ""},
        {"preferences",
         "Preferences",
         "~/Library/Preferences/{match}.plist",
         {bundleId},
         preferences,
         ""},
        {"preferences_byhost",
         "Per-Host Preferences",
         "~/Library/Preferences/ByHost/{match}.*.plist",
         {bundleId},
         preferences,
         "Settings for this Mac"},
        {"containers",
         "App Container",
         "~/Library/Containers/{match}",
         {bundleId},
         container,
         "The app’s sandbox — everything it stored"},
        {"group_containers",
         "Group Containers",
         "~/Library/Group Containers/*.{match}",
         {bundleId},
         container,
         "Data shared with its helpers and extensions"},
        {"saved_state",
         "Saved Application State",
         "~/Library/Saved Application State/{match}.savedState",
         {bundleId},
         state,
         "Window positions"},
        {"http_storages",
         "HTTP Storage",
         "~/Library/HTTPStorages/{match}",
         {bundleId},
         cache,
         "Web cookies and storage for the app"},
        {"webkit",
         "WebKit Data",
         "~/Library/WebKit/{match}",
         {bundleId},
         cache,
         "Web content the app cached"},
        {"cookies",
         "Cookies",
         "~/Library/Cookies/{match}.binarycookies",
         {bundleId},
         cache,
         "Web cookies and storage for the app"},
        {"logs", "Logs", "~/Library/Logs/{match}", {bundleId, appName}, logs, ""},
        {"launch_agents",
         "Launch Agents",
         "~/Library/LaunchAgents/{match}*.plist",
         {bundleId},
         system,
         "Starts a helper when you log in"},
        {"application_scripts",
         "Application Scripts",
         "~/Library/Application Scripts/{match}",
         {bundleId},
         appData,
         "Scripts the app installed for itself"},
        {"diagnostic_reports",
         "Crash Reports",
         "~/Library/Logs/DiagnosticReports/{match}*.ips",
         {appName},
         logs,
         ""},
        {"crash_reporter",
         "Crash Reporter Preferences",
         "~/Library/Application Support/CrashReporter/{match}*.plist",
         {appName},
         preferences,
         "Crash reporter settings"},
        {"synced_preferences",
         "Synced Preferences",
         "~/Library/SyncedPreferences/{match}.plist",
         {bundleId},
         preferences,
         ""},
        // Where apps keep the same kinds of data on a freedesktop system.
        {"config_linux",
         "Settings",
         "~/.config/{match}",
         {bundleId, appName},
         appData,
         "Settings and data the app keeps in your config folder"},
        {"cache_linux",
         "Cache",
         "~/.cache/{match}",
         {bundleId, appName},
         cache,
         "A cache the app rebuilds when it needs it"},
        {"data_linux",
         "App Data",
         "~/.local/share/{match}",
         {bundleId, appName},
         appData,
         "Files the app kept for itself — libraries, databases, downloads"},
        {"state_linux",
         "State",
         "~/.local/state/{match}",
         {bundleId, appName},
         state,
         "History and window state"},
        {"flatpak_data_linux",
         "Flatpak Data",
         "~/.var/app/{match}",
         {bundleId},
         container,
         "The app’s sandbox — everything it stored"},
        {"snap_data_linux",
         "Snap Data",
         "~/snap/{match}",
         {bundleId},
         container,
         "The app’s sandbox — everything it stored"},
        {"autostart_linux",
         "Starts at Login",
         "~/.config/autostart/{match}*.desktop",
         {bundleId},
         system,
         "Starts the app when you log in"},
    };
    return rows;
}

std::vector<AppOverride> buildOverrides() {
    return {
        {"com.docker.docker", {"Docker"}, {{"~/.docker", "Docker settings"}}, {"containers"}},
        {"com.spotify.client", {"Spotify"}, {}, {}},
        {"com.tinyspeck.slackmacgap", {"Slack"}, {}, {}},
        {"com.microsoft.VSCode", {"Code"}, {{"~/.vscode", "Extensions"}}, {}},
        {"ru.keepcoder.Telegram", {"Telegram"}, {}, {}},
        {"ph.telegra.Telegraph", {"Telegram"}, {}, {}},
        // Common Linux apps whose folders are not named after their desktop-file id.
        {"code", {"Code"}, {{"~/.vscode", "Extensions"}}, {}},
        {"com.visualstudio.code", {"Code"}, {{"~/.vscode", "Extensions"}}, {}},
        {"codium", {"VSCodium"}, {{"~/.vscode-oss", "Extensions"}}, {}},
        {"google-chrome", {"google-chrome"}, {}, {}},
        {"chromium", {"chromium"}, {}, {}},
        {"firefox",
         {},
         {{"~/.mozilla/firefox", "Firefox profiles"}, {"~/.cache/mozilla/firefox", "Cache"}},
         {}},
        {"firefox-esr",
         {},
         {{"~/.mozilla/firefox", "Firefox profiles"}, {"~/.cache/mozilla/firefox", "Cache"}},
         {}},
        {"slack", {"Slack"}, {}, {}},
        {"discord", {"discord"}, {}, {}},
    };
}

bool isControlOrInvalid(std::string_view value) {
    if (!isUtf8(value) || value.size() > 255) {
        return true;
    }
    return std::any_of(value.begin(), value.end(), [](char c) {
        auto u = static_cast<unsigned char>(c);
        return u < 0x20 || u == 0x7F;
    });
}

std::string expandHome(std::string_view pathTemplate) {
    if (pathTemplate.starts_with("~/")) {
        return homeDirectory() + std::string(pathTemplate.substr(1));
    }
    return std::string(pathTemplate);
}

} // namespace

std::string_view leftoverCategoryName(LeftoverCategory category) {
    static constexpr std::array<std::string_view, 7> names{
        "appData", "cache", "preferences", "container", "state", "logs", "system"};
    return names[static_cast<size_t>(category)];
}

const std::vector<LeftoverLocation>& leftoverLocations() {
    static const std::vector<LeftoverLocation> rows = buildLocations();
    return rows;
}

const std::vector<AppOverride>& appOverrides() {
    static const std::vector<AppOverride> rows = buildOverrides();
    return rows;
}

const AppOverride* findOverride(std::string_view id) {
    for (const AppOverride& row : appOverrides()) {
        if (row.bundleId == id) {
            return &row;
        }
    }
    return nullptr;
}

std::string prepareMatchValue(std::string_view value) {
    constexpr std::string_view space = " \t\r\n\v\f";
    size_t first = value.find_first_not_of(space);
    value = first == std::string_view::npos
                ? std::string_view()
                : value.substr(first, value.find_last_not_of(space) - first + 1);
    if (value.empty() || value == "." || value == ".." ||
        value.find('/') != std::string_view::npos || isControlOrInvalid(value)) {
        throw CleanerError::safety(std::string(appDataText::invalidMatchValue));
    }
    std::string escaped;
    for (char c : value) {
        if (c == '*' || c == '?' || c == '[' || c == ']' || c == '\\') {
            escaped.push_back('\\');
        }
        escaped.push_back(c);
    }
    return escaped;
}

bool isAppDataPlace(std::string_view path) {
    try {
        validateAppDataPath(path);
        return true;
    } catch (const CleanerError&) {
    }
    for (const AppOverride& row : appOverrides()) {
        for (const ExtraPath& extra : row.extraPaths) {
            if (expandHome(extra.pathTemplate) == path) {
                return true;
            }
        }
    }
    return false;
}

LeftoverScanResult findAppData(const AppDataQuery& query, const std::stop_token& stop,
                               OperationProgress* progress) {
    auto start = std::chrono::steady_clock::now();
    LeftoverScanResult result;
    result.bundleId = query.bundleId;
    result.appName = query.appName;
    if (progress != nullptr) {
        progress->setPhase(appDataText::phase);
    }
    const AppOverride* override = findOverride(query.bundleId);
    std::set<std::string> found;
    FootprintTally tally;

    // Measures one resolved place and lists it, unless it was listed already.
    auto take = [&](const ResolvedRoot& root, std::string_view id, std::string_view label,
                    LeftoverCategory category, std::string_view description) {
        if (!found.insert(root.path).second) {
            return;
        }
        std::vector<std::string> warnings;
        Footprint footprint =
            measureFootprint(root.path, root.identity, warnings, tally, stop, progress);
        result.warnings.insert(result.warnings.end(), warnings.begin(), warnings.end());
        if (footprint.vanished) {
            return;
        }
        result.leftovers.push_back({std::string(id), std::string(label), root.path,
                                    footprint.allocatedBytes, category, true,
                                    std::string(description), root.identity});
        result.totalBytes = saturatingAdd(result.totalBytes, footprint.allocatedBytes);
    };
    auto resolve = [&](const std::string& pathTemplate) -> std::vector<ResolvedRoot> {
        try {
            return resolveRoots(pathTemplate, std::nullopt, result.warnings, stop);
        } catch (const CleanerError& error) {
            if (error.kind() == CleanerError::Kind::operationCancelled) {
                throw;
            }
            result.warnings.push_back(std::string(appDataText::couldNotResolve) + pathTemplate +
                                      ": " + error.what());
            return {};
        }
    };

    std::vector<std::string> names{query.appName};
    names.insert(names.end(), query.nameAliases.begin(), query.nameAliases.end());
    if (override != nullptr) {
        names.insert(names.end(), override->nameAliases.begin(), override->nameAliases.end());
    }
    std::vector<std::optional<std::string>> preparedNames;
    for (const std::string& name : names) {
        try {
            preparedNames.emplace_back(prepareMatchValue(name));
        } catch (const CleanerError&) {
            if (!name.empty()) {
                result.warnings.push_back(std::string(appDataText::skippedMatchValue) + name);
            }
        }
    }
    std::optional<std::string> preparedId;
    try {
        preparedId = prepareMatchValue(query.bundleId);
    } catch (const CleanerError&) {
        result.warnings.push_back(std::string(appDataText::skippedMatchValue) + query.bundleId);
    }

    for (const LeftoverLocation& row : leftoverLocations()) {
        throwIfStopped(stop);
        if ((!platform::appDataUnderLibrary() && row.pathTemplate.starts_with("~/Library/")) ||
            (override != nullptr &&
             std::find(override->excludeLocations.begin(), override->excludeLocations.end(),
                       row.id) != override->excludeLocations.end())) {
            continue;
        }
        for (MatchStrategy strategy : row.matchBy) {
            if (std::find(query.strategies.begin(), query.strategies.end(), strategy) ==
                query.strategies.end()) {
                continue;
            }
            std::vector<std::optional<std::string>> values =
                strategy == MatchStrategy::bundleId ? std::vector{preparedId} : preparedNames;
            for (const std::optional<std::string>& value : values) {
                if (!value) {
                    continue;
                }
                std::string pathTemplate(row.pathTemplate);
                pathTemplate.replace(pathTemplate.find("{match}"), 7, *value);
                for (const ResolvedRoot& root : resolve(pathTemplate)) {
                    try {
                        validateAppDataPath(root.path);
                    } catch (const CleanerError&) {
                        result.warnings.push_back(std::string(appDataText::skippedProtected) +
                                                  root.path);
                        continue;
                    }
                    take(root, row.id, row.label, row.category, row.description);
                }
            }
        }
    }

    std::vector<std::pair<std::string, std::string>> extras = query.extraPlaces;
    if (override != nullptr && query.overridePlaces) {
        for (const ExtraPath& extra : override->extraPaths) {
            extras.emplace_back(extra.pathTemplate, extra.label);
        }
    }
    for (const auto& [pathTemplate, label] : extras) {
        throwIfStopped(stop);
        for (const ResolvedRoot& root : resolve(pathTemplate)) {
            try {
                validateOperablePath(root.path);
            } catch (const CleanerError&) {
                result.warnings.push_back(std::string(appDataText::skippedProtected) + root.path);
                continue;
            }
            take(root, "extra", label, LeftoverCategory::appData, "");
        }
    }
    if (progress != nullptr) {
        progress->setPhase(appDataText::scanComplete);
        progress->setFraction(1.0);
    }
    result.durationMs =
        static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                       std::chrono::steady_clock::now() - start)
                                       .count());
    return result;
}

} // namespace sd
