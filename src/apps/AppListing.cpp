#include "apps/AppListing.h"

#include "base/CleanerError.h"
#include "base/FileIo.h"
#include "base/ParallelFor.h"
#include "base/Saturating.h"
#include "base/Stop.h"
#include "core/ByteFormat.h"
#include "core/CoreFileSystem.h"
#include "core/PathRules.h"
#include "platform/Dirs.h"
#include "platform/Words.h"
#include "reclaim/ReclaimJournal.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cmath>
#include <fcntl.h>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>

namespace sd {
namespace {

using nlohmann::json;

std::string rememberedFile() {
    return platform::supportDirectory() + "/apps.json";
}

std::map<std::string, json> readRemembered() {
    std::map<std::string, json> apps;
    UniqueFd fd(::open(rememberedFile().c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    if (!fd) {
        return apps;
    }
    try {
        json j = json::parse(readAll(fd.get(), 16u << 20));
        for (const json& app : j.at("apps")) {
            apps[app.at("id").get<std::string>()] = app;
        }
    } catch (const std::exception&) {
        return {}; // an unreadable record remembers nothing: no app is taken for removed
    }
    return apps;
}

} // namespace

AppDataQuery dataQueryFor(const platform::InstalledApp& app) {
    AppDataQuery query;
    query.bundleId = app.id;
    query.appName = app.name;
    query.nameAliases = app.nameAliases;
    // A menu entry the person's own account holds goes with an app Sparrowdeck may move.
    std::string menu = platform::dataHome() + "/applications/";
    if ((app.source == platform::AppSource::appImage || app.source == platform::AppSource::local) &&
        app.entry.starts_with(menu) && app.entry != app.location) {
        query.extraPlaces.emplace_back(app.entry, "Menu Entry");
    }
    return query;
}

AppListing listApps(const platform::AppSearchRoots& roots, DataLookup data,
                    const std::stop_token& stop, OperationProgress* progress) {
    auto start = std::chrono::steady_clock::now();
    if (progress != nullptr) {
        progress->setPhase("readingApps");
    }
    platform::AppRecords records = platform::readInstalledApps(roots, stop);
    AppListing listing;
    listing.warnings = records.warnings;
    listing.complete = records.complete;
    listing.apps.resize(records.apps.size());
    for (size_t i = 0; i < records.apps.size(); ++i) {
        listing.apps[i].app = std::move(records.apps[i]);
    }
    if (progress != nullptr) {
        progress->setPhase("measuringApps");
        progress->setTotal(listing.apps.size());
    }
    std::mutex warningsLock;
    parallelFor(listing.apps.size(), hardwareWorkers(), stop, [&](size_t index) {
        AppListEntry& entry = listing.apps[index];
        std::vector<std::string> warnings;
        if (entry.app.packageBytes) {
            entry.appBytes = *entry.app.packageBytes;
            entry.appBytesFromPackage = true;
        }
        FootprintTally tally;
        for (const std::string& path : entry.app.measurePaths) {
            Footprint footprint =
                measureFootprint(path, std::nullopt, warnings, tally, stop, progress);
            entry.appBytes = saturatingAdd(entry.appBytes, footprint.allocatedBytes);
        }
        if (data == DataLookup::measure) {
            LeftoverScanResult found = findAppData(dataQueryFor(entry.app), stop);
            entry.data = std::move(found.leftovers);
            entry.dataBytes = found.totalBytes;
            warnings.insert(warnings.end(), found.warnings.begin(), found.warnings.end());
        }
        if (progress != nullptr) {
            progress->addDone();
        }
        if (!warnings.empty()) {
            std::lock_guard guard(warningsLock);
            listing.warnings.insert(listing.warnings.end(), warnings.begin(), warnings.end());
        }
    });
    throwIfStopped(stop);
    if (listing.complete) {
        std::vector<platform::InstalledApp> apps;
        apps.reserve(listing.apps.size());
        for (const AppListEntry& entry : listing.apps) {
            apps.push_back(entry.app);
        }
        try {
            rememberApps(apps);
        } catch (const CleanerError& error) {
            listing.warnings.push_back(std::string("Could not remember the app list: ") +
                                       error.what());
        }
    }
    listing.durationMs =
        static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                       std::chrono::steady_clock::now() - start)
                                       .count());
    return listing;
}

const AppListEntry* findApp(const AppListing& listing, std::string_view id) {
    for (const AppListEntry& entry : listing.apps) {
        if (entry.app.id == id) {
            return &entry;
        }
    }
    auto lower = [](std::string_view text) {
        std::string out(text);
        std::transform(out.begin(), out.end(), out.begin(),
                       [](unsigned char c) { return std::tolower(c); });
        return out;
    };
    for (const AppListEntry& entry : listing.apps) {
        if (lower(entry.app.name) == lower(id)) {
            return &entry;
        }
    }
    return nullptr;
}

std::set<std::string> rememberedAppIds() {
    std::set<std::string> ids;
    for (const auto& [id, app] : readRemembered()) {
        ids.insert(id);
    }
    return ids;
}

void rememberApps(const std::vector<platform::InstalledApp>& apps) {
    std::string file = rememberedFile();
    makeDirectories(platform::supportDirectory(), 0700);
    FileLock lock(file);
    std::map<std::string, json> remembered = readRemembered();
    std::string now = isoTimestampNow();
    for (const platform::InstalledApp& app : apps) {
        remembered[app.id] = {{"id", app.id},
                              {"name", app.name},
                              {"source", platform::appSourceName(app.source)},
                              {"lastSeen", now}};
    }
    json out{{"apps", json::array()}};
    for (auto& [id, app] : remembered) {
        out["apps"].push_back(std::move(app));
    }
    replaceFileAtomically(file, out.dump(1, ' ', false, json::error_handler_t::replace) + "\n");
}

std::vector<const AppListEntry*> orderedApps(const AppListing& listing, AppOrder order) {
    std::vector<const AppListEntry*> apps;
    apps.reserve(listing.apps.size());
    for (const AppListEntry& entry : listing.apps) {
        apps.push_back(&entry);
    }
    if (order == AppOrder::size) {
        std::stable_sort(apps.begin(), apps.end(),
                         [](const AppListEntry* a, const AppListEntry* b) {
                             return saturatingAdd(a->appBytes, a->dataBytes) >
                                    saturatingAdd(b->appBytes, b->dataBytes);
                         });
    } else if (order == AppOrder::used) {
        std::stable_sort(apps.begin(), apps.end(),
                         [](const AppListEntry* a, const AppListEntry* b) {
                             return a->app.lastUsed.value_or(-1) > b->app.lastUsed.value_or(-1);
                         });
    }
    return apps;
}

std::string appSizeNote(const AppListEntry& entry) {
    if (entry.appBytesFromPackage) {
        return formatBytes(entry.appBytes) + " (the package's own figure)";
    }
    return formatBytes(entry.appBytes);
}

std::string lastUsedText(const platform::InstalledApp& app, double now) {
    if (!app.lastUsed) {
        return "Never seen in use — no record of it";
    }
    double days = std::floor((now - *app.lastUsed) / 86400.0);
    std::string when = days < 1   ? "today"
                       : days < 2 ? "yesterday"
                                  : std::to_string(static_cast<long long>(days)) + " days ago";
    std::string evidence = app.lastUsedEvidence == platform::LastUsedEvidence::recentlyUsed
                               ? std::string(platform::openedRecordName())
                           : app.lastUsedEvidence == platform::LastUsedEvidence::accessTime
                               ? "the program file's access time"
                               : std::string(platform::openedRecordName());
    return "Last used " + when + " (" + evidence + ")";
}

} // namespace sd
