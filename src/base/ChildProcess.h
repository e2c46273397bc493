#pragma once

#include "base/UniqueFd.h"

#include <chrono>
#include <cstddef>
#include <optional>
#include <stop_token>
#include <string>
#include <sys/types.h>
#include <vector>

namespace sd {

// Everything a child process gets from us, and nothing else: no variable, descriptor, signal
// disposition or folder of ours leaks into it.
struct ChildCommand {
    std::string executable{};               // absolute path; never looked up on a PATH
    std::vector<std::string> arguments{};   // argv[1] onwards; argv[0] is the executable
    std::vector<std::string> environment{}; // "NAME=value", exactly these
    std::string directory = "/";            // its working folder
    std::optional<std::string> input{};     // written to its standard input, which is then
                                            // closed; without it standard input is empty
    std::chrono::milliseconds timeout{30'000};
    // After the termination signal, how long it may take to end before it is killed.
    std::chrono::milliseconds killAfter{3'000};
    // The most bytes kept of each output; the rest is still read, so the child never blocks.
    std::size_t outputLimit = std::size_t(64) << 20;
};

struct ChildResult {
    int status = -1;        // exit status; 128 + the signal's number when a signal ended it
    int signal = 0;         // the signal that ended it, 0 when it exited
    std::string output{};   // standard output
    std::string errors{};   // standard error
    bool timedOut = false;  // it ran past its time limit and was stopped
    bool cancelled = false; // a stop was requested and it was stopped
    bool outputCut = false; // an output passed outputLimit and its end was dropped

    bool succeeded() const noexcept {
        return status == 0 && signal == 0 && !timedOut && !cancelled;
    }
};

// One running child: it owns the pipes and the process id, and its destructor never leaves a
// child behind. The child runs in a process group of its own, so that stopping it also stops
// what it started; stopping means the termination signal, then the kill signal `killAfter`
// later if the group is still there.
class ChildProcess {
public:
    // Starts the child. Throws CleanerError "Couldn't start <name>: <reason>" when it cannot.
    // The first start in a process makes the process ignore the broken-pipe signal, so a child
    // that exits before reading its input cannot end us.
    explicit ChildProcess(const ChildCommand& command);
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    // Stops the child if it still runs and reaps it.
    ~ChildProcess();

    pid_t pid() const noexcept { return pid_; }

    // Feeds its input and drains both outputs at once until it ends, its time limit passes or
    // `stop` is requested; in the last two cases it is stopped and the flag says why. A stop is
    // not a failure: nothing is thrown for it. Call once.
    ChildResult wait(const std::stop_token& stop = {});

private:
    void stopGroup(int signal) noexcept;
    void reap() noexcept;

    std::string name_{};
    std::optional<std::string> input_{};
    std::chrono::milliseconds timeout_{};
    std::chrono::milliseconds killAfter_{};
    std::size_t outputLimit_{};
    pid_t pid_ = -1;
    bool reaped_ = false;
    int rawStatus_ = 0;
    UniqueFd stdin_;
    UniqueFd stdout_;
    UniqueFd stderr_;
    UniqueFd exit_;
};

// Starts `command` and waits for it. Throws only for a child that could not start.
ChildResult runChild(const ChildCommand& command, const std::stop_token& stop = {});

} // namespace sd
