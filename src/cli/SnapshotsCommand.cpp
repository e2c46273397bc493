#include "base/CleanerError.h"
#include "base/Progress.h"
#include "cli/AssistantCommand.h"
#include "cli/Terminal.h"
#include "core/ByteFormat.h"
#include "review/LocalSnapshots.h"

#include <CLI/CLI.hpp>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>

namespace sd::cli {
namespace {

using nlohmann::json;

void print(const json& value) {
    std::cout << value.dump(2, ' ', false, json::error_handler_t::replace) << "\n";
}

std::string isoDate(double seconds) {
    auto whole = static_cast<std::time_t>(std::floor(seconds));
    std::tm utc{};
    ::gmtime_r(&whole, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

std::string localDate(double seconds) {
    auto whole = static_cast<std::time_t>(std::floor(seconds));
    std::tm local{};
    ::localtime_r(&whole, &local);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", &local);
    return text;
}

json snapshotJson(const LocalSnapshot& snapshot) {
    return {{"name", snapshot.name},
            {"stamp", snapshot.stamp},
            {"date", snapshot.date ? json(isoDate(*snapshot.date)) : json()},
            {"bytes", snapshot.bytes ? json(*snapshot.bytes) : json()}};
}

json snapshotsJson(const std::vector<LocalSnapshot>& snapshots) {
    json list = json::array();
    for (const LocalSnapshot& snapshot : snapshots) {
        list.push_back(snapshotJson(snapshot));
    }
    return list;
}

LocalSnapshotListing listWithProgress(const platform::LocalSnapshotTool& tool) {
    LocalSnapshotListing listing;
    runWithProgress([&](std::stop_token stop) { listing = tool.list(stop); },
                    [&] { return "Asking " + std::string(tool.toolName()) + "…"; });
    return listing;
}

void list(bool asJson, int& exitStatus) {
    std::unique_ptr<platform::LocalSnapshotTool> tool = platform::systemSnapshotTool();
    LocalSnapshotListing listing = listWithProgress(*tool);
    if (listing.failure) {
        exitStatus = 1;
    }
    if (asJson) {
        print({{"tool", tool->toolName()},
               {"snapshots", snapshotsJson(listing.snapshots)},
               {"failure", listing.failure ? json(*listing.failure) : json()},
               {"note", listing.note ? json(*listing.note) : json()}});
        return;
    }
    if (listing.failure) {
        std::fprintf(stderr, "%s\n", listing.failure->c_str());
        return;
    }
    if (listing.note) {
        std::printf("%s\n", listing.note->c_str());
        return;
    }
    if (listing.snapshots.empty()) {
        std::printf("There are no local snapshots.\n");
        return;
    }
    std::printf("Local snapshots (%s), oldest first:\n", std::string(tool->toolName()).c_str());
    for (const LocalSnapshot& snapshot : listing.snapshots) {
        std::printf("  %-24s %-16s %10s  %s\n", snapshot.stamp.c_str(),
                    snapshot.date ? localDate(*snapshot.date).c_str() : "(no date)",
                    snapshot.bytes ? formatBytes(*snapshot.bytes).c_str() : "",
                    snapshot.name.c_str());
    }
    std::printf("\n%zu %s. Snapshots can't go to the Trash: deleting one can't be undone. To "
                "delete, name them: sparrowdeck snapshots delete STAMP… "
                "--acknowledge-irreversible\n",
                listing.snapshots.size(), listing.snapshots.size() == 1 ? "snapshot" : "snapshots");
}

void remove(const std::vector<std::string>& stamps, bool acknowledged, bool asJson,
            int& exitStatus) {
    if (!acknowledged) {
        std::fprintf(stderr, "%s Add --acknowledge-irreversible to delete.\n",
                     std::string(notAcknowledgedText).c_str());
        exitStatus = 1;
        return;
    }
    std::unique_ptr<platform::LocalSnapshotTool> tool = platform::systemSnapshotTool();
    LocalSnapshotListing listing = listWithProgress(*tool);
    if (listing.failure) {
        std::fprintf(stderr, "%s. Nothing was deleted.\n", listing.failure->c_str());
        exitStatus = 1;
        return;
    }
    OperationProgress progress;
    SnapshotDeletionOutcome outcome;
    runWithProgress(
        [&](std::stop_token stop) {
            outcome = deleteSnapshots(*tool, listing.snapshots,
                                      {{stamps.begin(), stamps.end()}, true}, progress, stop);
        },
        [&] {
            OperationProgress::Reading now = progress.read();
            return now.currentPath
                       ? "Deleting " + *now.currentPath + " (" + std::to_string(now.done + 1) +
                             " of " + std::to_string(now.total) + ")…"
                       : now.phase + "…";
        });
    if (!outcome.failed.empty() || !outcome.refused.empty() || !outcome.stopped.empty()) {
        exitStatus = 1;
    }
    if (asJson) {
        print({{"deleted", outcome.deleted},
               {"failed", outcome.failed},
               {"refused", outcome.refused},
               {"stopped", outcome.stopped},
               {"remaining", snapshotsJson(outcome.remaining)},
               {"summary", deletionSummary(outcome, *tool)}});
        return;
    }
    for (const std::string& stamp : outcome.deleted) {
        std::printf("deleted  %s\n", stamp.c_str());
    }
    for (const auto& [stamp, message] : outcome.failed) {
        std::printf("failed   %s — %s\n", stamp.c_str(), message.c_str());
    }
    for (const std::string& stamp : outcome.refused) {
        std::printf("refused  %s — not a current local snapshot, so it was not touched\n",
                    stamp.c_str());
    }
    for (const std::string& stamp : outcome.stopped) {
        std::printf("stopped  %s — not attempted\n", stamp.c_str());
    }
    std::printf("%s\n", deletionSummary(outcome, *tool).c_str());
}

} // namespace

void addSnapshotsCommand(CLI::App& app, int& exitStatus) {
    struct Options {
        bool json = false;
        bool acknowledged = false;
        std::vector<std::string> stamps;
    };
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand(
        "snapshots", "List the disk's local snapshots, or delete chosen ones (cannot be undone)");
    command->add_flag("--json", options->json, "Write the list as JSON");
    CLI::App* deletion =
        command->add_subcommand("delete", "Delete the named snapshots, one at a time");
    deletion->add_option("stamps", options->stamps, "The snapshots' stamps, as listed")->required();
    deletion->add_flag("--acknowledge-irreversible", options->acknowledged,
                       "Confirm that deleted snapshots cannot be brought back");
    deletion->add_flag("--json", options->json, "Write the outcome as JSON");
    deletion->callback([options, &exitStatus] {
        remove(options->stamps, options->acknowledged, options->json, exitStatus);
    });
    command->callback([options, command, &exitStatus] {
        if (command->get_subcommands().empty()) {
            list(options->json, exitStatus);
        }
    });
}

} // namespace sd::cli
