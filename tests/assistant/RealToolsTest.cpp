// The real Claude Code and Codex command-line tools, fetched from the npm registry into a
// temporary prefix that only a fixture login shell's start-up file puts on the PATH. Without an
// account or a network they cannot answer; what this shows is that the probe finds and reads
// them, and that each tool's own option parser accepts every argument a request is built with.
#include "Fixture.h"
#include "assistant/AnswerReader.h"
#include "assistant/AssistantRunner.h"
#include "assistant/ProviderProbe.h"
#include "base/ChildProcess.h"

#include <cstdlib>
#include <gtest/gtest.h>

namespace sd {
namespace {

using namespace std::chrono_literals;

// What a tool prints when it did not understand its command line.
bool soundsLikeUsageError(const std::string& text) {
    for (const char* marker : {"unknown option", "unexpected argument", "Usage:", "usage:",
                               "invalid value", "error: option", "unrecognized"}) {
        if (text.find(marker) != std::string::npos) {
            return true;
        }
    }
    return false;
}

// A prefix of its own, removed when the test ends.
class NpmPrefix {
public:
    NpmPrefix() {
        std::string pattern = "/tmp/sparrowdeck-npm-XXXXXX";
        path_ = ::mkdtemp(pattern.data()) != nullptr ? pattern : "";
    }
    ~NpmPrefix() {
        if (!path_.empty()) {
            test::runShell("rm -rf " + test::shellQuote(path_));
        }
    }
    const std::string& path() const noexcept { return path_; }

private:
    std::string path_;
};

TEST(RealAssistantTools, AreFoundThroughTheLoginShellAndAcceptEveryRequestArgument) {
    if (!test::haveTool("npm")) {
        GTEST_SKIP() << "npm is not installed, so the real claude and codex are not tried here.";
    }
    NpmPrefix prefix;
    ASSERT_FALSE(prefix.path().empty());
    test::CommandResult installed = test::runShell(
        "timeout 500 npm install --global --prefix " + test::shellQuote(prefix.path()) +
        " --no-audit --no-fund --loglevel=error @anthropic-ai/claude-code @openai/codex 2>&1");
    if (installed.status != 0) {
        GTEST_SKIP() << "The npm registry could not be reached, so the real claude and codex "
                        "are not tried here: "
                     << installed.output.substr(0, 400);
    }

    // Only the login shell knows where they are.
    const std::string home = test::freshFolder("real-tools-home");
    test::writeFile(home + "/.bash_profile",
                    "export PATH=" + test::shellQuote(prefix.path() + "/bin") + ":\"$PATH\"\n");
    const CaptureSetup login{"/bin/bash", home, "ann", "/usr/bin:/bin"};

    for (IntelligenceProvider provider : allProviders) {
        const std::string name(executableName(provider));
        std::optional<IntelligenceProbe> probe = probeProvider(provider, {login, home, 60s});
        ASSERT_TRUE(probe) << name;
        EXPECT_EQ(probe->executable, prefix.path() + "/bin/" + name);
        test::CommandResult version =
            test::runShell("HOME=" + test::shellQuote(home) + " " +
                           test::shellQuote(probe->executable) + " --version 2>/dev/null");
        ASSERT_TRUE(parseVersion(version.output)) << version.output;
        EXPECT_EQ(probe->version, parseVersion(version.output)) << name;
        if (provider == IntelligenceProvider::claudeCode) {
            EXPECT_TRUE(probe->flags.contains("--tools") &&
                        probe->flags.contains("--output-format"));
        } else {
            EXPECT_TRUE(probe->flags.contains("--sandbox"));
            EXPECT_FALSE(probe->codexFeatures.empty()) << "codex features list";
        }

        // The connection test's own arguments, run by the real tool. It may fail only for want
        // of an account or a network: as the sign-in sentence or the tool's own words.
        RequestFolder folder;
        ToolInvocation run =
            invocationFor(provider, *probe, folder.files(), connectionTestSystemPrompt,
                          connectionTestSchema, connectionTestPrompt);
        ASSERT_FALSE(run.refusal) << *run.refusal;
        test::writeFile(folder.files().schemaFile, connectionTestSchema);
        ChildCommand command;
        command.executable = probe->executable;
        command.arguments = run.arguments;
        command.environment = childEnvironment(provider, probe->environment, probe->executable);
        command.directory = folder.files().workingFolder;
        command.input = run.input;
        command.timeout = 30s;
        ChildResult result = runChild(command);
        EXPECT_FALSE(soundsLikeUsageError(result.output + result.errors))
            << name << " did not accept its arguments:\n"
            << result.errors << result.output;
        if (result.timedOut) {
            std::printf("%s ran its request until the 30 s limit (offline).\n", name.c_str());
        } else {
            ToolAnswer answer = readAnswer(provider, result, std::nullopt);
            std::printf("%s: %s\n", name.c_str(),
                        answer.text ? answer.text->c_str() : answer.error.c_str());
            if (!answer.text) {
                const std::string display(displayName(provider));
                EXPECT_TRUE(answer.error.starts_with(display + " isn't signed in.") ||
                            answer.error.starts_with(display + ": ") ||
                            answer.error == display + " reported an error.")
                    << answer.error;
            }
        }

        // And the check above can fail: one argument the tool does not know is caught.
        command.arguments.insert(command.arguments.begin() + 1, "--no-such-option-here");
        command.timeout = 30s;
        ChildResult refused = runChild(command);
        EXPECT_TRUE(soundsLikeUsageError(refused.output + refused.errors))
            << name << ":\n"
            << refused.errors << refused.output;
    }
}

} // namespace
} // namespace sd
