// Uninstalling as a user does it: the command line over a fixture home, the Trash checked with
// trash-list, Put Back checked byte for byte; the Finder path driven through a fake osascript.
#include "apps/Uninstall.h"

#include "FakeTools.h"
#include "Fixture.h"
#include "apps/AppListing.h"
#include "apps/AppsFixture.h"
#include "core/PathRules.h"
#include "platform/Dirs.h"
#include "reclaim/VaultPolicy.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <unistd.h>

namespace sd {
namespace {

using test::put;
using test::putFilled;
using test::queryFor;

using platform::AppSource;

struct CliRun {
    int status;
    std::string output;
};

CliRun run(const std::string& arguments) {
    test::CommandResult r =
        test::runShell("SPARROWDECK_HOME=" + test::shellQuote(test::fixtureHome()) +
                       " XDG_DATA_HOME=" + test::shellQuote(test::fixtureHome() + "/.local/share") +
                       " XDG_CONFIG_HOME=" + test::shellQuote(test::fixtureHome() + "/.config") +
                       " " SPARROWDECK_CLI " " + arguments + " </dev/null 2>/dev/null");
    return {r.status, r.output};
}

std::string digest(const std::string& path) {
    return test::runShell("cd " + test::shellQuote(path) +
                          " 2>/dev/null && find . -type f -print0 | sort -z | xargs -0 "
                          "sha256sum; sha256sum " +
                          test::shellQuote(path) + " 2>/dev/null")
        .output;
}

void writeAppImage(const std::string& path, std::uint64_t bytes) {
    std::string contents("\x7F"
                         "ELF\x02\x01\x01\x00"
                         "AI\x02",
                         11);
    contents.resize(bytes, 'z');
    put(path, contents);
    ::chmod(path.c_str(), 0755);
}

TEST(UninstallCommand, AppImageAndItsDataGoToTheTrashAndComeBack) {
    if (!test::haveTool("trash-list")) {
        GTEST_SKIP() << "trash-list (trash-cli) is not installed";
    }
    const std::string& home = test::fixtureHome();
    const std::string image = home + "/Applications/Tool-1.0-x86_64.AppImage";
    writeAppImage(image, 250000);
    putFilled(home + "/.config/Tool/settings.json", 6000);
    putFilled(home + "/.cache/Tool/blob", 90000, 'c');
    putFilled(home + "/.config/Toolbox/keep", 100); // a longer name: never touched
    const std::vector<std::string> paths{image, home + "/.config/Tool", home + "/.cache/Tool"};
    std::vector<std::string> before;
    before.reserve(paths.size());
    for (const std::string& path : paths) {
        before.push_back(digest(path));
    }

    CliRun shown = run("apps show Tool --json");
    ASSERT_EQ(shown.status, 0) << shown.output;
    nlohmann::json app = nlohmann::json::parse(shown.output);
    EXPECT_EQ(app.at("source"), "appImage");
    EXPECT_EQ(app.at("movable"), true);
    EXPECT_EQ(app.at("data").size(), 2U);

    CliRun refused = run("uninstall Tool");
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(::access(image.c_str(), F_OK), 0) << "nothing moves without --yes off a terminal";

    CliRun moved = run("uninstall Tool --yes --json");
    ASSERT_EQ(moved.status, 0) << moved.output;
    nlohmann::json out = nlohmann::json::parse(moved.output);
    EXPECT_EQ(out.at("moved").size(), 3U);
    for (const std::string& path : paths) {
        EXPECT_NE(::access(path.c_str(), F_OK), 0) << path;
    }
    EXPECT_EQ(::access((home + "/.config/Toolbox/keep").c_str(), F_OK), 0);

    std::string listed =
        test::runShell("env XDG_DATA_HOME=" + test::shellQuote(home + "/.local/share") +
                       " trash-list 2>/dev/null")
            .output;
    for (const std::string& path : paths) {
        EXPECT_NE(listed.find(path), std::string::npos) << "trash-list shows " << path;
    }

    CliRun activity = run("activity --json");
    nlohmann::json entries = nlohmann::json::parse(activity.output).at("entries");
    ASSERT_EQ(entries.size(), 1U);
    EXPECT_EQ(entries[0].at("kind"), "uninstall");
    CliRun back = run("put-back " + out.at("entryID").get<std::string>());
    EXPECT_EQ(back.status, 0) << back.output;
    for (size_t i = 0; i < paths.size(); ++i) {
        EXPECT_EQ(digest(paths[i]), before[i]) << paths[i] << " came back byte for byte";
    }
}

TEST(UninstallCommand, PackagedAppsAreNeverTouched) {
    CliRun listed = run("apps --json");
    ASSERT_EQ(listed.status, 0);
    std::string id;
    std::string package;
    std::string entry;
    nlohmann::json apps = nlohmann::json::parse(listed.output);
    for (const auto& app : apps.at("apps")) {
        if (app.at("source") == "deb") {
            id = app.at("id");
            package = app.at("package");
            entry = app.at("entry");
            break;
        }
    }
    if (id.empty()) {
        GTEST_SKIP() << "no desktop entry of a Debian package on this machine";
    }
    struct stat before {};
    ASSERT_EQ(::lstat(entry.c_str(), &before), 0);
    CliRun moved = run("uninstall " + test::shellQuote(id) + " --yes --json");
    nlohmann::json out = nlohmann::json::parse(moved.output);
    EXPECT_EQ(out.at("appMoved"), false);
    EXPECT_EQ(out.at("removalCommand"), "sudo apt remove " + package);
    std::string notes = out.at("notes").dump();
    EXPECT_NE(notes.find("sudo apt remove " + package), std::string::npos);
    struct stat after {};
    ASSERT_EQ(::lstat(entry.c_str(), &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino);
    EXPECT_EQ(after.st_ctim.tv_nsec, before.st_ctim.tv_nsec);
}

platform::AppSearchRoots homeOnlyRoots() {
    platform::AppSearchRoots roots = platform::standardAppRoots();
    roots.dataDirs = {platform::dataHome()};
    roots.flatpakInstallations = {};
    roots.snapRoot = test::fixtureHome() + "/no-snap";
    roots.dpkgQuery.clear();
    return roots;
}

TEST(Uninstall, AnAppThatChangedSinceListingMovesNothing) {
    const std::string& home = test::fixtureHome();
    const std::string image = home + "/AppImages/Editor-3.1.AppImage";
    writeAppImage(image, 80000);
    putFilled(home + "/.config/Editor/prefs", 4000);
    AppListing listing = listApps(homeOnlyRoots(), DataLookup::measure);
    const AppListEntry* entry = findApp(listing, "Editor");
    ASSERT_NE(entry, nullptr);
    ASSERT_EQ(entry->data.size(), 1U);

    // An update replaces the file between listing and uninstall, as updaters do: a new file
    // renamed over the old one (written while the old one exists, so its inode differs).
    writeAppImage(image + ".new", 90000);
    ASSERT_EQ(::rename((image + ".new").c_str(), image.c_str()), 0);

    auto policy = std::make_shared<const VaultPolicy>(homeDirectory());
    ReclaimJournal journal(std::nullopt);
    UninstallOutcome outcome = uninstallApp(entry->app, entry->data, VaultService::standard(policy),
                                            journal, {}, std::stop_token{});
    EXPECT_FALSE(outcome.appMoved);
    EXPECT_TRUE(outcome.moved.empty());
    ASSERT_EQ(outcome.notes.size(), 1U);
    EXPECT_EQ(outcome.notes[0], "Editor changed since Sparrowdeck read it (an update?), so "
                                "nothing moved. Look again.");
    EXPECT_EQ(::access(image.c_str(), F_OK), 0);
    EXPECT_EQ(::access((home + "/.config/Editor/prefs").c_str(), F_OK), 0);
    EXPECT_TRUE(journal.entries().empty());

    // Data that changed after it was measured stays; the app itself still goes.
    listing = listApps(homeOnlyRoots(), DataLookup::measure);
    entry = findApp(listing, "Editor");
    ASSERT_NE(entry, nullptr);
    putFilled(home + "/.config/Editor/more", 64000);
    outcome = uninstallApp(entry->app, entry->data, VaultService::standard(policy), journal, {},
                           std::stop_token{});
    EXPECT_TRUE(outcome.appMoved);
    EXPECT_EQ(outcome.moved.size(), 1U);
    EXPECT_NE(std::find(outcome.notes.begin(), outcome.notes.end(),
                        home + "/.config/Editor changed since it was measured — left in place."),
              outcome.notes.end());
    EXPECT_EQ(::access((home + "/.config/Editor/prefs").c_str(), F_OK), 0);
}

// What the confirmation says must match what uninstallApp then does: an app that cannot move
// keeps its data too, and a packaged app's data moves without the app.
TEST(Uninstall, PreviewSaysWhatWillMoveAndWhatStays) {
    const std::string& home = test::fixtureHome();
    struct Case {
        const char* what;
        AppSource source;
        std::string location;
        std::optional<std::string> package;
        size_t places;
        std::string question;
        std::string command;
        size_t moves;
    };
    const std::vector<Case> cases{
        {"AppImage with data",
         AppSource::appImage,
         home + "/Applications/Tool.AppImage",
         {},
         2,
         "Move Tool and 2 data places to the Trash?",
         "",
         3},
        {"AppImage alone",
         AppSource::appImage,
         home + "/AppImages/Tool.AppImage",
         {},
         0,
         "Move Tool to the Trash?",
         "",
         1},
        {"AppImage outside the app folders",
         AppSource::appImage,
         home + "/Downloads/Tool.AppImage",
         {},
         1,
         "",
         "",
         0},
        {"package with data", AppSource::deb, "/usr/share/applications/tool.desktop", "tool-pkg", 1,
         "Move 1 data place of Tool to the Trash?", "sudo apt remove tool-pkg", 1},
        {"package alone", AppSource::deb, "/usr/share/applications/tool.desktop", "tool-pkg", 0, "",
         "sudo apt remove tool-pkg", 0},
    };
    for (const Case& c : cases) {
        platform::InstalledApp app;
        app.id = "tool";
        app.name = "Tool";
        app.source = c.source;
        app.location = c.location;
        app.package = c.package;
        std::vector<Leftover> data;
        for (size_t i = 0; i < c.places; ++i) {
            Leftover place;
            place.path = home + "/.config/tool" + std::to_string(i);
            place.bytes = 4096;
            data.push_back(place);
        }
        UninstallPreview preview = previewUninstall(app, 1'000'000, data);
        EXPECT_EQ(preview.question, c.question) << c.what;
        EXPECT_EQ(preview.removalCommand, c.command) << c.what;
        EXPECT_EQ(preview.moves.size(), c.moves) << c.what;
        EXPECT_FALSE(preview.appNote.empty()) << c.what;
        if (!c.command.empty()) {
            EXPECT_NE(preview.appNote.find(c.command), std::string::npos) << c.what;
        }
        if (canMoveApp(app)) {
            EXPECT_EQ(preview.moves.front().path, c.location) << c.what;
            EXPECT_EQ(preview.moves.front().bytes, 1'000'000U) << c.what;
        }
    }
}

TEST(AppOrdering, BiggestOrMostRecentlyUsedFirstAndNeverUsedLast) {
    AppListing listing;
    auto add = [&](const char* id, std::uint64_t app, std::uint64_t data,
                   std::optional<double> used) {
        AppListEntry entry;
        entry.app.id = id;
        entry.appBytes = app;
        entry.dataBytes = data;
        entry.app.lastUsed = used;
        listing.apps.push_back(entry);
    };
    add("a", 10, 500, 100.0);
    add("b", 400, 0, std::nullopt);
    add("c", 300, 300, 0.0); // used at the epoch: still before "never"
    add("d", 10, 500, 900.0);
    auto ids = [&](AppOrder order) {
        std::string out;
        for (const AppListEntry* entry : orderedApps(listing, order)) {
            out += entry->app.id;
        }
        return out;
    };
    EXPECT_EQ(ids(AppOrder::name), "abcd");
    EXPECT_EQ(ids(AppOrder::size), "cadb"); // ties keep the listing's order
    EXPECT_EQ(ids(AppOrder::used), "dacb");
}

TEST(FinderUninstall, ScriptKeepsQuotesAndBackslashesInsideTheName) {
    const std::string path = "/Applications/My \"Best\" \\App.app";
    std::string script = finderDeleteScript(path);
    EXPECT_EQ(script, "tell application \"Finder\"\n    delete {POSIX file "
                      "\"/Applications/My \\\"Best\\\" \\\\App.app\" as alias}\nend tell");
    // Reading the string literal back as AppleScript does gives the path again.
    size_t open = script.find("POSIX file \"") + 12;
    std::string literal;
    size_t at = open;
    for (; at < script.size() && script[at] != '"'; ++at) {
        if (script[at] == '\\') {
            ++at;
        }
        literal.push_back(script[at]);
    }
    EXPECT_EQ(literal, path);
    EXPECT_EQ(script.substr(at), "\" as alias}\nend tell");
}

TEST(FinderUninstall, ErrorsMapToTheirNotesAndAFailedMoveMovesNoData) {
    const std::string& home = test::fixtureHome();
    std::string tools = test::freshFolder("tools");
    std::string osascript = tools + "/osascript";
    // Behaves as the real one would: reads the script, answers as the "reply" file says.
    test::writeExecutable(osascript, "#!/bin/sh\ncat > \"$(dirname \"$0\")/script.txt\"\n"
                                     "reply=$(cat \"$(dirname \"$0\")/reply\")\n"
                                     "[ -z \"$reply\" ] && exit 0\n"
                                     "echo \"$reply\" >&2\nexit 1\n");
    std::string applications = test::freshFolder("Applications");
    std::string bundle = applications + "/FinderTool \"2\".app";
    putFilled(bundle + "/Contents/MacOS/tool", 20000);
    putFilled(home + "/.config/com.example.findertool/settings", 3000);
    platform::InstalledApp app;
    app.id = "com.example.findertool";
    app.name = "FinderTool";
    app.source = AppSource::bundle;
    app.location = bundle;
    app.identity = *platform::currentIdentity(bundle);
    LeftoverScanResult data = findAppData(queryFor(app.id, app.name));
    ASSERT_EQ(data.leftovers.size(), 1U);

    struct Case {
        std::string reply;
        std::string note;
    };
    const std::vector<Case> cases{
        {"execution error: Not authorized to send Apple events to Finder. (-1743)",
         "Sparrowdeck is not allowed to ask Finder. Turn on Finder for Sparrowdeck in System "
         "Settings → Privacy & Security → Automation, then try again. Its data stayed too."},
        {"execution error: User canceled. (-128)",
         "Authorization was cancelled, so nothing moved. Its data stayed too."},
        {"execution error: Finder got an error: disk full (-34)",
         "Finder could not move FinderTool: execution error: Finder got an error: disk full (-34). "
         "Its data stayed too."},
    };
    auto policy = std::make_shared<const VaultPolicy>(homeDirectory());
    UninstallOptions options;
    options.applicationsFolder = applications;
    options.osascript = osascript;
    for (const Case& c : cases) {
        put(tools + "/reply", c.reply);
        ReclaimJournal journal(std::nullopt);
        UninstallOutcome outcome = uninstallApp(app, data.leftovers, VaultService::standard(policy),
                                                journal, options, std::stop_token{});
        ASSERT_EQ(outcome.notes.size(), 1U) << c.reply;
        EXPECT_EQ(outcome.notes[0], c.note);
        EXPECT_FALSE(outcome.dataTouched);
        EXPECT_TRUE(outcome.moved.empty());
        EXPECT_EQ(::access((home + "/.config/com.example.findertool/settings").c_str(), F_OK), 0);
        EXPECT_EQ(test::readText(tools + "/script.txt"), finderDeleteScript(bundle) + "")
            << "the script reached osascript whole";
    }

    // Finder says yes, but nothing planned is in the Trash: the note says so, the data moves.
    put(tools + "/reply", "");
    options.bundleInTrash = [](const std::string&) {
        return std::nullopt;
    };
    ReclaimJournal journal(std::nullopt);
    UninstallOutcome outcome = uninstallApp(app, data.leftovers, VaultService::standard(policy),
                                            journal, options, std::stop_token{});
    EXPECT_EQ(outcome.notes.front(),
              "What reached the Trash is not the copy of FinderTool that was "
              "checked. It can go back from Activity.");
    EXPECT_EQ(outcome.moved.size(), 1U);

    // Outside the Applications folder nothing is asked of Finder at all.
    app.location = home + "/FinderTool.app";
    outcome =
        uninstallApp(app, {}, VaultService::standard(policy), journal, options, std::stop_token{});
    EXPECT_EQ(outcome.notes,
              std::vector<std::string>{"Sparrowdeck only moves apps from /Applications; FinderTool "
                                       "stayed."});
}

} // namespace
} // namespace sd

namespace sd {
namespace {

nlohmann::json tileOf(const nlohmann::json& sweep, const std::string& kind) {
    for (const auto& tile : sweep.at("tiles")) {
        if (tile.at("kind") == kind) {
            return tile;
        }
    }
    return {};
}

TEST(SweepAppTiles, LeftoversAndUsedInstallersFillTheirTilesAndMove) {
    const std::string& home = test::fixtureHome();
    test::makeDirs(home + "/.var/app/org.example.Gone/config");
    test::writeFilledFile(home + "/.var/app/org.example.Gone/config/state", 50000);
    test::makeDirs(home + "/Applications");
    writeAppImage(home + "/Applications/Viewer-2.0.AppImage", 60000);
    test::makeDirs(home + "/.var/app/Viewer"); // a Flatpak-style folder named like an app
    test::makeDirs(home + "/Downloads");
    writeAppImage(home + "/Downloads/Viewer-1.5.AppImage", 30000);
    writeAppImage(home + "/Viewer-1.0.AppImage", 20000);

    CliRun swept = run("sweep --json");
    ASSERT_EQ(swept.status, 0) << swept.output;
    nlohmann::json out = nlohmann::json::parse(swept.output);
    nlohmann::json leftovers = tileOf(out, "leftovers");
    EXPECT_EQ(leftovers.at("subtitle"), "1 removed app · matched by app ID, never by name");
    ASSERT_EQ(leftovers.at("items").size(), 1U);
    EXPECT_EQ(leftovers.at("items")[0].at("path"), home + "/.var/app/org.example.Gone");
    EXPECT_EQ(leftovers.at("bytes").get<std::uint64_t>(),
              test::peerAllocatedBytes(home + "/.var/app/org.example.Gone"));
    nlohmann::json installers = tileOf(out, "installers");
    EXPECT_EQ(installers.at("subtitle"), "2 installers whose app is installed");
    ASSERT_EQ(installers.at("items").size(), 2U);
    EXPECT_EQ(installers.at("items")[0].at("path"), home + "/Downloads/Viewer-1.5.AppImage");
    EXPECT_EQ(installers.at("items")[1].at("path"), home + "/Viewer-1.0.AppImage");

    // The vault keeps what lies in the person's own folders (Downloads among them) in place and
    // says so; the rest moves.
    CliRun reclaimed = run("sweep --reclaim leftovers installers --yes --json");
    EXPECT_EQ(reclaimed.status, 1) << reclaimed.output;
    nlohmann::json errors =
        nlohmann::json::parse(reclaimed.output).at("reclaim").at("reclaimErrors");
    ASSERT_EQ(errors.size(), 1U);
    EXPECT_EQ(errors[0].get<std::string>().find(home + "/Downloads/Viewer-1.5.AppImage: "), 0U);
    EXPECT_NE(::access((home + "/.var/app/org.example.Gone").c_str(), F_OK), 0);
    EXPECT_NE(::access((home + "/Viewer-1.0.AppImage").c_str(), F_OK), 0);
    EXPECT_EQ(::access((home + "/Downloads/Viewer-1.5.AppImage").c_str(), F_OK), 0);
    EXPECT_EQ(::access((home + "/Applications/Viewer-2.0.AppImage").c_str(), F_OK), 0);
    EXPECT_EQ(::access((home + "/.var/app/Viewer").c_str(), F_OK), 0)
        << "an installed app's id claims the folder";
    nlohmann::json activity = nlohmann::json::parse(run("activity --json").output);
    ASSERT_EQ(activity.at("entries").size(), 1U);
    EXPECT_EQ(activity.at("entries")[0].at("kind"), "sweep");
    EXPECT_EQ(activity.at("entries")[0].at("items").size(), 2U);
}

} // namespace
} // namespace sd
