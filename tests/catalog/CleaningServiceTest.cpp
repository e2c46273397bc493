#include "catalog/CleaningService.h"

#include "Fixture.h"
#include "base/CleanerError.h"
#include "base/TestHooks.h"
#include "core/PathRules.h"

#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>

namespace sd {
namespace {

PathSpec spec(std::string id, std::string pathTemplate,
              std::optional<std::string> pattern = std::nullopt) {
    PathSpec p;
    p.id = std::move(id);
    p.pathTemplate = std::move(pathTemplate);
    p.pattern = std::move(pattern);
    return p;
}

Target customTarget(std::string id, std::vector<PathSpec> paths) {
    Target t;
    t.id = std::move(id);
    t.title = t.id;
    t.paths = std::move(paths);
    return t;
}

std::shared_ptr<const VaultPolicy> policy() {
    return std::make_shared<const VaultPolicy>(
        homeDirectory(), VCSIgnoreCheck{[](const std::string&, const std::string&) {
            return false;
        }});
}

// "~/<folder relative to home>"
std::string tilde(const std::string& absolute) {
    return "~" + absolute.substr(homeDirectory().size());
}

std::vector<std::string> messages(const std::vector<CleanError>& errors) {
    std::vector<std::string> out;
    for (const CleanError& e : errors) {
        out.push_back(e.message);
    }
    return out;
}

TEST(DisabledPaths, PatternsMustStayBelowTheirTemplate) {
    struct Case {
        std::optional<std::string> pattern;
        bool valid;
    };
    const Case cases[]{{std::nullopt, true}, {"*/cache2", true}, {"a/b", true},  {"", false},
                       {"/abs", false},      {"a/../b", false},  {"./a", false}, {"..", false}};
    for (const Case& c : cases) {
        PathSpec p = spec("x", "~/.cache/tool", c.pattern);
        try {
            std::string resolved = resolveDisabledPath(p);
            EXPECT_TRUE(c.valid) << c.pattern.value_or("(none)");
            EXPECT_TRUE(resolved.starts_with(homeDirectory() + "/.cache/tool"));
        } catch (const CleanerError& error) {
            EXPECT_FALSE(c.valid) << c.pattern.value_or("(none)");
            EXPECT_EQ(error.kind(), CleanerError::Kind::invalidPath);
            EXPECT_STREQ(error.what(), "Invalid disabled relative pattern");
        }
    }
}

TEST(CleanPlanning, SwitchedOffPathsStayWhileTheirSiblingsMove) {
    std::string base = test::freshFolder("siblings");
    for (const char* f : {"cache/a/1", "cache/a/2", "cache/keep/k", "cache/b", "other/x"}) {
        std::string path = base + "/" + f;
        test::makeDirs(path.substr(0, path.rfind('/')));
        test::writeFilledFile(path, 4096);
    }
    Target t = customTarget("tool", {spec("tool_cache", tilde(base + "/cache")),
                                     spec("tool_keep", tilde(base + "/cache/keep")),
                                     spec("tool_bad", tilde(base + "/other"), "../escape")});
    CleaningService service(policy());
    std::vector<CleanError> errors;
    auto candidates = service.buildCandidates({t}, {{"tool_keep", false}}, errors);
    ASSERT_EQ(candidates.size(), 1U);
    EXPECT_EQ(messages(errors),
              std::vector<std::string>{"Rejected invalid relative glob: ../escape"});
    EXPECT_EQ(candidates[0].excludes, std::vector<std::string>{"keep"});
    CleanPlan plan = service.plan({candidates[0]});
    std::vector<std::string> urls;
    for (const CleanPath& p : plan.paths) {
        urls.push_back(p.url.substr(base.size() + 1));
        EXPECT_EQ(p.targetID, "tool");
    }
    EXPECT_THAT(urls, ::testing::UnorderedElementsAre("cache/a", "cache/b"));
    EXPECT_EQ(plan.plannedFreeableBytes, test::peerAllocatedBytes(base + "/cache/a") +
                                             test::peerAllocatedBytes(base + "/cache/b"));

    ReclaimJournal journal(std::nullopt);
    CleanResult result =
        service.clean(plan, {&journal, "Cleanup", JournalKind::caches, std::nullopt, {}});
    EXPECT_EQ(result.filesRemoved, 2U);
    EXPECT_EQ(::access((base + "/cache/keep/k").c_str(), F_OK), 0);
    EXPECT_NE(::access((base + "/cache/a").c_str(), F_OK), 0);
    ASSERT_EQ(journal.entries().size(), 1U);
    EXPECT_EQ(journal.entries()[0].kind, JournalKind::caches);
    EXPECT_EQ(journal.entries()[0].targetBytes->at("tool"), result.bytesRemoved);

    // A switched-off path whose pattern cannot be resolved keeps everything related in place.
    std::vector<CleanError> badErrors;
    Target other = customTarget("other", {spec("other_all", tilde(base + "/other")),
                                          spec("other_bad", tilde(base + "/other"), "../escape")});
    EXPECT_TRUE(service.buildCandidates({other}, {{"other_bad", false}}, badErrors).empty());
    EXPECT_EQ(messages(badErrors),
              (std::vector<std::string>{
                  "Could not preserve disabled selection: Invalid disabled relative pattern",
                  "Skipped because a related disabled selection could not be resolved"}));
}

TEST(CleanPlanning, OverlapsWithDifferentExclusionsAreBothSkipped) {
    std::string base = test::freshFolder("overlap");
    test::makeDirs(base + "/outer/inner/x");
    Target a = customTarget("a", {spec("a_outer", tilde(base + "/outer")),
                                  spec("a_x", tilde(base + "/outer/inner/x"))});
    Target b = customTarget("b", {spec("b_inner", tilde(base + "/outer/inner"))});
    CleaningService service(policy());
    std::vector<CleanError> errors;
    auto candidates = service.buildCandidates({a, b}, {{"a_x", false}}, errors);
    EXPECT_TRUE(candidates.empty());
    EXPECT_EQ(messages(errors),
              std::vector<std::string>(
                  2, "Skipped overlapping cache selections with incompatible exclusions"));

    // Agreeing overlaps are kept once, as the outer location.
    std::vector<CleanError> none;
    auto agreed = service.buildCandidates({a, b}, {}, none);
    ASSERT_EQ(agreed.size(), 1U);
    EXPECT_EQ(agreed[0].path, base + "/outer");
    EXPECT_TRUE(none.empty());
}

TEST(CleanPlanning, SplitsStopAtTheirCapsAndKeepTheFolderWhole) {
    std::string base = test::freshFolder("caps");
    auto fill = [](const std::string& dir, int count) {
        test::makeDirs(dir);
        for (int i = 0; i < count; ++i) {
            test::writeFile(dir + "/f" + std::to_string(i), "");
        }
    };
    fill(base + "/root2000", 2000);
    fill(base + "/root2001", 2001);
    fill(base + "/excl500", 500);
    test::makeDirs(base + "/excl500/kept");
    fill(base + "/excl501", 501);
    test::makeDirs(base + "/excl501/kept");
    CleaningService service(policy());
    CleanPlan plan = service.plan({{base + "/root2000", {}, true, "t"},
                                   {base + "/root2001", {}, true, "t"},
                                   {base + "/excl500", {"kept"}, false, "t"},
                                   {base + "/excl501", {"kept"}, false, "t"}});
    EXPECT_EQ(plan.paths.size(), 2000U + 500U);
    ASSERT_EQ(plan.errors.size(), 2U);
    EXPECT_EQ(plan.errors[0].path, base + "/root2001");
    EXPECT_EQ(plan.errors[0].message,
              "Kept in place: it would split into more than 2000 separate Trash items");
    EXPECT_EQ(plan.errors[1].path, base + "/excl501");
    EXPECT_EQ(plan.errors[1].message,
              "Kept in place: it would split into more than 500 separate Trash items");
}

TEST(CleanPlanning, ProtectedAndExcludedLocationsAreNeverPlanned) {
    std::string base = test::freshFolder("refused");
    test::makeDirs(base + "/cache/inner");
    test::makeDirs(test::fixtureHome() + "/Documents/cache");
    CleaningService service(policy());
    CleanPlan plan = service.plan({{test::fixtureHome() + "/Documents/cache", {}, false, "t"},
                                   {base + "/cache", {""}, false, "t"},
                                   {base + "/missing", {}, false, "t"}});
    EXPECT_TRUE(plan.paths.empty());
    EXPECT_TRUE(plan.errors.empty()) << "refused locations are skipped silently";
}

TEST(CleanScanning, ASupersededScanIsDropped) {
    if (!testhooks::enabled) {
        GTEST_SKIP() << "built without SPARROWDECK_TEST_HOOKS, so the race cannot be staged";
    }
    std::string base = test::freshFolder("superseded");
    test::makeDirs(base + "/c");
    test::makeDirs(base + "/d");
    test::writeFilledFile(base + "/c/f", 10000);
    test::writeFilledFile(base + "/d/f", 20000);
    Target t =
        customTarget("t", {spec("t_c", tilde(base + "/c")), spec("t_d", tilde(base + "/d"))});
    CleaningService service(policy());
    std::future<std::optional<ScanResult>> newer;
    bool launched = false;
    // The older scan has measured; a newer one is asked for before it hands its result over.
    testhooks::setBeforeScanResult([&] {
        if (!launched) {
            launched = true;
            newer = std::async(std::launch::async, [&] { return service.scan({t}, {}); });
            while (service.scansRequested() < 2) {
                std::this_thread::yield(); // the newer scan registers, then waits for the lock
            }
        }
    });
    std::optional<ScanResult> older = service.scan({t}, {});
    testhooks::setBeforeScanResult({});
    EXPECT_FALSE(older.has_value());
    std::optional<ScanResult> latest = newer.get();
    ASSERT_TRUE(latest.has_value());
    EXPECT_EQ(latest->perPathBytes.size(), 2U);
    EXPECT_EQ(latest->totalBytes, test::peerAllocatedBytes(base));
}

} // namespace
} // namespace sd
