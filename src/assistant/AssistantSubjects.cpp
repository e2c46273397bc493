#include "assistant/AssistantSubjects.h"

#include "catalog/Catalog.h"
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
