#include "cli/HistoryCommand.h"

#include "base/CleanerError.h"
#include "cli/Arguments.h"
#include "core/ByteFormat.h"
#include "core/PathRules.h"
#include "history/NcduExport.h"
#include "history/ScanHistory.h"
#include "platform/Home.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <ctime>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <unistd.h>

#ifndef SPARROWDECK_VERSION
#define SPARROWDECK_VERSION "0.0.0"
#endif

namespace sd::cli {
namespace {

std::int64_t now() {
    return static_cast<std::int64_t>(std::time(nullptr));
}

// The start of the local day after `date` (YYYY-MM-DD), so a scan made that day is a baseline.
std::optional<std::int64_t> endOfDay(const std::string& date) {
    std::tm day{};
    char extra = 0;
    if (std::sscanf(date.c_str(), "%4d-%2d-%2d%c", &day.tm_year, &day.tm_mon, &day.tm_mday,
                    &extra) != 3) {
        return std::nullopt;
    }
    day.tm_year -= 1900;
    day.tm_mon -= 1;
    day.tm_mday += 1;
    day.tm_isdst = -1;
    std::time_t at = std::mktime(&day);
    if (at == static_cast<std::time_t>(-1)) {
        return std::nullopt;
    }
    return static_cast<std::int64_t>(at);
}

std::string dateText(std::int64_t at) {
    std::time_t t = at;
    std::tm local{};
    localtime_r(&t, &local);
    char text[40];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", &local);
    return text;
}

std::string signedBytes(std::int64_t delta) {
    std::uint64_t size =
        delta < 0 ? static_cast<std::uint64_t>(-delta) : static_cast<std::uint64_t>(delta);
    return (delta < 0 ? "−" : "+") + formatBytes(size);
}

const char* kindName(ChangeKind kind) {
    switch (kind) {
    case ChangeKind::grew:
        return "grew";
    case ChangeKind::shrank:
        return "shrank";
    case ChangeKind::appeared:
        return "new";
    case ChangeKind::vanished:
        return "gone";
    }
    return "";
}

void reportNotice(const ScanHistory& history) {
    if (history.recoveryNotice()) {
        std::fprintf(stderr, "%s\n", history.recoveryNotice()->c_str());
    }
}

bool printChanges(ScanHistory& history, std::int64_t currentId, const std::string& since, bool json,
                  int& exitStatus) {
    std::optional<ScanSnapshot> current = history.load(currentId);
    std::optional<std::int64_t> before;
    if (!since.empty()) {
        before = endOfDay(since);
        if (!before) {
            std::fprintf(stderr, "--since takes a date as YYYY-MM-DD, not \"%s\".\n",
                         since.c_str());
            exitStatus = 2;
            return true;
        }
    }
    std::optional<SnapshotInfo> baseline =
        baselineFor(history.snapshots(current->root), currentId, before);
    std::optional<ScanSnapshot> older = baseline ? history.load(baseline->id) : std::nullopt;
    std::vector<FolderChange> changes;
    if (older) {
        changes = compareSnapshots(*older, *current);
    }
    if (json) {
        nlohmann::json list = nlohmann::json::array();
        for (const FolderChange& c : changes) {
            list.push_back({{"path", c.path},
                            {"kind", kindName(c.kind)},
                            {"before", c.before},
                            {"after", c.after},
                            {"delta", c.delta()}});
        }
        nlohmann::json out{{"root", current->root},
                           {"currentScan", {{"id", current->id}, {"takenAt", current->takenAt}}},
                           {"changes", std::move(list)}};
        if (older) {
            out["baselineScan"] = {
                {"id", older->id}, {"takenAt", older->takenAt}, {"isComplete", older->isComplete}};
        } else {
            out["baselineScan"] = nullptr;
        }
        std::cout << out.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << "\n";
        return true;
    }
    if (!older) {
        std::printf("%s — %s. This is the first scan kept of it, so there is nothing to compare "
                    "yet; the next scan will show what changed.\n",
                    current->root.c_str(), formatBytes(current->totalBytes).c_str());
        return true;
    }
    std::int64_t total = static_cast<std::int64_t>(current->totalBytes) -
                         static_cast<std::int64_t>(older->totalBytes);
    std::printf("%s — %s now, %s since the scan of %s.\n", current->root.c_str(),
                formatBytes(current->totalBytes).c_str(), signedBytes(total).c_str(),
                dateText(older->takenAt).c_str());
    if (changes.empty()) {
        std::printf("No folder grew or shrank by 1 MB or more.\n");
    }
    for (const FolderChange& c : changes) {
        std::printf("%12s  %-6s %s\n", signedBytes(c.delta()).c_str(), kindName(c.kind),
                    c.path.c_str());
    }
    if (!older->isComplete || !current->isComplete) {
        std::printf("! One of the two scans stopped at its time limit, so some changes may be "
                    "only partly shown.\n");
    }
    return true;
}

} // namespace

void addSpaceHistoryOptions(CLI::App& space, SpaceHistoryOptions& options) {
    space.add_flag("--changes", options.changes,
                   "List the folders that grew, shrank, appeared or went since the previous scan");
    space
        .add_option("--since", options.since,
                    "With --changes: compare with the last scan made on or before this date "
                    "(YYYY-MM-DD)")
        ->needs(space.get_option("--changes"));
    space
        .add_option("--export", options.exportFile,
                    "Also write the scan in ncdu's JSON format, for ncdu -f or gdu -f")
        ->check(nonEmptyPath());
}

std::optional<std::int64_t> keepInHistory(const SpaceScanResult& result) {
    if (result.rootError) {
        return std::nullopt;
    }
    try {
        ScanHistory history(ScanHistory::defaultFile());
        reportNotice(history);
        std::int64_t id = history.save(snapshotOf(result.tree, now()));
        history.thin(now());
        return id;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "The scan was not kept in the history: %s\n", error.what());
        return std::nullopt;
    }
}

