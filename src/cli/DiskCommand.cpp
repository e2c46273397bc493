#include "cli/DiskCommand.h"

#include "base/CleanerError.h"
#include "cli/Arguments.h"
#include "cli/HistoryCommand.h"
#include "cli/Terminal.h"
#include "core/ByteFormat.h"
#include "disk/DiskSurvey.h"

#include <CLI/CLI.hpp>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>

namespace sd::cli {
namespace {

struct DiskOptions {
    bool json = false;
    std::optional<double> budget;
};

nlohmann::json toJson(const DiskRow& row) {
    return {{"id", row.id},
            {"title", row.title},
            {"bytes", row.bytes},
            {"fileCount", row.fileCount},
            {"paths", row.paths},
            {"sentence", row.sentence},
            {"reclaimCommands", row.reclaimCommands},
            {"unreadableFolders", row.unreadableFolders},
            {"isComplete", row.isComplete}};
}

nlohmann::json toJson(const DiskReport& report) {
    nlohmann::json volumes = nlohmann::json::array();
    for (const DiskVolume& volume : report.volumes) {
        nlohmann::json rows = nlohmann::json::array();
        for (const DiskRow& row : volume.rows) {
            rows.push_back(toJson(row));
        }
        const platform::VolumeFigures& f = volume.figures;
        volumes.push_back({{"mountPoint", f.mountPoint},
                           {"fileSystemType", f.fileSystemType},
                           {"holdsHome", volume.holdsHome},
                           {"totalBytes", f.totalBytes},
                           {"usedBytes", f.usedBytes},
                           {"freeBytes", f.freeBytes},
                           {"reservedBytes", f.reservedBytes},
                           {"rows", std::move(rows)},
                           {"unexplainedBytes", volume.unexplainedBytes},
                           {"unexplainedSentence", volume.unexplainedSentence},
                           {"overcountBytes", volume.overcountBytes}});
    }
    return {{"volumes", std::move(volumes)},
            {"warnings", report.warnings},
            {"readsEverything", report.readsEverything}};
}

void printRow(const std::string& title, std::uint64_t bytes, std::uint64_t used,
              const std::string& sentence) {
    std::printf("  %s %10s  %s\n",
                shareBar(used == 0 ? 0 : static_cast<double>(bytes) / static_cast<double>(used), 16)
                    .c_str(),
                formatBytes(bytes).c_str(), title.c_str());
    std::printf("  %16s %10s  %s\n", "", "", sentence.c_str());
}

void printHuman(const DiskReport& report) {
    for (const DiskVolume& volume : report.volumes) {
        const platform::VolumeFigures& f = volume.figures;
        std::printf("%s%s%s\n", f.mountPoint.c_str(),
                    f.fileSystemType.empty() ? "" : (" (" + f.fileSystemType + ")").c_str(),
                    volume.holdsHome ? " — holds your home folder" : "");
        std::printf("  %s in all: %s used, %s free, %s kept for the administrator.\n",
                    formatBytes(f.totalBytes).c_str(), formatBytes(f.usedBytes).c_str(),
                    formatBytes(f.freeBytes).c_str(), formatBytes(f.reservedBytes).c_str());
        std::printf("  What the %s used holds:\n", formatBytes(f.usedBytes).c_str());
        for (const DiskRow& row : volume.rows) {
            printRow(row.title, row.bytes, f.usedBytes, row.sentence);
            for (const std::string& command : row.reclaimCommands) {
                std::printf("  %16s %10s  To give it back, run: %s\n", "", "", command.c_str());
            }
        }
        printRow("The unexplained rest", volume.unexplainedBytes, f.usedBytes,
                 volume.unexplainedSentence);
        std::printf("\n");
    }
    std::printf("Sparrowdeck only names these commands; it never runs them. Nothing on your disk "
                "was changed.\n");
    for (const std::string& warning : report.warnings) {
        std::printf("! %s\n", warning.c_str());
    }
}

} // namespace

void addDiskCommand(CLI::App& app, int& exitStatus) {
    auto options = std::make_shared<DiskOptions>();
    CLI::App* command = app.add_subcommand(
        "disk", "Show what fills the whole disk, row by row, and what is left unexplained "
                "(reads only)");
    command->add_flag("--json", options->json, "Write the whole result as JSON");
    command
        ->add_option("--budget", options->budget,
                     "Seconds the scan of your home may take (default 30)")
        ->check(finiteNonNegative());
    command->callback([options, &exitStatus] {
        DiskSurvey survey;
        survey.homeBudget = options->budget;
        survey.homeScanned = [](const SpaceScanResult& scan) {
            keepInHistory(scan);
        };
        DiskReport report;
        OperationProgress progress;
        try {
            runWithProgress(
                [&](const std::stop_token& stop) { report = survey.survey(stop, &progress); },
                [&] {
                    OperationProgress::Reading r = progress.read();
                    return r.phase + "… " + formatCount(r.items) + " items";
                });
        } catch (const CleanerError& error) {
            std::fprintf(stderr, "%s\n", error.what());
            exitStatus = 1;
            return;
        }
        if (options->json) {
            std::cout << toJson(report).dump(2, ' ', false,
                                             nlohmann::json::error_handler_t::replace)
                      << "\n";
        } else {
            printHuman(report);
        }
    });
}

} // namespace sd::cli
