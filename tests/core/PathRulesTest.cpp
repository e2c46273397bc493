#include "core/PathRules.h"

#include "Fixture.h"
#include "base/CleanerError.h"
#include "core/MockRoots.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <optional>
#include <unistd.h>

namespace sd {
namespace {

using Kind = CleanerError::Kind;
using test::fixtureHome;

struct Refusal {
    Kind kind;
    std::string message;
};

// Runs `call` and returns what it threw, if anything.
template <typename Call> std::optional<Refusal> refusalOf(Call&& call) {
    try {
        call();
    } catch (const CleanerError& e) {
        return Refusal{e.kind(), e.what()};
    }
    return std::nullopt;
}

TEST(PathRules, NormalizeAcceptsAbsolutePathsAndRefusesRelativeOnes) {
    struct Case {
        std::string input;
        std::string expected; // empty when refused
        Kind kind = Kind::ioError;
        std::string message;
    };
    const std::vector<Case> cases{
        {"/", "/", {}, {}},
        {"/a/b", "/a/b", {}, {}},
        {"//a///b//", "/a/b", {}, {}},
        {"/a/.hidden/b", "/a/.hidden/b", {}, {}},
        {"/a/...", "/a/...", {}, {}},
        {"", "", Kind::invalidPath, "An absolute path without NUL bytes is required"},
        {"a/b", "", Kind::invalidPath, "An absolute path without NUL bytes is required"},
        {"~/x", "", Kind::invalidPath, "An absolute path without NUL bytes is required"},
        {std::string("/a\0b", 4), "", Kind::invalidPath,
         "An absolute path without NUL bytes is required"},
        {"/a/../b", "", Kind::safetyViolation, "Relative path components are forbidden: /a/../b"},
        {"/a/./b", "", Kind::safetyViolation, "Relative path components are forbidden: /a/./b"},
        {"/a/..", "", Kind::safetyViolation, "Relative path components are forbidden: /a/.."},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.input);
        if (c.expected.empty()) {
            auto refusal = refusalOf([&] { normalizePath(c.input); });
            ASSERT_TRUE(refusal.has_value());
            EXPECT_EQ(refusal->kind, c.kind);
            EXPECT_EQ(refusal->message, c.message);
        } else {
            EXPECT_EQ(normalizePath(c.input), c.expected);
        }
    }
}

TEST(PathRules, IsInsideComparesWholeComponents) {
    struct Case {
        const char* path;
        const char* root;
        bool inside;
    };
    const Case cases[]{
        {"/Users/a/Library", "/Users/a/Library", true},
        {"/Users/a/Library/Caches", "/Users/a/Library", true},
        {"/Users/a/Library", "/Users/a/Lib", false},
        {"/Users/a/Libraryx/y", "/Users/a/Library", false},
        {"/Users/a", "/Users/a/Library", false},
        {"/anything", "/", true},
        {"/x", "", false},
        {"/a/b", "/a/", true},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(isInside(c.path, c.root), c.inside) << c.path << " in " << c.root;
    }
}

// The folding must agree with what Python's unicodedata does, the reference everyone else's
// tools follow, including the cases where simple per-letter lower-casing differs.
TEST(PathRules, FoldingAgreesWithPythonUnicodedata) {
    if (!test::haveTool("python3")) {
        GTEST_SKIP() << "python3 is not installed, so there is no reference to compare with";
    }
    const std::vector<std::string> names{
        "Documents",
        "Cafe\xCC\x81", // "Café" with a combining acute accent
        "CAF\xC3\x89",  // "CAFÉ" precomposed
        "A\xCC\x8A"
        "ngstr\xC3\xB6m", // "Ångström", decomposed A-ring
        "Stra\xC3\x9F"
        "e", // "Straße"
        "STRA\xE1\xBA\x9E"
        "E",                                                 // capital sharp s
        "\xCE\x9F\xCE\x94\xCE\x9F\xCE\xA3",                  // "ΟΔΟΣ": final sigma
        "\xCE\x9F\xCE\x94\xCE\x9F\xCE\xA3/\xCE\xA3\xCE\x91", // sigma before a slash, then initial
        "\xCE\xA3",                                          // a lone capital sigma
        "\xC4\xB0stanbul",                                   // "İstanbul": dotted capital I
        "\xE1\xBE\x88", // Greek capital alpha with psili and prosgegrammeni
        "ﬁle",          // a ligature stays a ligature
        "日本語のフォルダ",
        "MiXeD Case.TXT",
    };
    std::string input = test::freshFolder("fold") + "/names.json";
    std::ofstream(input) << nlohmann::json(names).dump();
    test::CommandResult r = test::runShell(
        "python3 -c 'import json,sys,unicodedata; print(json.dumps([unicodedata.normalize(\"NFC\", "
        "s).lower() for s in json.load(open(sys.argv[1]))]))' " +
        test::shellQuote(input));
    ASSERT_EQ(r.status, 0);
    auto expected = nlohmann::json::parse(r.output).get<std::vector<std::string>>();
    ASSERT_EQ(expected.size(), names.size());
    for (size_t i = 0; i < names.size(); ++i) {
        EXPECT_EQ(foldPath(names[i]), expected[i]) << "for " << names[i];
    }
}

TEST(PathRules, ProtectedLocationsMatchFoldedAndWholeComponents) {
    const std::string& home = fixtureHome();
    struct Case {
        std::string relative;
        bool isProtected;
    };
    const std::vector<Case> cases{
        {"Documents", true},
        {"Documents/report.pdf", true},
        {"DOCUMENTS/Report.pdf", true},
        {"documents", true},
        {"Documents2", false},
        {"Documentsx/a", false},
        {".ssh/id_ed25519", true},
        {".config/git/config", true},
        {".config/gitx", false},
        {".gradle/gradle.properties", true},
        {".gradle/caches", false},
        {"Library/Keychains/login.keychain-db", true},
        {"Library/Safari/History.db", true},
        {"Library/Safari/Other.db", false},
        {"Library/Containers/com.docker.docker/Data", true},
        {".local/share/Trash/files/x", true},
        {".local/share/keyrings", true},
        {".password-store", true},
        {".cache/pip", false},
        {"Projects", false},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(isProtected(home + "/" + c.relative), c.isProtected) << c.relative;
    }
    // Protection is about the home's own folders, not any folder of the same name elsewhere.
    EXPECT_FALSE(isProtected("/srv/Documents"));
}

TEST(PathRules, ValidateOperablePathNamesTheFirstRuleBroken) {
    const std::string& home = fixtureHome();
    std::string work = test::freshFolder("operable");
    test::makeDirs(work + "/real/inner");
    test::makeSymlink(work + "/real", work + "/link");
    test::makeSymlink(work + "/real/inner", work + "/real/last-link");

    struct Case {
        std::string path;
        std::optional<Refusal> refusal;
    };
    const std::vector<Case> cases{
        {"relative/path",
         Refusal{Kind::invalidPath, "An absolute path without NUL bytes is required"}},
        {home + "/../etc", Refusal{Kind::safetyViolation,
                                   "Relative path components are forbidden: " + home + "/../etc"}},
        {home, Refusal{Kind::safetyViolation, "Protected or out-of-home path: " + home}},
        {home + "/", Refusal{Kind::safetyViolation, "Protected or out-of-home path: " + home}},
        {"/etc/passwd",
         Refusal{Kind::safetyViolation, "Protected or out-of-home path: /etc/passwd"}},
        {home + "/Documents/a",
         Refusal{Kind::safetyViolation, "Protected or out-of-home path: " + home + "/Documents/a"}},
        {home + "/Library", Refusal{Kind::safetyViolation, "Cannot operate on the Library root"}},
        {home + "/LIBRARY", Refusal{Kind::safetyViolation, "Cannot operate on the Library root"}},
        {work + "/link/inner",
         Refusal{Kind::safetyViolation,
                 "Opening ancestor of " + work + "/link/inner: " + std::strerror(ELOOP)}},
        {work + "/real/last-link",
         Refusal{Kind::safetyViolation, "Symlinks are not allowed: " + work + "/real/last-link"}},
        {work + "/real/inner", std::nullopt},
        {work + "/not-there-yet", std::nullopt},
        {home + "/Library/Caches", std::nullopt},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.path);
        auto refusal =
            refusalOf([&] { EXPECT_EQ(validateOperablePath(c.path), normalizePath(c.path)); });
        ASSERT_EQ(refusal.has_value(), c.refusal.has_value()) << (refusal ? refusal->message : "");
        if (refusal) {
            EXPECT_EQ(refusal->kind, c.refusal->kind);
            EXPECT_EQ(refusal->message, c.refusal->message);
        }
    }
}

