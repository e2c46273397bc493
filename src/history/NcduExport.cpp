#include "history/NcduExport.h"

#include "base/FileIo.h"
#include "core/ByteFormat.h"

#include <nlohmann/json.hpp>

namespace sd {
namespace {

nlohmann::json fileEntry(const std::string& name, std::uint64_t bytes) {
    return {{"name", name}, {"asize", bytes}, {"dsize", bytes}};
}

// A folder is an array: its own record first, then its entries. Folders' own blocks are not in
// the tree, so their record holds none.
nlohmann::json folderEntry(const SpaceNode& node, const std::string& name) {
    nlohmann::json entry = nlohmann::json::array();
    entry.push_back({{"name", name}, {"asize", 0}, {"dsize", 0}});
    std::uint64_t inChildren = 0;
    for (const SpaceNode& child : node.children) {
        inChildren += child.bytes;
        if (child.kind == SpaceNode::Kind::directory) {
            entry.push_back(folderEntry(child, child.name));
        } else {
            entry.push_back(fileEntry(child.name, child.bytes));
        }
    }
    // What no child stands for, the "other" share and anything the children do not add up to,
    // goes in one entry so the folder's total stays the measured one.
    std::uint64_t rest = node.bytes > inChildren ? node.bytes - inChildren : 0;
    if (rest > 0 || node.otherCount > 0) {
        std::string label = node.otherCount == 0
                                ? "(more items)"
                                : "(" + formatCount(node.otherCount) +
                                      (node.otherCount == 1 ? " more item)" : " more items)");
        entry.push_back(fileEntry(label, rest));
    }
    return entry;
}

} // namespace

std::string ncduExport(const SpaceTree& tree, const std::string& programVersion,
                       std::int64_t timestamp) {
    nlohmann::json out = nlohmann::json::array();
    out.push_back(1);
    out.push_back(2);
    out.push_back(
        {{"progname", "sparrowdeck"}, {"progver", programVersion}, {"timestamp", timestamp}});
    out.push_back(folderEntry(tree.root, tree.root.path));
    return out.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

void writeNcduExport(const SpaceTree& tree, const std::string& file,
                     const std::string& programVersion, std::int64_t timestamp) {
    replaceFileAtomically(file, ncduExport(tree, programVersion, timestamp));
}

} // namespace sd
