#include "space/SpaceTree.h"

#include "base/Saturating.h"
#include "core/ByteFormat.h"
#include "core/PathRules.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace sd {
namespace {

// The nodes from the root down to the deepest one at or above `path`; empty when the path is
// outside the tree.
template <typename Node> std::vector<Node*> chainTo(Node& root, std::string_view path) {
    std::vector<Node*> chain;
    if (!isInside(path, root.path)) {
        return chain;
    }
    Node* node = &root;
    chain.push_back(node);
    while (node->path != path) {
        Node* next = nullptr;
        for (auto& child : node->children) {
            if (isInside(path, child.path)) {
                next = &child;
                break;
            }
        }
        if (next == nullptr) {
            break;
        }
        node = next;
        chain.push_back(node);
    }
    return chain;
}

std::string_view parentOf(std::string_view path) {
    size_t slash = path.rfind('/');
    if (slash == std::string_view::npos) {
        return {};
    }
    return slash == 0 ? std::string_view("/") : path.substr(0, slash);
}

void refreshCollapsed(SpaceNode& node) {
    node.isCollapsed =
        node.kind == SpaceNode::Kind::directory && node.children.empty() && node.otherCount > 0;
}

} // namespace

const SpaceNode* findDeepestNode(const SpaceNode& root, std::string_view path) {
    std::vector<const SpaceNode*> chain = chainTo(root, path);
    return chain.empty() ? nullptr : chain.back();
}

std::optional<SpaceTreeMove> describeMove(const SpaceTree& tree, std::string_view path,
                                          std::uint64_t bytes, std::uint64_t files,
                                          bool creditedToTrash) {
    std::vector<const SpaceNode*> chain = chainTo(tree.root, path);
    if (chain.size() < 1 || path == tree.root.path) {
        return std::nullopt;
    }
    SpaceTreeMove move;
    move.bytes = bytes;
    move.files = files;
    move.creditedToTrash = creditedToTrash;
    move.path = std::string(path);
    if (chain.back()->path == path) {
        move.wasNode = true;
        move.node = *chain.back();
        move.parentPath = chain[chain.size() - 2]->path;
    } else {
        move.parentPath = chain.back()->path;
    }
    return move;
}

void applyMoves(SpaceTree& tree, std::span<const SpaceTreeMove> moves, std::string_view trashPath) {
    for (const SpaceTreeMove& move : moves) {
        std::vector<SpaceNode*> chain = chainTo(tree.root, move.parentPath);
        if (chain.empty() || chain.back()->path != move.parentPath) {
            continue; // its parent left the tree with an earlier move
        }
        SpaceNode& parent = *chain.back();
        if (move.wasNode) {
            std::string_view gone = move.node ? std::string_view(move.node->path) : move.path;
            auto child = std::find_if(parent.children.begin(), parent.children.end(),
                                      [&](const SpaceNode& c) { return c.path == gone; });
            if (child == parent.children.end()) {
                continue;
            }
            parent.children.erase(child);
        } else {
            parent.otherBytes = saturatingSub(parent.otherBytes, move.bytes);
            if (parentOf(move.path) == parent.path) {
                parent.otherCount = saturatingSub(parent.otherCount, 1);
            }
        }
        for (SpaceNode* node : chain) {
            node->bytes = saturatingSub(node->bytes, move.bytes);
            node->fileCount = saturatingSub(node->fileCount, move.files);
        }
        refreshCollapsed(parent);
        if (!move.creditedToTrash || trashPath.empty()) {
            continue;
        }
        std::vector<SpaceNode*> trash = chainTo(tree.root, trashPath);
        if (trash.empty()) {
            continue; // the Trash is outside the tree: the bytes left it
        }
        for (SpaceNode* node : trash) {
            node->bytes += move.bytes;
            node->fileCount += move.files;
        }
        trash.back()->otherBytes += move.bytes;
    }
}

void SpaceMapState::replace(SpaceTree tree) {
    tree_ = std::move(tree);
    ++generation_;
    stale_ = false;
    lastMoves_.clear();
}

void SpaceMapState::applyMoves(std::vector<SpaceTreeMove> moves, std::string_view trashPath) {
    if (!tree_) {
        return;
    }
    sd::applyMoves(*tree_, moves, trashPath);
    lastMoves_ = std::move(moves);
    stale_ = true;
}

std::string spaceStatusLine(const SpaceTree& tree, double budgetSeconds, int maxDepth) {
    if (tree.isTruncated) {
        char seconds[32];
        std::snprintf(seconds, sizeof seconds, "%g", std::max(budgetSeconds, 0.0));
        return std::string("Stopped at the ") + seconds +
               "-second limit — the map shows what was measured.";
    }
    static constexpr std::array<const char*, 11> words{
        "zero", "one", "two", "three", "four", "five", "six", "seven", "eight", "nine", "ten"};
    std::string levels = maxDepth >= 0 && static_cast<size_t>(maxDepth) < words.size()
                             ? words[static_cast<size_t>(maxDepth)]
                             : std::to_string(maxDepth);
    return " Measured whole — the map stops " + levels + (maxDepth == 1 ? " level" : " levels") +
           " down.";
}

std::string otherShareNote(const SpaceNode& node) {
    if (node.otherCount == 0 || node.isCollapsed) {
        return {};
    }
    return formatCount(node.otherCount) +
           (node.otherCount == 1 ? " more item, " : " more items, ") +
           formatBytes(node.otherBytes) + ", each too small to draw on its own.";
}

} // namespace sd