TEST(PathRules, OwnedFixtureRootsAreOperableOnlyWhileOwned) {
    std::string outside;
    {
        ScopedMockRoot root;
        outside = root.path();
        EXPECT_TRUE(outside.find("/SparrowdeckMock-") != std::string::npos);
        test::makeDirs(root.path() + "/a/b");
        test::makeSymlink(root.path() + "/a", root.path() + "/via");
        EXPECT_EQ(validateOperablePath(root.path() + "/a/b"), root.path() + "/a/b");
        EXPECT_TRUE(MockRoots::owns(root.path() + "/a"));
        auto refusal = refusalOf([&] { validateOperablePath(root.path() + "/via"); });
        ASSERT_TRUE(refusal);
        EXPECT_EQ(refusal->message, "Symlinks are not allowed: " + root.path() + "/via");
    }
    // Torn down: the folder is gone and no longer counts as owned.
    EXPECT_FALSE(MockRoots::owns(outside + "/a"));
    EXPECT_NE(::access(outside.c_str(), F_OK), 0);
    auto refusal = refusalOf([&] { validateOperablePath(outside + "/a"); });
    ASSERT_TRUE(refusal);
    EXPECT_EQ(refusal->message, "Protected or out-of-home path: " + outside + "/a");
}

TEST(PathRules, AppDataPathsMustLieStrictlyInsideAPermittedLocation) {
    const std::string& home = fixtureHome();
    struct Case {
        std::string relative;
        bool accepted;
    };
    const std::vector<Case> cases{
        {"Library/Caches/com.example.App", true},
        {"Library/Application Support/Example", true},
        {"Library/Preferences/ByHost/com.example.plist", true},
        {"library/caches/com.example.App", true},
        {".config/example", true},
        {".var/app/org.example.App", true},
        {"Library/Caches", false},
        {"Library/Preferences/ByHost", false},
        {".config", false},
        {".local/share", false},
        {"Library/Other/thing", false},
        {"Projects/app", false},
    };
    for (const Case& c : cases) {
        std::string path = home + "/" + c.relative;
        auto refusal = refusalOf([&] { validateAppDataPath(path); });
        EXPECT_EQ(!refusal.has_value(), c.accepted) << c.relative;
        if (refusal && !c.accepted) {
            EXPECT_EQ(refusal->message,
                      "Not a specific app path under a permitted Library location: " + path);
        }
    }
    // A protected location fails the earlier rule, with its own sentence.
    auto refusal = refusalOf([&] { validateAppDataPath(home + "/.config/git/config"); });
    ASSERT_TRUE(refusal);
    EXPECT_EQ(refusal->message, "Protected or out-of-home path: " + home + "/.config/git/config");
}

