#pragma once

#include "catalog/DistributionMode.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sd {

enum class RiskLevel { safe, disruptive };
enum class RiskTier { rebuildsInstantly, largeRedownload, irreplaceable };

std::string_view riskLevelName(RiskLevel risk);
std::string_view riskTierName(RiskTier tier);

struct AppGroup {
    std::string id;
    std::string name;
    bool enabled = true;
};

// One location of a target: a template below the home and, optionally, a relative glob below it.
struct PathSpec {
    std::optional<std::string> id;
    std::optional<std::string> name;
    std::optional<std::string> app;
    std::string pathTemplate;
    std::optional<std::string> pattern;
    std::vector<std::string> exclude;
    bool enabled = true;
};

// A named group of places where tools keep data that comes back by itself.
struct Target {
    std::string id;
    std::string title;
    std::string subtitle;
    RiskLevel risk = RiskLevel::safe;
    bool requiresPermission = false;
    std::vector<AppGroup> apps;
    std::vector<PathSpec> paths;
    std::uint64_t estimatedBytes = 0;
    bool enabled = true;
    bool isCustom = false;
    std::optional<std::string> narration;
    std::optional<std::string> reclaimStrategy;
    std::optional<RiskTier> riskTier;
};

// The built-in catalog in its fixed order: all targets for the direct distribution; without the
// system targets, and every target behind a folder grant, for the store distribution. Pure: two
// calls return equal lists.
std::vector<Target> buildCatalog(DistributionMode mode);

// The catalog as this platform presents it, the one every screen and command uses: a location
// that cannot exist here is dropped, an app or target left with no location is not shown, and
// titles use this platform's words. buildCatalog keeps the full data.
std::vector<Target> platformCatalog(DistributionMode mode);

const Target* findTarget(const std::vector<Target>& catalog, std::string_view id);

// The display name of a path: its own name, else its app's name, else its template.
std::string displayName(const Target& target, const PathSpec& path);

} // namespace sd
