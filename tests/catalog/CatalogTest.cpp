#include "catalog/Catalog.h"

#include "Fixture.h"
#include "catalog/InclusionPreferences.h"
#include "core/CoreFileSystem.h"

#include <gtest/gtest.h>
#include <set>

namespace sd {
namespace {

TEST(Catalog, BothVariantsKeepTheFixedOrder) {
    const std::vector<std::string> order{"system_quicklook",
                                         "system_icon_caches",
                                         "system_font_caches",
                                         "system_siri_dictation",
                                         "apple_services",
                                         "webkit_caches",
                                         "app_logs",
                                         "browser_caches",
                                         "messaging_caches",
                                         "music_streaming",
                                         "gaming_caches",
                                         "ide_caches",
                                         "productivity_caches",
                                         "cloud_storage_caches",
                                         "local_llm_models",
                                         "ml_framework_caches",
                                         "python_tools",
                                         "javascript_tools",
                                         "xcode_ios",
                                         "java_android",
                                         "rust_go",
                                         "other_dev_tools",
                                         "adobe_creative_cloud"};
    auto ids = [](const std::vector<Target>& catalog) {
        std::vector<std::string> out;
        for (const Target& t : catalog) {
            out.push_back(t.id);
        }
        return out;
    };
    std::vector<Target> direct = buildCatalog(DistributionMode::direct);
    EXPECT_EQ(ids(direct), order);
    std::vector<std::string> storeOrder;
    for (const std::string& id : order) {
        if (!id.starts_with("system_") && id != "apple_services" && id != "webkit_caches") {
            storeOrder.push_back(id);
        }
    }
    std::vector<Target> store = buildCatalog(DistributionMode::appStore);
    EXPECT_EQ(ids(store), storeOrder);
    EXPECT_EQ(store.size(), 17U);
    for (const Target& t : direct) {
        EXPECT_FALSE(t.requiresPermission) << t.id;
        EXPECT_TRUE(t.enabled && !t.isCustom && t.estimatedBytes == 0) << t.id;
    }
    for (const Target& t : store) {
        EXPECT_TRUE(t.requiresPermission) << t.id;
    }
    EXPECT_EQ(direct.size(), buildCatalog(DistributionMode::direct).size()) << "pure";
}

TEST(Catalog, IdsAreUniqueAndAppsAreGroupsOfTheirTarget) {
    std::set<std::string> pathIds;
    for (const Target& t : buildCatalog(DistributionMode::direct)) {
        std::set<std::string> groups;
        for (const AppGroup& app : t.apps) {
            groups.insert(app.id);
        }
        for (const PathSpec& p : t.paths) {
            ASSERT_TRUE(p.id.has_value()) << t.id << " " << p.pathTemplate;
            EXPECT_TRUE(pathIds.insert(*p.id).second) << "duplicate path id " << *p.id;
            EXPECT_TRUE(p.pathTemplate.starts_with("~/")) << *p.id;
            if (p.app) {
                EXPECT_EQ(groups.count(*p.app), 1U) << *p.id << " names app " << *p.app;
            }
            EXPECT_TRUE(p.enabled && p.exclude.empty()) << *p.id;
        }
    }
    // The Linux locations the machine's own tools use are all there.
    for (const char* id : {"chrome_cache_linux", "firefox_cache2_linux", "vscode_cached_data_linux",
                           "thumbnails_linux", "fontconfig_linux", "flatpak_app_caches_linux",
                           "jetbrains_cache_linux", "pip_cache", "go_build_cache", "npm_cacache",
                           "cargo_registry_cache"}) {
        EXPECT_EQ(pathIds.count(id), 1U) << id;
    }
}

TEST(Catalog, TextsAndTiersOfTheTargetsThatExplainThemselves) {
    std::vector<Target> catalog = buildCatalog(DistributionMode::direct);
    const Target* browsers = findTarget(catalog, "browser_caches");
    ASSERT_NE(browsers, nullptr);
    EXPECT_EQ(browsers->narration,
              "Your browsers' caches — they rebuild automatically as you browse.");
    EXPECT_EQ(browsers->riskTier, RiskTier::rebuildsInstantly);
    EXPECT_EQ(browsers->paths.front().id, "safari_cache");
    const Target* models = findTarget(catalog, "local_llm_models");
    ASSERT_NE(models, nullptr);
    EXPECT_EQ(models->reclaimStrategy, "Remove unused models (ollama rm; LM Studio's My Models)");
    EXPECT_EQ(models->risk, RiskLevel::disruptive);
    const Target* adobe = findTarget(catalog, "adobe_creative_cloud");
    ASSERT_NE(adobe, nullptr);
    EXPECT_EQ(adobe->apps.size(), 5U);
    EXPECT_FALSE(adobe->riskTier.has_value());
    EXPECT_EQ(findTarget(catalog, "no_such_target"), nullptr);
}

// "*/cache2" finds the cache folder in every profile, but never behind a hidden profile name.
TEST(Catalog, ProfilePatternsMatchEveryVisibleProfile) {
    std::string firefox = test::fixtureHome() + "/.cache/mozilla/firefox";
    for (const char* profile : {"abc.default", "xyz.work", ".hidden"}) {
        test::makeDirs(firefox + "/" + profile + "/cache2");
    }
    std::vector<std::string> warnings;
    std::vector<std::string> found;
    for (const ResolvedRoot& root :
         resolveRoots("~/.cache/mozilla/firefox", "*/cache2", warnings)) {
        found.push_back(root.path.substr(firefox.size() + 1));
    }
    EXPECT_EQ(found, (std::vector<std::string>{"abc.default/cache2", "xyz.work/cache2"}));
    EXPECT_TRUE(warnings.empty());
    EXPECT_EQ(test::runShell("rm -rf " + test::shellQuote(test::fixtureHome() + "/.cache/mozilla"))
                  .status,
              0);
}

TEST(InclusionPreferences, OldKeysAreMergedOnceAndRemoved) {
    platform::UserDefaults store(test::freshFolder("prefs") + "/defaults.json");
    store.setString("com.sparrowdeck.clean.scanPrefs",
                    R"({"browser_caches":true,"rust_go":false})");
    store.setString("com.sparrowdeck.deep.scanPrefs",
                    R"({"browser_caches":false,"ide_caches":true})");
    store.setString("com.sparrowdeck.clean.cleanPrefs", "not json");
    store.setString("com.sparrowdeck.cleanSelections", "[]");
    InclusionPreferences prefs = loadInclusionPreferences(store);
    EXPECT_EQ(prefs.scan,
              (std::map<std::string, bool>{
                  {"browser_caches", false}, {"ide_caches", true}, {"rust_go", false}}));
    EXPECT_TRUE(prefs.clean.empty()) << "an undecodable old key is ignored";
    EXPECT_FALSE(store.string(cleanPrefsKey).has_value()) << "nothing to write, nothing written";
    for (const char* key :
         {"com.sparrowdeck.clean.scanPrefs", "com.sparrowdeck.deep.scanPrefs",
          "com.sparrowdeck.clean.cleanPrefs", "com.sparrowdeck.cleanSelections"}) {
        EXPECT_FALSE(store.string(key).has_value()) << key;
    }
    EXPECT_TRUE(InclusionPreferences::includes(prefs.scan, "never_mentioned"));
    EXPECT_FALSE(InclusionPreferences::includes(prefs.scan, "rust_go"));
    // Running again changes nothing: the old keys are gone.
    EXPECT_EQ(loadInclusionPreferences(store).scan, prefs.scan);
}

} // namespace
} // namespace sd
