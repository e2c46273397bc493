#include "space/SpaceTree.h"

#include "core/ByteFormat.h"

#include <gtest/gtest.h>

namespace sd {
namespace {

SpaceNode node(std::string path, std::uint64_t bytes, std::uint64_t files,
               std::vector<SpaceNode> children = {}, std::uint64_t otherCount = 0,
               SpaceNode::Kind kind = SpaceNode::Kind::directory) {
    SpaceNode n;
    n.path = std::move(path);
    n.name = n.path.substr(n.path.rfind('/') + 1);
    n.kind = kind;
    n.bytes = bytes;
    n.fileCount = files;
    std::uint64_t childBytes = 0;
    for (const SpaceNode& c : children) {
        childBytes += c.bytes;
    }
    n.children = std::move(children);
    n.otherBytes = bytes - childBytes;
    n.otherCount = otherCount;
    n.isCollapsed = n.children.empty() && otherCount > 0;
    return n;
}

// /h: 1000 bytes in 10 files: a (600: b 400 as a node, 200 other in 3 entries), t (the Trash,
// 100 in 1 file), 300 other in 5 entries.
SpaceTree sample() {
    SpaceTree tree;
    tree.root = node(
        "/h", 1000, 10,
        {node("/h/a", 600, 6, {node("/h/a/b", 400, 4, {}, 2)}, 3), node("/h/t", 100, 1, {}, 1)}, 5);
    return tree;
}

TEST(SpaceTreeMoves, DescribeTellsNodesFromOtherShares) {
    SpaceTree tree = sample();
    std::optional<SpaceTreeMove> asNode = describeMove(tree, "/h/a/b", 400, 4, false);
    ASSERT_TRUE(asNode);
    EXPECT_TRUE(asNode->wasNode);
    EXPECT_EQ(asNode->parentPath, "/h/a");
    ASSERT_TRUE(asNode->node);
    EXPECT_EQ(asNode->node->path, "/h/a/b");

    std::optional<SpaceTreeMove> inOther = describeMove(tree, "/h/a/b/deep/file", 50, 1, true);
    ASSERT_TRUE(inOther);
    EXPECT_FALSE(inOther->wasNode);
    EXPECT_EQ(inOther->parentPath, "/h/a/b");
    EXPECT_FALSE(inOther->node);
    EXPECT_TRUE(inOther->creditedToTrash);

    EXPECT_FALSE(describeMove(tree, "/elsewhere/file", 1, 1, false));
    EXPECT_FALSE(describeMove(tree, "/h", 1000, 10, false)) << "the root cannot move out of itself";
    EXPECT_FALSE(describeMove(tree, "/h-sibling/file", 1, 1, false));
}

TEST(SpaceTreeMoves, PatchingTakesBytesOffTheChainAndCreditsTheTrash) {
    struct Case {
        const char* what;
        std::vector<std::pair<std::string, std::pair<std::uint64_t, bool>>>
            moves; // path, bytes, trash
        std::uint64_t root, a, t, rootOther, aOther, aOtherCount, tOther;
        bool bStays;
    };
    const std::vector<Case> cases{
        {"a node leaves its parent and its bytes leave every ancestor",
         {{"/h/a/b", {400, false}}},
         600,
         200,
         100,
         300,
         200,
         3,
         100,
         false},
        {"an entry of an other share leaves that share and its count",
         {{"/h/a/small", {50, false}}},
         950,
         550,
         100,
         300,
         150,
         2,
         100,
         true},
        {"something deeper in an other share leaves the bytes but not the count",
         {{"/h/a/x/y", {50, false}}},
         950,
         550,
         100,
         300,
         150,
         3,
         100,
         true},
        {"credited to a Trash inside the tree, the bytes stay and move there",
         {{"/h/a/b", {400, true}}},
         1000,
         200,
         500,
         300,
         200,
         3,
         500,
         false},
        {"two moves add up",
         {{"/h/a/b", {400, false}}, {"/h/a/small", {50, false}}},
         550,
         150,
         100,
         300,
         150,
         2,
         100,
         false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        SpaceTree tree = sample();
        std::vector<SpaceTreeMove> moves;
        for (const auto& [path, what] : c.moves) {
            std::optional<SpaceTreeMove> m = describeMove(tree, path, what.first, 1, what.second);
            ASSERT_TRUE(m);
            moves.push_back(*m);
        }
        applyMoves(tree, moves, "/h/t");
        const SpaceNode& a = tree.root.children[0];
        const SpaceNode& t = tree.root.children[1];
        EXPECT_EQ(tree.root.bytes, c.root);
        EXPECT_EQ(a.bytes, c.a);
        EXPECT_EQ(t.bytes, c.t);
        EXPECT_EQ(tree.root.otherBytes, c.rootOther);
        EXPECT_EQ(a.otherBytes, c.aOther);
        EXPECT_EQ(a.otherCount, c.aOtherCount);
        EXPECT_EQ(t.otherBytes, c.tOther);
        EXPECT_EQ(!a.children.empty(), c.bStays);
        EXPECT_EQ(a.isCollapsed, a.children.empty() && a.otherCount > 0);
        // Sizes still add up everywhere.
        EXPECT_EQ(tree.root.bytes, a.bytes + t.bytes + tree.root.otherBytes);
    }
}

TEST(SpaceTreeMoves, MapStateCountsGenerationsAndStaleness) {
    SpaceMapState state;
    EXPECT_FALSE(state.tree());
    state.applyMoves({}, "/h/t"); // nothing to patch yet
    EXPECT_FALSE(state.isStale());
    state.replace(sample());
    EXPECT_EQ(state.generation(), 1U);
    std::vector<SpaceTreeMove> moves{*describeMove(*state.tree(), "/h/a/b", 400, 4, false)};
    state.applyMoves(moves, "/h/t");
    EXPECT_TRUE(state.isStale());
    EXPECT_EQ(state.lastMoves(), moves);
    EXPECT_EQ(state.tree()->root.bytes, 600U);
    // A move whose parent already left the tree changes nothing.
    state.applyMoves(moves, "/h/t");
    EXPECT_EQ(state.tree()->root.bytes, 600U);
    state.replace(sample());
    EXPECT_EQ(state.generation(), 2U);
    EXPECT_FALSE(state.isStale());
    EXPECT_TRUE(state.lastMoves().empty());
}

TEST(SpaceTreeTexts, StatusLinesAndOtherNotes) {
    SpaceTree tree = sample();
    EXPECT_EQ(spaceStatusLine(tree, 30, 6), " Measured whole — the map stops six levels down.");
    EXPECT_EQ(spaceStatusLine(tree, 30, 1), " Measured whole — the map stops one level down.");
    EXPECT_EQ(spaceStatusLine(tree, 30, 12), " Measured whole — the map stops 12 levels down.");
    tree.isTruncated = true;
    EXPECT_EQ(spaceStatusLine(tree, 30, 6),
              "Stopped at the 30-second limit — the map shows what was measured.");
    EXPECT_EQ(spaceStatusLine(tree, 2.5, 6),
              "Stopped at the 2.5-second limit — the map shows what was measured.");

    EXPECT_EQ(otherShareNote(tree.root),
              "5 more items, 300 bytes, each too small to draw on its own.");
    SpaceNode one = node("/h/x", 2'500'000, 1, {node("/h/x/y", 2'000'000, 1)}, 1);
    EXPECT_EQ(otherShareNote(one), "1 more item, 500.0 KB, each too small to draw on its own.");
    EXPECT_EQ(otherShareNote(tree.root.children[1]), "") << "a collapsed node is all other";
    EXPECT_EQ(otherShareNote(node("/h/e", 0, 0)), "");
}

} // namespace
} // namespace sd
