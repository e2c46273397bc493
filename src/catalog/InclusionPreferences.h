#pragma once

#include "platform/UserDefaults.h"

#include <map>
#include <string>

namespace sd {

// Which targets and paths the person switched off, for measuring and for cleaning. A missing id
// means included.
struct InclusionPreferences {
    std::map<std::string, bool> scan;
    std::map<std::string, bool> clean;

    static bool includes(const std::map<std::string, bool>& map, const std::string& id) {
        auto found = map.find(id);
        return found == map.end() || found->second;
    }
};

inline constexpr std::string_view scanPrefsKey = "com.sparrowdeck.unified.scanPrefs";
inline constexpr std::string_view cleanPrefsKey = "com.sparrowdeck.unified.cleanPrefs";

// Folds the older per-mode keys into the unified ones, once, and removes them.
void migrateInclusionPreferences(platform::UserDefaults& defaults);

// The unified preferences, after migrating older keys. Values that do not decode count as empty.
InclusionPreferences loadInclusionPreferences(platform::UserDefaults& defaults);
void saveInclusionPreferences(platform::UserDefaults& defaults, const InclusionPreferences& prefs);

} // namespace sd
