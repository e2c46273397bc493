// The Sweep as a user runs it: separate processes over the fixture home.
#include "Fixture.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace sd {
namespace {

struct CliRun {
    int status;
    std::string output;
};

CliRun run(const std::string& arguments) {
    test::CommandResult r =
        test::runShell("SPARROWDECK_HOME=" + test::shellQuote(test::fixtureHome()) +
                       " " SPARROWDECK_CLI " " + arguments + " </dev/null 2>/dev/null");
    return {r.status, r.output};
}

TEST(SweepCommand, MeasuresReclaimsAndPutsBack) {
    const std::string home = test::fixtureHome();
    const std::vector<std::string> folders{home + "/.cache/go-build",
                                           home + "/.cargo/registry/cache"};
    for (const std::string& folder : folders) {
        test::makeDirs(folder + "/ab");
        test::writeFilledFile(folder + "/ab/blob", 123457);
    }
    auto tileBytes = [](const nlohmann::json& out, const std::string& kind) {
        for (const auto& tile : out.at("tiles")) {
            if (tile.at("kind") == kind) {
                return tile;
            }
        }
        return nlohmann::json();
    };
    CliRun measured = run("sweep --json");
    ASSERT_EQ(measured.status, 0) << measured.output;
    nlohmann::json out = nlohmann::json::parse(measured.output);
    nlohmann::json developer = tileBytes(out, "developer");
    EXPECT_EQ(developer.at("perTarget").at("rust_go").get<std::uint64_t>(),
              test::peerAllocatedBytes(folders[0]) + test::peerAllocatedBytes(folders[1]));
    EXPECT_EQ(out.at("tiles").size(), 6U);

    CliRun leftOut = run("sweep --leave-out rust_go");
    EXPECT_EQ(leftOut.output, "rust_go: Left out of every Sweep — you can still clean it here.\n");
    EXPECT_EQ(
        tileBytes(nlohmann::json::parse(run("sweep --json").output), "developer").at("leftOut"),
        nlohmann::json::array({"rust_go"}));
    EXPECT_EQ(run("sweep --bring-back rust_go").output,
              "rust_go: Every Sweep includes it. Switch off to leave it out.\n");
    EXPECT_EQ(run("sweep --leave-out no_such_target").status, 1);

    CliRun unconfirmed = run("sweep --reclaim developer");
    EXPECT_EQ(unconfirmed.status, 1);
    EXPECT_EQ(::access(folders[0].c_str(), F_OK), 0)
        << "nothing moves without --yes off a terminal";
    EXPECT_EQ(run("sweep --reclaim trash --yes").status, 2) << "the Trash is never reclaimed";

    CliRun reclaimed = run("sweep --reclaim developer --yes --json");
    nlohmann::json result = nlohmann::json::parse(reclaimed.output).at("reclaim");
    EXPECT_EQ(result.at("movedCount"), 2);
    for (const std::string& folder : folders) {
        EXPECT_NE(::access(folder.c_str(), F_OK), 0) << folder;
    }
    CliRun back = run("put-back " + result.at("journalEntryID").get<std::string>());
    EXPECT_EQ(back.status, 0) << back.output;
    for (const std::string& folder : folders) {
        EXPECT_EQ(::access((folder + "/ab/blob").c_str(), F_OK), 0) << folder;
        test::runShell("rm -rf " + test::shellQuote(folder));
    }
}

} // namespace
} // namespace sd
