#include "apps/Uninstall.h"

#include "base/ChildProcess.h"
#include "base/CleanerError.h"
#include "base/PathText.h"
#include "base/Stop.h"
#include "core/CoreFileSystem.h"
#include "core/PathRules.h"

#include <sys/stat.h>

namespace sd {
namespace {

using platform::AppSource;

// Ends a note with the sentence that the data did not move either.
std::string withDataStayed(std::string note) {
    while (!note.empty() && (note.back() == '\n' || note.back() == ' ')) {
        note.pop_back();
    }
    if (!note.empty() && note.back() == '.') {
        return note + std::string(uninstallText::dataStayedToo.substr(1));
    }
    return note + std::string(uninstallText::dataStayedToo);
}

std::string changedNote(const std::string& name) {
    return name + " changed since Sparrowdeck read it (an update?), so nothing moved. Look again.";
}

std::string packagedNote(const std::string& name, const std::string& command) {
    return "Sparrowdeck never removes packaged apps itself. To remove " + name +
           ", run: " + command;
}

std::string notMovableNote(const std::string& name) {
    return "Sparrowdeck only moves apps from ~/Applications, ~/AppImages and ~/.local/bin; " +
           name + " stayed.";
}

bool insideHomeFolder(const std::string& path, std::string_view folder) {
    std::string root = homeDirectory() + "/" + std::string(folder);
    return path.starts_with(root + "/") && path.find('/', root.size() + 1) == std::string::npos;
}

// Plans, re-checks and moves `paths` through the vault; each must still be what `expected`
// says. Appends the notes of what stayed.
MoveOutcome moveChecked(const VaultService& vault, const std::vector<std::string>& paths,
                        const std::vector<EntryIdentity>& expected, const std::stop_token& stop) {
    VaultPlan plan = vault.planner(paths, {}, nullptr);
    std::vector<size_t> ticked;
    for (size_t i = 0; i < plan.items.size() && i < expected.size(); ++i) {
        VaultPlanItem& item = plan.items[i];
        if (!item.denied && item.identity() != expected[i]) {
            item.denied = VaultDenyReason::identityChanged;
        }
        ticked.push_back(i);
    }
    return vault.move(plan, ticked, stop);
}

} // namespace

std::string finderDeleteScript(std::string_view path) {
    std::string escaped;
    for (char c : path) {
        if (c == '\\' || c == '"') {
            escaped.push_back('\\');
        }
        escaped.push_back(c);
    }
    return "tell application \"Finder\"\n    delete {POSIX file \"" + escaped +
           "\" as alias}\nend tell";
}

std::string finderFailureNote(std::string_view appName, std::string_view stderrText) {
    if (stderrText.find("-1743") != std::string_view::npos ||
        stderrText.find("Not authorized to send Apple events") != std::string_view::npos) {
        return std::string(uninstallText::notAllowedFinder);
    }
    if (stderrText.find("-128") != std::string_view::npos ||
        stderrText.find("User cancel") != std::string_view::npos) {
        return std::string(uninstallText::authorizationCancelled);
    }
    while (!stderrText.empty() && (stderrText.back() == '\n' || stderrText.back() == ' ')) {
        stderrText.remove_suffix(1);
    }
    return "Finder could not move " + std::string(appName) + ": " + std::string(stderrText);
}

OSAScriptResult runAppleScript(const std::string& osascript, const std::string& script,
                               const std::stop_token& stop) {
    ChildCommand command;
    command.executable = osascript;
    command.arguments = {"-"};
    command.input = script;
    command.environment = {"LANG=en_US.UTF-8", "PATH=/usr/bin:/bin"};
    command.timeout = std::chrono::seconds(120);
    try {
        ChildResult result = runChild(command, stop);
        return {result.succeeded() ? 0 : (result.status == 0 ? -1 : result.status), result.output,
                result.errors};
    } catch (const CleanerError& error) {
        return {-1, {}, error.what()};
    }
}

bool canMoveApp(const platform::InstalledApp& app) {
    switch (app.source) {
    case AppSource::appImage:
        return insideHomeFolder(app.location, "Applications") ||
               insideHomeFolder(app.location, "AppImages") ||
               insideHomeFolder(app.location, ".local/bin");
    case AppSource::local:
        return insideHomeFolder(app.location, "Applications");
    case AppSource::bundle:
        return app.location.starts_with("/Applications/") && app.location.ends_with(".app");
    default:
        return false;
    }
}

UninstallPreview previewUninstall(const platform::InstalledApp& app, std::uint64_t appBytes,
                                  const std::vector<Leftover>& data) {
    UninstallPreview out;
    const std::string& name = app.name;
    const bool appMoves = canMoveApp(app);
    if (appMoves) {
        out.appNote = name + " goes to the Trash with the data you chose.";
        out.moves.push_back({app.location, appBytes});
    } else if (std::string command = platform::removalCommand(app); !command.empty()) {
        out.removalCommand = command;
        out.appNote = packagedNote(name, command);
    } else {
        // uninstallApp moves no data of an app it cannot move: the two go together or not at all.
        out.appNote = notMovableNote(name) + " Its data stays too.";
        return out;
    }
    for (const Leftover& place : data) {
        out.moves.push_back({place.path, place.bytes});
    }
    const size_t places = data.size();
    const std::string placesText =
        std::to_string(places) + " data " + (places == 1 ? "place" : "places");
    if (appMoves && places > 0) {
        out.question = "Move " + name + " and " + placesText + " to the Trash?";
    } else if (appMoves) {
        out.question = "Move " + name + " to the Trash?";
    } else if (places > 0) {
        out.question = "Move " + placesText + " of " + name + " to the Trash?";
    }
    return out;
}

UninstallOutcome uninstallApp(const platform::InstalledApp& app, const std::vector<Leftover>& data,
                              const VaultService& vault, ReclaimJournal& journal,
                              const UninstallOptions& options, const std::stop_token& stop) {
    UninstallOutcome out;
    const std::string& name = app.name;
    const std::string title = "Uninstalled " + name;
    const std::string entryID = newUuid();
    auto journalMoved = [&](const std::vector<MovedItem>& moved, const std::string& group) {
        std::vector<TrashedItem> items;
        for (const MovedItem& m : moved) {
            items.push_back({m.originalPath, m.trashPath, m.bytes, m.identityToken, group, false,
                             std::nullopt});
            out.moved.push_back(m);
        }
        if (!items.empty()) {
            out.entryID = journal.record(std::move(items), title, JournalKind::uninstall,
                                         JournalContext{entryID, group});
        }
    };

    throwIfStopped(stop);
    if (app.source == AppSource::bundle) {
        if (!app.location.starts_with(options.applicationsFolder + "/") ||
            !app.location.ends_with(".app")) {
            out.notes.push_back("Sparrowdeck only moves apps from /Applications; " + name +
                                " stayed.");
            return out;
        }
        struct stat st {};
        if (::lstat(app.location.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
            out.notes.push_back(name + " is not a plain app bundle, so it stayed.");
            return out;
        }
        if (EntryIdentity::of(st) != app.identity) {
            out.notes.push_back(changedNote(name));
            return out;
        }
        OSAScriptResult ran =
            runAppleScript(options.osascript, finderDeleteScript(app.location), stop);
        if (ran.exitCode != 0) {
            out.notes.push_back(withDataStayed(finderFailureNote(name, ran.standardError)));
            return out;
        }
        out.appMoved = true;
        std::optional<std::string> inTrash =
            options.bundleInTrash ? options.bundleInTrash(app.location) : std::nullopt;
        if (!inTrash || platform::currentIdentity(*inTrash) != app.identity) {
            out.notes.push_back("What reached the Trash is not the copy of " + name +
                                " that was checked. It can go back from Activity.");
        } else {
            out.notes.push_back("Moved " + name +
                                " to the Trash. Use Finder’s Put Back for the app itself.");
        }
    } else if (canMoveApp(app)) {
        if (platform::currentIdentity(app.location) != app.identity) {
            out.notes.push_back(changedNote(name));
            return out;
        }
        MoveOutcome moved = moveChecked(vault, {app.location}, {app.identity}, stop);
        if (moved.moved.empty()) {
            std::string reason = moved.notes.empty() ? std::string("it stayed") : moved.notes[0];
            out.notes.push_back(withDataStayed(name + " could not be moved: " + reason));
            return out;
        }
        out.appMoved = true;
        journalMoved(moved.moved, "app");
        out.notes.insert(out.notes.end(), moved.notes.begin(), moved.notes.end());
        out.notes.push_back("Moved " + name +
                            " to the Trash. Put it back from Activity if you need it again.");
    } else if (std::string command = platform::removalCommand(app); !command.empty()) {
        out.removalCommand = command;
        out.notes.push_back(packagedNote(name, command));
    } else {
        out.notes.push_back(notMovableNote(name));
        return out;
    }

    std::vector<std::string> paths;
    std::vector<EntryIdentity> identities;
    for (const Leftover& item : data) {
        throwIfStopped(stop);
        if (!isAppDataPlace(item.path)) {
            out.notes.push_back(item.path +
                                " is not in a place Sparrowdeck moves app data from — left in "
                                "place.");
            continue;
        }
        std::optional<EntryIdentity> now = platform::currentIdentity(item.path);
        if (!now) {
            out.notes.push_back(item.path + " could not be re-checked — left in place.");
            continue;
        }
        std::vector<std::string> warnings;
        FootprintTally tally;
        Footprint footprint = measureFootprint(item.path, *now, warnings, tally, stop);
        if (*now != item.identity || footprint.vanished || footprint.allocatedBytes != item.bytes) {
            out.notes.push_back(item.path + " changed since it was measured — left in place.");
            continue;
        }
        paths.push_back(item.path);
        identities.push_back(item.identity);
    }
    if (!paths.empty()) {
        out.dataTouched = true;
        MoveOutcome moved = moveChecked(vault, paths, identities, stop);
        journalMoved(moved.moved, "data");
        out.notes.insert(out.notes.end(), moved.notes.begin(), moved.notes.end());
    }
    return out;
}

} // namespace sd
