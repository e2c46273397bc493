#include "sweep/Sweep.h"

#include "apps/AppListing.h"
#include "base/CleanerError.h"
#include "base/Saturating.h"
#include "catalog/InclusionPreferences.h"
#include "core/CoreFileSystem.h"
#include "platform/InstalledApps.h"
#include "platform/Trash.h"
#include "platform/Words.h"
#include "reclaim/VaultService.h"
#include "review/ReviewReclaim.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <mutex>
#include <nlohmann/json.hpp>
#include <thread>

namespace sd {
namespace {

using nlohmann::json;

constexpr std::array<std::string_view, 6> kindNames{"developer",   "appCaches", "installers",
                                                    "redownloads", "leftovers", "trash"};

// Build products and the caches of developer tools.
constexpr std::array<std::string_view, 6> developerTargets{
    "xcode_ios", "java_android", "rust_go", "other_dev_tools", "python_tools", "javascript_tools"};
// Caches apps rebuild as they run. Logs are left out: they never come back.
constexpr std::array<std::string_view, 14> appCacheTargets{
    "system_quicklook",     "system_icon_caches",  "system_font_caches", "system_siri_dictation",
    "apple_services",       "webkit_caches",       "browser_caches",     "messaging_caches",
    "music_streaming",      "gaming_caches",       "ide_caches",         "productivity_caches",
    "cloud_storage_caches", "adobe_creative_cloud"};
constexpr std::array<std::string_view, 2> modelTargets{"local_llm_models", "ml_framework_caches"};

// The short tool names a developer tile's subtitle lists.
std::string toolName(std::string_view targetID) {
    static const std::map<std::string_view, std::string> names{
        {"xcode_ios", "Xcode"},    {"java_android", "Gradle"},
        {"rust_go", "Cargo & Go"}, {"other_dev_tools", "Homebrew & co."},
        {"python_tools", "pip"},   {"javascript_tools", "npm"},
    };
    auto found = names.find(targetID);
    return found == names.end() ? std::string(targetID) : found->second;
}

std::string leftOutSuffix(const SweepTile& tile) {
    return tile.leftOut.empty() ? std::string()
                                : " · " + std::to_string(tile.leftOut.size()) + " left out";
}

std::set<std::string> parseSkipped(const std::optional<std::string>& text) {
    std::set<std::string> ids;
    if (!text) {
        return ids;
    }
    size_t at = 0;
    while (at <= text->size()) {
        size_t comma = text->find(',', at);
        std::string id =
            text->substr(at, comma == std::string::npos ? std::string::npos : comma - at);
        if (!id.empty()) {
            ids.insert(id);
        }
        if (comma == std::string::npos) {
            break;
        }
        at = comma + 1;
    }
    return ids;
}

} // namespace

std::string_view tileKindName(SweepTileKind kind) {
    return kindNames[static_cast<size_t>(kind)];
}

std::optional<SweepTileKind> tileKindFromName(std::string_view name) {
    auto found = std::find(kindNames.begin(), kindNames.end(), name);
    if (found == kindNames.end()) {
        return std::nullopt;
    }
    return static_cast<SweepTileKind>(found - kindNames.begin());
}

bool tileComesBack(SweepTileKind kind) {
    return kind == SweepTileKind::developer || kind == SweepTileKind::appCaches ||
           kind == SweepTileKind::redownloads;
}

bool tileHoldsTarget(SweepTileKind kind, std::string_view id) {
    auto in = [id](const auto& table) {
        return std::find(table.begin(), table.end(), id) != table.end();
    };
    switch (kind) {
    case SweepTileKind::developer:
        return in(developerTargets);
    case SweepTileKind::appCaches:
        return in(appCacheTargets);
    case SweepTileKind::redownloads:
        return in(modelTargets);
    default:
        return false;
    }
}

std::vector<ListedMove> tileLocations(const SweepTile& tile) {
    std::vector<ListedMove> out;
    if (!tile.scanResult) {
        return out;
    }
    for (const PathSize& measured : tile.scanResult->perPathBytes) {
        if (measured.bytes == 0) {
            continue;
        }
        for (const Target& target : tile.targets) {
            for (const PathSpec& spec : target.paths) {
                if (target.id == measured.targetId && spec.id == measured.pathId) {
                    std::string shown = spec.pathTemplate;
                    if (spec.pattern) {
                        shown += "/" + *spec.pattern;
                    }
                    out.push_back({shown, measured.bytes});
                }
            }
        }
    }
    return out;
}

std::string tileTitle(const SweepTile& tile) {
    switch (tile.kind) {
    case SweepTileKind::developer: {
        auto largest =
            std::max_element(tile.perTarget.begin(), tile.perTarget.end(),
                             [](const auto& a, const auto& b) { return a.second < b.second; });
        bool xcode =
            largest != tile.perTarget.end() && largest->first == "xcode_ios" && largest->second > 0;
        return xcode ? "Xcode build products & caches" : "Build products & tool caches";
    }
    case SweepTileKind::appCaches:
        return "App caches that rebuild themselves";
    case SweepTileKind::installers:
        return "Installers for apps you already installed";
    case SweepTileKind::redownloads: {
        bool models = std::any_of(tile.targets.begin(), tile.targets.end(), [](const Target& t) {
            return std::find(modelTargets.begin(), modelTargets.end(), t.id) != modelTargets.end();
        });
        return models ? "AI models you can re-download" : "Downloads apps fetch again";
    }
    case SweepTileKind::leftovers:
        return "Leftovers of removed apps";
    case SweepTileKind::trash:
        return "Already in your Trash";
    }
    return {};
}

std::string tileSubtitle(const SweepTile& tile) {
    switch (tile.kind) {
    case SweepTileKind::developer: {
        std::vector<std::string> tools;
        for (const Target& t : tile.targets) {
            auto bytes = tile.perTarget.find(t.id);
            if (bytes != tile.perTarget.end() && bytes->second > 0) {
                tools.push_back(toolName(t.id));
            }
        }
        if (tools.empty()) {
            return "Build products and tool caches" + leftOutSuffix(tile);
        }
        std::string text = "Build products from ";
        for (size_t i = 0; i < tools.size(); ++i) {
            text += (i == 0 ? "" : i + 1 == tools.size() ? " and " : ", ") + tools[i];
        }
        return text + leftOutSuffix(tile);
    }
    case SweepTileKind::appCaches: {
        size_t apps = 0;
        for (const auto& [name, bytes] : tile.appBytes) {
            apps += bytes > 0 ? 1 : 0;
        }
        return std::to_string(apps) + (apps == 1 ? " app" : " apps") +
               " · each rebuilds what it needs" + leftOutSuffix(tile);
    }
    case SweepTileKind::installers:
        return platform::installersTileText(tile.installers ? tile.installers->items.size() : 0);
    case SweepTileKind::redownloads: {
        size_t models = 0;
        if (tile.scanResult) {
            for (const PathSize& path : tile.scanResult->perPathBytes) {
                models += path.bytes > 0 ? 1 : 0;
            }
        }
        return "Big, but slow to get back — " + std::to_string(models) +
               " models · downloaded again on use" + leftOutSuffix(tile);
    }
    case SweepTileKind::leftovers:
        return std::to_string(tile.orphans.size()) +
               (tile.orphans.size() == 1 ? " removed app" : " removed apps") + " · matched by " +
               std::string(platform::appIdName()) + ", never by name";
    case SweepTileKind::trash:
        return "Only emptying it frees space, and that can’t be undone — so it’s its own button.";
    }
    return {};
}

Sweep::Sweep(DistributionMode distribution, platform::UserDefaults store,
             std::shared_ptr<const VaultPolicy> policy)
    : distribution_(distribution), store_(std::move(store)), policy_(std::move(policy)),
      allTargets_(platformCatalog(distribution)) {}

const SweepTile* Sweep::tile(SweepTileKind kind) const {
    for (const SweepTile& t : tiles_) {
        if (t.kind == kind) {
            return &t;
        }
    }
    return nullptr;
}

std::set<std::string> Sweep::skippedTargets() const {
    return parseSkipped(store_.string(sweepSkippedKey));
}

void Sweep::leaveOut(const std::string& targetID) {
    std::set<std::string> skipped = skippedTargets();
    skipped.insert(targetID);
    std::string text;
    for (const std::string& id : skipped) {
        text += (text.empty() ? "" : ",") + id;
    }
    store_.setString(sweepSkippedKey, text);
}

void Sweep::bringBack(const std::string& targetID) {
    std::set<std::string> skipped = skippedTargets();
    skipped.erase(targetID);
    if (skipped.empty()) {
        store_.remove(sweepSkippedKey);
        return;
    }
    std::string text;
    for (const std::string& id : skipped) {
        text += (text.empty() ? "" : ",") + id;
    }
    store_.setString(sweepSkippedKey, text);
}

std::string Sweep::exclusionsFingerprint() const {
    InclusionPreferences prefs = loadInclusionPreferences(store_);
    json state{{"skipped", skippedTargets()}, {"scan", prefs.scan}, {"clean", prefs.clean}};
    return state.dump();
}

double SweepProgress::fraction() const {
    double sum = 0;
    for (const OperationProgress& tile : tiles_) {
        sum += tile.read().fraction;
    }
    return sum / static_cast<double>(tiles_.size());
}

void Sweep::run(const std::stop_token& stop, SweepProgress* progress) {
    auto start = std::chrono::steady_clock::now();
    startedAt_ = isoTimestampNow();
    measuredExclusions_ = exclusionsFingerprint();
    std::set<std::string> skipped = skippedTargets();
    InclusionPreferences prefs = loadInclusionPreferences(store_);
    tiles_.clear();
    highlights_.clear();
    warnings_.clear();
    itemsSeen_ = 0;
    auto tileProgress = [&](SweepTileKind kind) -> OperationProgress* {
        return progress != nullptr ? &progress->tile(kind) : nullptr;
    };
    auto finished = [&](SweepTileKind kind, std::uint64_t bytes, std::uint64_t items) {
        if (OperationProgress* p = tileProgress(kind)) {
            p->setBytes(bytes);
            p->setItems(items);
            p->setFraction(1.0);
        }
    };

    for (SweepTileKind kind : allTileKinds) {
        SweepTile tile;
        tile.kind = kind;
        for (const Target& t : allTargets_) {
            if (!tileHoldsTarget(kind, t.id)) {
                continue;
            }
            if (skipped.count(t.id) != 0) {
                tile.leftOut.insert(t.id);
                tile.skippedTitles.push_back(t.title);
            } else {
                tile.targets.push_back(t);
            }
        }
        tiles_.push_back(std::move(tile));
    }

    // The three catalog tiles are measured side by side, each by its own service; the Trash is
    // measured on the calling thread meanwhile. Every worker's failure is carried back and
    // rethrown; a stop reaches every service through the token it was given.
    std::vector<SweepTileKind> measuredKinds{SweepTileKind::developer, SweepTileKind::appCaches,
                                             SweepTileKind::redownloads};
    std::vector<std::exception_ptr> failures(measuredKinds.size());
    {
        std::vector<std::jthread> workers;
        for (size_t i = 0; i < measuredKinds.size(); ++i) {
            workers.emplace_back([&, i] {
                SweepTileKind kind = measuredKinds[i];
                SweepTile& tile = tiles_[static_cast<size_t>(kind)];
                try {
                    CleaningService service(policy_);
                    std::optional<ScanResult> result =
                        service.scan(tile.targets, prefs.scan, stop, tileProgress(kind));
                    if (result) {
                        tile.scanResult = *result;
                    }
                } catch (...) {
                    failures[i] = std::current_exception();
                }
            });
        }

        SweepTile& trash = tiles_[static_cast<size_t>(SweepTileKind::trash)];
        try {
            FootprintTally tally;
            for (const std::string& folder : platform::trashFolders()) {
                std::vector<std::string> warnings;
                Footprint footprint = measureFootprint(folder, std::nullopt, warnings, tally, stop,
                                                       tileProgress(SweepTileKind::trash));
                trash.bytes = saturatingAdd(trash.bytes, footprint.allocatedBytes);
                trash.itemCount = saturatingAdd(trash.itemCount, footprint.fileCount);
                trash.warnings.insert(trash.warnings.end(), warnings.begin(), warnings.end());
            }
        } catch (const CleanerError& error) {
            if (error.kind() == CleanerError::Kind::operationCancelled) {
                throw; // the workers see the same stop and are joined on the way out
            }
            trash.warnings.push_back(error.what());
        }
        finished(SweepTileKind::trash, trash.bytes, trash.itemCount);
        measureAppTiles(stop, tileProgress(SweepTileKind::installers),
                        tileProgress(SweepTileKind::leftovers));
        for (SweepTileKind kind : {SweepTileKind::installers, SweepTileKind::leftovers}) {
            const SweepTile& tile = tiles_[static_cast<size_t>(kind)];
            finished(kind, tile.bytes, tile.itemCount);
        }
    } // joins
    for (const std::exception_ptr& failure : failures) {
        if (failure) {
            std::rethrow_exception(failure);
        }
    }

    for (SweepTileKind kind : measuredKinds) {
        SweepTile& tile = tiles_[static_cast<size_t>(kind)];
        if (!tile.scanResult) {
            continue;
        }
        const ScanResult& scan = *tile.scanResult;
        for (const TargetSize& size : scan.perTargetBytes) {
            tile.perTarget[size.targetId] = size.bytes;
            tile.measured[size.targetId] = size.bytes;
            tile.bytes = saturatingAdd(tile.bytes, size.bytes);
        }
        for (const PathSize& path : scan.perPathBytes) {
            const Target* target = findTarget(tile.targets, path.targetId);
            std::string app = target != nullptr ? target->title : path.targetId;
            if (target != nullptr) {
                for (const PathSpec& spec : target->paths) {
                    if (spec.id == path.pathId && spec.app) {
                        app = displayName(
                            *target,
                            PathSpec{
                                std::nullopt, std::nullopt, spec.app, "", std::nullopt, {}, true});
                    }
                }
            }
            tile.appBytes[app] = saturatingAdd(tile.appBytes[app], path.bytes);
            tile.appBytesByTarget[path.targetId][app] =
                saturatingAdd(tile.appBytesByTarget[path.targetId][app], path.bytes);
        }
        tile.itemCount = scan.itemCount;
        tile.warnings = scan.warnings;
        finished(kind, tile.bytes, tile.itemCount);
    }
    for (const SweepTile& tile : tiles_) {
        itemsSeen_ = saturatingAdd(itemsSeen_, tile.itemCount);
        warnings_.insert(warnings_.end(), tile.warnings.begin(), tile.warnings.end());
        for (const Target& t : tile.targets) {
            auto bytes = tile.perTarget.find(t.id);
            if (bytes != tile.perTarget.end() && bytes->second > 0) {
                highlights_.push_back({t.title, bytes->second});
            }
        }
    }
    std::sort(highlights_.begin(), highlights_.end(),
              [](const SweepHighlight& a, const SweepHighlight& b) { return a.bytes > b.bytes; });
    if (highlights_.size() > 3) {
        highlights_.resize(3);
    }
    duration_ = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    saveRecord(store_, record());
}

void Sweep::measureAppTiles(const std::stop_token& stop, OperationProgress* installersProgress,
                            OperationProgress* leftoversProgress) {
    SweepTile& installers = tiles_[static_cast<size_t>(SweepTileKind::installers)];
    SweepTile& leftovers = tiles_[static_cast<size_t>(SweepTileKind::leftovers)];
    try {
        platform::AppRecords apps = platform::readInstalledApps(platform::standardAppRoots(), stop);
        InstallerPlan plan =
            planUsedInstallers(apps.apps, standardInstallerSearch(), stop, installersProgress);
        installers.bytes = plan.totalBytes;
        installers.itemCount = plan.items.size();
        installers.warnings = plan.warnings;
        installers.installers = std::move(plan);
        // An app list that missed a source would make installed apps look removed.
        if (!apps.complete) {
            leftovers.warnings.insert(leftovers.warnings.end(), apps.warnings.begin(),
                                      apps.warnings.end());
            return;
        }
        LeftoversReport report =
            findRemovedAppLeftovers(apps.apps, rememberedAppIds(), stop, leftoversProgress);
        leftovers.bytes = report.totalBytes;
        for (const OrphanGroup& group : report.groups) {
            leftovers.itemCount += group.places.size();
            leftovers.appBytes[group.appName] = group.bytes;
        }
        leftovers.warnings = std::move(report.warnings);
        leftovers.orphans = std::move(report.groups);
    } catch (const CleanerError& error) {
        if (error.kind() == CleanerError::Kind::operationCancelled) {
            throw;
        }
        leftovers.warnings.push_back(error.what());
    }
}

SweepRecord Sweep::record() const {
    SweepRecord r;
    r.date = startedAt_;
    r.duration = duration_;
    r.itemsSeen = itemsSeen_;
    for (const SweepTile& tile : tiles_) {
        r.tiles.push_back({std::string(tileKindName(tile.kind)), tileTitle(tile), tile.bytes,
                           tileComesBack(tile.kind)});
    }
    return r;
}

std::optional<SweepRecord> Sweep::lastRecord(platform::UserDefaults& store) {
    std::optional<std::string> text = store.string(sweepLastKey);
    if (!text) {
        return std::nullopt;
    }
    try {
        json j = json::parse(*text);
        SweepRecord r;
        r.date = j.at("date").get<std::string>();
        if (j.contains("duration") && !j.at("duration").is_null()) {
            r.duration = j.at("duration").get<double>();
        }
        r.itemsSeen = j.at("itemsSeen").get<std::uint64_t>();
        for (const json& t : j.at("tiles")) {
            r.tiles.push_back({t.at("kind").get<std::string>(), t.at("title").get<std::string>(),
                               t.at("bytes").get<std::uint64_t>(), t.at("comesBack").get<bool>()});
        }
        return r;
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

void Sweep::saveRecord(platform::UserDefaults& store, const std::optional<SweepRecord>& record) {
    if (!record) {
        store.remove(sweepLastKey);
        return;
    }
    try {
        json tiles = json::array();
        for (const SweepRecord::Tile& t : record->tiles) {
            tiles.push_back({{"kind", t.kind},
                             {"title", t.title},
                             {"bytes", t.bytes},
                             {"comesBack", t.comesBack}});
        }
        json j{{"date", record->date}, {"itemsSeen", record->itemsSeen}, {"tiles", tiles}};
        j["duration"] = record->duration ? json(*record->duration) : json(nullptr);
        // Strict encoding: text that is not UTF-8 makes the record unencodable, and then no stale
        // record may stay behind.
        store.setString(sweepLastKey, j.dump());
    } catch (const json::exception&) {
        store.remove(sweepLastKey);
    }
}

SweepReclaimResult Sweep::reclaim(const std::set<SweepTileKind>& kinds, ReclaimJournal& journal,
                                  const std::stop_token& stop, OperationProgress* progress) {
    SweepReclaimResult result;
    if (exclusionsFingerprint() != measuredExclusions_) {
        result.refused = true;
        result.reclaimErrors.emplace_back(sweepExclusionsChangedText);
        return result;
    }
    InclusionPreferences prefs = loadInclusionPreferences(store_);
    std::vector<Target> targets;
    std::map<std::string, SweepTileKind> kindOfTarget;
    for (const SweepTile& tile : tiles_) {
        if (kinds.count(tile.kind) == 0 || !tileComesBack(tile.kind)) {
            continue;
        }
        for (const Target& t : tile.targets) {
            targets.push_back(t);
            kindOfTarget[t.id] = tile.kind;
        }
    }
    reclaimAppTiles(kinds, journal, result, stop);
    if (targets.empty()) {
        return result;
    }
    CleaningService service(policy_);
    throwIfStopped(stop);
    std::vector<CleanError> errors;
    std::vector<CacheCleaningCandidate> candidates =
        service.buildCandidates(targets, prefs.clean, errors);
    CleanPlan plan = service.plan(candidates, stop, progress);
    plan.errors.insert(plan.errors.begin(), errors.begin(), errors.end());
    JournalRecording recording;
    recording.journal = &journal;
    recording.title = "Sweep";
    recording.kind = JournalKind::sweep;
    recording.context = JournalContext{result.journalEntryID.value_or(newUuid()), ""};
    recording.groupOf = [&](const std::optional<std::string>& targetID) {
        auto found = targetID ? kindOfTarget.find(*targetID) : kindOfTarget.end();
        return found == kindOfTarget.end() ? std::string("sweep")
                                           : std::string(tileKindName(found->second));
    };
    throwIfStopped(stop);
    CleanResult cleaned = service.clean(plan, recording, stop, progress);
    for (size_t i = 0; i < cleaned.moved.size(); ++i) {
        const std::optional<std::string>& targetID = cleaned.movedTargets[i];
        if (targetID && kindOfTarget.count(*targetID) != 0) {
            SweepTileKind kind = kindOfTarget[*targetID];
            result.movedByTile[kind] =
                saturatingAdd(result.movedByTile[kind], cleaned.moved[i].bytes);
        }
    }
    result.movedBytes = cleaned.bytesRemoved;
    result.movedCount = cleaned.filesRemoved;
    result.freeableBytes = cleaned.freeableBytes;
    if (cleaned.journalEntryID) {
        result.journalEntryID = cleaned.journalEntryID;
    }
    for (const CleanError& error : plan.errors) {
        result.reclaimErrors.push_back(error.path.empty() ? error.message
                                                          : error.path + ": " + error.message);
    }
    for (const CleanError& error : cleaned.errors) {
        result.reclaimErrors.push_back(error.message);
    }
    return result;
}

void Sweep::reclaimAppTiles(const std::set<SweepTileKind>& kinds, ReclaimJournal& journal,
                            SweepReclaimResult& result, const std::stop_token& stop) {
    for (SweepTileKind kind : {SweepTileKind::installers, SweepTileKind::leftovers}) {
        const SweepTile& tile = tiles_[static_cast<size_t>(kind)];
        if (kinds.count(kind) == 0) {
            continue;
        }
        std::vector<ReviewedItem> items;
        if (tile.installers) {
            for (const UsedInstaller& item : tile.installers->items) {
                items.push_back({item.path, item.identity, std::nullopt});
            }
        }
        for (const OrphanGroup& group : tile.orphans) {
            for (const Leftover& place : group.places) {
                items.push_back({place.path, place.identity, std::nullopt});
            }
        }
        if (items.empty()) {
            continue;
        }
        // Each item must still be the object the Sweep measured.
        VaultService vault = VaultService::standard(policy_);
        std::vector<std::string> paths;
        for (const ReviewedItem& item : items) {
            paths.push_back(item.path);
        }
        VaultPlan plan = vault.planner(paths, {}, nullptr);
        std::vector<size_t> ticked;
        for (size_t i = 0; i < plan.items.size() && i < items.size(); ++i) {
            if (!plan.items[i].denied && plan.items[i].identity() != items[i].identity) {
                plan.items[i].denied = VaultDenyReason::identityChanged;
            }
            ticked.push_back(i);
        }
        MoveOutcome outcome = vault.move(plan, ticked, stop);
        std::vector<TrashedItem> trashed;
        std::string group(tileKindName(kind));
        for (const MovedItem& item : outcome.moved) {
            result.movedBytes = saturatingAdd(result.movedBytes, item.bytes);
            result.movedByTile[kind] = saturatingAdd(result.movedByTile[kind], item.bytes);
            ++result.movedCount;
            trashed.push_back({item.originalPath, item.trashPath, item.bytes, item.identityToken,
                               group, false, std::nullopt});
        }
        result.reclaimErrors.insert(result.reclaimErrors.end(), outcome.notes.begin(),
                                    outcome.notes.end());
        if (!trashed.empty()) {
            if (!result.journalEntryID) {
                result.journalEntryID = newUuid();
            }
            journal.record(std::move(trashed), "Sweep", JournalKind::sweep,
                           JournalContext{*result.journalEntryID, group});
        }
    }
}

} // namespace sd
