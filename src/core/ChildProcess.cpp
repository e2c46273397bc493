#include "core/ChildProcess.h"

#include "base/CleanerError.h"
#include "base/UniqueFd.h"

#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace sd {
namespace {

std::vector<char*> pointers(std::vector<std::string>& strings) {
    std::vector<char*> out;
    out.reserve(strings.size() + 1);
    for (std::string& s : strings) {
        out.push_back(s.data());
    }
    out.push_back(nullptr);
    return out;
}

int waitFor(pid_t pid) {
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

} // namespace

ChildResult runChild(const std::string& program, const std::vector<std::string>& arguments,
                     const std::vector<std::string>& environment, std::chrono::milliseconds limit) {
    ChildResult result;
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0) {
        throw makeCoreError(operation::opening, "a pipe for " + program, errno);
    }
    UniqueFd readEnd(pipeFds[0]);
    UniqueFd writeEnd(pipeFds[1]);

    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    ::posix_spawn_file_actions_adddup2(&actions, writeEnd.get(), STDOUT_FILENO);
    ::posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);

    std::vector<std::string> argv{program};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    std::vector<std::string> envp = environment;
    std::vector<char*> argvPointers = pointers(argv);
    std::vector<char*> envPointers = pointers(envp);
    pid_t pid = 0;
    int rc = ::posix_spawn(&pid, program.c_str(), &actions, nullptr, argvPointers.data(),
                           envPointers.data());
    ::posix_spawn_file_actions_destroy(&actions);
    writeEnd.reset();
    if (rc != 0) {
        return result;
    }

    const auto deadline = std::chrono::steady_clock::now() + limit;
    char buffer[4096];
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            result.timedOut = true;
            break;
        }
        pollfd watch{readEnd.get(), POLLIN, 0};
        int ready = ::poll(&watch, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready == 0) {
            result.timedOut = true;
            break;
        }
        ssize_t n = ::read(readEnd.get(), buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        result.output.append(buffer, static_cast<size_t>(n));
    }
    // Standard output may close before the child ends; its exit is awaited within the same limit.
    while (!result.timedOut) {
        int status = 0;
        pid_t done = ::waitpid(pid, &status, WNOHANG);
        if (done == pid) {
            if (WIFEXITED(status)) {
                result.exitStatus = WEXITSTATUS(status);
            }
            return result;
        }
        if (done < 0 && errno != EINTR) {
            return result;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            result.timedOut = true;
            break;
        }
        ::usleep(1'000);
    }
    {
        ::kill(pid, SIGTERM);
        // A child that ignores the polite request is not allowed to hold the caller up.
        for (int i = 0; i < 20; ++i) {
            int status = 0;
            if (::waitpid(pid, &status, WNOHANG) == pid) {
                return result;
            }
            ::usleep(10'000);
        }
        ::kill(pid, SIGKILL);
        waitFor(pid);
        return result;
    }
}

} // namespace sd
