#pragma once

#include <cstdint>

namespace sd {

// What the open-scan findings (the biggest items, for the review lists) keep from the same walk
// that builds the space tree.
struct OpenScanOptions {
    std::uint32_t topN = 40;                 // findings kept, biggest first
    std::uint32_t maxTreeDepth = 6;          // folders deeper than this are not findings
    std::uint64_t minNodeBytes = 10'485'760; // 10 MiB: smaller items are not findings
    bool includeUserData = true;             // documents, photos and the like may be findings

    friend bool operator==(const OpenScanOptions&, const OpenScanOptions&) = default;
};

// The values that shape a space tree. One default value serves every caller.
struct SpaceScanOptions {
    // Levels of folders below the root that become nodes; deeper content is measured whole and
    // folded into its ancestor at this depth.
    int maxDepth = 6;
    // At most this many nodes are kept in the whole tree.
    int nodeBudget = 3000;
    // A folder or file smaller than this never becomes a node of its own.
    std::uint64_t minimumNodeBytes = 1'048'576;
    // At most this many children are kept under one node; the rest are its "other" share.
    int maxChildren = 48;
    OpenScanOptions findings;

    friend bool operator==(const SpaceScanOptions&, const SpaceScanOptions&) = default;
};

inline constexpr SpaceScanOptions defaultSpaceScanOptions{};

} // namespace sd
