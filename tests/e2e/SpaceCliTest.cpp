// `sparrowdeck space` as a user runs it: a separate process pointed at the fixture home.
#include "Fixture.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <unistd.h>

namespace sd {
namespace {

struct CliRun {
    int status;
    std::string output;
};

// Where the command keeps its scan history: outside the home these tests compare before and
// after, and one for each account the command runs as.
std::string dataHome(const std::string& prefix) {
    std::string folder = test::fixtureRoot() + (prefix.empty() ? "/cli-data" : "/cli-data-other");
    test::makeDirs(folder);
    ::chmod(folder.c_str(), 01777);
    return folder;
}

CliRun sparrowdeck(const std::string& arguments, const std::string& prefix = {}) {
    test::CommandResult r =
        test::runShell(prefix + "env SPARROWDECK_HOME=" + test::shellQuote(test::fixtureHome()) +
                       " XDG_DATA_HOME=" + test::shellQuote(dataHome(prefix)) +
                       " " SPARROWDECK_CLI " " + arguments + " 2>&1");
    return {r.status, r.output};
}

std::string snapshot(const std::string& path) {
    return test::runShell("find " + test::shellQuote(path) +
                          " -printf '%p %s %T@ %C@ %i %m\\n' | sort")
        .output;
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// A small home: one folder big enough to be drawn, many small files that are not.
std::string makeTree() {
    std::string t = test::freshFolder("space-cli");
    test::makeDirs(t + "/big/inner");
    test::writeFilledFile(t + "/big/inner/blob", 3 * 1024 * 1024);
    test::makeDirs(t + "/small");
    for (int i = 0; i < 30; ++i) {
        test::writeFilledFile(t + "/small/f" + std::to_string(i), 5000);
    }
    test::makeHardlink(t + "/big/inner/blob", t + "/small/blob-again");
    test::makeSymlink("/usr/share", t + "/to-usr-share");
    return t;
}

TEST(SpaceCommand, JsonHoldsTheWholeResultWithFindsTotals) {
    std::string t = makeTree();
    std::string before = snapshot(test::fixtureHome());
    CliRun run = sparrowdeck("space --json " + test::shellQuote(t));
    ASSERT_EQ(run.status, 0) << run.output;
    auto json = nlohmann::json::parse(run.output);
    const auto& tree = json.at("tree");
    const auto& root = tree.at("root");
    EXPECT_EQ(root.at("path"), t);
    EXPECT_EQ(root.at("kind"), "directory");
    EXPECT_EQ(root.at("bytes").get<std::uint64_t>(), test::peerAllocatedBytes(t));
    EXPECT_EQ(root.at("fileCount"), 32);
    EXPECT_EQ(tree.at("isTruncated"), false);
    EXPECT_TRUE(tree.at("warnings").empty());
    EXPECT_EQ(tree.at("scannedNodeCount"), 36);
    const auto& big = root.at("children").at(0);
    EXPECT_EQ(big.at("name"), "big");
    EXPECT_EQ(big.at("children").at(0).at("path"), t + "/big/inner");
    for (const char* key :
         {"latestChange", "otherBytes", "otherCount", "isCollapsed", "isComplete", "fileCount"}) {
        EXPECT_TRUE(big.contains(key)) << key;
    }
    const auto& open = json.at("openScan");
    EXPECT_EQ(open.at("totalPhysicalBytes"), root.at("bytes"));
    EXPECT_EQ(open.at("cloneSharedBytes"), 0);
    EXPECT_EQ(open.at("scannedNodeCount"), 36);
    EXPECT_TRUE(open.at("topFindings").is_array());
    EXPECT_TRUE(open.contains("durationMs"));
    EXPECT_FALSE(json.contains("rootError"));

    // Without a path it scans the home.
    CliRun home = sparrowdeck("space --json");
    ASSERT_EQ(home.status, 0) << home.output;
    EXPECT_EQ(nlohmann::json::parse(home.output)["tree"]["root"]["path"], test::fixtureHome());
    EXPECT_EQ(snapshot(test::fixtureHome()), before) << "the scan changed nothing";
}

TEST(SpaceCommand, PrintsAnIndentedTreeWithBarsOtherSharesAndTheStatusLine) {
    std::string t = makeTree();
    CliRun run = sparrowdeck("space " + test::shellQuote(t));
    ASSERT_EQ(run.status, 0) << run.output;
    EXPECT_TRUE(contains(run.output, t + " — ")) << run.output;
    EXPECT_TRUE(contains(run.output, " in 32 files. Measured whole — the map stops six levels "
                                     "down.\n"))
        << run.output;
    EXPECT_TRUE(contains(run.output, "█")) << run.output;
    EXPECT_TRUE(contains(run.output, "  big/\n")) << run.output;
    EXPECT_TRUE(contains(run.output, "    inner/")) << "a child is indented below its parent";
    EXPECT_TRUE(contains(run.output, ", each too small to draw on its own.")) << run.output;
    EXPECT_TRUE(contains(run.output, "36 items scanned")) << run.output;

    CliRun shallow = sparrowdeck("space --depth 1 " + test::shellQuote(t));
    EXPECT_TRUE(contains(shallow.output, "the map stops one level down.")) << shallow.output;
    EXPECT_FALSE(contains(shallow.output, "inner/")) << shallow.output;

    CliRun stopped = sparrowdeck("space --budget 0 " + test::shellQuote(t));
    EXPECT_EQ(stopped.status, 0);
    EXPECT_TRUE(contains(stopped.output,
                         "Stopped at the 0-second limit — the map shows what was measured."))
        << stopped.output;
    EXPECT_TRUE(
        contains(stopped.output,
                 "! Scan stopped at the time limit — showing the biggest items found so far."))
        << stopped.output;
}

TEST(SpaceCommand, RefusesWhatItMayNotReadAndSaysNothingWasMeasured) {
    std::string t = test::freshFolder("space-refuse");
    test::makeDirs(t + "/real");
    test::makeSymlink(t + "/real", t + "/link");
    std::string before = snapshot(test::fixtureHome());
    struct Case {
        std::string argument;
        std::string sentence;
    };
    const std::vector<Case> cases{
        {"/etc", "Cannot read /etc: Protected or out-of-home path: /etc"},
        {"relative/path",
         "Cannot read relative/path: An absolute path without NUL bytes is required"},
        {test::shellQuote(t + "/missing"), "Cannot read " + t + "/missing: Opening directory " + t +
                                               "/missing: No such file or directory"},
        {test::shellQuote(t + "/link"),
         "Cannot read " + t + "/link: Symlinks are not allowed: " + t + "/link"},
    };
    for (const Case& c : cases) {
        CliRun run = sparrowdeck("space " + c.argument);
        EXPECT_EQ(run.status, 1) << c.argument;
        EXPECT_TRUE(contains(run.output, c.sentence)) << run.output;
        EXPECT_TRUE(contains(run.output, "Nothing was measured.")) << run.output;
    }
    CliRun json = sparrowdeck("space --json /etc");
    EXPECT_EQ(json.status, 1);
    EXPECT_EQ(nlohmann::json::parse(json.output)["rootError"]["kind"], "safetyViolation");

    for (const char* usage : {"space --depth 0", "space --depth 257", "space --depth many",
                              "space --budget -1", "space /a /b"}) {
        EXPECT_EQ(sparrowdeck(usage).status, 2) << usage;
    }
    EXPECT_EQ(snapshot(test::fixtureHome()), before);
}

TEST(SpaceCommand, FolderItCannotReadIsCountedAsFarAsReadAndNamed) {
    if (::geteuid() != 0 || !test::haveTool("setpriv")) {
        GTEST_SKIP() << "Needs root and setpriv to run the command as an account that cannot "
                        "read a folder (root reads everything).";
    }
    std::string t = test::freshFolder("space-locked");
    test::makeDirs(t + "/open");
    test::writeFilledFile(t + "/open/file", 20000);
    test::makeDirs(t + "/locked/inside");
    test::writeFilledFile(t + "/locked/inside/file", 20000);
    ASSERT_EQ(::chmod((t + "/locked").c_str(), 0700), 0);
    // The fixture root is private to this process; let the other account through to the home.
    struct stat rootMode {};
    ASSERT_EQ(::stat(test::fixtureRoot().c_str(), &rootMode), 0);
    ASSERT_EQ(::chmod(test::fixtureRoot().c_str(), 0711), 0);
    struct Restore {
        std::string path;
        mode_t mode;
        ~Restore() { ::chmod(path.c_str(), mode); }
    } restore{test::fixtureRoot(), rootMode.st_mode & 07777};
    std::string before = snapshot(t);

    CliRun run = sparrowdeck("space --json " + test::shellQuote(t),
                             "setpriv --reuid=65534 --regid=65534 --clear-groups ");
    ASSERT_EQ(run.status, 0) << run.output;
    auto json = nlohmann::json::parse(run.output);
    EXPECT_EQ(json["tree"]["warnings"],
              nlohmann::json::array({"Opening directory " + t +
                                     "/locked: Permission denied — counted what could be read."}));
    EXPECT_EQ(json["tree"]["root"]["isComplete"], false);
    EXPECT_EQ(json["tree"]["root"]["bytes"].get<std::uint64_t>(),
              test::peerAllocatedBytes(t + "/open"));
    EXPECT_EQ(snapshot(t), before);
}

} // namespace
} // namespace sd
