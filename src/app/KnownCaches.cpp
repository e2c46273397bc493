#include "app/KnownCaches.h"

#include "catalog/CleaningService.h"
#include "core/PathRules.h"
#include "sweep/Sweep.h"

#include <algorithm>
#include <fnmatch.h>

namespace sd::app {

KnownCaches::KnownCaches(const std::vector<Target>& catalog) {
    for (const Target& target : catalog) {
        bool swept = std::any_of(allTileKinds.begin(), allTileKinds.end(), [&](SweepTileKind kind) {
            return tileHoldsTarget(kind, target.id);
        });
        if (!swept) {
            continue;
        }
        for (const PathSpec& path : target.paths) {
            std::string base = expandTemplate(path.pathTemplate);
            while (base.size() > 1 && base.back() == '/') {
                base.pop_back();
            }
            std::string pattern = path.pattern.value_or("");
            // The home itself is never a cache, whatever a pattern below it names.
            if (pattern.empty() && base == homeDirectory()) {
                continue;
            }
            places_.push_back({std::move(base), std::move(pattern), target.title});
        }
    }
}

std::optional<std::string> KnownCaches::targetOf(std::string_view path) const {
    for (const Place& place : places_) {
        if (place.pattern.empty()) {
            if (path == place.base) {
                return place.title;
            }
            continue;
        }
        if (path.size() <= place.base.size() + 1 || !path.starts_with(place.base) ||
            path[place.base.size()] != '/') {
            continue;
        }
        std::string relative(path.substr(place.base.size() + 1));
        if (::fnmatch(place.pattern.c_str(), relative.c_str(), FNM_PERIOD) == 0) {
            return place.title;
        }
    }
    return std::nullopt;
}

} // namespace sd::app
