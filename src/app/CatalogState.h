#pragma once

#include "catalog/Catalog.h"
#include "catalog/CleaningService.h"
#include "catalog/InclusionPreferences.h"
#include "platform/UserDefaults.h"

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace sd::app {

// The catalog with the person's switches and the last measurement.
struct CatalogState {
    explicit CatalogState(platform::UserDefaults store);

    // Switches a target or path on or off, for measuring and cleaning alike, and saves it.
    void setIncluded(const std::string& id, bool included);
    bool isIncluded(const std::string& id) const;
    bool isIncluded(const Target& target, const PathSpec& path) const;
    // Targets left out of every Sweep, read again from the settings store.
    void reloadLeftOut();
    void leaveOut(const std::string& targetID, bool leftOut);
    void setScan(std::optional<ScanResult> result);

    platform::UserDefaults store;
    std::vector<Target> catalog;
    InclusionPreferences prefs;
    std::set<std::string> leftOutOfSweep;
    std::optional<ScanResult> scan;
    std::map<std::string, std::uint64_t> bytesByTarget;
    std::map<std::string, std::uint64_t> bytesByPath; // "<target>/<path id>"
};

// The key a path's measured bytes are kept under.
std::string pathKey(const Target& target, const PathSpec& path);

} // namespace sd::app
