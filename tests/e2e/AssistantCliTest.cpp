// `sparrowdeck assistant` and `sparrowdeck snapshots` as a user runs them: a separate process
// pointed at a fixture home, with fake AI tools in the home's usual folder and a fake snapper.
#include "FakeTools.h"
#include "Fixture.h"
#include "assistant/FakeAssistantTool.h"
#include "core/ByteFormat.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace sd {
namespace {

struct CliRun {
    int status;
    std::string output;
    std::string errors;
};

CliRun sparrowdeck(const std::string& home, const std::string& arguments,
                   const std::string& extraEnvironment = "") {
    std::string errors = test::freshFolder("cli-stderr") + "/stderr";
    test::CommandResult r = test::runShell(
        "SPARROWDECK_HOME=" + test::shellQuote(home) +
        " XDG_CONFIG_HOME=" + test::shellQuote(home + "/.config") +
        " XDG_DATA_HOME=" + test::shellQuote(home + "/.local/share") + " " + extraEnvironment +
        " " SPARROWDECK_CLI " " + arguments + " 2>" + test::shellQuote(errors) + " </dev/null");
    return {r.status, r.output, test::readText(errors)};
}

std::string claudeAnswer(const std::string& summary) {
    return nlohmann::json{{"type", "result"},
                          {"is_error", false},
                          {"result", ""},
                          {"structured_output",
                           {{"summary", summary},
                            {"whatItIs", "Build output of a project."},
                            {"ifItGoes", "It is made again by the next build."},
                            {"verdict", "comes back by itself"}}}}
        .dump();
}

TEST(AssistantCommand, ExplainsWithMeasuredFactsAndRefusesInventedSizes) {
    const std::string home = test::freshFolder("cli-assistant");
    test::FakeAssistantTool claude(IntelligenceProvider::claudeCode, home + "/.local/bin");
    claude.setHelpFlags({"--tools", "--output-format", "--json-schema", "--system-prompt"});
    claude.setLoginStatus(R"({"loggedIn":true,"email":"ann@example.com"})", 0);
    test::makeDirs(home + "/Projects/app/build");
    test::writeFilledFile(home + "/Projects/app/build/out.o", 2'000'000);
    test::writeFile(home + "/Projects/app/main.c", "int main(void) { return 42; }\n");

    CliRun status = sparrowdeck(home, "assistant status --json");
    ASSERT_EQ(status.status, 0) << status.errors;
    nlohmann::json report = nlohmann::json::parse(status.output);
    EXPECT_EQ(report.at("chosen"), nullptr);
    EXPECT_EQ(report.at("providers")[0].at("phase"), "installed");
    EXPECT_EQ(report.at("providers")[0].at("executable"), claude.executable());
    EXPECT_EQ(report.at("providers")[0].at("version"), "2.1.197");
    EXPECT_EQ(report.at("providers")[0].at("login").at("account"), "ann@example.com");
    EXPECT_EQ(report.at("providers")[1].at("phase"), "notInstalled");

    // Shown, not sent.
    CliRun shown = sparrowdeck(home, "assistant explain " + test::shellQuote(home + "/Projects") +
                                         " --show-facts");
    ASSERT_EQ(shown.status, 0) << shown.errors;
    EXPECT_NE(shown.output.find("The folder ~/Projects\n"), std::string::npos) << shown.output;
    EXPECT_EQ(shown.output.find("return 42"), std::string::npos);
    EXPECT_FALSE(claude.requested());

    // Off until chosen: nothing is sent without a provider.
    CliRun off = sparrowdeck(home, "assistant explain " + test::shellQuote(home + "/Projects"));
    EXPECT_EQ(off.status, 1);
    EXPECT_NE(off.errors.find("The assistant is off."), std::string::npos) << off.errors;
    EXPECT_FALSE(claude.requested());

    claude.respond(claudeAnswer("About 3 GB of old builds."), "", 0);
    CliRun invented = sparrowdeck(
        home, "assistant explain " + test::shellQuote(home + "/Projects") + " --provider claude");
    EXPECT_EQ(invented.status, 1);
    EXPECT_EQ(invented.errors, "The answer quoted a number Sparrowdeck did not measure, so it is "
                               "not shown.\n");
    EXPECT_EQ(invented.output.find("3 GB"), std::string::npos);
    const std::uint64_t appBytes = test::peerAllocatedBytes(home + "/Projects/app");
    EXPECT_NE(claude.input().find("- app (folder): " + formatBytes(appBytes) + " (" +
                                  formatCount(appBytes) + " bytes)"),
              std::string::npos)
        << claude.input();
    EXPECT_EQ(claude.input().find("return 42"), std::string::npos) << "contents never are";

    claude.respond(claudeAnswer("It holds 2 MB of build output."), "", 0);
    CliRun answered = sparrowdeck(
        home, "assistant explain " + test::shellQuote(home + "/Projects") + " --provider claude");
    ASSERT_EQ(answered.status, 0) << answered.errors;
    EXPECT_NE(answered.output.find("It holds 2 MB of build output.\n"), std::string::npos);
    EXPECT_NE(answered.output.find("If it goes: It is made again by the next build."),
              std::string::npos);
    EXPECT_NE(answered.output.find("Facts Claude Code was given:\nThe folder ~/Projects"),
              std::string::npos)
        << answered.output;

    CliRun missing = sparrowdeck(home, "assistant test --provider codex");
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.errors, "Codex: Not found on this computer. Nothing was sent.\n");
    EXPECT_EQ(sparrowdeck(home, "assistant test --provider gemini").status, 2);
    EXPECT_EQ(sparrowdeck(home, "assistant explain").status, 2);
}

