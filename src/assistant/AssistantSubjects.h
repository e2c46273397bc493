#pragma once

#include "assistant/AssistantFacts.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace sd {

struct SweepTile;
struct SweepRecord;
struct Target;

// The facts of a Sweep tile: its title, size and count, and each catalog item in it.
AssistantFacts factsForTile(const SweepTile& tile);

// The facts of one catalog item: its title, its measured size when known, and the places it
// covers, by name.
AssistantFacts factsForTarget(const Target& target, std::optional<std::uint64_t> bytes);

// The last Sweep's tiles, as facts to set beside others.
std::vector<Fact> sweepFacts(const SweepRecord& record);

} // namespace sd
