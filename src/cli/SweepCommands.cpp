#include "cli/SweepCommands.h"

#include "base/CleanerError.h"
#include "catalog/InclusionPreferences.h"
#include "cli/Terminal.h"
#include "core/ByteFormat.h"
#include "core/PathRules.h"
#include "sweep/Sweep.h"

#include <CLI/CLI.hpp>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <unistd.h>

namespace sd::cli {
namespace {

using nlohmann::json;

std::string dump(const json& value) {
    return value.dump(2, ' ', false, json::error_handler_t::replace);
}

std::shared_ptr<const VaultPolicy> standardPolicy() {
    return std::make_shared<const VaultPolicy>(homeDirectory());
}

json tileJson(const SweepTile& tile) {
    json targets = json::array();
    for (const Target& t : tile.targets) {
        targets.push_back(t.id);
    }
    // The app tiles list their items: where each is, what it takes and whose it is.
    json items = json::array();
    if (tile.installers) {
        for (const UsedInstaller& item : tile.installers->items) {
            items.push_back({{"path", item.path},
                             {"bytes", item.bytes},
                             {"app", item.appId},
                             {"version", item.version},
                             {"installedVersion", item.installedVersion}});
        }
    }
    for (const OrphanGroup& group : tile.orphans) {
        for (const Leftover& place : group.places) {
            items.push_back({{"path", place.path},
                             {"bytes", place.bytes},
                             {"app", group.appId},
                             {"label", place.label}});
        }
    }
    return {{"kind", tileKindName(tile.kind)},
            {"items", items},
            {"title", tileTitle(tile)},
            {"subtitle", tileSubtitle(tile)},
            {"bytes", tile.bytes},
            {"comesBack", tileComesBack(tile.kind)},
            {"targets", targets},
            {"perTarget", tile.perTarget},
            {"appBytes", tile.appBytes},
            {"measured", tile.measured},
            {"appBytesByTarget", tile.appBytesByTarget},
            {"leftOut", tile.leftOut},
            {"skippedTitles", tile.skippedTitles},
            {"itemCount", tile.itemCount},
            {"warnings", tile.warnings}};
}

struct SweepOptions {
    bool json = false;
    std::vector<std::string> reclaim;
    bool yes = false;
    std::string leaveOut;
    std::string bringBack;
};

// Settings that could not be read or saved are said once, on standard error; they never stop
// the work itself.
void reportSettings(const platform::UserDefaults& store) {
    for (const std::string& problem : store.problems()) {
        std::fprintf(stderr, "%s\n", problem.c_str());
    }
}

void runSweep(const SweepOptions& options, int& exitStatus) {
    platform::UserDefaults store = platform::UserDefaults::standard();
    Sweep sweep(DistributionMode::direct, store, standardPolicy());

    if (!options.leaveOut.empty() || !options.bringBack.empty()) {
        for (const std::string* id : {&options.leaveOut, &options.bringBack}) {
            if (!id->empty() && findTarget(sweep.allTargets(), *id) == nullptr) {
                std::fprintf(stderr, "There is no catalog target “%s”. Nothing was changed.\n",
                             id->c_str());
                exitStatus = 1;
                return;
            }
        }
        const std::size_t failedBefore = store.failedWrites();
        if (!options.leaveOut.empty()) {
            sweep.leaveOut(options.leaveOut);
        }
        if (!options.bringBack.empty()) {
            sweep.bringBack(options.bringBack);
        }
        reportSettings(store);
        if (store.failedWrites() != failedBefore) {
            std::fprintf(stderr, "What you asked for was not saved; the next Sweep still "
                                 "includes the same targets.\n");
            exitStatus = 1;
            return;
        }
        if (!options.leaveOut.empty()) {
            std::printf("%s: %s\n", options.leaveOut.c_str(),
                        std::string(leftOutCatalogText).c_str());
        }
        if (!options.bringBack.empty()) {
            std::printf("%s: %s\n", options.bringBack.c_str(),
                        std::string(broughtBackText).c_str());
        }
        return;
    }

    std::set<SweepTileKind> reclaimKinds;
    for (const std::string& name : options.reclaim) {
        std::optional<SweepTileKind> kind = tileKindFromName(name);
        if (!kind) {
            std::fprintf(stderr,
                         "“%s” is not a tile. Use developer, appCaches, installers, redownloads or "
                         "leftovers.\n",
                         name.c_str());
            exitStatus = 2;
            return;
        }
        if (*kind == SweepTileKind::trash) {
            std::fprintf(stderr, "The “%s” tile is never reclaimed by a Sweep.\n", name.c_str());
            exitStatus = 2;
            return;
        }
        reclaimKinds.insert(*kind);
    }

    // A reclaim the person may still decline leaves nothing behind, not even the Sweep's record.
    if (!reclaimKinds.empty()) {
        store.holdWrites();
    }
    SweepProgress progress;
    runWithProgress([&](const std::stop_token& stop) { sweep.run(stop, &progress); },
                    [&] {
                        std::uint64_t bytes = 0;
                        std::optional<std::string> current;
                        for (SweepTileKind kind : allTileKinds) {
                            OperationProgress::Reading tile = progress.tile(kind).read();
                            bytes += tile.bytes;
                            if (tile.fraction < 1.0 && tile.currentPath) {
                                current = tile.currentPath;
                            }
                        }
                        return "Sweeping… " +
                               std::to_string(static_cast<int>(progress.fraction() * 100)) +
                               "% · " + formatBytes(bytes) + (current ? " · " + *current : "");
                    });

    std::uint64_t comesBack = 0;
    for (const SweepTile& tile : sweep.tiles()) {
        comesBack += tileComesBack(tile.kind) ? tile.bytes : 0;
    }

    std::optional<SweepReclaimResult> reclaimed;
    if (!reclaimKinds.empty()) {
        std::uint64_t bytes = 0;
        for (SweepTileKind kind : reclaimKinds) {
            bytes += sweep.tile(kind)->bytes;
        }
        if (!options.json) {
            std::vector<ListedMove> places;
            for (SweepTileKind kind : reclaimKinds) {
                std::vector<ListedMove> more = tileLocations(*sweep.tile(kind));
                places.insert(places.end(), more.begin(), more.end());
            }
            std::printf("What will move:\n");
            for (const std::string& line : moveListingLines(places)) {
                std::printf("  %s\n", line.c_str());
            }
        }
        bool go = options.yes;
        if (!go && !options.json && ::isatty(STDIN_FILENO) == 1) {
            go = confirm(moveQuestion(bytes) + " " + std::string(sweepRecheckText));
        }
        if (go) {
            store.commitHeldWrites();
            ReclaimJournal journal = ReclaimJournal::standard();
            try {
                for (const std::string& warning : journal.load()) {
                    std::fprintf(stderr, "%s\n", warning.c_str());
                }
                reclaimed = sweep.reclaim(reclaimKinds, journal);
            } catch (const CleanerError& error) {
                reclaimed = SweepReclaimResult{};
                reclaimed->reclaimErrors.push_back(std::string(error.what()) +
                                                   " Nothing more was moved.");
            }
        } else {
            store.dropHeldWrites();
            reclaimed = SweepReclaimResult{};
            reclaimed->refused = true;
            reclaimed->reclaimErrors.emplace_back(
                ::isatty(STDIN_FILENO) == 1 && !options.json
                    ? "Nothing was moved."
                    : "Nothing was moved: add --yes to confirm without a terminal.");
        }
        if (reclaimed->refused || !reclaimed->reclaimErrors.empty()) {
            exitStatus = 1;
        }
    }

    reportSettings(store);
    if (options.json) {
        json tiles = json::array();
        for (const SweepTile& tile : sweep.tiles()) {
            tiles.push_back(tileJson(tile));
        }
        json highlights = json::array();
        for (const SweepHighlight& h : sweep.highlights()) {
            highlights.push_back({{"title", h.title}, {"bytes", h.bytes}});
        }
        json out{{"tiles", tiles},
                 {"highlights", highlights},
                 {"comesBackBytes", comesBack},
                 {"durationSeconds", sweep.durationSeconds()},
                 {"itemsSeen", sweep.itemsSeen()},
                 {"warnings", sweep.warnings()}};
        if (reclaimed) {
            json byTile = json::object();
            for (const auto& [kind, bytes] : reclaimed->movedByTile) {
                byTile[std::string(tileKindName(kind))] = bytes;
            }
            out["reclaim"] = {
                {"movedBytes", reclaimed->movedBytes},       {"movedCount", reclaimed->movedCount},
                {"freeableBytes", reclaimed->freeableBytes}, {"movedByTile", byTile},
                {"reclaimErrors", reclaimed->reclaimErrors}, {"refused", reclaimed->refused}};
            if (reclaimed->journalEntryID) {
                out["reclaim"]["journalEntryID"] = *reclaimed->journalEntryID;
            }
        }
        std::cout << dump(out) << "\n";
        return;
    }

    for (const SweepTile& tile : sweep.tiles()) {
        std::printf("%-44s %10s%s\n    %s\n", tileTitle(tile).c_str(),
                    formatBytes(tile.bytes).c_str(),
                    tileComesBack(tile.kind) && tile.bytes > 0 ? "  comes back by itself" : "",
                    tileSubtitle(tile).c_str());
        for (const std::string& title : tile.skippedTitles) {
            std::printf("    %s: %s\n", title.c_str(), std::string(leftOutTileText).c_str());
        }
    }
    std::printf("\n%s comes back by itself if you reclaim it.\n", formatBytes(comesBack).c_str());
    if (!sweep.highlights().empty()) {
        std::printf("Biggest: ");
        for (size_t i = 0; i < sweep.highlights().size(); ++i) {
            const SweepHighlight& h = sweep.highlights()[i];
            std::printf("%s%s %s", i == 0 ? "" : " · ", h.title.c_str(),
                        formatBytes(h.bytes).c_str());
        }
        std::printf("\n");
    }
    for (const std::string& warning : sweep.warnings()) {
        std::printf("! %s\n", warning.c_str());
    }
    std::printf("Sweep finished in %s · %s items seen.\n",
                formatDuration(sweep.durationSeconds()).c_str(),
                formatCount(sweep.itemsSeen()).c_str());
    if (reclaimed) {
        if (reclaimed->movedCount > 0) {
            std::printf("Moved %s in %s %s to the Trash.",
                        formatBytes(reclaimed->movedBytes).c_str(),
                        formatCount(reclaimed->movedCount).c_str(),
                        reclaimed->movedCount == 1 ? "item" : "items");
            if (reclaimed->journalEntryID) {
                std::printf(" Put it back with: sparrowdeck put-back %s",
                            reclaimed->journalEntryID->substr(0, 8).c_str());
            }
            std::printf("\n");
        }
        for (const std::string& error : reclaimed->reclaimErrors) {
            std::printf("%s\n", error.c_str());
        }
    } else if (comesBack > 0) {
        std::printf("Reclaim with: sparrowdeck sweep --reclaim developer appCaches redownloads\n");
    }
}

struct CleanOptions {
    std::vector<std::string> targets;
    bool safeOnly = false;
    bool yes = false;
    bool json = false;
};

json scanJson(const ScanResult& scan) {
    json perTarget = json::array();
    for (const TargetSize& t : scan.perTargetBytes) {
        perTarget.push_back({{"targetId", t.targetId}, {"bytes", t.bytes}});
    }
    json perPath = json::array();
    for (const PathSize& p : scan.perPathBytes) {
        perPath.push_back({{"targetId", p.targetId}, {"pathId", p.pathId}, {"bytes", p.bytes}});
    }
    return {{"totalBytes", scan.totalBytes}, {"perTargetBytes", perTarget},
            {"perPathBytes", perPath},       {"warnings", scan.warnings},
            {"durationMs", scan.durationMs}, {"itemCount", scan.itemCount}};
}

void runClean(const CleanOptions& options, int& exitStatus) {
    std::vector<Target> catalog = platformCatalog(DistributionMode::direct);
    std::vector<Target> selected;
    if (options.targets.empty()) {
        selected = catalog;
    }
    for (const std::string& id : options.targets) {
        const Target* t = findTarget(catalog, id);
        if (t == nullptr) {
            std::fprintf(
                stderr,
                "There is no catalog target “%s”. Nothing was moved. See: sparrowdeck catalog\n",
                id.c_str());
            exitStatus = 2;
            return;
        }
        selected.push_back(*t);
    }
    if (options.safeOnly) {
        std::erase_if(selected, [](const Target& t) { return t.risk != RiskLevel::safe; });
    }
    platform::UserDefaults store = platform::UserDefaults::standard();
    InclusionPreferences prefs = loadInclusionPreferences(store);
    CleaningService service(standardPolicy());
    OperationProgress progress;
    auto status = [&] {
        OperationProgress::Reading now = progress.read();
        return now.phase + " · " + std::to_string(static_cast<int>(now.fraction * 100)) + "%";
    };
    std::optional<ScanResult> before;
    CleanPlan plan;
    try {
        runWithProgress(
            [&](const std::stop_token& stop) {
                before = service.scan(selected, prefs.scan, stop, &progress);
                std::vector<CleanError> errors;
                std::vector<CacheCleaningCandidate> candidates =
                    service.buildCandidates(selected, prefs.clean, errors);
                plan = service.plan(candidates, stop, &progress);
                plan.errors.insert(plan.errors.begin(), errors.begin(), errors.end());
            },
            status);
    } catch (const CleanerError& error) {
        std::fprintf(stderr, "Scan did not complete: %s\nNothing was moved.\n", error.what());
        exitStatus = 1;
        return;
    }

    std::vector<std::string> disruptive;
    for (const Target& t : selected) {
        auto measured = std::find_if(before->perTargetBytes.begin(), before->perTargetBytes.end(),
                                     [&](const TargetSize& s) { return s.targetId == t.id; });
        if (t.risk == RiskLevel::disruptive && measured != before->perTargetBytes.end() &&
            measured->bytes > 0) {
            disruptive.push_back(t.title);
        }
    }
    if (!options.json) {
        for (const TargetSize& t : before->perTargetBytes) {
            if (t.bytes > 0) {
                std::printf("%-36s %10s\n", findTarget(catalog, t.targetId)->title.c_str(),
                            formatBytes(t.bytes).c_str());
            }
        }
        std::vector<ListedMove> items;
        for (const CleanPath& p : plan.paths) {
            items.push_back({p.url, p.physicalBytes});
        }
        std::printf("Measured %s. What will move:\n", formatBytes(before->totalBytes).c_str());
        for (const std::string& line : moveListingLines(items)) {
            std::printf("  %s\n", line.c_str());
        }
        for (const CleanError& error : plan.errors) {
            std::printf("! %s: %s\n", error.path.c_str(), error.message.c_str());
        }
    }
    bool go = options.yes;
    if (!go && !plan.paths.empty() && !options.json && ::isatty(STDIN_FILENO) == 1) {
        std::uint64_t moving = 0;
        for (const CleanPath& p : plan.paths) {
            moving += p.physicalBytes;
        }
        go = confirm(moveQuestion(moving) + " " + std::string(sweepRecheckText));
        if (go && !disruptive.empty()) {
            std::string names;
            for (const std::string& name : disruptive) {
                names += (names.empty() ? "" : ", ") + name;
            }
            // Disruptive targets make apps restart, lose logs or download again: ask once more.
            go =
                confirm("These may disturb apps until they rebuild: " + names + ". Move them too?");
        }
    }
    CleanResult result;
    std::optional<ScanResult> after;
    if (go && !plan.paths.empty()) {
        ReclaimJournal journal = ReclaimJournal::standard();
        try {
            journal.load();
            JournalRecording recording{&journal, "Cleanup", JournalKind::caches, std::nullopt, {}};
            runWithProgress(
                [&](const std::stop_token& stop) {
                    result = service.clean(plan, recording, stop, &progress);
                },
                status);
            after = service.scan(selected, prefs.scan);
        } catch (const CleanerError& error) {
            std::fprintf(stderr, "Verification did not complete: %s\n", error.what());
            exitStatus = 1;
        }
    } else if (!plan.paths.empty()) {
        exitStatus = 1;
    }
    if (!result.errors.empty() || !plan.errors.empty()) {
        exitStatus = 1;
    }
    if (options.json) {
        json errors = json::array();
        for (const CleanError& e : plan.errors) {
            errors.push_back({{"path", e.path}, {"message", e.message}});
        }
        for (const CleanError& e : result.errors) {
            errors.push_back({{"path", e.path}, {"message", e.message}});
        }
        json out{{"scan", scanJson(*before)},
                 {"plannedFreeableBytes", plan.plannedFreeableBytes},
                 {"plannedItems", plan.paths.size()},
                 {"bytesRemoved", result.bytesRemoved},
                 {"filesRemoved", result.filesRemoved},
                 {"freeableBytes", result.freeableBytes},
                 {"errors", errors},
                 {"moved", go}};
        if (result.journalEntryID) {
            out["journalEntryID"] = *result.journalEntryID;
        }
        if (after) {
            out["verification"] = scanJson(*after);
        }
        std::cout << dump(out) << "\n";
        return;
    }
    if (!go) {
        std::printf(plan.paths.empty() ? "Nothing to move.\n"
                    : ::isatty(STDIN_FILENO) == 1
                        ? "Nothing was moved.\n"
                        : "Nothing was moved: add --yes to confirm without a terminal.\n");
        return;
    }
    std::printf("Moved %s items (%s) to the Trash.", formatCount(result.filesRemoved).c_str(),
                formatBytes(result.bytesRemoved).c_str());
    if (result.journalEntryID) {
        std::printf(" Put them back with: sparrowdeck put-back %s",
                    result.journalEntryID->substr(0, 8).c_str());
    }
    std::printf("\n");
    for (const CleanError& e : result.errors) {
        std::printf("%s\n", e.message.c_str());
    }
    if (after) {
        std::printf("Checked again: %s still in these caches.\n",
                    formatBytes(after->totalBytes).c_str());
    }
}

} // namespace

void addSweepCommand(CLI::App& app, int& exitStatus) {
    auto options = std::make_shared<SweepOptions>();
    CLI::App* command = app.add_subcommand(
        "sweep", "Measure everything that comes back by itself, and give it back safely");
    command->add_flag("--json", options->json, "Write the tiles as JSON");
    command->add_option("--reclaim", options->reclaim,
                        "Move these tiles to the Trash: developer, appCaches, redownloads");
    command->add_flag("--yes", options->yes, "Reclaim without asking");
    command->add_option("--leave-out", options->leaveOut,
                        "Leave a catalog target out of every Sweep");
    command->add_option("--bring-back", options->bringBack, "Include a left-out target again");
    command->callback([options, &exitStatus] { runSweep(*options, exitStatus); });
}

void addCleanCommand(CLI::App& app, int& exitStatus) {
    auto options = std::make_shared<CleanOptions>();
    CLI::App* command =
        app.add_subcommand("clean", "Measure catalog caches and move them to the Trash");
    command->add_option("targets", options->targets, "Catalog target ids (all when none)");
    command->add_flag("--safe-only", options->safeOnly, "Only targets that disturb nothing");
    command->add_flag("--yes", options->yes, "Move without asking");
    command->add_flag("--json", options->json, "Write the result as JSON");
    command->callback([options, &exitStatus] { runClean(*options, exitStatus); });
}

void addCatalogCommand(CLI::App& app, int& exitStatus) {
    struct Options {
        bool store = false;
        bool json = false;
    };
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("catalog", "List the known caches and where they live");
#ifdef __APPLE__
    // Only the Mac has a store distribution; elsewhere there is one Sparrowdeck.
    command->add_flag("--store", options->store, "The catalog of the store distribution");
#endif
    command->add_flag("--json", options->json, "Write the catalog as JSON");
    command->callback([options, &exitStatus] {
        (void)exitStatus;
        std::vector<Target> catalog =
            platformCatalog(options->store ? DistributionMode::appStore : DistributionMode::direct);
        platform::UserDefaults store = platform::UserDefaults::standard();
        Sweep sweep(DistributionMode::direct, store, standardPolicy());
        std::set<std::string> skipped = sweep.skippedTargets();
        if (options->json) {
            json out = json::array();
            for (const Target& t : catalog) {
                json paths = json::array();
                for (const PathSpec& p : t.paths) {
                    json path{{"id", p.id.value_or("")},
                              {"name", displayName(t, p)},
                              {"template", p.pathTemplate}};
                    if (p.app) {
                        path["app"] = *p.app;
                    }
                    if (p.pattern) {
                        path["pattern"] = *p.pattern;
                    }
                    paths.push_back(path);
                }
                json apps = json::array();
                for (const AppGroup& a : t.apps) {
                    apps.push_back({{"id", a.id}, {"name", a.name}});
                }
                json target{{"id", t.id},
                            {"title", t.title},
                            {"subtitle", t.subtitle},
                            {"risk", riskLevelName(t.risk)},
                            {"requiresPermission", t.requiresPermission},
                            {"apps", apps},
                            {"paths", paths},
                            {"leftOutOfSweep", skipped.count(t.id) != 0}};
                if (t.riskTier) {
                    target["riskTier"] = riskTierName(*t.riskTier);
                }
                if (t.narration) {
                    target["narration"] = *t.narration;
                }
                if (t.reclaimStrategy) {
                    target["reclaimStrategy"] = *t.reclaimStrategy;
                }
                out.push_back(target);
            }
            std::cout << dump(out) << "\n";
            return;
        }
        for (const Target& t : catalog) {
            std::printf("%-24s %s — %s [%s]\n", t.id.c_str(), t.title.c_str(), t.subtitle.c_str(),
                        std::string(riskLevelName(t.risk)).c_str());
            if (skipped.count(t.id) != 0) {
                std::printf("    %s\n", std::string(leftOutCatalogText).c_str());
            }
            if (t.narration) {
                std::printf("    %s\n", t.narration->c_str());
            }
        }
    });
}

} // namespace sd::cli
