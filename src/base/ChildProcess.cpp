#include "base/ChildProcess.h"

#include "base/CleanerError.h"
#include "base/PathText.h"
#include "platform/ChildExit.h"
#include "platform/FileSystemExtras.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace sd {
namespace {

using Clock = std::chrono::steady_clock;

CleanerError startError(const std::string& name, const std::string& reason) {
    return {CleanerError::Kind::ioError, "Couldn't start " + name + ": " + reason};
}

struct Pipe {
    UniqueFd read;
    UniqueFd write;
};

Pipe makeChildPipe(const std::string& name) {
    int ends[2];
    if (!platform::makePipe(ends)) {
        throw startError(name, errorText(errno));
    }
    return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

void setNonBlocking(int fd) {
    int flags = ::fcntl(fd, F_GETFL);
    if (flags >= 0) {
        ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    }
}

// The spawn attributes and file actions own memory of the C library; these free it on every path.
struct FileActions {
    posix_spawn_file_actions_t actions{};
    FileActions() { ::posix_spawn_file_actions_init(&actions); }
    ~FileActions() { ::posix_spawn_file_actions_destroy(&actions); }
    FileActions(const FileActions&) = delete;
    FileActions& operator=(const FileActions&) = delete;
};

struct SpawnAttributes {
    posix_spawnattr_t attributes{};
    SpawnAttributes() { ::posix_spawnattr_init(&attributes); }
    ~SpawnAttributes() { ::posix_spawnattr_destroy(&attributes); }
    SpawnAttributes(const SpawnAttributes&) = delete;
    SpawnAttributes& operator=(const SpawnAttributes&) = delete;
};

std::vector<char*> pointers(std::vector<std::string>& strings) {
    std::vector<char*> out;
    out.reserve(strings.size() + 1);
    for (std::string& s : strings) {
        out.push_back(s.data());
    }
    out.push_back(nullptr);
    return out;
}

void keep(std::string& into, const char* data, std::size_t count, std::size_t limit, bool& cut) {
    std::size_t room = limit > into.size() ? limit - into.size() : 0;
    if (count > room) {
        cut = true;
        count = room;
    }
    into.append(data, count);
}

int millisecondsUntil(Clock::time_point when) {
    auto left = std::chrono::ceil<std::chrono::milliseconds>(when - Clock::now()).count();
    return static_cast<int>(std::clamp<long long>(left, 0, 1'000'000));
}

} // namespace

ChildProcess::ChildProcess(const ChildCommand& command)
    : name_(lastComponent(command.executable)), input_(command.input), timeout_(command.timeout),
      killAfter_(command.killAfter), outputLimit_(command.outputLimit) {
    // Writing to a child that has already exited raises the broken-pipe signal, whose default
    // action would end this whole process; ignored, the write fails with EPIPE instead.
    static std::once_flag ignoreBrokenPipe;
    std::call_once(ignoreBrokenPipe, [] { (void)::signal(SIGPIPE, SIG_IGN); });

    if (command.executable.empty() || command.executable.front() != '/') {
        throw startError(name_, "its path is not absolute");
    }
    Pipe out = makeChildPipe(name_);
    Pipe err = makeChildPipe(name_);
    std::optional<Pipe> in;
    if (input_) {
        in = makeChildPipe(name_);
    }

    FileActions files;
    if (in) {
        ::posix_spawn_file_actions_adddup2(&files.actions, in->read.get(), STDIN_FILENO);
    } else {
        ::posix_spawn_file_actions_addopen(&files.actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    }
    ::posix_spawn_file_actions_adddup2(&files.actions, out.write.get(), STDOUT_FILENO);
    ::posix_spawn_file_actions_adddup2(&files.actions, err.write.get(), STDERR_FILENO);
    ::posix_spawn_file_actions_addchdir_np(&files.actions, command.directory.c_str());

    // A process group of its own, so a stop reaches whatever it starts; every signal back at its
    // default action and none blocked, whatever this process ignores or blocks.
    SpawnAttributes spawn;
    sigset_t all;
    sigset_t none;
    sigfillset(&all);
    sigemptyset(&none);
    ::posix_spawnattr_setflags(&spawn.attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF |
                                                      POSIX_SPAWN_SETSIGMASK);
    ::posix_spawnattr_setpgroup(&spawn.attributes, 0);
    ::posix_spawnattr_setsigdefault(&spawn.attributes, &all);
    ::posix_spawnattr_setsigmask(&spawn.attributes, &none);

    std::vector<std::string> argv{command.executable};
    argv.insert(argv.end(), command.arguments.begin(), command.arguments.end());
    std::vector<std::string> envp = command.environment;
    std::vector<char*> argvPointers = pointers(argv);
    std::vector<char*> envPointers = pointers(envp);
    pid_t pid = -1;
    int rc = ::posix_spawn(&pid, command.executable.c_str(), &files.actions, &spawn.attributes,
                           argvPointers.data(), envPointers.data());
    if (rc != 0) {
        throw startError(name_, errorText(rc));
    }
    pid_ = pid;
    exit_ = platform::watchChildExit(pid_);
    if (!exit_) {
        int error = errno;
        stopGroup(SIGKILL);
        reap();
        throw startError(name_, errorText(error));
    }
    stdout_ = std::move(out.read);
    stderr_ = std::move(err.read);
    setNonBlocking(stdout_.get());
    setNonBlocking(stderr_.get());
    if (in) {
        stdin_ = std::move(in->write);
        setNonBlocking(stdin_.get());
    }
}

ChildProcess::~ChildProcess() {
    if (pid_ <= 0 || reaped_) {
        return;
    }
    stdin_.reset();
    stopGroup(SIGTERM);
    const auto killAt = Clock::now() + killAfter_;
    pollfd watch{exit_.get(), POLLIN, 0};
    int ready = 0;
    do {
        ready = ::poll(&watch, 1, millisecondsUntil(killAt));
    } while (ready < 0 && errno == EINTR);
    if (ready <= 0) {
        stopGroup(SIGKILL);
    }
    reap();
}

void ChildProcess::stopGroup(int signal) noexcept {
    if (::kill(-pid_, signal) != 0) {
        ::kill(pid_, signal);
    }
}

void ChildProcess::reap() noexcept {
    int status = 0;
    pid_t done;
    do {
        done = ::waitpid(pid_, &status, 0);
    } while (done < 0 && errno == EINTR);
    rawStatus_ = status;
    reaped_ = true;
}

ChildResult ChildProcess::wait(const std::stop_token& stop) {
    ChildResult result;
    if (reaped_) {
        return result;
    }
    // A stop request writes to this pipe, which wakes the poll below at once.
    int wakeEnds[2];
    if (!platform::makePipe(wakeEnds)) {
        throw makeCoreError(operation::opening, "a pipe for " + name_, errno);
    }
    UniqueFd wake(wakeEnds[0]);
    UniqueFd wakeWriter(wakeEnds[1]);
    setNonBlocking(wake.get());
    setNonBlocking(wakeWriter.get());
    std::stop_callback onStop(stop, [fd = wakeWriter.get()] {
        char byte = 1;
        [[maybe_unused]] ssize_t n = ::write(fd, &byte, 1);
    });

    const auto deadline = Clock::now() + timeout_;
    std::optional<Clock::time_point> killAt;
    bool stopping = false;
    std::size_t written = 0;
    auto beginStop = [&](bool& reason) {
        reason = true;
        stopping = true;
        stdin_.reset();
        stopGroup(SIGTERM);
        killAt = Clock::now() + killAfter_;
    };
    char buffer[65536];
    auto drain = [&](UniqueFd& fd, std::string& into) {
        for (;;) {
            ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
            if (n > 0) {
                keep(into, buffer, static_cast<std::size_t>(n), outputLimit_, result.outputCut);
                continue;
            }
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) {
                fd.reset();
            }
            return;
        }
    };

    while (!reaped_) {
        pollfd watch[5];
        nfds_t count = 0;
        auto add = [&](const UniqueFd& fd, short events) {
            if (fd) {
                watch[count++] = {fd.get(), events, 0};
            }
            return count - 1;
        };
        const nfds_t outAt = stdout_ ? add(stdout_, POLLIN) : nfds_t(-1);
        const nfds_t errAt = stderr_ ? add(stderr_, POLLIN) : nfds_t(-1);
        const nfds_t inAt = stdin_ ? add(stdin_, POLLOUT) : nfds_t(-1);
        const nfds_t wakeAt = stopping ? nfds_t(-1) : add(wake, POLLIN);
        const nfds_t exitAt = add(exit_, POLLIN);
        const Clock::time_point until = killAt ? *killAt : deadline;
        const bool waitsForever = stopping && !killAt;
        int ready = ::poll(watch, count, waitsForever ? -1 : millisecondsUntil(until));
        if (ready < 0) {
            if (errno == EINTR) {
                continue;
            }
            throw makeCoreError("Waiting for", name_, errno);
        }
        auto fired = [&](nfds_t at) {
            return at != nfds_t(-1) && (watch[at].revents & (POLLIN | POLLOUT | POLLHUP | POLLERR));
        };
        if (fired(outAt)) {
            drain(stdout_, result.output);
        }
        if (fired(errAt)) {
            drain(stderr_, result.errors);
        }
        if (fired(inAt)) {
            const std::string& bytes = *input_;
            while (written < bytes.size()) {
                ssize_t n = ::write(stdin_.get(), bytes.data() + written, bytes.size() - written);
                if (n > 0) {
                    written += static_cast<std::size_t>(n);
                } else if (n < 0 && errno == EINTR) {
                    continue;
                } else {
                    break;
                }
            }
            // All written, or the child closed its end (EPIPE): either way it gets nothing more.
            if (written == bytes.size() || (errno != EAGAIN && errno != EWOULDBLOCK)) {
                stdin_.reset();
            }
        }
        if (fired(exitAt)) {
            reap();
            break;
        }
        if (fired(wakeAt)) {
            beginStop(result.cancelled);
            continue;
        }
        if (ready == 0 || Clock::now() >= until) {
            if (!stopping && Clock::now() >= deadline) {
                beginStop(result.timedOut);
            } else if (killAt && Clock::now() >= *killAt) {
                stopGroup(SIGKILL);
                killAt.reset();
            }
        }
    }
    // What the child wrote before it ended is all in the pipes now; anything a process it left
    // behind writes later is not waited for.
    stdin_.reset();
    if (stdout_) {
        drain(stdout_, result.output);
    }
    if (stderr_) {
        drain(stderr_, result.errors);
    }
    stdout_.reset();
    stderr_.reset();
    if (WIFEXITED(rawStatus_)) {
        result.status = WEXITSTATUS(rawStatus_);
    } else if (WIFSIGNALED(rawStatus_)) {
        result.signal = WTERMSIG(rawStatus_);
        result.status = 128 + result.signal;
    }
    return result;
}

ChildResult runChild(const ChildCommand& command, const std::stop_token& stop) {
    ChildProcess child(command);
    return child.wait(stop);
}

} // namespace sd
