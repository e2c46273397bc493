#include "catalog/InclusionPreferences.h"

#include <array>
#include <nlohmann/json.hpp>
#include <optional>

namespace sd {
namespace {

using nlohmann::json;

std::optional<std::map<std::string, bool>> decodeMap(const std::optional<std::string>& text) {
    if (!text) {
        return std::nullopt;
    }
    try {
        json parsed = json::parse(*text);
        if (!parsed.is_object()) {
            return std::nullopt;
        }
        std::map<std::string, bool> map;
        for (auto& [key, value] : parsed.items()) {
            if (!value.is_boolean()) {
                return std::nullopt;
            }
            map[key] = value.get<bool>();
        }
        return map;
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

// Where the two old modes disagree, switched off wins: keeping something the person once
// protected is the mistake that costs nothing.
void mergeInto(std::map<std::string, bool>& into, const std::map<std::string, bool>& from) {
    for (const auto& [id, included] : from) {
        auto [at, inserted] = into.emplace(id, included);
        if (!inserted) {
            at->second = at->second && included;
        }
    }
}

void migratePair(platform::UserDefaults& defaults, std::string_view unified, const char* cleanKey,
                 const char* deepKey) {
    auto fromClean = decodeMap(defaults.string(cleanKey));
    auto fromDeep = decodeMap(defaults.string(deepKey));
    std::map<std::string, bool> merged;
    if (fromClean) {
        mergeInto(merged, *fromClean);
    }
    if (fromDeep) {
        mergeInto(merged, *fromDeep);
    }
    if (!merged.empty() || (fromClean && fromDeep)) {
        if (auto existing = decodeMap(defaults.string(unified))) {
            mergeInto(merged, *existing);
        }
        defaults.setString(unified, json(merged).dump());
    }
}

} // namespace

void migrateInclusionPreferences(platform::UserDefaults& defaults) {
    static constexpr std::array<const char*, 6> oldKeys{
        "com.sparrowdeck.clean.scanPrefs", "com.sparrowdeck.clean.cleanPrefs",
        "com.sparrowdeck.deep.scanPrefs",  "com.sparrowdeck.deep.cleanPrefs",
        "com.sparrowdeck.cleanSelections", "com.sparrowdeck.deepSelections",
    };
    bool anyOld = false;
    for (const char* key : oldKeys) {
        anyOld = anyOld || defaults.string(key).has_value();
    }
    if (!anyOld) {
        return;
    }
    migratePair(defaults, scanPrefsKey, oldKeys[0], oldKeys[2]);
    migratePair(defaults, cleanPrefsKey, oldKeys[1], oldKeys[3]);
    for (const char* key : oldKeys) {
        if (defaults.string(key)) {
            defaults.remove(key);
        }
    }
}

InclusionPreferences loadInclusionPreferences(platform::UserDefaults& defaults) {
    migrateInclusionPreferences(defaults);
    InclusionPreferences prefs;
    prefs.scan = decodeMap(defaults.string(scanPrefsKey)).value_or(std::map<std::string, bool>{});
    prefs.clean = decodeMap(defaults.string(cleanPrefsKey)).value_or(std::map<std::string, bool>{});
    return prefs;
}

void saveInclusionPreferences(platform::UserDefaults& defaults, const InclusionPreferences& prefs) {
    defaults.setString(scanPrefsKey, json(prefs.scan).dump());
    defaults.setString(cleanPrefsKey, json(prefs.clean).dump());
}

} // namespace sd
