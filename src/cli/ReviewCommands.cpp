#include "cli/ReviewCommands.h"

#include "base/CleanerError.h"
#include "cli/Arguments.h"
#include "cli/Terminal.h"
#include "core/ByteFormat.h"
#include "core/PathRules.h"
#include "platform/Words.h"
#include "reclaim/VaultPolicy.h"
#include "review/DuplicateComparer.h"
#include "review/LargeOldFinder.h"

#include <CLI/CLI.hpp>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <iostream>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>

namespace sd::cli {
namespace {

using nlohmann::json;

std::string dump(const json& value) {
    return value.dump(2, ' ', false, json::error_handler_t::replace);
}

// Dates in --json are UTC in ISO 8601, as the journal writes them.
std::string isoDate(const Timestamp& time) {
    auto whole = static_cast<std::time_t>(time.sec);
    std::tm utc{};
    ::gmtime_r(&whole, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

std::string isoDate(double seconds) {
    return isoDate(Timestamp::fromSeconds(seconds));
}

// Runs a search with live progress; a failure is a sentence on standard error and status 1.
template <typename Search> bool runSearch(Search search, int& exitStatus) {
    OperationProgress progress;
    try {
        runWithProgress([&](std::stop_token stop) { search(stop, &progress); },
                        [&] { return reviewProgressText(progress.read()); });
    } catch (const CleanerError& error) {
        std::fprintf(stderr, "%s\n", error.what());
        exitStatus = 1;
        return false;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "The search failed: %s. Nothing on your disk was changed.\n",
                     error.what());
        exitStatus = 1;
        return false;
    }
    return true;
}

json duplicateJson(const DuplicateReport& report, const VaultPolicy& policy) {
    json groups = json::array();
    for (const DuplicateGroup& group : report.groups) {
        json files = json::array();
        for (const DuplicateFile& file : group.files) {
            bool removable = file.path != group.suggestedKeep && file.sharedWith.empty();
            files.push_back({{"path", file.path},
                             {"sharedWith", file.sharedWith},
                             {"physicalBytes", file.physicalBytes},
                             {"device", file.device},
                             {"inode", file.inode},
                             {"changedSec", file.changedSec},
                             {"changedNsec", file.changedNsec},
                             {"born", isoDate(file.born)},
                             {"removable", removable},
                             {"note", duplicateFileNote(group, file, policy)}});
        }
        groups.push_back({{"id", group.id},
                          {"size", group.size},
                          {"files", files},
                          {"suggestedKeep", group.suggestedKeep},
                          {"reclaimableBytes", reclaimableBytes(group)}});
    }
    return {{"groups", groups},
            {"scope", {{"root", report.scope.root}, {"home", report.scope.home}}},
            {"scannedCount", report.scannedCount},
            {"comparedFiles", report.comparedFiles},
            {"cloneCopiesIgnored", report.cloneCopiesIgnored},
            {"hardLinksIgnored", report.hardLinksIgnored},
            {"truncated", report.truncated},
            {"unconfirmedBytes", report.unconfirmedBytes},
            {"datalessSkipped", report.datalessSkipped},
            {"warnings", report.warnings},
            {"durationMs", report.durationMs},
            {"notes", duplicateReportNotes(report)}};
}

void printDuplicates(const DuplicateReport& report, const VaultPolicy& policy, bool wholeHome) {
    std::printf("%s\n%s\n", std::string(duplicateText::description).c_str(),
                wholeHome ? std::string(platform::duplicatesScopeText()).c_str()
                          : ("Looked in " + report.scope.root + ".").c_str());
    std::uint64_t total = 0;
    for (const DuplicateGroup& group : report.groups) {
        std::uint64_t reclaimable = reclaimableBytes(group);
        total += reclaimable;
        std::printf("\n%zu copies of %s · %s to give back\n", group.files.size(),
                    formatBytes(group.size).c_str(), formatBytes(reclaimable).c_str());
        for (const DuplicateFile& file : group.files) {
            std::string note = duplicateFileNote(group, file, policy);
            std::printf("  %s %s%s%s\n", file.path == group.suggestedKeep ? "keep" : "    ",
                        file.path.c_str(), note.empty() ? "" : "  — ", note.c_str());
            for (const std::string& other : file.sharedWith) {
                std::printf("         same storage: %s\n", other.c_str());
            }
        }
    }
    if (report.groups.empty()) {
        std::printf("\n%s\n%s\n", std::string(duplicateText::noGroups).c_str(),
                    std::string(duplicateText::noGroupsDetail).c_str());
    } else {
        std::printf("\n%zu %s · %s could be given back. Nothing is selected: the copy marked "
                    "“keep” (%s) always stays.\n",
                    report.groups.size(), report.groups.size() == 1 ? "group" : "groups",
                    formatBytes(total).c_str(), std::string(duplicateText::keepLabel).c_str());
    }
    for (const std::string& note : duplicateReportNotes(report)) {
        std::printf("%s\n", note.c_str());
    }
}

json largeOldJson(const LargeOldReport& report, const VaultPolicy& policy) {
    json items = json::array();
    for (const LargeOldItem& item : report.items) {
        items.push_back({{"path", item.path},
                         {"physicalBytes", item.physicalBytes},
                         {"kind", largeOldKindName(item.kind)},
                         {"isPackage", item.isPackage},
                         {"evidence",
                          {{"kind", evidenceKindName(item.evidence.kind)},
                           {"date", isoDate(item.evidence.date)}}},
                         {"device", item.device},
                         {"inode", item.inode}});
    }
    return {{"items", items},
            {"scannedCount", report.scannedCount},
            {"truncated", report.truncated},
            {"datalessSkipped", report.datalessSkipped},
            {"warnings", report.warnings},
            {"durationMs", report.durationMs},
            {"cutoff", isoDate(report.cutoff)},
            {"notes", largeOldReportNotes(report, policy)}};
}

void printLargeOld(const LargeOldReport& report, const LargeOldOptions& options,
                   const VaultPolicy& policy) {
    std::printf("%s\n%s\n\n", largeOldDescription().c_str(),
                std::string(platform::largeOldScopeText()).c_str());
    if (report.items.empty()) {
        std::printf("%s\n%s\n", largeOldNothingFound(options).c_str(),
                    largeOldNothingFoundDetail(options).c_str());
    }
    std::uint64_t total = 0;
    for (const LargeOldItem& item : report.items) {
        total += item.physicalBytes;
        std::printf("%10s  %-9s  %s  — %s%s\n", formatBytes(item.physicalBytes).c_str(),
                    std::string(largeOldKindName(item.kind)).c_str(), item.path.c_str(),
                    evidenceText(item.evidence).c_str(),
                    item.evidence.kind == EvidenceKind::fileTimesOnly ? " (file dates)" : "");
    }
    if (!report.items.empty()) {
        std::printf("\n%zu %s · %s. Nothing is selected.\n", report.items.size(),
                    report.items.size() == 1 ? "item" : "items", formatBytes(total).c_str());
    }
    for (const std::string& note : largeOldReportNotes(report, policy)) {
        std::printf("%s\n", note.c_str());
    }
}

// CLI11 would read "-5" into an unsigned option as a huge number; a count is digits only.
const CLI::Validator wholeNumber(
    [](std::string& text) {
        bool digits = !text.empty() && text.size() <= 19 &&
                      text.find_first_not_of("0123456789") == std::string::npos;
        return digits ? std::string() : "“" + text + "” is not a whole number of 0 or more";
    },
    "NUMBER");

} // namespace

void addDuplicatesCommand(CLI::App& app, int& exitStatus) {
    struct Options {
        std::string folder;
        bool json = false;
    };
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand(
        "duplicates", "Find files of 1 MB or more that exist more than once, byte for byte");
    command
        ->add_option("folder", options->folder,
                     "An absolute folder inside your home folder (default: the home folder)")
        ->check(nonEmptyPath());
    command->add_flag("--json", options->json, "Write the report as JSON");
    command->callback([options, &exitStatus] {
        const std::string& home = homeDirectory();
        DuplicateScope scope{options->folder.empty() ? home : options->folder, home};
        DuplicateReport report;
        bool done = runSearch(
            [&](const std::stop_token& stop, OperationProgress* progress) {
                DuplicateComparer comparer;
                comparer.options = DuplicateOptions{};
                comparer.candidates =
                    collectDuplicateCandidates(scope, comparer.options, stop, progress);
                comparer.stop = stop;
                comparer.progress = progress;
                report = comparer.compare();
            },
            exitStatus);
        if (!done) {
            return;
        }
        VaultPolicy policy(home);
        if (options->json) {
            std::cout << dump(duplicateJson(report, policy)) << "\n";
        } else {
            printDuplicates(report, policy, options->folder.empty());
        }
    });
}

void addLargeOldCommand(CLI::App& app, int& exitStatus) {
    struct Options {
        bool json = false;
        std::optional<std::uint64_t> olderThanDays;
        std::optional<std::uint64_t> minimumBytes;
    };
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand(
        "large-old", "List big files in your folders that have not been opened for a long time");
    command->add_flag("--json", options->json, "Write the report as JSON");
    command
        ->add_option("--older-than", options->olderThanDays,
                     "Not opened for this many days (default 365)")
        ->check(wholeNumber);
    command
        ->add_option("--min-size", options->minimumBytes,
                     "Smallest size in bytes (default 52428800, 50 MiB)")
        ->check(wholeNumber);
    command->callback([options, &exitStatus] {
        const std::string& home = homeDirectory();
        LargeOldFinder finder = LargeOldFinder::standard(home);
        if (options->olderThanDays) {
            finder.options.unusedFor = static_cast<double>(*options->olderThanDays) * 86'400;
        }
        if (options->minimumBytes) {
            finder.options.minimumBytes = *options->minimumBytes;
        }
        LargeOldReport report;
        bool done = runSearch(
            [&](const std::stop_token& stop, OperationProgress* progress) {
                LargeOldFinder run = finder;
                run.stop = stop;
                run.progress = progress;
                report = run.find();
            },
            exitStatus);
        if (!done) {
            return;
        }
        VaultPolicy policy(home);
        if (options->json) {
            std::cout << dump(largeOldJson(report, policy)) << "\n";
        } else {
            printLargeOld(report, finder.options, policy);
        }
    });
}

} // namespace sd::cli
