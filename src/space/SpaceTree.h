#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// The tree the Space Map draws: every folder and file big enough to be worth a wedge, down to a
// fixed depth, with everything smaller folded into an "other" share of its parent.
namespace sd {

struct SpaceNode {
    enum class Kind { directory, file };

    std::string name; // the last path component; the root's display name for the root
    std::string path; // absolute
    Kind kind = Kind::directory;
    std::uint64_t bytes = 0;       // allocated bytes of the whole subtree, shared blocks once
    std::uint64_t fileCount = 0;   // regular files in the subtree, every link counted
    std::int64_t latestChange = 0; // newest modification time of a file in the subtree
    std::vector<SpaceNode> children;
    std::uint64_t otherBytes = 0; // bytes of the entries that are not children of their own
    std::uint64_t otherCount = 0; // how many entries otherBytes stands for
    bool isCollapsed = false;     // none of its entries became a child: all of it is "other"
    bool isComplete = true;       // false when the time limit or an unreadable entry cut it short

    friend bool operator==(const SpaceNode&, const SpaceNode&) = default;
};

struct SpaceTree {
    SpaceNode root;
    bool isTruncated = false; // the time budget ran out before the walk finished
    std::vector<std::string> warnings;
    std::uint64_t scannedNodeCount = 0; // directory entries examined
    std::uint64_t durationMs = 0;

    friend bool operator==(const SpaceTree&, const SpaceTree&) = default;
};

// One item moved to the Trash after the scan, kept to patch the tree instead of scanning again.
struct SpaceTreeMove {
    std::optional<SpaceNode> node; // the node removed, when the item was one
    std::string parentPath;        // the node the item was drawn in (as a child or as "other")
    std::uint64_t bytes = 0;       // what the move took away
    std::uint64_t files = 0;
    bool wasNode = false;
    bool creditedToTrash = false; // the Trash lies inside the tree, so the bytes are still there
    std::string path;             // the moved item's own path

    friend bool operator==(const SpaceTreeMove&, const SpaceTreeMove&) = default;
};

// The deepest node at or above `path` in the tree, or nullptr when the path is outside it.
const SpaceNode* findDeepestNode(const SpaceNode& root, std::string_view path);

// The record for moving the item at `path` (holding `bytes` in `files` files) out of the tree:
// a node of the tree is removed whole, anything else came out of the "other" share of the
// deepest node holding it. Empty when the path is not inside the tree.
std::optional<SpaceTreeMove> describeMove(const SpaceTree& tree, std::string_view path,
                                          std::uint64_t bytes, std::uint64_t files,
                                          bool creditedToTrash);

// Takes each move's bytes and files off its parent and every ancestor up to the root; a node
// that moved leaves its parent's children. A move credited to the Trash adds its bytes back
// under `trashPath` (to the deepest node holding it, as "other"), because until the Trash is
// emptied they still fill the disk. Moves whose parent is no longer in the tree are skipped.
void applyMoves(SpaceTree& tree, std::span<const SpaceTreeMove> moves, std::string_view trashPath);

// What the Space Map keeps between scans: the last tree, a generation that grows with every
// new tree, whether the tree is stale, and the moves that patched it since.
class SpaceMapState {
public:
    const std::optional<SpaceTree>& tree() const noexcept { return tree_; }
    std::uint64_t generation() const noexcept { return generation_; }
    bool isStale() const noexcept { return stale_; }
    const std::vector<SpaceTreeMove>& lastMoves() const noexcept { return lastMoves_; }

    // A new scan replaces the tree wholesale.
    void replace(SpaceTree tree);
    // Patches the tree in place and marks it stale until the next scan.
    void applyMoves(std::vector<SpaceTreeMove> moves, std::string_view trashPath);

private:
    std::optional<SpaceTree> tree_;
    std::uint64_t generation_ = 0;
    bool stale_ = false;
    std::vector<SpaceTreeMove> lastMoves_;
};

// The line shown with the map: "Stopped at the 30-second limit — the map shows what was
// measured." for a truncated tree, " Measured whole — the map stops six levels down." for a
// finished one (it follows a sentence on the same line, hence the leading blank).
std::string spaceStatusLine(const SpaceTree& tree, double budgetSeconds, int maxDepth);

// The note on a node's "other" share: "52 more items, 104.9 MB, each too small to draw on its
// own." Empty when the node has no other share.
std::string otherShareNote(const SpaceNode& node);

} // namespace sd
