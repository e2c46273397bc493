// Finding the user's AI tool: the login-shell capture with real shells and start-up files, the
// search folders, and what the probe reads from the tool's own answers.
#include "FakeAssistantTool.h"
#include "FakeTools.h"
#include "Fixture.h"
#include "assistant/ProviderProbe.h"
#include "base/ChildProcess.h"

#include <gtest/gtest.h>

namespace sd {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;

TEST(EnvironmentCapture, ReadsThePathAfterWhateverStartUpFilesPrint) {
    const std::string marker = "\n__SPARROWDECK_ENV__\n";
    // The s suffix keeps the embedded NULs and takes the literal's own length.
    const std::string env = "HOME=/home/ann\0PATH=/a:/b\0EQ=x=y\0NOVALUE\0EMPTY=\0"s;
    struct Case {
        std::string output;
        std::optional<std::string> tool;
    };
    const std::vector<Case> cases{
        {"/home/ann/.local/bin/claude" + marker + env, "/home/ann/.local/bin/claude"},
        {"Welcome back, ann!\nTip: /x\n\n/opt/claude/bin/claude  \n" + marker + env,
         "/opt/claude/bin/claude"},
        {"fortune says hi\n" + marker + env, std::nullopt}, // not found: the banner is no path
        {"claude" + marker + env, std::nullopt},            // a shell function or alias, not a file
        {marker + env, std::nullopt},
    };
    for (const Case& c : cases) {
        LoginEnvironment capture = parseCapture(c.output);
        EXPECT_EQ(capture.toolPath, c.tool) << c.output;
        EXPECT_EQ(capture.environment,
                  (std::map<std::string, std::string>{
                      {"HOME", "/home/ann"}, {"PATH", "/a:/b"}, {"EQ", "x=y"}, {"EMPTY", ""}}));
    }
    // No marker, no capture: a shell that failed before the command ran.
    EXPECT_FALSE(parseCapture("/usr/bin/claude\n" + env).toolPath);
    EXPECT_EQ(captureCommand("codex"),
              "command -v codex; printf '\\n__SPARROWDECK_ENV__\\n'; /usr/bin/env -0");
}

// A fixture home whose login shell puts a version manager's folder on the PATH and greets the
// user on standard output first.
struct ShellCase {
    const char* shell;
    const char* startUpFile;
    const char* startUp;
};

TEST(EnvironmentCapture, FindsAToolOnlyTheLoginShellsPathKnows) {
    const std::vector<ShellCase> shells{
        {"/bin/bash", ".bash_profile",
         "echo 'Welcome to bash'\nexport PATH=\"$HOME/.vm/bin:$PATH\"\nexport VM_READY=1\n"},
        {"/bin/zsh", ".zprofile",
         "print 'Welcome to zsh'\nexport PATH=\"$HOME/.vm/bin:$PATH\"\nexport VM_READY=1\n"},
        {"/bin/sh", ".profile",
         "echo 'Welcome to sh'\nPATH=\"$HOME/.vm/bin:$PATH\"; export PATH\nexport VM_READY=1\n"},
        {"/usr/bin/fish", ".config/fish/config.fish",
         "echo 'Welcome to fish'\nset -gx PATH $HOME/.vm/bin $PATH\nset -gx VM_READY 1\n"},
    };
    for (const ShellCase& c : shells) {
        if (::access(c.shell, X_OK) != 0) {
            std::printf("%s is not installed; its capture is not tried here.\n", c.shell);
            continue;
        }
        const std::string home = test::freshFolder("capture-home");
        test::FakeAssistantTool tool(IntelligenceProvider::claudeCode, home + "/.vm/bin");
        tool.setHelpFlags({"--tools", "--output-format"});
        const std::string file = home + "/" + c.startUpFile;
        test::makeDirs(file.substr(0, file.rfind('/')));
        test::writeFile(file, c.startUp);

        CaptureSetup setup{c.shell, home, "ann", "/usr/bin:/bin"};
        LoginEnvironment capture = captureLoginEnvironment(setup, "claude");
        EXPECT_EQ(capture.toolPath, tool.executable()) << c.shell;
        EXPECT_EQ(capture.environment["VM_READY"], "1") << c.shell;
        EXPECT_EQ(capture.environment["HOME"], home) << c.shell;
        EXPECT_TRUE(capture.environment["PATH"].starts_with(home + "/.vm/bin")) << c.shell;

        // The probe finds it through the capture, though no search folder holds it.
        std::optional<IntelligenceProbe> probe =
            probeProvider(IntelligenceProvider::claudeCode, ProbeSetup{setup, home, 10s});
        ASSERT_TRUE(probe) << c.shell;
        EXPECT_EQ(probe->executable, tool.executable());
        EXPECT_EQ(probe->version, "2.1.197");
        EXPECT_TRUE(probe->flags.contains("--tools"));
    }
}

TEST(EnvironmentCapture, AShellThatHangsOrFailsGivesNothingAndTheSearchFoldersStillWork) {
    const std::string home = test::freshFolder("capture-stuck");
    test::writeFile(home + "/.bash_profile", "exec sleep 600\n");
    CaptureSetup stuck{"/bin/bash", home, "ann", "/usr/bin:/bin", 300ms};
    LoginEnvironment capture = captureLoginEnvironment(stuck, "codex");
    EXPECT_FALSE(capture.toolPath);
    EXPECT_TRUE(capture.environment.empty());

    CaptureSetup missing{home + "/gone/bash", home, "ann", "/usr/bin:/bin"};
    EXPECT_TRUE(captureLoginEnvironment(missing, "codex").environment.empty());

    // Codex's folders, in order: the first that holds an executable file wins.
    test::FakeAssistantTool later(IntelligenceProvider::codex, home + "/.cargo/bin");
    test::FakeAssistantTool earlier(IntelligenceProvider::codex, home + "/.bun/bin");
    test::makeDirs(home + "/.npm-global/bin/codex"); // a folder by that name is no tool
    test::makeDirs(home + "/.local/bin");
    test::writeFile(home + "/.local/bin/codex", "not executable");
    EXPECT_EQ(findExecutable(IntelligenceProvider::codex, capture, home), earlier.executable());
    EXPECT_FALSE(findExecutable(IntelligenceProvider::claudeCode, capture, home));

    EXPECT_FALSE(probeProvider(IntelligenceProvider::claudeCode, ProbeSetup{stuck, home, 10s}));
}

TEST(ProviderProbe, ReadsVersionFlagsFeaturesAndSignInFromTheToolsOwnAnswers) {
    const std::string home = test::freshFolder("probe-home");
    test::FakeAssistantTool codex(IntelligenceProvider::codex, home + "/.local/bin");
    codex.setVersionText("codex-cli 0.169.0\n");
    codex.setHelpFlags({"--sandbox", "--cd", "--disable"});
    codex.setFeatures({"apps", "shell_tool", "chronicle"});
    codex.setLoginStatus("Logged in using ChatGPT (ann@example.com)\n", 0);
    CaptureSetup noShell{home + "/no-shell", home, "ann", "/usr/bin:/bin"};
    std::optional<IntelligenceProbe> probe =
        probeProvider(IntelligenceProvider::codex, ProbeSetup{noShell, home, 10s});
    ASSERT_TRUE(probe);
    EXPECT_EQ(probe->executable, codex.executable());
    EXPECT_EQ(probe->version, "0.169.0");
    EXPECT_EQ(probe->flags, (std::set<std::string>{"--sandbox", "--cd", "--disable", "--help"}));
    EXPECT_EQ(probe->codexFeatures, (std::set<std::string>{"apps", "shell_tool", "chronicle"}));
    EXPECT_EQ(probe->login, IntelligenceLogin(SignedIn{"ann@example.com"}));
    EXPECT_FALSE(codex.requested()) << "probing never sends a prompt";
    EXPECT_EQ(probe->environment.at("HOME"), home) << "without a capture, the account's home";
    EXPECT_EQ(probe->environment.at("USER"), "ann");

    struct LoginCase {
        IntelligenceProvider provider;
        ChildResult status;
        IntelligenceLogin expected;
    };
    auto run = [](int exit, std::string out, std::string err = "") {
        ChildResult r;
        r.status = exit;
        r.output = std::move(out);
        r.errors = std::move(err);
        return r;
    };
    ChildResult timedOut = run(-1, "");
    timedOut.timedOut = true;
    const std::vector<LoginCase> logins{
        {IntelligenceProvider::claudeCode,
         run(0, R"({"loggedIn":true,"authMethod":"claude.ai","email":"ann@example.com"})"),
         SignedIn{"ann@example.com"}},
        {IntelligenceProvider::claudeCode, run(0, R"({"loggedIn":true,"authMethod":"apiKey"})"),
         SignedIn{}},
        {IntelligenceProvider::claudeCode,
         run(1, R"({"loggedIn":false,"authMethod":"none","apiProvider":"firstParty"})"),
         SignedOut{}},
        {IntelligenceProvider::claudeCode, run(1, "", "error: unknown command 'auth'"),
         LoginUnknown{}},
        {IntelligenceProvider::codex, run(1, "", "Not logged in\n"), SignedOut{}},
        {IntelligenceProvider::codex, run(0, "Logged in using an API key - sk-***\n"), SignedIn{}},
        {IntelligenceProvider::codex, timedOut, LoginUnknown{}},
    };
    for (const LoginCase& c : logins) {
        EXPECT_EQ(parseLogin(c.provider, c.status), c.expected) << c.status.output;
    }

    EXPECT_EQ(parseVersion("2.1.197 (Claude Code)"), "2.1.197");
    EXPECT_EQ(parseVersion("codex-cli 0.46"), "0.46");
    EXPECT_EQ(parseVersion("no version here"), std::nullopt);
    EXPECT_EQ(parseVersion("build 7, v12.3.4.5"), "12.3.4");
    EXPECT_EQ(parseVersion("1. 2.x 3.4."), "3.4");
    EXPECT_EQ(parseLogin(IntelligenceProvider::codex,
                         run(0, "Logged in as <ann.lee+ai@mail.example.org>.\n")),
              IntelligenceLogin(SignedIn{"ann.lee+ai@mail.example.org"}));
    EXPECT_EQ(parseLogin(IntelligenceProvider::codex, run(0, "Logged in (key @ host.x)\n")),
              IntelligenceLogin(SignedIn{}));
    EXPECT_EQ(parseHelpFlags("  -p, --print   Print (see --output-format=json)\n"
                             "  --tools <tools...>  x--not-a-flag\n"),
              (std::set<std::string>{"--print", "--output-format", "--tools"}));
}

} // namespace
} // namespace sd
