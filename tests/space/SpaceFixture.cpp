#include "SpaceFixture.h"

#include "Fixture.h"
#include "space/SpaceLedgers.h"

#include <fcntl.h>
#include <sstream>
#include <unistd.h>

namespace sd::test {
namespace {

void describeNode(const SpaceNode& node, int indent, std::ostringstream& out) {
    out << std::string(static_cast<size_t>(indent) * 2, ' ') << node.name << " "
        << (node.kind == SpaceNode::Kind::file ? "file" : "dir") << " bytes=" << node.bytes
        << " files=" << node.fileCount << " latest=" << node.latestChange
        << " other=" << node.otherBytes << "/" << node.otherCount
        << (node.isCollapsed ? " collapsed" : "") << (node.isComplete ? "" : " incomplete")
        << " path=" << node.path << "\n";
    for (const SpaceNode& child : node.children) {
        describeNode(child, indent + 1, out);
    }
}

void checkNode(const SpaceNode& node, int depth, const SpaceScanOptions& options,
               std::vector<std::string>& broken, size_t& count) {
    auto fail = [&](const std::string& what) {
        broken.push_back(node.path + ": " + what);
    };
    std::uint64_t childBytes = 0;
    std::uint64_t childFiles = 0;
    for (size_t i = 0; i < node.children.size(); ++i) {
        const SpaceNode& child = node.children[i];
        ++count;
        childBytes += child.bytes;
        childFiles += child.fileCount;
        if (child.path != node.path + "/" + child.name) {
            fail("child path " + child.path + " does not follow its name " + child.name);
        }
        if (child.bytes < options.minimumNodeBytes || child.bytes == 0) {
            fail("child " + child.name + " is below the floor");
        }
        if (i > 0 && node.children[i - 1].bytes < child.bytes) {
            fail("children are not biggest first");
        }
        checkNode(child, depth + 1, options, broken, count);
    }
    if (depth > options.maxDepth) {
        fail("deeper than maxDepth");
    }
    if (node.children.size() > static_cast<size_t>(options.maxChildren)) {
        fail("more children than maxChildren");
    }
    if (node.kind == SpaceNode::Kind::file) {
        if (!node.children.empty() || node.otherBytes != 0 || node.fileCount != 1) {
            fail("a file node with children, other bytes or a file count other than 1");
        }
        return;
    }
    if (node.bytes != childBytes + node.otherBytes) {
        fail("bytes " + std::to_string(node.bytes) + " != children " + std::to_string(childBytes) +
             " + other " + std::to_string(node.otherBytes));
    }
    if (node.fileCount < childFiles) {
        fail("fewer files than its children hold");
    }
    if (node.isCollapsed != (node.children.empty() && node.otherCount > 0)) {
        fail("isCollapsed does not say whether all of it is other");
    }
    if (depth == options.maxDepth && !node.children.empty()) {
        fail("a node at maxDepth with children");
    }
}

} // namespace

bool allocateFile(const std::string& path, std::uint64_t bytes) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        return false;
    }
    bool ok = bytes == 0 || ::fallocate(fd, 0, 0, static_cast<off_t>(bytes)) == 0;
    ::close(fd);
    return ok;
}

std::uint64_t peerFileCount(const std::string& path) {
    return std::stoull(runShell("find " + shellQuote(path) + " -type f -printf x | wc -c").output);
}

std::uint64_t peerEntryCount(const std::string& path) {
    return std::stoull(
        runShell("find " + shellQuote(path) + " -mindepth 1 -printf x | wc -c").output);
}

SpaceScanOptions smallOptions() {
    SpaceScanOptions options;
    options.minimumNodeBytes = 8 * 1024;
    options.findings.minNodeBytes = 64 * 1024;
    return options;
}

SpaceScanResult scanWith(const std::string& root, const SpaceScanOptions& options, unsigned workers,
                         OperationProgress* progress, std::optional<double> budget,
                         const std::stop_token& stop) {
    SpaceTreeScanner scanner;
    scanner.options = options;
    scanner.workerCount = workers;
    scanner.budget = budget;
    return scanner.scan(root, stop, progress);
}

std::string describe(const SpaceScanResult& result) {
    std::ostringstream out;
    describeNode(result.tree.root, 0, out);
    out << "truncated=" << result.tree.isTruncated << " entries=" << result.tree.scannedNodeCount
        << "\n";
    for (const std::string& w : result.tree.warnings) {
        out << "warning: " << w << "\n";
    }
    out << "total=" << result.openScan.totalPhysicalBytes
        << " shared=" << result.openScan.cloneSharedBytes << "\n";
    for (const Finding& f : result.openScan.topFindings) {
        out << "finding " << f.path << " " << f.bytes << (f.isDirectory ? " dir" : " file") << " "
            << f.fileCount << " " << f.latestChange << "\n";
    }
    return out.str();
}

std::vector<std::string> brokenRules(const SpaceTree& tree, const SpaceScanOptions& options) {
    std::vector<std::string> broken;
    size_t count = 0;
    checkNode(tree.root, 0, options, broken, count);
    if (count > static_cast<size_t>(options.nodeBudget)) {
        broken.push_back(std::to_string(count) + " nodes, over the budget");
    }
    return broken;
}

} // namespace sd::test