TEST(SnapshotsCommand, ListsAndDeletesOnlyWithTheAcknowledgement) {
    const std::string home = test::freshFolder("cli-snapshots");
    const std::string tools = test::freshFolder("cli-snapper");
    test::writeExecutable(tools + "/snapper", test::fakeSnapperScript);
    test::writeFile(tools + "/snapshots.txt", "home|1|2024-05-01 10:15:00|16384|timeline\n"
                                              "home|2|2024-05-02 10:15:00|null|\n");
    test::writeFile(tools + "/refuse.txt", "");
    test::writeFile(tools + "/stubborn.txt", "");
    const std::string fake = "SPARROWDECK_SNAPPER=" + test::shellQuote(tools + "/snapper");

    CliRun listed = sparrowdeck(home, "snapshots --json", fake);
    ASSERT_EQ(listed.status, 0) << listed.errors;
    nlohmann::json list = nlohmann::json::parse(listed.output);
    EXPECT_EQ(list.at("tool"), "snapper");
    ASSERT_EQ(list.at("snapshots").size(), 2U);
    EXPECT_EQ(list.at("snapshots")[0].at("stamp"), "home:1");
    EXPECT_EQ(list.at("snapshots")[0].at("date"), "2024-05-01T10:15:00Z");
    EXPECT_EQ(list.at("snapshots")[0].at("bytes"), 16384);

    const std::vector<std::string> callsBefore = test::readLines(tools + "/calls.txt");
    CliRun unacknowledged = sparrowdeck(home, "snapshots delete home:1", fake);
    EXPECT_EQ(unacknowledged.status, 1);
    EXPECT_NE(unacknowledged.errors.find("can't be undone"), std::string::npos);
    EXPECT_EQ(test::readLines(tools + "/calls.txt"), callsBefore) << "snapper was not asked";

    CliRun deleted =
        sparrowdeck(home, "snapshots delete home:1 home:9 --acknowledge-irreversible --json", fake);
    EXPECT_EQ(deleted.status, 1) << "home:9 is no snapshot, so not everything asked was done";
    nlohmann::json outcome = nlohmann::json::parse(deleted.output);
    EXPECT_EQ(outcome.at("deleted"), nlohmann::json::array({"home:1"}));
    EXPECT_EQ(outcome.at("refused"), nlohmann::json::array({"home:9"}));
    EXPECT_EQ(outcome.at("remaining").size(), 1U);
    EXPECT_EQ(outcome.at("summary"),
              "Deleted 1 snapshot. Linux hands their space back over the next few minutes.");

    CliRun human = sparrowdeck(home, "snapshots delete home:2 --acknowledge-irreversible", fake);
    EXPECT_EQ(human.status, 0) << human.errors;
    EXPECT_EQ(human.output, "deleted  home:2\nDeleted 1 snapshot. Linux hands their space back "
                            "over the next few minutes.\n");
    EXPECT_EQ(sparrowdeck(home, "snapshots", fake).output,
              "snapper has no configuration you may read, so there are no local snapshots to "
              "show.\n");

    test::writeFile(tools + "/list-fails", "");
    CliRun failing = sparrowdeck(home, "snapshots", fake);
    EXPECT_EQ(failing.status, 1);
    EXPECT_EQ(failing.errors, "snapper exited with status 1\n");
}

} // namespace
} // namespace sd
