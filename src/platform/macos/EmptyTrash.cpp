#include "platform/EmptyTrash.h"

#include "base/ChildProcess.h"
#include "base/CleanerError.h"

namespace sd::platform {

// The Finder empties the Trash as it would from its own menu.
EmptyTrashOutcome emptyTrashWithDesktopTool(const std::stop_token& stop) {
    ChildCommand command;
    command.executable = "/usr/bin/osascript";
    command.arguments = {"-e", "tell application \"Finder\" to empty trash"};
    command.timeout = std::chrono::minutes(10);
    try {
        ChildResult result = runChild(command, stop);
        if (!result.succeeded()) {
            return {false, "Finder did not empty the Trash. Empty it from the Dock."};
        }
    } catch (const CleanerError& error) {
        return {false, error.what()};
    }
    return {true, "The Trash is empty."};
}

} // namespace sd::platform
