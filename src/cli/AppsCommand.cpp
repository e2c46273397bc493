#include "cli/AppsCommand.h"

#include "apps/AppListing.h"
#include "apps/Uninstall.h"
#include "base/CleanerError.h"
#include "cli/Terminal.h"
#include "core/ByteFormat.h"
#include "core/MoveListing.h"
#include "core/PathRules.h"
#include "platform/Words.h"
#include "reclaim/VaultPolicy.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <ctime>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <unistd.h>

namespace sd::cli {
namespace {

using nlohmann::json;

std::string dump(const json& value) {
    return value.dump(2, ' ', false, json::error_handler_t::replace);
}

std::string isoDate(double seconds) {
    auto whole = static_cast<std::time_t>(seconds);
    std::tm utc{};
    ::gmtime_r(&whole, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

json leftoverJson(const Leftover& place) {
    return {{"locationId", place.locationId},
            {"label", place.label},
            {"path", place.path},
            {"bytes", place.bytes},
            {"category", leftoverCategoryName(place.category)},
            {"selected", place.selected},
            {"description", place.description},
            {"identityToken", identityToken(place.identity)}};
}

json appJson(const AppListEntry& entry, bool withData) {
    const platform::InstalledApp& app = entry.app;
    json out{{"id", app.id},
             {"name", app.name},
             {"version", app.version},
             {"source", platform::appSourceName(app.source)},
             {"appBytes", entry.appBytes},
             {"appBytesFrom", entry.appBytesFromPackage ? "package" : "measured"},
             {"dataBytes", entry.dataBytes},
             {"icon", app.icon},
             {"entry", app.entry},
             {"location", app.location},
             {"identityToken", identityToken(app.identity)},
             {"lastUsed", app.lastUsed ? json(isoDate(*app.lastUsed)) : json(nullptr)},
             {"lastUsedEvidence", platform::lastUsedEvidenceName(app.lastUsedEvidence)},
             {"package", app.package ? json(*app.package) : json(nullptr)},
             {"movable", canMoveApp(app)}};
    if (std::string command = platform::removalCommand(app); !command.empty()) {
        out["removalCommand"] = command;
    }
    if (withData) {
        json places = json::array();
        for (const Leftover& place : entry.data) {
            places.push_back(leftoverJson(place));
        }
        out["data"] = places;
    }
    return out;
}

// Lists with live progress; a failure is a sentence on standard error and status 1.
std::optional<AppListing> listWithProgress(int& exitStatus) {
    OperationProgress progress;
    std::optional<AppListing> listing;
    try {
        runWithProgress(
            [&](const std::stop_token& stop) {
                listing =
                    listApps(platform::standardAppRoots(), DataLookup::measure, stop, &progress);
            },
            [&] {
                OperationProgress::Reading r = progress.read();
                return "Reading apps · " + std::to_string(r.done) + " of " +
                       std::to_string(r.total) + " measured";
            });
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        exitStatus = 1;
        return std::nullopt;
    }
    return listing;
}

void printWarnings(const std::vector<std::string>& warnings) {
    for (const std::string& warning : warnings) {
        std::fprintf(stderr, "%s\n", warning.c_str());
    }
}

void runList(bool asJson, const std::string& sort, int& exitStatus) {
    std::optional<AppListing> listing = listWithProgress(exitStatus);
    if (!listing) {
        return;
    }
    std::vector<const AppListEntry*> apps =
        orderedApps(*listing, sort == "size"   ? AppOrder::size
                              : sort == "used" ? AppOrder::used
                                               : AppOrder::name);
    if (asJson) {
        json out = json::array();
        for (const AppListEntry* entry : apps) {
            out.push_back(appJson(*entry, false));
        }
        std::cout << dump(json{{"apps", out},
                               {"warnings", listing->warnings},
                               {"complete", listing->complete},
                               {"durationMs", listing->durationMs}})
                  << "\n";
        return;
    }
    double now = static_cast<double>(std::time(nullptr));
    for (const AppListEntry* entry : apps) {
        const platform::InstalledApp& app = entry->app;
        std::printf("%-32s %-9s %-16s app %-30s data %-9s %s\n", app.name.c_str(),
                    std::string(platform::appSourceName(app.source)).c_str(),
                    app.version.empty() ? "-" : app.version.substr(0, 16).c_str(),
                    appSizeNote(*entry).c_str(), formatBytes(entry->dataBytes).c_str(),
                    lastUsedText(app, now).c_str());
    }
    if (apps.empty()) {
        std::printf("No installed apps were found.\n");
    }
    printWarnings(listing->warnings);
}

void runShow(const std::string& id, bool asJson, int& exitStatus) {
    std::optional<AppListing> listing = listWithProgress(exitStatus);
    if (!listing) {
        return;
    }
    const AppListEntry* entry = findApp(*listing, id);
    if (entry == nullptr) {
        std::fprintf(stderr, "No installed app has the %s or name “%s”. Nothing was changed.\n",
                     std::string(platform::appIdName()).c_str(), id.c_str());
        exitStatus = 1;
        return;
    }
    if (asJson) {
        std::cout << dump(appJson(*entry, true)) << "\n";
        return;
    }
    const platform::InstalledApp& app = entry->app;
    std::printf("%s (%s %s)\n", app.name.c_str(), std::string(platform::appIdName()).c_str(),
                app.id.c_str());
    std::printf("  Source: %s%s%s\n", std::string(platform::appSourceName(app.source)).c_str(),
                app.package ? ", package " : "", app.package ? app.package->c_str() : "");
    std::printf("  Version: %s\n", app.version.empty() ? "unknown" : app.version.c_str());
    std::printf("  The app: %s\n", appSizeNote(*entry).c_str());
    std::printf("  %s\n", lastUsedText(app, static_cast<double>(std::time(nullptr))).c_str());
    std::printf("  What it keeps: %s\n", formatBytes(entry->dataBytes).c_str());
    for (const Leftover& place : entry->data) {
        std::printf("    %-10s %s — %s%s%s\n", formatBytes(place.bytes).c_str(), place.path.c_str(),
                    place.label.c_str(), place.description.empty() ? "" : ": ",
                    place.description.c_str());
    }
    if (std::string command = platform::removalCommand(app); !command.empty()) {
        std::printf("  To remove it: %s\n", command.c_str());
    }
}

struct UninstallCliOptions {
    std::string id;
    std::vector<std::string> data{"all"};
    bool yes = false;
    bool json = false;
};

void runUninstall(const UninstallCliOptions& options, int& exitStatus) {
    std::optional<AppListing> listing = listWithProgress(exitStatus);
    if (!listing) {
        return;
    }
    const AppListEntry* entry = findApp(*listing, options.id);
    if (entry == nullptr) {
        std::fprintf(stderr, "No installed app has the %s or name “%s”. Nothing was changed.\n",
                     std::string(platform::appIdName()).c_str(), options.id.c_str());
        exitStatus = 1;
        return;
    }
    std::vector<Leftover> chosen;
    if (options.data.size() == 1 && options.data[0] == "all") {
        chosen = entry->data;
    } else if (!(options.data.size() == 1 && options.data[0] == "none")) {
        for (const std::string& path : options.data) {
            auto found = std::find_if(entry->data.begin(), entry->data.end(),
                                      [&](const Leftover& place) { return place.path == path; });
            if (found == entry->data.end()) {
                std::fprintf(stderr, "%s is not a place %s keeps data in. Nothing was changed.\n",
                             path.c_str(), entry->app.name.c_str());
                exitStatus = 1;
                return;
            }
            chosen.push_back(*found);
        }
    }
    UninstallPreview preview = previewUninstall(entry->app, entry->appBytes, chosen);
    // With nothing to move there is nothing to ask: the run only tells what stays and why.
    if (!options.yes && !preview.moves.empty()) {
        bool canAsk = ::isatty(STDIN_FILENO) == 1 && !options.json;
        if (canAsk) {
            std::printf("%s\n", preview.appNote.c_str());
            for (const std::string& line : moveListingLines(preview.moves)) {
                std::printf("  %s\n", line.c_str());
            }
        }
        if (!canAsk || !confirm(preview.question)) {
            std::printf("%s\n", canAsk ? "Nothing was moved."
                                       : "Nothing was moved: add --yes to confirm without a "
                                         "terminal.");
            exitStatus = 1;
            return;
        }
    }
    auto policy = std::make_shared<const VaultPolicy>(homeDirectory());
    VaultService vault = VaultService::standard(policy);
    ReclaimJournal journal = ReclaimJournal::standard();
    journal.load();
    UninstallOutcome outcome;
    try {
        runWithProgress(
            [&](const std::stop_token& stop) {
                outcome = uninstallApp(entry->app, chosen, vault, journal, {}, stop);
            },
            [] { return std::string("Moving to the Trash…"); });
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        exitStatus = 1;
        return;
    }
    bool everything = outcome.moved.size() == chosen.size() + (canMoveApp(entry->app) ? 1 : 0);
    exitStatus = everything ? 0 : 1;
    if (options.json) {
        json moved = json::array();
        for (const MovedItem& m : outcome.moved) {
            moved.push_back({{"originalPath", m.originalPath},
                             {"trashPath", m.trashPath},
                             {"bytes", m.bytes},
                             {"identityToken", m.identityToken}});
        }
        json out{{"app", entry->app.id},
                 {"appMoved", outcome.appMoved},
                 {"moved", moved},
                 {"notes", outcome.notes}};
        if (!outcome.entryID.empty()) {
            out["entryID"] = outcome.entryID;
        }
        if (!outcome.removalCommand.empty()) {
            out["removalCommand"] = outcome.removalCommand;
        }
        std::cout << dump(out) << "\n";
        return;
    }
    for (const std::string& note : outcome.notes) {
        std::printf("%s\n", note.c_str());
    }
    if (!outcome.entryID.empty()) {
        std::uint64_t bytes = 0;
        for (const MovedItem& m : outcome.moved) {
            bytes += m.bytes;
        }
        std::printf("Moved %zu %s to the Trash · %s. Put them back with: sparrowdeck put-back %s\n",
                    outcome.moved.size(), outcome.moved.size() == 1 ? "item" : "items",
                    formatBytes(bytes).c_str(), outcome.entryID.substr(0, 8).c_str());
    }
}

} // namespace

void addAppsCommand(CLI::App& app, int& exitStatus) {
    struct Options {
        bool json = false;
        std::string sort = "name";
        std::string id;
        bool showJson = false;
    };
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand(
        "apps", "Installed apps with what each takes: the app itself and the data it keeps");
    command->add_flag("--json", options->json, "Write the list as JSON");
    command->add_option("--sort", options->sort, "Order: name, size or used")
        ->check(CLI::IsMember({"name", "size", "used"}));
    CLI::App* show =
        command->add_subcommand("show", "One app: where it keeps data, each place measured");
    show->add_option("id", options->id, "The app's id (or its name)")->required();
    show->add_flag("--json", options->showJson, "Write the app as JSON");
    show->callback([options, &exitStatus] { runShow(options->id, options->showJson, exitStatus); });
    command->callback([command, options, &exitStatus] {
        if (command->got_subcommand("show")) {
            return;
        }
        runList(options->json, options->sort, exitStatus);
    });
}

void addUninstallCommand(CLI::App& app, int& exitStatus) {
    auto options = std::make_shared<UninstallCliOptions>();
    CLI::App* command = app.add_subcommand(
        "uninstall", "Move an app you installed yourself, and the data it keeps, to the Trash");
    command->add_option("id", options->id, "The app's id (or its name)")->required();
    command->add_option("--data", options->data,
                        "Which data goes too: all (the default), none, or the places' paths");
    command->add_flag("--yes", options->yes, "Move without asking");
    command->add_flag("--json", options->json, "Write the result as JSON");
    command->callback([options, &exitStatus] { runUninstall(*options, exitStatus); });
}

} // namespace sd::cli
