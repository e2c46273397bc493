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

// False for a path template that cannot exist on this platform (on Linux, anything in ~/Library).
// Such a location is never measured, listed or counted here.
bool templateExistsHere(std::string_view pathTemplate);

// A target's title and subtitle in this platform's words, where the shared ones name another
// system's things ("Quick Look thumbnails" is "Thumbnails" on Linux).
struct TargetWording {
    std::string_view targetID;
    std::string_view title;
    std::string_view subtitle;
};
std::span<const TargetWording> targetWordings();

} // namespace sd::platform
