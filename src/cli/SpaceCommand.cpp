#include "cli/SpaceCommand.h"

#include "base/CleanerError.h"
#include "cli/Arguments.h"
#include "cli/HistoryCommand.h"
#include "cli/Terminal.h"
#include "core/ByteFormat.h"
#include "core/PathRules.h"
#include "space/SpaceTreeScanner.h"

#include <CLI/CLI.hpp>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>

namespace sd::cli {
namespace {

struct SpaceOptions {
    std::string path;
    bool json = false;
    std::optional<double> budget;
    int depth = defaultSpaceScanOptions.maxDepth;
    unsigned workers = 0;
    SpaceHistoryOptions history;
};

// The line the terminal redraws while a scan runs, with the big finds since the last call each
// on a line of its own above it.
std::string scanStatus(OperationProgress& progress) {
    std::string out;
    for (const OperationProgress::Notice& notice : progress.takeNotices()) {
        out += "Found " + formatBytes(notice.bytes) + " in " + notice.path + "\n";
    }
    return out + "Scanning… " + formatCount(progress.read().items) + " items scanned";
}

nlohmann::json toJson(const SpaceNode& node) {
    nlohmann::json children = nlohmann::json::array();
    for (const SpaceNode& child : node.children) {
        children.push_back(toJson(child));
    }
    return {{"name", node.name},
            {"path", node.path},
            {"kind", node.kind == SpaceNode::Kind::directory ? "directory" : "file"},
            {"bytes", node.bytes},
            {"fileCount", node.fileCount},
            {"latestChange", node.latestChange},
            {"children", std::move(children)},
            {"otherBytes", node.otherBytes},
            {"otherCount", node.otherCount},
            {"isCollapsed", node.isCollapsed},
            {"isComplete", node.isComplete}};
}

nlohmann::json toJson(const SpaceScanResult& result) {
    nlohmann::json findings = nlohmann::json::array();
    for (const Finding& f : result.openScan.topFindings) {
        findings.push_back({{"path", f.path},
                            {"bytes", f.bytes},
                            {"isDirectory", f.isDirectory},
                            {"fileCount", f.fileCount},
                            {"latestChange", f.latestChange}});
    }
    nlohmann::json out{
        {"tree",
         {{"root", toJson(result.tree.root)},
          {"isTruncated", result.tree.isTruncated},
          {"warnings", result.tree.warnings},
          {"scannedNodeCount", result.tree.scannedNodeCount},
          {"durationMs", result.tree.durationMs}}},
        {"openScan",
         {{"totalPhysicalBytes", result.openScan.totalPhysicalBytes},
          {"cloneSharedBytes", result.openScan.cloneSharedBytes},
          {"topFindings", std::move(findings)},
          {"scannedNodeCount", result.openScan.scannedNodeCount},
          {"warnings", result.openScan.warnings},
          {"durationMs", result.openScan.durationMs}}},
    };
    if (result.rootError) {
        out["rootError"] = {{"kind", kindName(result.rootError->kind())},
                            {"message", result.rootError->what()}};
    }
    return out;
}

void printLine(double share, std::uint64_t bytes, int indent, const std::string& label) {
    std::printf("%s %5.1f%% %10s  %*s%s\n", shareBar(share, 20).c_str(), share * 100,
                formatBytes(bytes).c_str(), indent * 2, "", label.c_str());
}

void printNode(const SpaceNode& node, std::uint64_t whole, int indent) {
    auto shareOf = [whole](std::uint64_t bytes) {
        return whole == 0 ? 0.0 : static_cast<double>(bytes) / static_cast<double>(whole);
    };
    for (const SpaceNode& child : node.children) {
        std::string label = child.name;
        if (child.kind == SpaceNode::Kind::directory) {
            label += "/";
            if (child.isCollapsed) {
                label += " (" + formatCount(child.otherCount) +
                         (child.otherCount == 1 ? " item" : " items") + " inside)";
            }
        }
        if (!child.isComplete) {
            label += " (incomplete)";
        }
        printLine(shareOf(child.bytes), child.bytes, indent, label);
        printNode(child, whole, indent + 1);
    }
    std::string note = otherShareNote(node);
    if (!note.empty()) {
        printLine(shareOf(node.otherBytes), node.otherBytes, indent, "… " + note);
    }
}

void printHuman(const SpaceScanResult& result, double budget, int depth) {
    const SpaceTree& tree = result.tree;
    const SpaceNode& root = tree.root;
    if (result.rootError) {
        std::printf("%s\n", root.path.c_str());
        for (const std::string& warning : tree.warnings) {
            std::printf("  %s\n", warning.c_str());
        }
        std::printf("  Nothing was measured.\n");
        return;
    }
    std::string status = spaceStatusLine(tree, budget, depth);
    std::printf("%s — %s in %s %s.%s%s\n", root.path.c_str(), formatBytes(root.bytes).c_str(),
                formatCount(root.fileCount).c_str(), root.fileCount == 1 ? "file" : "files",
                tree.isTruncated ? " " : "", status.c_str());
    printNode(root, root.bytes, 0);
    std::printf("%s items scanned in %.1f s.\n", formatCount(tree.scannedNodeCount).c_str(),
                static_cast<double>(tree.durationMs) / 1000.0);
    for (const std::string& warning : tree.warnings) {
        std::printf("! %s\n", warning.c_str());
    }
}

} // namespace

void addSpaceCommand(CLI::App& app, int& exitStatus) {
    auto options = std::make_shared<SpaceOptions>();
    CLI::App* command = app.add_subcommand(
        "space", "Show what fills your home folder, biggest folders and files first (reads only)");
    command->add_option("path", options->path, "A folder inside your home (default: the home)")
        ->check(nonEmptyPath());
    command->add_flag("--json", options->json, "Write the whole result as JSON");
    command
        ->add_option("--budget", options->budget,
                     "Seconds the scan may take before it shows what it measured (default 30)")
        ->check(finiteNonNegative());
    command
        ->add_option("--depth", options->depth,
                     "Levels of folders below the root shown as their own items (default 6)")
        ->check(CLI::Range(1, SpaceTreeScanner::maxNestingDepth));
    // For benchmarks that compare worker counts; people never need it, so it is not listed.
    command->add_option("--workers", options->workers)->check(CLI::Range(1, 256))->group("");
    addSpaceHistoryOptions(*command, options->history);
    command->callback([options, &exitStatus] {
        SpaceTreeScanner scanner;
        scanner.options.maxDepth = options->depth;
        scanner.budget = options->budget;
        scanner.workerCount = options->workers;
        std::string root = options->path.empty() ? homeDirectory() : options->path;
        SpaceScanResult result;
        OperationProgress progress;
        try {
            runWithProgress(
                [&](const std::stop_token& stop) { result = scanner.scan(root, stop, &progress); },
                [&] { return scanStatus(progress); });
        } catch (const CleanerError& error) {
            std::fprintf(stderr, "%s — nothing was measured.\n", error.what());
            exitStatus = 1;
            return;
        }
        if (result.rootError) {
            exitStatus = 1;
        }
        if (finishSpaceScan(result, options->history, options->json, exitStatus)) {
            return;
        }
        if (options->json) {
            std::cout << toJson(result).dump(2, ' ', false,
                                             nlohmann::json::error_handler_t::replace)
                      << "\n";
        } else {
            printHuman(result, scanner.effectiveBudget(), options->depth);
        }
    });
}

} // namespace sd::cli
