#include "assistant/EnvironmentCapture.h"

#include "base/ChildProcess.h"
#include "base/CleanerError.h"
#include "base/PathText.h"
#include "platform/AssistantTools.h"
#include "platform/Home.h"

#include <cstdlib>

namespace sd {
namespace {

// Shells that understand "-l -c COMMAND" and the command above. Any other login shell (csh,
// tcsh, nu…) has its own syntax, so the capture falls back on the system's sh.
bool understandsCapture(std::string_view shell) {
    std::string name = lastComponent(shell);
    for (std::string_view known : {"sh", "bash", "zsh", "dash", "ksh", "mksh", "fish"}) {
        if (name == known) {
            return true;
        }
    }
    return false;
}

} // namespace

CaptureSetup CaptureSetup::standard() {
    CaptureSetup setup;
    setup.shell = platform::loginShell();
    setup.home = platform::homeDirectory();
    setup.user = platform::accountUserName();
    const char* path = std::getenv("PATH");
    setup.path = path != nullptr && *path != '\0' ? path : "/usr/bin:/bin:/usr/sbin:/sbin";
    return setup;
}

std::string captureCommand(std::string_view tool) {
    return "command -v " + std::string(tool) + "; printf '\\n" + std::string(captureMarker) +
           "\\n'; /usr/bin/env -0";
}

LoginEnvironment parseCapture(std::string_view output) {
    LoginEnvironment result;
    const std::string marker = "\n" + std::string(captureMarker) + "\n";
    size_t at = output.find(marker);
    if (at == std::string_view::npos) {
        return result;
    }
    std::string_view before = output.substr(0, at);
    std::string_view after = output.substr(at + marker.size());
    while (!before.empty()) {
        size_t lineStart = before.rfind('\n');
        std::string_view line =
            lineStart == std::string_view::npos ? before : before.substr(lineStart + 1);
        while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) {
            line.remove_suffix(1);
        }
        if (!line.empty()) {
            if (line.front() == '/') {
                result.toolPath = std::string(line);
            }
            break;
        }
        before =
            lineStart == std::string_view::npos ? std::string_view() : before.substr(0, lineStart);
    }
    while (!after.empty()) {
        size_t end = after.find('\0');
        std::string_view entry = after.substr(0, end);
        size_t equals = entry.find('=');
        if (equals != std::string_view::npos && equals > 0) {
            result.environment.emplace(std::string(entry.substr(0, equals)),
                                       std::string(entry.substr(equals + 1)));
        }
        if (end == std::string_view::npos) {
            break;
        }
        after.remove_prefix(end + 1);
    }
    return result;
}

LoginEnvironment captureLoginEnvironment(const CaptureSetup& setup, std::string_view tool,
                                         const std::stop_token& stop) {
    ChildCommand command;
    command.executable = understandsCapture(setup.shell) ? setup.shell : "/bin/sh";
    command.arguments = {"-lc", captureCommand(tool)};
    command.environment = {"HOME=" + setup.home, "USER=" + setup.user, "LOGNAME=" + setup.user,
                           "PATH=" + setup.path, "TERM=dumb"};
    command.directory = setup.home.empty() ? "/" : setup.home;
    command.timeout = setup.timeout;
    try {
        ChildResult result = runChild(command, stop);
        if (result.timedOut || result.cancelled) {
            return {};
        }
        // A start-up file that fails late still leaves a usable capture behind the marker.
        return parseCapture(result.output);
    } catch (const CleanerError&) {
        return {};
    }
}

} // namespace sd
