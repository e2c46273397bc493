#pragma once

#include <span>
#include <string_view>

namespace sd::platform {

// A place where a catalogued tool keeps its data on this platform, added after the target's own
// paths. Empty strings stand for "none".
struct CatalogLocation {
    std::string_view targetID;
    std::string_view id;
    std::string_view name;
    std::string_view app;
    std::string_view pathTemplate;
    std::string_view pattern;
};

std::span<const CatalogLocation> extraCatalogLocations();

} // namespace sd::platform
