#pragma once

#include "assistant/AssistantFacts.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace sd {

struct SweepTile;
struct SweepRecord;
struct Target;
struct SpaceNode;
struct LargeOldItem;
struct DuplicateGroup;

// The facts of a Sweep tile: its title, size and count, and each catalog item in it.
AssistantFacts factsForTile(const SweepTile& tile);

// The facts of one catalog item: its title, its measured size when known, and the places it
// covers, by name.
AssistantFacts factsForTarget(const Target& target, std::optional<std::uint64_t> bytes);

// The facts of a Space Map folder or file: its size, count and date, and what it holds as the
// scan measured it, the share too small to draw summed in one line.
AssistantFacts factsForSpaceNode(const SpaceNode& node, const std::string& home);

// A large, old file with the evidence for when it was last opened.
AssistantFacts factsForLargeOldItem(const LargeOldItem& item, const std::string& home);

// A group of identical copies, each by its name and size.
AssistantFacts factsForDuplicateGroup(const DuplicateGroup& group, const std::string& home);

// The last Sweep's tiles, as facts to set beside others.
std::vector<Fact> sweepFacts(const SweepRecord& record);

} // namespace sd
