// What one request to the user's AI tool looks like: the argument tables, the child environment,
// the working folder, and the sentence for every way a run can end. The tools are fake
// executables that record what they were given.
#include "FakeAssistantTool.h"
#include "Fixture.h"
#include "assistant/AnswerReader.h"
#include "assistant/AssistantRunner.h"
#include "assistant/RequestBuilder.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <thread>

namespace sd {
namespace {

using namespace std::chrono_literals;
using Strings = std::vector<std::string>;

const Strings claudeBase{"-p", "--output-format", "json", "--tools", ""};

IntelligenceProbe probeWith(Strings flags, Strings features = {}) {
    IntelligenceProbe probe;
    probe.flags = {flags.begin(), flags.end()};
    probe.codexFeatures = {features.begin(), features.end()};
    return probe;
}

Strings concat(Strings a, const Strings& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

TEST(ClaudeArguments, EachHardeningRowAppearsOnlyWhenTheHelpListsIt) {
    const std::vector<Strings> rows{
        {"--permission-mode", "dontAsk"},
        {"--permission-prompts", "none"},
        {"--safe-mode"},
        {"--strict-mcp-config"},
        {"--no-session-persistence"},
        {"--disable-slash-commands"},
        {"--effort", "low"},
        {"--max-budget-usd", "1"},
        {"--system-prompt", "SYSTEM"},
        {"--json-schema", "SCHEMA"},
    };
    const Strings needed{"--tools", "--output-format"};
    ToolInvocation bare = claudeInvocation(probeWith(needed), "SYSTEM", "SCHEMA", "PROMPT");
    EXPECT_EQ(bare.arguments, claudeBase);
    EXPECT_FALSE(bare.refusal);
    Strings everything = claudeBase;
    Strings allFlags = needed;
    for (const Strings& row : rows) {
        ToolInvocation one =
            claudeInvocation(probeWith(concat(needed, {row.front()})), "SYSTEM", "SCHEMA", "P");
        EXPECT_EQ(one.arguments, concat(claudeBase, row)) << row.front();
        everything = concat(everything, row);
        allFlags.push_back(row.front());
    }
    // With all of them listed, in the table's order whatever order the help lists them in.
    std::reverse(allFlags.begin(), allFlags.end());
    ToolInvocation all = claudeInvocation(probeWith(allFlags), "SYSTEM", "SCHEMA", "PROMPT");
    EXPECT_EQ(all.arguments, everything);
    EXPECT_EQ(all.input, "PROMPT") << "only the prompt goes to standard input";

    // A build that cannot take the system prompt or the schema as options gets them in front of
    // the prompt instead, so nothing the request needs is lost.
    EXPECT_EQ(bare.input, "SYSTEM\n\nReply with one JSON object that matches this JSON schema, "
                          "and nothing else:\nSCHEMA\n\nPROMPT");
}

TEST(ClaudeArguments, ABuildThatCannotSwitchItsToolsOffIsRefused) {
    for (const Strings& flags : std::vector<Strings>{
             {}, {"--output-format"}, {"--tools"}, {"--tool", "--output-formats"}}) {
        ToolInvocation run = claudeInvocation(probeWith(flags), "S", "{}", "P");
        EXPECT_TRUE(run.arguments.empty());
        EXPECT_EQ(run.refusal, "This version of Claude Code can't run with its tools switched "
                               "off. Update it (claude update), then test again.");
    }
}

TEST(CodexArguments, EachRowAppearsOnlyWhenListedAndFeaturesAreSwitchedOffInOrder) {
    const RequestFiles files{"/tmp/r/work", "/tmp/r/schema.json", "/tmp/r/answer.txt"};
    const Strings base{"exec", "--sandbox", "read-only"};
    const std::vector<Strings> rows{
        {"--skip-git-repo-check"},
        {"--ephemeral"},
        {"--ignore-user-config"},
        {"--ignore-rules"},
        {"--color", "never"},
        {"--cd", "/tmp/r/work"},
        {"--output-schema", "/tmp/r/schema.json"},
        {"--output-last-message", "/tmp/r/answer.txt"},
        {"--config", R"(approval_policy="never")", "--config", R"(web_search="disabled")",
         "--config", R"(model_reasoning_effort="low")"},
    };
    for (const Strings& row : rows) {
        ToolInvocation one =
            codexInvocation(probeWith({"--sandbox", row.front()}), files, "S", "{}", "P");
        EXPECT_EQ(one.arguments, concat(concat(base, row), {"-"})) << row.front();
        EXPECT_EQ(one.input, "S\n\n" +
                                 std::string(row.front() == "--output-schema"
                                                 ? ""
                                                 : "Reply with one JSON object that "
                                                   "matches this JSON schema, and nothing "
                                                   "else:\n{}\n\n") +
                                 "P")
            << row.front();
    }
    // Without a schema there is no schema file to name.
    EXPECT_EQ(
        codexInvocation(probeWith({"--sandbox", "--output-schema"}), files, "S", "", "P").arguments,
        concat(base, {"-"}));

    // A build that knows 5 of the 19 features (and others besides) gets --disable for those 5
    // only, in the table's order.
    ToolInvocation features =
        codexInvocation(probeWith({"--sandbox", "--disable"},
                                  {"view_image", "hooks", "apps", "memories",
                                   "skill_mcp_dependency_install", "chronicle", "code_mode"}),
                        files, "S", "{}", "P");
    EXPECT_EQ(features.arguments, concat(base, {"--disable", "apps", "--disable", "hooks",
                                                "--disable", "view_image", "--disable", "memories",
                                                "--disable", "skill_mcp_dependency_install", "-"}));
    // Features known but no --disable option: none are passed.
    EXPECT_EQ(codexInvocation(probeWith({"--sandbox"}, {"apps"}), files, "S", "{}", "P").arguments,
              concat(base, {"-"}));

    ToolInvocation refused = codexInvocation(probeWith({"--cd"}), files, "S", "{}", "P");
    EXPECT_TRUE(refused.arguments.empty());
    EXPECT_EQ(refused.refusal,
              "This version of Codex has no read-only sandbox. Update it, then test again.");
}

TEST(ChildEnvironment, PassesOnlyTheAllowListWithAFreshPath) {
    const std::map<std::string, std::string> captured{
        {"HOME", "/home/ann"},
        {"USER", "ann"},
        {"PATH", "/home/ann/.nvm/bin:/usr/bin:/home/ann/.nvm/bin::/opt/tools"},
        {"HTTPS_PROXY", "http://proxy:3128"},
        {"ANTHROPIC_API_KEY", "sk-ant"},
        {"OPENAI_API_KEY", "sk-openai"},
        {"AWS_REGION", "eu-west-1"},
        {"SECRET_TOKEN", "never"},
        {"SSH_AUTH_SOCK", "/run/agent"},
        {"LD_PRELOAD", "/evil.so"},
        {"NO_COLOR", "0"},
    };
    const std::string path = "PATH=/home/ann/.nvm/bin:/usr/bin:/opt/tools:/opt/homebrew/bin:"
                             "/usr/local/bin:/bin:/usr/sbin:/sbin:/home/ann/tools";
    EXPECT_EQ(
        childEnvironment(IntelligenceProvider::claudeCode, captured, "/home/ann/tools/claude"),
        (Strings{"ANTHROPIC_API_KEY=sk-ant", "AWS_REGION=eu-west-1",
                 "CLAUDE_CODE_DISABLE_NONESSENTIAL_TRAFFIC=1", "DISABLE_AUTOUPDATER=1",
                 "HOME=/home/ann", "HTTPS_PROXY=http://proxy:3128", "LANG=en_US.UTF-8",
                 "NO_COLOR=1", path, "TERM=dumb", "USER=ann"}));
    EXPECT_EQ(childEnvironment(IntelligenceProvider::codex,
                               {{"LANG", "de_DE.UTF-8"},
                                {"OPENAI_API_KEY", "sk-openai"},
                                {"ANTHROPIC_API_KEY", "sk-ant"}},
                               "/usr/bin/codex"),
              (Strings{"LANG=de_DE.UTF-8", "NO_COLOR=1", "OPENAI_API_KEY=sk-openai",
                       "PATH=/opt/homebrew/bin:/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin",
                       "TERM=dumb"}));
}

// A fake tool whose help lists every option, answering one request.
struct Request {
    test::FakeAssistantTool tool;
    IntelligenceProbe probe;
};

Request fakeRequest(IntelligenceProvider provider, const std::string& label) {
    test::FakeAssistantTool tool(provider, test::freshFolder(label));
    IntelligenceProbe probe;
    probe.executable = tool.executable();
    probe.environment = {
        {"HOME", test::fixtureHome()}, {"PATH", "/usr/bin:/bin"}, {"DISPLAY", ":0"}};
    probe.flags = provider == IntelligenceProvider::claudeCode
                      ? std::set<std::string>{"--tools", "--output-format", "--json-schema",
                                              "--system-prompt", "--effort"}
                      : std::set<std::string>{"--sandbox", "--cd", "--output-last-message",
                                              "--output-schema"};
    return {std::move(tool), std::move(probe)};
}

TEST(AssistantRequest, RunsInAFreshEmptyFolderWithThePromptOnStandardInput) {
    for (IntelligenceProvider provider : allProviders) {
        Request r = fakeRequest(provider, "request-" + std::string(caseName(provider)));
        const std::string answer = R"({"sentence":"Ready."})";
        if (provider == IntelligenceProvider::claudeCode) {
            r.tool.respond(R"({"type":"result","is_error":false,"result":"","structured_output":)" +
                               answer + "}",
                           "", 0);
        } else {
            r.tool.respond("ignored progress text", "", 0, answer + "\n");
        }
        IntelligenceTestState state = runConnectionTest(provider, r.probe);
        ASSERT_TRUE(std::holds_alternative<TestPassed>(state))
            << std::get<TestFailed>(state).message;
        EXPECT_GE(std::get<TestPassed>(state).seconds, 0.0);

        EXPECT_NE(r.tool.input().find(connectionTestPrompt), std::string::npos);
        const std::string folder = r.tool.workingFolder();
        EXPECT_EQ(r.tool.workingFolderContents(), "") << "the agent has no project around it";
        struct stat st {};
        EXPECT_NE(::lstat(folder.c_str(), &st), 0) << "removed afterwards: " << folder;
        Strings arguments = r.tool.arguments();
        if (provider == IntelligenceProvider::claudeCode) {
            EXPECT_EQ(arguments,
                      concat(claudeBase, {"--effort", "low", "--system-prompt",
                                          std::string(connectionTestSystemPrompt), "--json-schema",
                                          std::string(connectionTestSchema)}));
            EXPECT_EQ(r.tool.input(), connectionTestPrompt);
        } else {
            ASSERT_EQ(arguments.size(), 10U);
            EXPECT_EQ(arguments[4], folder) << "--cd names the working folder";
            EXPECT_EQ(arguments[5], "--output-schema");
            EXPECT_NE(arguments[6].find(folder.substr(0, folder.rfind('/'))), std::string::npos)
                << "the schema file sits beside the working folder, never in it";
        }
        // Nothing of the test process's environment reached the tool.
        for (const std::string& entry : r.tool.environment()) {
            EXPECT_FALSE(entry.starts_with("DISPLAY=") || entry.starts_with("SPARROWDECK_HOME="))
                << entry;
        }
    }
}

TEST(AssistantRequest, EveryWayARunEndsBecomesOneSentence) {
    struct Case {
        IntelligenceProvider provider;
        std::string output;
        std::string errors;
        int exitStatus;
        std::string expected;
    };
    const std::string terminal = "a terminal";
    const std::vector<Case> cases{
        {IntelligenceProvider::claudeCode,
         R"({"type":"result","is_error":true,"result":"Not logged in · Please run /login"})", "", 1,
         "Claude Code isn't signed in. Run `claude login` in " + terminal + ", then test again."},
        {IntelligenceProvider::codex, "", "Error: not authenticated; AUTH required", 1,
         "Codex isn't signed in. Run `codex login` in " + terminal + ", then test again."},
        {IntelligenceProvider::codex, "", "You are not Logged In", 1,
         "Codex isn't signed in. Run `codex login` in " + terminal + ", then test again."},
        {IntelligenceProvider::claudeCode, "", "", 3,
         "Claude Code stopped without an answer (exit 3)."},
        {IntelligenceProvider::codex, "", "", 0, "Codex stopped without an answer (exit 0)."},
        {IntelligenceProvider::claudeCode, "not json", "", 0, "Claude Code: not json"},
        {IntelligenceProvider::codex, "", "WARN starting\nERROR: rate limit reached\n", 2,
         "Codex: ERROR: rate limit reached"},
        {IntelligenceProvider::claudeCode,
         R"({"type":"result","is_error":true,"result":"Overloaded"})", "", 0,
         "Claude Code reported an error."},
    };
    for (const Case& c : cases) {
        Request r = fakeRequest(c.provider, "endings");
        r.tool.respond(c.output, c.errors, c.exitStatus);
        IntelligenceTestState state = runConnectionTest(c.provider, r.probe);
        ASSERT_TRUE(std::holds_alternative<TestFailed>(state)) << c.expected;
        EXPECT_EQ(std::get<TestFailed>(state).message, c.expected);
    }
}

TEST(AssistantRequest, AnOldClaudeCodeIsRefusedBeforeAnyPromptIsSent) {
    Request r = fakeRequest(IntelligenceProvider::claudeCode, "old-claude");
    r.probe.flags = {"--output-format", "--print"};
    IntelligenceTestState state = runConnectionTest(IntelligenceProvider::claudeCode, r.probe);
    ASSERT_TRUE(std::holds_alternative<TestFailed>(state));
    EXPECT_EQ(std::get<TestFailed>(state).message,
              "This version of Claude Code can't run with its tools switched off. Update it "
              "(claude update), then test again.");
    EXPECT_FALSE(r.tool.requested()) << "the tool was never started with a prompt";
}

TEST(AssistantRequest, ATimeoutFailsAndACancelIsNoError) {
    Request late = fakeRequest(IntelligenceProvider::claudeCode, "late");
    late.tool.hang();
    AssistantRequest request{"S", "{}", "P", 300ms};
    AssistantReply timedOut =
        runAssistantRequest(IntelligenceProvider::claudeCode, late.probe, request);
    EXPECT_EQ(timedOut.outcome, AssistantReply::Outcome::failed);
    EXPECT_EQ(timedOut.error, "Claude Code did not answer within 1 second, so it was stopped.");

    Request closed = fakeRequest(IntelligenceProvider::codex, "closed");
    closed.tool.hang();
    std::stop_source stop;
    request.timeout = 60s;
    std::jthread closer([&] {
        // The user closes the question once the tool has the prompt.
        closed.tool.awaitRequest();
        stop.request_stop();
    });
    AssistantReply cancelled =
        runAssistantRequest(IntelligenceProvider::codex, closed.probe, request, stop.get_token());
    EXPECT_EQ(cancelled.outcome, AssistantReply::Outcome::cancelled);
    EXPECT_EQ(cancelled.error, "");
    IntelligenceTestState state =
        runConnectionTest(IntelligenceProvider::codex, closed.probe, stop.get_token());
    EXPECT_TRUE(std::holds_alternative<TestIdle>(state)) << "a closed test goes back to idle";
}

} // namespace
} // namespace sd
