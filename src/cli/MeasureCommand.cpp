#include "cli/MeasureCommand.h"

#include "base/CleanerError.h"
#include "cli/Arguments.h"
#include "cli/Terminal.h"
#include "core/ByteFormat.h"
#include "core/CoreFileSystem.h"
#include "core/PathRules.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>

namespace sd::cli {
namespace {

struct MeasureOptions {
    std::vector<std::string> paths;
    bool json = false;
};

struct Measurement {
    std::string path;
    std::uint64_t allocatedBytes = 0;
    std::uint64_t freeableBytes = 0;
    std::uint64_t fileCount = 0;
    std::uint64_t directoryCount = 0;
    std::vector<std::string> warnings;
    std::optional<CleanerError> error;
};

// A path given on the command line names one entry exactly, so characters that root resolution
// would read as a pattern are escaped.
std::string escapeGlob(std::string_view path) {
    std::string out;
    out.reserve(path.size());
    for (char c : path) {
        if (c == '*' || c == '?' || c == '[' || c == '\\') {
            out.push_back('\\');
        }
        out.push_back(c);
    }
    return out;
}

Measurement measureOne(const std::string& argument, const std::stop_token& stop,
                       OperationProgress& progress) {
    Measurement result;
    result.path = argument;
    try {
        std::string normalized = normalizePath(argument);
        result.path = normalized;
        std::vector<ResolvedRoot> roots =
            resolveRoots(escapeGlob(normalized), std::nullopt, result.warnings, stop);
        if (roots.empty()) {
            if (result.warnings.empty()) {
                result.error =
                    CleanerError(CleanerError::Kind::ioError,
                                 "Nothing to measure at " + normalized + ": it does not exist.");
            } else {
                result.error = CleanerError::invalidPath(result.warnings.front());
                result.warnings.erase(result.warnings.begin());
            }
            return result;
        }
        FootprintTally tally;
        for (const ResolvedRoot& root : roots) {
            Footprint footprint =
                measureFootprint(root.path, root.identity, result.warnings, tally, stop, &progress);
            result.allocatedBytes += footprint.allocatedBytes;
            result.fileCount += footprint.fileCount;
            result.directoryCount += footprint.directoryCount;
        }
        result.freeableBytes = tally.freeable.freeableBytes();
    } catch (const CleanerError& error) {
        result.error = error;
    }
    return result;
}

void printHuman(const std::vector<Measurement>& results) {
    for (const Measurement& m : results) {
        std::printf("%s\n", m.path.c_str());
        if (m.error) {
            std::printf("  %s\n  Nothing was measured.\n", m.error->what());
        } else {
            std::printf("  %s on disk, %s freeable, %s %s in %s %s\n",
                        formatBytes(m.allocatedBytes).c_str(), formatBytes(m.freeableBytes).c_str(),
                        formatCount(m.fileCount).c_str(), m.fileCount == 1 ? "file" : "files",
                        formatCount(m.directoryCount).c_str(),
                        m.directoryCount == 1 ? "folder" : "folders");
        }
        for (const std::string& warning : m.warnings) {
            std::printf("  ! %s\n", warning.c_str());
        }
    }
}

void printJson(const std::vector<Measurement>& results) {
    nlohmann::json out = nlohmann::json::array();
    for (const Measurement& m : results) {
        nlohmann::json item{{"path", m.path}, {"warnings", m.warnings}};
        if (m.error) {
            item["error"] = {{"kind", kindName(m.error->kind())}, {"message", m.error->what()}};
        } else {
            item["allocatedBytes"] = m.allocatedBytes;
            item["freeableBytes"] = m.freeableBytes;
            item["fileCount"] = m.fileCount;
            item["directoryCount"] = m.directoryCount;
        }
        out.push_back(std::move(item));
    }
    std::cout << nlohmann::json{{"measurements", out}}.dump(
                     2, ' ', false, nlohmann::json::error_handler_t::replace)
              << "\n";
}

} // namespace

void addMeasureCommand(CLI::App& app, int& exitStatus) {
    auto options = std::make_shared<MeasureOptions>();
    CLI::App* command = app.add_subcommand(
        "measure", "Show how much each path holds on disk and how much moving it would free");
    command->add_option("paths", options->paths, "Absolute paths inside your home folder")
        ->required()
        ->check(nonEmptyPath());
    command->add_flag("--json", options->json, "Write the results as JSON");
    command->callback([options, &exitStatus] {
        OperationProgress progress;
        std::vector<Measurement> results;
        runWithProgress(
            [&](const std::stop_token& stop) {
                for (const std::string& path : options->paths) {
                    results.push_back(measureOne(path, stop, progress));
                    if (stop.stop_requested()) {
                        break;
                    }
                }
            },
            [&] {
                OperationProgress::Reading now = progress.read();
                return "Measuring… " + formatCount(now.items) + " items, " + formatBytes(now.bytes);
            });
        for (const Measurement& m : results) {
            if (m.error) {
                exitStatus = 1;
            }
        }
        if (options->json) {
            printJson(results);
        } else {
            printHuman(results);
        }
    });
}

} // namespace sd::cli
