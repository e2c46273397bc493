#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>

namespace sd {

// The app is started by the desktop, not from a terminal, so it lacks what the user's shell
// start-up files set up (a PATH with a version manager in it, say). The capture runs the login
// shell once and reads back where it finds a tool and the environment it ends up with.
struct LoginEnvironment {
    std::optional<std::string> toolPath{}; // absolute, as the shell resolves the tool's name
    std::map<std::string, std::string> environment{};
};

inline constexpr std::string_view captureMarker = "__SPARROWDECK_ENV__";

// Who the capture runs as: the shell and the five variables it is given.
struct CaptureSetup {
    std::string shell{};
    std::string home{};
    std::string user{};
    std::string path{};
    std::chrono::milliseconds timeout{8'000};

    // The account's login shell, its home and name, and this process's PATH (or the system's
    // usual one).
    static CaptureSetup standard();
};

// The command string given to the shell with "-lc": the tool's path, the marker on a line of its
// own, then the environment as NUL-separated entries. One text serves sh, bash, zsh and fish.
std::string captureCommand(std::string_view tool);

// Splits what the shell printed at the first marker line: before it, the last non-empty line is
// the tool's path when it is absolute (start-up files may print anything above it); after it,
// NUL-separated "NAME=value" entries split at their first "=".
LoginEnvironment parseCapture(std::string_view output);

// Runs the capture. A shell that cannot start, fails or runs past its time limit gives an empty
// result: the tool is then looked for in the usual folders.
LoginEnvironment captureLoginEnvironment(const CaptureSetup& setup, std::string_view tool,
                                         const std::stop_token& stop = {});

} // namespace sd
