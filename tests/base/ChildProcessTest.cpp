// The one child-process runner, against small real executables the tests write.
#include "base/ChildProcess.h"

#include "FakeTools.h"
#include "Fixture.h"
#include "base/CleanerError.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace sd {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

ChildCommand script(const std::string& folder, const std::string& name, const std::string& body) {
    std::string path = folder + "/" + name;
    test::writeExecutable(path, "#!/bin/sh\n" + body);
    return ChildCommand{.executable = path, .environment = {"PATH=/usr/bin:/bin"}};
}

// Blocks until the named pipe at `path` gives one line: the child's word that it got that far.
std::string awaitLine(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    std::string line;
    char c;
    while (fd >= 0 && ::read(fd, &c, 1) == 1 && c != '\n') {
        line += c;
    }
    if (fd >= 0) {
        ::close(fd);
    }
    return line;
}

// True once the process `pid` has ended, waiting for it at most `limit`.
bool endsWithin(pid_t pid, std::chrono::milliseconds limit) {
    int fd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
    if (fd < 0) {
        return errno == ESRCH;
    }
    pollfd watch{fd, POLLIN, 0};
    int ready = ::poll(&watch, 1, static_cast<int>(limit.count()));
    ::close(fd);
    return ready == 1;
}

TEST(ChildProcess, PassesExactlyWhatItIsGiven) {
    const std::string folder = test::freshFolder("child-exact");
    test::makeDirs(folder + "/work here");
    struct Case {
        const char* what;
        ChildCommand command;
        ChildResult expected;
    };
    const std::vector<Case> cases{
        {"arguments as given, empty and starred ones too",
         {.executable = "/usr/bin/printf", .arguments = {"[%s]\\n", "a b", "", "*", "$HOME"}},
         {.status = 0, .output = "[a b]\n[]\n[*]\n[$HOME]\n"}},
        {"only the environment given, nothing of ours",
         {.executable = "/usr/bin/env", .environment = {"ONLY=this", "AND=that=too"}},
         {.status = 0, .output = "ONLY=this\nAND=that=too\n"}},
        {"the working folder",
         {.executable = "/bin/pwd", .directory = folder + "/work here"},
         {.status = 0, .output = folder + "/work here\n"}},
        {"standard input, binary bytes and all, then end of file",
         {.executable = "/bin/cat", .input = std::string("one\0two\n", 8)},
         {.status = 0, .output = std::string("one\0two\n", 8)}},
        {"no input is an empty standard input, never ours",
         {.executable = "/usr/bin/wc", .arguments = {"-c"}},
         {.status = 0, .output = "0\n"}},
        {"both outputs apart and the exit status",
         script(folder, "both", "echo out; echo err >&2; exit 7"),
         {.status = 7, .output = "out\n", .errors = "err\n"}},
        {"a signal's end as 128 + its number",
         script(folder, "killed", "kill -KILL $$"),
         {.status = 128 + SIGKILL, .signal = SIGKILL}},
        {"the broken-pipe signal back at its default for the child",
         script(folder, "pipe", "yes | head -n 1"),
         {.status = 0, .output = "y\n"}},
    };
    for (const Case& c : cases) {
        ChildResult result = runChild(c.command);
        EXPECT_EQ(result.status, c.expected.status) << c.what;
        EXPECT_EQ(result.signal, c.expected.signal) << c.what;
        EXPECT_EQ(result.output, c.expected.output) << c.what;
        EXPECT_EQ(result.errors, c.expected.errors) << c.what;
        EXPECT_FALSE(result.timedOut || result.cancelled || result.outputCut) << c.what;
    }
}

TEST(ChildProcess, SaysWhyAChildCouldNotStart) {
    const std::string folder = test::freshFolder("child-start");
    test::writeFile(folder + "/not-executable", "#!/bin/sh\n");
    struct Case {
        ChildCommand command;
        const char* message;
    };
    const std::vector<Case> cases{
        {{.executable = folder + "/claude"}, "Couldn't start claude: No such file or directory"},
        {{.executable = folder + "/not-executable"},
         "Couldn't start not-executable: Permission denied"},
        {{.executable = "claude"}, "Couldn't start claude: its path is not absolute"},
    };
    for (const Case& c : cases) {
        try {
            runChild(c.command);
            ADD_FAILURE() << c.message;
        } catch (const CleanerError& error) {
            EXPECT_EQ(error.message(), c.message);
        }
    }
}

