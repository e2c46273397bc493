#pragma once

#include "catalog/Catalog.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sd::app {

// The places the Sweep measures, so the Space Map can point out what comes back by itself. Built
// from the catalog's templates and patterns alone; it never reads the disk.
class KnownCaches {
public:
    KnownCaches() = default;
    // The locations of every catalog target that a Sweep tile holds.
    explicit KnownCaches(const std::vector<Target>& catalog);

    // The title of the target whose location `path` is, if it is one. A location with a pattern
    // ("*/cache2" below "~/.cache/mozilla/firefox") matches the folders the pattern names, not
    // the folder the pattern starts from.
    std::optional<std::string> targetOf(std::string_view path) const;
    bool empty() const noexcept { return places_.empty(); }

private:
    struct Place {
        std::string base; // absolute, without a trailing slash
        std::string pattern;
        std::string title;
    };
    std::vector<Place> places_;
};

} // namespace sd::app
