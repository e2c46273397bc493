#include "assistant/AssistantSubjects.h"

#include "catalog/Catalog.h"
#include "core/ByteFormat.h"
#include "review/DuplicateComparer.h"
#include "review/LargeOldFinder.h"
#include "space/SpaceTree.h"
#include "sweep/Sweep.h"

#include <algorithm>

namespace sd {
namespace {

constexpr std::string_view comesBackNote =
    "Sparrowdeck counts this among what comes back by itself: the apps that made it rebuild it "
    "when they need it.";

} // namespace

AssistantFacts factsForTile(const SweepTile& tile) {
    AssistantFacts facts;
    facts.subject = "The Sweep tile “" + tileTitle(tile) + "”";
    Fact about;
    about.name = tileTitle(tile);
    about.kind = "Sweep tile";
    about.bytes = tile.bytes;
    about.files = tile.itemCount;
    facts.about = about;
    for (const Target& target : tile.targets) {
        auto measured = tile.perTarget.find(target.id);
        if (measured == tile.perTarget.end() || measured->second == 0) {
            continue;
        }
        Fact item;
        item.name = target.title;
        item.kind = "cleanup item";
        item.bytes = measured->second;
        facts.contents.push_back(std::move(item));
    }
    std::stable_sort(facts.contents.begin(), facts.contents.end(),
                     [](const Fact& a, const Fact& b) { return a.bytes > b.bytes; });
    if (tileComesBack(tile.kind)) {
        facts.notes.emplace_back(comesBackNote);
    }
    return facts;
}

AssistantFacts factsForTarget(const Target& target, std::optional<std::uint64_t> bytes) {
    AssistantFacts facts;
    facts.subject = "The cleanup item “" + target.title + "”";
    Fact about;
    about.name = target.title;
    about.kind = "cleanup item";
    about.bytes = bytes;
    facts.about = about;
    for (const PathSpec& path : target.paths) {
        Fact place;
        place.name = path.pathTemplate + (path.pattern ? "/" + *path.pattern : "");
        place.kind = "place it covers";
        facts.contents.push_back(std::move(place));
    }
    if (target.riskTier == RiskTier::rebuildsInstantly) {
        facts.notes.emplace_back(comesBackNote);
    }
    return facts;
}

AssistantFacts factsForSpaceNode(const SpaceNode& node, const std::string& home) {
    const bool folder = node.kind == SpaceNode::Kind::directory;
    AssistantFacts facts;
    facts.subject = std::string(folder ? "The folder " : "The file ") + factName(node.path, home);
    Fact about;
    about.name = factName(node.path, home);
    about.kind = folder ? "folder" : "file";
    about.bytes = node.bytes;
    if (folder) {
        about.files = node.fileCount;
    }
    if (node.latestChange > 0) {
        about.changed = node.latestChange;
    }
    facts.about = about;
    for (const SpaceNode& child : node.children) {
        // Built whole rather than field by field: GCC 12 at -O2 takes the piecewise form for a
        // read of uninitialised memory (a false -Wmaybe-uninitialized).
        const bool childIsFolder = child.kind == SpaceNode::Kind::directory;
        Fact item{.name = child.name,
                  .kind = childIsFolder ? "folder" : "file",
                  .bytes = child.bytes,
                  .files = childIsFolder ? std::optional(child.fileCount) : std::nullopt};
        if (child.latestChange > 0) {
            item.changed = child.latestChange;
        }
        facts.contents.push_back(std::move(item));
    }
    if (node.otherCount > 0) {
        Fact rest;
        rest.name = formatCount(node.otherCount) + " smaller items";
        rest.kind = "together";
        rest.bytes = node.otherBytes;
        facts.contents.push_back(std::move(rest));
    }
    if (!node.isComplete) {
        facts.notes.emplace_back("The scan stopped before it measured all of it.");
    }
    return facts;
}

AssistantFacts factsForLargeOldItem(const LargeOldItem& item, const std::string& home) {
    AssistantFacts facts;
    facts.subject = "The file " + factName(item.path, home);
    Fact about;
    about.name = factName(item.path, home);
    about.kind = item.isPackage ? "package" : "file";
    about.bytes = item.physicalBytes;
    if (item.evidence.date > 0) {
        about.opened = static_cast<std::int64_t>(item.evidence.date);
    }
    facts.about = about;
    facts.notes.emplace_back("Sparrowdeck lists it because it is large and has not been opened "
                             "for a long time.");
    return facts;
}

AssistantFacts factsForDuplicateGroup(const DuplicateGroup& group, const std::string& home) {
    AssistantFacts facts;
    facts.subject = formatCount(group.files.size()) + " identical copies of one file";
    for (const DuplicateFile& file : group.files) {
        Fact copy;
        copy.name = factName(file.path, home);
        copy.kind = file.path == group.suggestedKeep ? "copy to keep" : "copy";
        copy.bytes = file.physicalBytes;
        copy.changed = file.changedSec;
        facts.contents.push_back(std::move(copy));
    }
    facts.notes.emplace_back("Their contents are the same byte for byte.");
    return facts;
}

std::vector<Fact> sweepFacts(const SweepRecord& record) {
    std::vector<Fact> facts;
    for (const SweepRecord::Tile& tile : record.tiles) {
        Fact fact;
        fact.name = tile.title;
        fact.kind = tile.comesBack ? "Sweep tile, comes back by itself" : "Sweep tile";
        fact.bytes = tile.bytes;
        facts.push_back(std::move(fact));
    }
    return facts;
}

} // namespace sd
