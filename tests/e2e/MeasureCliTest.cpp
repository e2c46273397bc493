// The command line as a user runs it: a separate process pointed at the fixture home.
#include "Fixture.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace sd {
namespace {

struct CliRun {
    int status;
    std::string output;
};

CliRun sparrowdeck(const std::string& arguments) {
    test::CommandResult r =
        test::runShell("SPARROWDECK_HOME=" + test::shellQuote(test::fixtureHome()) +
                       " " SPARROWDECK_CLI " " + arguments + " 2>&1");
    return {r.status, r.output};
}

// A listing of names, sizes and times under `path`, to prove a command changed nothing.
std::string snapshot(const std::string& path) {
    return test::runShell("find " + test::shellQuote(path) +
                          " -printf '%p %s %T@ %C@ %i\\n' | sort")
        .output;
}

TEST(MeasureCommand, ReportsWhatFindReportsAsJson) {
    std::string t = test::freshFolder("cli");
    test::makeDirs(t + "/a b/c");
    test::writeFilledFile(t + "/a b/c/file", 70000);
    test::writeFilledFile(t + "/top", 5000);
    test::makeHardlink(t + "/top", t + "/a b/top-again");
    test::writeFile(t + "/glob[1]*", "literal name with pattern characters");

    CliRun run = sparrowdeck("measure --json " + test::shellQuote(t) + " " +
                             test::shellQuote(t + "/glob[1]*"));
    ASSERT_EQ(run.status, 0) << run.output;
    auto json = nlohmann::json::parse(run.output);
    const auto& items = json.at("measurements");
    ASSERT_EQ(items.size(), 2U);
    EXPECT_EQ(items[0].at("path"), t);
    EXPECT_EQ(items[0].at("allocatedBytes").get<std::uint64_t>(), test::peerAllocatedBytes(t));
    EXPECT_EQ(items[0].at("freeableBytes"), items[0].at("allocatedBytes"));
    EXPECT_EQ(items[0].at("fileCount"), 4);
    EXPECT_EQ(items[0].at("directoryCount"), 3);
    EXPECT_TRUE(items[0].at("warnings").empty());
    EXPECT_EQ(items[1].at("fileCount"), 1) << "a name with pattern characters is taken literally";
}

TEST(MeasureCommand, RefusesPathsOutsideTheHomeAndTouchesNothing) {
    std::string t = test::freshFolder("cli-refuse");
    test::writeFilledFile(t + "/f", 1000);
    std::string before = snapshot(test::fixtureHome());

    struct Case {
        std::string argument;
        std::string sentence;
    };
    const std::vector<Case> cases{
        {"/etc", "Skipped path outside the user home and owned mock roots: /etc"},
        {"relative/path", "An absolute path without NUL bytes is required"},
        {test::shellQuote(t + "/../.."), "Relative path components are forbidden: " + t + "/../.."},
        {test::shellQuote(t + "/missing"),
         "Nothing to measure at " + t + "/missing: it does not exist."},
    };
    for (const Case& c : cases) {
        CliRun run = sparrowdeck("measure " + c.argument);
        EXPECT_EQ(run.status, 1) << c.argument;
        EXPECT_NE(run.output.find(c.sentence), std::string::npos) << run.output;
        EXPECT_NE(run.output.find("Nothing was measured."), std::string::npos) << run.output;
    }
    CliRun mixed = sparrowdeck("measure --json /etc " + test::shellQuote(t));
    EXPECT_EQ(mixed.status, 1) << "one refusal fails the run";
    auto json = nlohmann::json::parse(mixed.output);
    EXPECT_EQ(json["measurements"][0]["error"]["kind"], "invalidPath");
    EXPECT_EQ(json["measurements"][1]["allocatedBytes"].get<std::uint64_t>(),
              test::peerAllocatedBytes(t));
    EXPECT_EQ(snapshot(test::fixtureHome()), before);
}

TEST(MeasureCommand, UsageErrorsAndVersion) {
    CliRun version = sparrowdeck("--version");
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.output.rfind("sparrowdeck ", 0), 0U) << version.output;
    EXPECT_EQ(sparrowdeck("").status, 2);
    EXPECT_EQ(sparrowdeck("measure").status, 2);
    EXPECT_EQ(sparrowdeck("no-such-command").status, 2);
}

} // namespace
} // namespace sd
