#pragma once

#include <stop_token>
#include <string>

namespace sd::platform {

// What the desktop's own tool said when asked to empty the Trash.
struct EmptyTrashOutcome {
    bool emptied = false;
    std::string sentence; // for the person: what happened, or what to do instead
};

// Empties the Trash the way the desktop itself does (on Linux `gio trash --empty`, on macOS the
// Finder). Sparrowdeck's own code never deletes anything: where the desktop's tool is missing or
// refuses, nothing is deleted and the sentence names another way.
EmptyTrashOutcome emptyTrashWithDesktopTool(const std::stop_token& stop);

} // namespace sd::platform
