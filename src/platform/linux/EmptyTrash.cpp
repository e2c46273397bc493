#include "platform/EmptyTrash.h"

#include "base/ChildProcess.h"
#include "base/CleanerError.h"

#include <array>
#include <cstdlib>
#include <unistd.h>

namespace sd::platform {
namespace {

constexpr std::string_view otherWays =
    "Empty it from your file manager, or run trash-empty in a terminal.";

// gio finds the Trash through these, and gvfs through the session bus; nothing else passes.
std::vector<std::string> toolEnvironment() {
    std::vector<std::string> out;
    for (const char* name : {"HOME", "XDG_DATA_HOME", "XDG_RUNTIME_DIR", "DBUS_SESSION_BUS_ADDRESS",
                             "LANG", "LC_ALL", "PATH"}) {
        if (const char* value = std::getenv(name)) { // NOLINT(concurrency-mt-unsafe)
            out.push_back(std::string(name) + "=" + value);
        }
    }
    return out;
}

std::string firstLine(const std::string& text) {
    std::string line = text.substr(0, text.find('\n'));
    while (!line.empty() && (line.back() == '.' || line.back() == ' ')) {
        line.pop_back();
    }
    return line;
}

} // namespace

EmptyTrashOutcome emptyTrashWithDesktopTool(const std::stop_token& stop) {
    const char* gio = nullptr;
    for (const char* candidate : {"/usr/bin/gio", "/bin/gio"}) {
        if (::access(candidate, X_OK) == 0) {
            gio = candidate;
            break;
        }
    }
    if (gio == nullptr) {
        return {false, "Sparrowdeck empties the Trash through your desktop's own tool, gio, and "
                       "it isn't installed. " +
                           std::string(otherWays)};
    }
    ChildCommand command;
    command.executable = gio;
    command.arguments = {"trash", "--empty"};
    command.environment = toolEnvironment();
    command.timeout = std::chrono::minutes(10);
    try {
        ChildResult result = runChild(command, stop);
        if (result.cancelled) {
            return {false, "Stopped. Whatever the desktop had already removed is gone; the rest "
                           "is still in the Trash."};
        }
        if (!result.succeeded()) {
            std::string why = firstLine(result.errors);
            return {false, "Your desktop's tool did not empty the Trash" +
                               (why.empty() ? std::string() : " (" + why + ")") + ". " +
                               std::string(otherWays)};
        }
    } catch (const CleanerError& error) {
        return {false, std::string(error.what()) + ". " + std::string(otherWays)};
    }
    return {true, "The Trash is empty."};
}

} // namespace sd::platform