TEST(PathRules, CachePathsAreRecognisedByNameFragmentOrContainer) {
    const std::string& home = fixtureHome();
    struct Case {
        std::string relative;
        bool recognized;
    };
    const std::vector<Case> cases{
        {"project/.cache", true},
        {"project/Cache/x", true},
        {"x/Code Cache", true},
        {"x/MEDIA CACHE FILES/y", true},
        {"node/_cacache", true},
        {"Library/Developer/Xcode/DerivedData/App-abc", true},
        {"work/Build/Products/Debug", true},
        {"work/build/products", true},
        {"work/Build", false},
        {"work/Products/Build", false},
        {".cargo/registry/src/index", true},
        {".cargo/registry/cache", true}, // by the component name "cache"
        {".cargo/registry", false},
        {"Library/Group Containers/6N38VWS5BX.ru.keepcoder.Telegram/logs", true},
        {"Library/Group Containers/6N38VWS5BX.ru.keepcoder.Telegram/Wallpapers/a", true},
        {"Library/Group Containers/6N38VWS5BX.ru.keepcoder.Telegram/account", false},
        {"Library/Group Containers/other.app/logs", false},
        {"Projects/notes", false},
    };
    for (const Case& c : cases) {
        std::string path = home + "/" + c.relative;
        auto refusal = refusalOf([&] { validateCachePath(path); });
        EXPECT_EQ(!refusal.has_value(), c.recognized) << c.relative;
        if (refusal && !c.recognized) {
            EXPECT_EQ(refusal->message, "Path is not a recognized cache: " + path);
        }
    }
    // Inside an owned fixture root the scope is taken below the root.
    ScopedMockRoot root;
    EXPECT_EQ(validateCachePath(root.path() + "/tool/tmp"), root.path() + "/tool/tmp");
    EXPECT_TRUE(refusalOf([&] { validateCachePath(root.path() + "/tool/data"); }));
}

TEST(PathRules, NameTestsAreExactOrCaseInsensitiveAsDocumented) {
    struct Case {
        const char* name;
        bool sensitive;
        bool cacheName;
    };
    const Case cases[]{
        {"keychain", true, false}, {"Keychain", false, false}, {".env", true, false},
        {".envrc", false, false},  {"secrets", true, false},   {"Caches", false, true},
        {"CACHE", false, true},    {".cache", false, true},    {"DerivedData", false, true},
        {"cache2", false, false},  {"tmp", false, false},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(isSensitiveName(c.name), c.sensitive) << c.name;
        EXPECT_EQ(isCacheName(c.name), c.cacheName) << c.name;
    }
}

} // namespace
} // namespace sd