TEST(ChildProcess, DrainsBothOutputsWhileFeedingInputWithoutDeadlock) {
    const std::string folder = test::freshFolder("child-flood");
    constexpr std::size_t tenMegabytes = 10'000'000;
    // Each stream is far larger than a pipe holds, and all three move at once: a runner that
    // read one output to its end before the other, or wrote all input first, would hang here.
    ChildCommand flood = script(folder, "flood",
                                "head -c 10000000 /dev/zero | tr '\\0' o &\n"
                                "head -c 10000000 /dev/zero | tr '\\0' e >&2 &\n"
                                "wc -c >&2\n"
                                "wait\n");
    flood.input = std::string(tenMegabytes, 'i');
    ChildResult result = runChild(flood);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, std::string(tenMegabytes, 'o'));
    std::string counted = std::to_string(tenMegabytes) + "\n";
    ASSERT_EQ(result.errors.size(), tenMegabytes + counted.size());
    EXPECT_NE(result.errors.find(counted), std::string::npos);

    // A child that leaves before reading its input ends our writing, not our process.
    ChildCommand early = script(folder, "early", "exit 3");
    early.input = std::string(tenMegabytes, 'i');
    EXPECT_EQ(runChild(early).status, 3);

    // Past the limit the output is read and dropped, so the child still finishes.
    ChildCommand capped = script(folder, "capped", "head -c 1000000 /dev/zero");
    capped.outputLimit = 1000;
    ChildResult cut = runChild(capped);
    EXPECT_EQ(cut.status, 0);
    EXPECT_EQ(cut.output.size(), 1000U);
    EXPECT_TRUE(cut.outputCut);
}

TEST(ChildProcess, KillsAChildThatIgnoresTerminationThreeSecondsLater) {
    const std::string folder = test::freshFolder("child-stubborn");
    ChildCommand stubborn =
        script(folder, "stubborn", "trap 'echo terminated >&2' TERM\nwhile :; do sleep 1; done\n");
    stubborn.timeout = 200ms;
    const auto started = Clock::now();
    ChildResult result = runChild(stubborn);
    const auto took = Clock::now() - started;
    EXPECT_TRUE(result.timedOut);
    EXPECT_FALSE(result.cancelled);
    EXPECT_EQ(result.signal, SIGKILL);
    EXPECT_NE(result.errors.find("terminated"), std::string::npos)
        << "asked to end first: " << result.errors;
    EXPECT_GE(took, 200ms + 3s);
    EXPECT_LT(took, 200ms + 3s + 5s) << "killed, not left to run";
}

TEST(ChildProcess, CancelStopsTheChildAndWhatItStartedWithoutAnError) {
    const std::string folder = test::freshFolder("child-cancel");
    const std::string ready = folder + "/ready";
    ASSERT_EQ(::mkfifo(ready.c_str(), 0600), 0);
    ChildCommand polite =
        script(folder, "polite", "sleep 300 &\necho $! > '" + ready + "'\nwait\n");
    std::stop_source stop;
    pid_t grandchild = 0;
    std::jthread stopper([&] {
        grandchild = static_cast<pid_t>(std::stoi(awaitLine(ready)));
        stop.request_stop();
    });
    const auto started = Clock::now();
    ChildResult result = runChild(polite, stop.get_token());
    stopper.join();
    ::unlink(ready.c_str()); // the fixture teardown removes files and folders only
    EXPECT_TRUE(result.cancelled);
    EXPECT_FALSE(result.timedOut);
    EXPECT_EQ(result.signal, SIGTERM);
    EXPECT_LT(Clock::now() - started, 3s) << "a child that obeys is not held for the kill";
    ASSERT_GT(grandchild, 0);
    EXPECT_TRUE(endsWithin(grandchild, 10s)) << "the stop reaches what the child started";

    // A stop requested before the child starts ends it at once.
    std::stop_source already;
    already.request_stop();
    ChildResult early = runChild(script(folder, "waits", "exec sleep 300\n"), already.get_token());
    EXPECT_TRUE(early.cancelled);
    EXPECT_EQ(early.signal, SIGTERM);
}

TEST(ChildProcess, LeavesNoChildBehindWhenDroppedUnawaited) {
    const std::string folder = test::freshFolder("child-dropped");
    pid_t pid = 0;
    {
        ChildProcess child(script(folder, "lingers", "exec sleep 300\n"));
        pid = child.pid();
        ASSERT_EQ(::kill(pid, 0), 0);
    }
    // Reaped by the destructor: no such process, not even a zombie.
    EXPECT_EQ(::kill(pid, 0), -1);
    EXPECT_EQ(errno, ESRCH);
}

} // namespace
} // namespace sd
