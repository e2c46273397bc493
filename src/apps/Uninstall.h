#pragma once

#include "apps/AppDataLocations.h"
#include "core/MoveListing.h"
#include "platform/InstalledApps.h"
#include "reclaim/ReclaimJournal.h"
#include "reclaim/VaultService.h"

#include <functional>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

// Uninstalling: the app itself where Sparrowdeck may move it, then the data the person chose,
// each checked again right before it moves and journaled so that it can be put back. A packaged
// app is never removed here: the note names the package manager's own command.
namespace sd {

struct OSAScriptResult {
    int exitCode = -1;
    std::string standardOutput;
    std::string standardError;
};

// The script that asks Finder to move the bundle at `path` to the Trash, the path escaped so
// that a double quote or a backslash in it stays part of the name.
std::string finderDeleteScript(std::string_view path);

// The note for a Finder move that failed with `stderrText`.
std::string finderFailureNote(std::string_view appName, std::string_view stderrText);

// Runs `script` through the AppleScript runner at `osascript` (the script goes on standard input).
OSAScriptResult runAppleScript(const std::string& osascript, const std::string& script,
                               const std::stop_token& stop = {});

struct UninstallOptions {
    // Where app bundles may be moved from.
    std::string applicationsFolder = "/Applications";
    // The AppleScript runner for app bundles.
    std::string osascript = "/usr/bin/osascript";
    // Where a bundle Finder moved is found in the Trash, to check it is the one planned.
    std::function<std::optional<std::string>(const std::string& bundlePath)> bundleInTrash;
};

struct UninstallOutcome {
    bool appMoved = false;
    bool dataTouched = false;
    std::vector<std::string> notes;
    std::vector<MovedItem> moved;
    std::string entryID;        // the journal entry, empty when nothing was journaled
    std::string removalCommand; // for packaged apps: what the person runs to remove it
};

// Moves the app (when this system lets Sparrowdeck move it) and then each chosen data item.
// Throws CleanerError "Operation cancelled" when stopped; what moved before stays journaled.
UninstallOutcome uninstallApp(const platform::InstalledApp& app, const std::vector<Leftover>& data,
                              const VaultService& vault, ReclaimJournal& journal,
                              const UninstallOptions& options, const std::stop_token& stop = {});

// True when Sparrowdeck itself may move this app to the Trash (and not only its data).
bool canMoveApp(const platform::InstalledApp& app);

// What an uninstall would do, said before anything moves.
struct UninstallPreview {
    // "Move Tool and 2 data places to the Trash?"; empty when nothing would move.
    std::string question;
    // What happens to the app itself: it goes too, it stays because a package manager owns it
    // (the command to remove it is `removalCommand`), or it stays and so does its data.
    std::string appNote;
    std::string removalCommand;
    // The app (when it may move) and each chosen data place, with their sizes.
    std::vector<ListedMove> moves;
};

UninstallPreview previewUninstall(const platform::InstalledApp& app, std::uint64_t appBytes,
                                  const std::vector<Leftover>& data);

namespace uninstallText {
inline constexpr std::string_view notAllowedFinder =
    "Sparrowdeck is not allowed to ask Finder. Turn on Finder for Sparrowdeck in System Settings "
    "→ Privacy & Security → Automation, then try again.";
inline constexpr std::string_view authorizationCancelled =
    "Authorization was cancelled, so nothing moved.";
inline constexpr std::string_view dataStayedToo = ". Its data stayed too.";
} // namespace uninstallText

} // namespace sd