bool finishSpaceScan(const SpaceScanResult& result, const SpaceHistoryOptions& options, bool json,
                     int& exitStatus) {
    if (!options.exportFile.empty() && !result.rootError) {
        std::string file = options.exportFile;
        if (!file.starts_with("/")) {
            char cwd[4096];
            if (::getcwd(cwd, sizeof cwd) != nullptr) {
                file = std::string(cwd) + "/" + file;
            }
        }
        try {
            writeNcduExport(result.tree, file, SPARROWDECK_VERSION, now());
        } catch (const CleanerError& error) {
            std::fprintf(stderr, "The export was not written: %s\n", error.what());
            exitStatus = 1;
        }
    }
    std::optional<std::int64_t> id = keepInHistory(result);
    if (!options.changes) {
        return false;
    }
    if (!id) {
        std::fprintf(stderr, "Without a kept scan there is nothing to compare.\n");
        exitStatus = 1;
        return true;
    }
    try {
        ScanHistory history(ScanHistory::defaultFile());
        return printChanges(history, *id, options.since, json, exitStatus);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "The history could not be read: %s\n", error.what());
        exitStatus = 1;
        return true;
    }
}

void addHistoryCommand(CLI::App& app, int& exitStatus) {
    struct Options {
        std::string path;
        bool json = false;
    };
    auto options = std::make_shared<Options>();
    CLI::App* command =
        app.add_subcommand("history", "List the scans kept of your home (or a folder in it)");
    command->add_option("path", options->path, "A folder that was scanned (default: the home)")
        ->check(nonEmptyPath());
    command->add_flag("--json", options->json, "Write the list as JSON");
    command->callback([options, &exitStatus] {
        std::string root =
            options->path.empty() ? platform::homeDirectory() : normalizePath(options->path);
        try {
            ScanHistory history(ScanHistory::defaultFile());
            reportNotice(history);
            std::vector<SnapshotInfo> scans = history.snapshots(root);
            if (options->json) {
                nlohmann::json list = nlohmann::json::array();
                for (const SnapshotInfo& s : scans) {
                    list.push_back({{"id", s.id},
                                    {"takenAt", s.takenAt},
                                    {"totalBytes", s.totalBytes},
                                    {"fileCount", s.fileCount},
                                    {"isComplete", s.isComplete},
                                    {"folderCount", s.folderCount}});
                }
                std::cout << nlohmann::json{{"root", root}, {"scans", std::move(list)}}.dump(2)
                          << "\n";
                return;
            }
            if (scans.empty()) {
                std::printf("No scan of %s is kept yet. Run sparrowdeck space to make one.\n",
                            root.c_str());
                return;
            }
            std::printf("Scans kept of %s, newest first:\n", root.c_str());
            for (const SnapshotInfo& s : scans) {
                std::printf("  %s  %10s  %s files%s\n", dateText(s.takenAt).c_str(),
                            formatBytes(s.totalBytes).c_str(), formatCount(s.fileCount).c_str(),
                            s.isComplete ? "" : "  (stopped at its time limit)");
            }
        } catch (const std::exception& error) {
            std::fprintf(stderr, "%s\n", error.what());
            exitStatus = 1;
        }
    });
}

} // namespace sd::cli
