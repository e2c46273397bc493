// `sparrowdeck duplicates` and `sparrowdeck large-old` as a user runs them: a separate process
// pointed at a fixture home.
#include "Fixture.h"
#include "platform/Words.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>

namespace sd {
namespace {

constexpr std::uint64_t mib = 1'048'576;

struct CliRun {
    int status;
    std::string output; // standard output only
    std::string errors;
};

CliRun sparrowdeck(const std::string& home, const std::string& arguments) {
    std::string errors = test::freshFolder("cli-stderr") + "/stderr";
    test::CommandResult r =
        test::runShell("SPARROWDECK_HOME=" + test::shellQuote(home) + " " SPARROWDECK_CLI " " +
                       arguments + " 2>" + test::shellQuote(errors));
    test::CommandResult e = test::runShell("cat " + test::shellQuote(errors));
    return {r.status, r.output, e.output};
}

std::string snapshot(const std::string& path) {
    return test::runShell("find " + test::shellQuote(path) +
                          " -printf '%p %s %T@ %C@ %i\\n' | sort")
        .output;
}

TEST(DuplicatesCommand, ReportsGroupsAsJsonAndForPeople) {
    const std::string home = test::freshFolder("cli-dups");
    const std::string copy(2 * mib, 'c');
    test::makeDirs(home + "/Documents");
    test::makeDirs(home + "/stuff");
    test::writeFile(home + "/stuff/copy.bin", copy);
    test::writeFile(home + "/Documents/copy.bin", copy);
    test::makeHardlink(home + "/stuff/copy.bin", home + "/stuff/copy-link.bin");
    test::writeFile(home + "/stuff/other copy.bin", copy);
    const std::string before = snapshot(home);

    CliRun run = sparrowdeck(home, "duplicates --json");
    ASSERT_EQ(run.status, 0) << run.errors;
    EXPECT_EQ(run.errors, "") << "no progress when standard error is not a terminal";
    auto report = nlohmann::json::parse(run.output);
    EXPECT_EQ(report.at("scope").at("root"), home);
    EXPECT_EQ(report.at("hardLinksIgnored"), 1);
    ASSERT_EQ(report.at("groups").size(), 1U);
    const auto& group = report.at("groups")[0];
    EXPECT_EQ(group.at("suggestedKeep"), home + "/Documents/copy.bin");
    EXPECT_EQ(group.at("size"), 2 * mib);
    std::map<std::string, bool> removable;
    for (const auto& file : group.at("files")) {
        removable[file.at("path")] = file.at("removable");
    }
    // The two names of one file are one copy, listed under the name that sorts first.
    EXPECT_EQ(removable, (std::map<std::string, bool>{{home + "/Documents/copy.bin", false},
                                                      {home + "/stuff/copy-link.bin", false},
                                                      {home + "/stuff/other copy.bin", true}}));
    struct stat st {};
    ASSERT_EQ(::lstat((home + "/stuff/other copy.bin").c_str(), &st), 0);
    EXPECT_EQ(group.at("reclaimableBytes"), static_cast<std::uint64_t>(st.st_blocks) * 512);

    CliRun human = sparrowdeck(home, "duplicates");
    ASSERT_EQ(human.status, 0);
    for (const std::string& line : std::vector<std::string>{
             std::string(platform::duplicatesScopeText()),
             "  keep " + home + "/Documents/copy.bin  — The last copy in a group always stays",
             "       " + home +
                 "/stuff/copy-link.bin  — Shares its space with another name, so "
                 "removing it alone frees nothing",
             "         same storage: " + home + "/stuff/copy.bin",
             "       " + home + "/stuff/other copy.bin\n"}) {
        EXPECT_NE(human.output.find(line), std::string::npos) << line << "\n" << human.output;
    }

    CliRun folder = sparrowdeck(home, "duplicates --json " + test::shellQuote(home + "/stuff"));
    ASSERT_EQ(folder.status, 0);
    EXPECT_EQ(nlohmann::json::parse(folder.output).at("scope").at("root"), home + "/stuff");
    EXPECT_EQ(snapshot(home), before) << "a search moves nothing";

    CliRun none = sparrowdeck(home, "duplicates " + test::shellQuote(home + "/Documents"));
    EXPECT_EQ(none.status, 0);
    EXPECT_NE(none.output.find("No exact copies found.\nNothing over 1 MB here has an exact twin "
                               "taking its own space."),
              std::string::npos);
}

TEST(DuplicatesCommand, RefusesWhatIsNotAFolderInTheHomeAndChangesNothing) {
    const std::string home = test::freshFolder("cli-dups-refuse");
    test::writeFile(home + "/file", "x");
    test::makeDirs(home + "/real");
    test::makeSymlink(home + "/real", home + "/link");
    const std::string before = snapshot(home);
    struct Row {
        std::string arguments;
        int status;
        std::string errorStart;
    };
    const Row rows[] = {
        {"duplicates " + home + "/missing", 1, "Can’t look in " + home + "/missing: it does not"},
        {"duplicates " + home + "/link", 1, "Can’t look in " + home + "/link: it is a symbolic"},
        {"duplicates " + home + "/file", 1, "Can’t look in " + home + "/file: it is not a folder"},
        {"duplicates /usr", 1, "Can’t look in /usr: only folders inside your home"},
        {"duplicates real", 1, "Can’t look in real: it is not an absolute path"},
        {"duplicates --bogus", 2, "The following argument was not expected: --bogus"},
        {"large-old --older-than soon", 2, "--older-than: “soon” is not a whole number"},
        {"large-old --min-size -5", 2, "--min-size: “-5” is not a whole number"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.arguments);
        CliRun run = sparrowdeck(home, row.arguments);
        EXPECT_EQ(run.status, row.status);
        EXPECT_TRUE(run.errors.starts_with(row.errorStart)) << run.errors;
        EXPECT_EQ(run.output, "");
    }
    EXPECT_EQ(snapshot(home), before);
}

TEST(LargeOldCommand, ListsItemsWithTheirEvidence) {
    const std::string home = test::freshFolder("cli-large");
    test::makeDirs(home + "/Films");
    test::makeDirs(home + "/.tool");
    test::writeFilledFile(home + "/Films/holiday.mp4", 3 * mib);
    test::writeFilledFile(home + "/Films/small.mp4", mib);
    test::writeFilledFile(home + "/.tool/hidden.iso", 3 * mib);

    CliRun run = sparrowdeck(home, "large-old --json --older-than 0 --min-size 2097152");
    ASSERT_EQ(run.status, 0) << run.errors;
    auto report = nlohmann::json::parse(run.output);
    ASSERT_EQ(report.at("items").size(), 1U);
    const auto& item = report.at("items")[0];
    EXPECT_EQ(item.at("path"), home + "/Films/holiday.mp4");
    EXPECT_EQ(item.at("kind"), "video");
    EXPECT_EQ(item.at("isPackage"), false);
    EXPECT_EQ(item.at("evidence").at("kind"), "fileTimesOnly");
    EXPECT_EQ(item.at("physicalBytes"), test::peerAllocatedBytes(home + "/Films/holiday.mp4"));
    EXPECT_EQ(report.at("truncated"), false);

    CliRun human = sparrowdeck(home, "large-old");
    ASSERT_EQ(human.status, 0);
    EXPECT_NE(human.output.find("Nothing large has gone unopened for a year.\nEverything over 50 "
                                "MB here was opened, changed or added within the last year."),
              std::string::npos)
        << human.output;
}

} // namespace
} // namespace sd
