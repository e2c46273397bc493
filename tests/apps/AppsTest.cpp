// Installed apps, the places they keep data, removed apps' leftovers and used installers, read
// from fixture layouts that follow the real deploy structures, and checked against the package
// database itself where it can be.
#include "FakeTools.h"
#include "Fixture.h"
#include "apps/AppListing.h"
#include "apps/AppsFixture.h"
#include "apps/Leftovers.h"
#include "base/CleanerError.h"
#include "platform/InstalledApps.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <map>
#include <sys/stat.h>
#include <unistd.h>

namespace sd {
namespace {

using test::put;
using test::putFilled;
using test::queryFor;

using platform::AppSource;
using platform::InstalledApp;

const InstalledApp* byId(const std::vector<InstalledApp>& apps, const std::string& id) {
    auto found = std::find_if(apps.begin(), apps.end(),
                              [&](const InstalledApp& app) { return app.id == id; });
    return found == apps.end() ? nullptr : &*found;
}

void writeAppImage(const std::string& path, std::uint64_t bytes, char fill = 'a') {
    std::string contents("\x7F"
                         "ELF\x02\x01\x01\x00"
                         "AI\x02",
                         11);
    contents.resize(bytes, fill);
    put(path, contents);
    ::chmod(path.c_str(), 0755);
}

// Roots that look only at fixture folders: no system data folder, no package database.
platform::AppSearchRoots fixtureRoots(const std::string& system) {
    const std::string& home = test::fixtureHome();
    platform::AppSearchRoots roots;
    roots.home = home;
    roots.dataDirs = {home + "/.local/share", system + "/share"};
    roots.flatpakInstallations = {{home + "/.local/share/flatpak", true},
                                  {system + "/flatpak", false}};
    roots.snapRoot = system + "/snap";
    roots.snapImages = system + "/snaps";
    roots.snapDesktopEntries = system + "/snapd/desktop/applications";
    roots.appImageFolders = {home + "/Applications", home + "/AppImages", home + "/.local/bin"};
    roots.recentlyUsed = home + "/.local/share/recently-used.xbel";
    roots.executableFolders = {system + "/bin"};
    return roots;
}

// A Flatpak deploy as flatpak lays it out: the commit folder, "active" and "current" links, the
// exported desktop entry and the AppStream metainfo.
void makeFlatpak(const std::string& installation, const std::string& id, const std::string& name,
                 const std::string& version) {
    std::string app = installation + "/app/" + id;
    std::string commit = app + "/x86_64/stable/0f1e2d3c";
    put(commit + "/metadata", "[Application]\nname=" + id +
                                  "\nruntime=org.example.Platform/x86_64/23\n"
                                  "command=tool\n");
    put(commit + "/export/share/applications/" + id + ".desktop",
        "[Desktop Entry]\nType=Application\nName=" + name + "\nIcon=" + id +
            "\nExec=/usr/bin/flatpak run " + id + "\nX-Flatpak=" + id + "\n");
    put(commit + "/files/share/metainfo/" + id + ".metainfo.xml",
        "<component><id>" + id + "</id><releases><release version=\"" + version +
            "\" date=\"2024-01-01\"/><release version=\"0.9\"/></releases>"
            "</component>");
    putFilled(commit + "/files/bin/tool", 200000);
    test::makeSymlink("0f1e2d3c", app + "/x86_64/stable/active");
    test::makeSymlink("x86_64/stable", app + "/current");
}

TEST(InstalledApps, ReadsEverySourceFromItsDeployLayout) {
    const std::string& home = test::fixtureHome();
    std::string system = test::freshFolder("system");
    makeFlatpak(home + "/.local/share/flatpak", "org.example.Tool", "Example Tool", "1.4.0");
    makeFlatpak(system + "/flatpak", "org.example.System", "System Tool", "2.0");
    // The export flatpak puts on the data path must not become a second app.
    put(system + "/share/applications/org.example.Tool.desktop",
        "[Desktop Entry]\nType=Application\nName=Exported\nX-Flatpak=org.example.Tool\n");

    put(system + "/snap/hello/x1/meta/snap.yaml",
        "name: hello\nversion: '2.10'\ntitle: Hello World\ntype: app\n");
    test::makeSymlink("x1", system + "/snap/hello/current");
    putFilled(system + "/snaps/hello_x1.snap", 123456);
    put(system + "/snap/core22/r5/meta/snap.yaml", "name: core22\ntype: base\n");
    test::makeSymlink("r5", system + "/snap/core22/current");

    writeAppImage(home + "/Applications/Tool-1.2.3-x86_64.AppImage", 300000);
    writeAppImage(home + "/.local/bin/bare", 5000); // AppImage by its header alone
    put(home + "/.local/bin/script.sh", "#!/bin/sh\n");
    test::makeDirs(home + "/Applications/Unpacked/bin");
    putFilled(home + "/Applications/Unpacked/bin/unpacked", 40000);

    std::string user = home + "/.local/share/applications/";
    put(user + "dup.desktop", "[Desktop Entry]\nType=Application\nName=User copy\n");
    put(system + "/share/applications/dup.desktop",
        "[Desktop Entry]\nType=Application\nName=System copy\n");
    put(user + "gone.desktop", "[Desktop Entry]\nType=Application\nName=Gone\n"
                               "Hidden=true\n");
    put(system + "/share/applications/gone.desktop",
        "[Desktop Entry]\nType=Application\nName=Hidden below\n");
    put(user + "quiet.desktop", "[Desktop Entry]\nType=Application\nName=Quiet\nNoDisplay=true\n");
    put(user + "link.desktop", "[Desktop Entry]\nType=Link\nName=Web\n");
    // TryExec names what must be installed for the entry to count.
    put(user + "uninstalled.desktop", "[Desktop Entry]\nType=Application\nName=Uninstalled\n"
                                      "TryExec=sparrowdeck-no-such-program\nExec=x\n");
    put(system + "/bin/present-tool", "#!/bin/sh\n");
    ::chmod((system + "/bin/present-tool").c_str(), 0755);
    put(user + "present.desktop", "[Desktop Entry]\nType=Application\nName=Present\n"
                                  "TryExec=present-tool\nExec=present-tool\n");
    put(system + "/share/applications/kde/editor.desktop",
        "[Desktop Entry]\nType=Application\nName=Editor\nExec=editor %F\n");
    put(user + "tool-integrated.desktop",
        "[Desktop Entry]\nType=Application\nName=Tool Deluxe\nExec=\"" + home +
            "/Applications/Tool-1.2.3-x86_64.AppImage\" %U\n");
    // As GTK writes it: the namespaces and the metadata owner are what GLib reads it by.
    put(home + "/.local/share/recently-used.xbel",
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<xbel version=\"1.0\" "
        "xmlns:bookmark=\"http://www.freedesktop.org/standards/desktop-bookmarks\" "
        "xmlns:mime=\"http://www.freedesktop.org/standards/shared-mime-info\">\n"
        "<bookmark href=\"file:///tmp/a.txt\" added=\"2024-01-01T00:00:00Z\" "
        "modified=\"2024-03-04T05:06:07Z\" visited=\"2024-03-04T05:06:07Z\">\n"
        "<info><metadata owner=\"http://freedesktop.org\">"
        "<mime:mime-type type=\"text/plain\"/><bookmark:applications>"
        "<bookmark:application name=\"Hello World\" exec=\"&apos;hello %u&apos;\" "
        "modified=\"2024-03-04T05:06:07Z\" count=\"1\"/>"
        "</bookmark:applications></metadata></info></bookmark></xbel>\n");

    platform::AppRecords records = platform::readInstalledApps(fixtureRoots(system));
    const auto& apps = records.apps;

    const InstalledApp* tool = byId(apps, "org.example.Tool");
    ASSERT_NE(tool, nullptr);
    EXPECT_EQ(tool->source, AppSource::flatpak);
    EXPECT_EQ(tool->name, "Example Tool");
    EXPECT_EQ(tool->version, "1.4.0") << "the newest release of the metainfo";
    EXPECT_TRUE(tool->userInstallation);
    EXPECT_EQ(platform::removalCommand(*tool), "flatpak uninstall --user org.example.Tool");
    const InstalledApp* systemTool = byId(apps, "org.example.System");
    ASSERT_NE(systemTool, nullptr);
    EXPECT_EQ(platform::removalCommand(*systemTool), "flatpak uninstall org.example.System");
    EXPECT_EQ(std::count_if(apps.begin(), apps.end(),
                            [](const InstalledApp& a) { return a.name == "Exported"; }),
              0);

    const InstalledApp* hello = byId(apps, "hello");
    ASSERT_NE(hello, nullptr);
    EXPECT_EQ(hello->source, AppSource::snap);
    EXPECT_EQ(hello->name, "Hello World");
    EXPECT_EQ(hello->version, "2.10");
    EXPECT_EQ(hello->measurePaths, std::vector<std::string>{system + "/snaps/hello_x1.snap"});
    EXPECT_EQ(platform::removalCommand(*hello), "sudo snap remove hello");
    ASSERT_TRUE(hello->lastUsed);
    EXPECT_EQ(hello->lastUsedEvidence, platform::LastUsedEvidence::recentlyUsed);
    EXPECT_DOUBLE_EQ(*hello->lastUsed, 1709528767.0);
    EXPECT_EQ(byId(apps, "core22"), nullptr) << "a base snap is no app";

    const InstalledApp* image = byId(apps, "Tool");
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(image->source, AppSource::appImage);
    EXPECT_EQ(image->version, "1.2.3");
    EXPECT_EQ(image->name, "Tool Deluxe") << "the menu entry that runs it names it";
    EXPECT_EQ(image->identity, *platform::currentIdentity(image->location));
    ASSERT_NE(byId(apps, "bare"), nullptr);
    EXPECT_EQ(byId(apps, "script.sh"), nullptr);
    const InstalledApp* unpacked = byId(apps, "Unpacked");
    ASSERT_NE(unpacked, nullptr);
    EXPECT_EQ(unpacked->source, AppSource::local);
    EXPECT_EQ(byId(apps, "tool-integrated"), nullptr);

    const InstalledApp* dup = byId(apps, "dup");
    ASSERT_NE(dup, nullptr);
    EXPECT_EQ(dup->name, "User copy") << "the first entry of an id on the data path wins";
    EXPECT_EQ(byId(apps, "gone"), nullptr) << "a hidden entry hides the same id further down";
    EXPECT_EQ(byId(apps, "quiet"), nullptr);
    EXPECT_EQ(byId(apps, "link"), nullptr);
    EXPECT_EQ(byId(apps, "uninstalled"), nullptr);
    EXPECT_NE(byId(apps, "present"), nullptr);
    EXPECT_NE(byId(apps, "kde-editor"), nullptr) << "a subfolder becomes part of the id";

    // The measured sizes are the deploys' allocated bytes, as GNU find counts them.
    AppListing listing = listApps(fixtureRoots(system), DataLookup::skip);
    const AppListEntry* measured = findApp(listing, "org.example.Tool");
    ASSERT_NE(measured, nullptr);
    EXPECT_EQ(measured->appBytes,
              test::peerAllocatedBytes(home + "/.local/share/flatpak/app/org.example.Tool"));
    EXPECT_FALSE(measured->appBytesFromPackage);
    EXPECT_EQ(findApp(listing, "hello")->appBytes,
              test::peerAllocatedBytes(system + "/snaps/hello_x1.snap"));
    EXPECT_TRUE(rememberedAppIds().count("org.example.Tool") != 0)
        << "a complete listing is remembered";
}

// Every application entry of /usr/share/applications that a menu would show is listed with the
// package and version dpkg-query itself reports for it.
TEST(InstalledApps, DesktopEntriesCarryWhatDpkgQueryReports) {
    if (!test::haveTool("dpkg-query")) {
        GTEST_SKIP() << "dpkg-query is not installed";
    }
    test::CommandResult expected = test::runShell(
        "for f in /usr/share/applications/*.desktop; do [ -f \"$f\" ] || continue; "
        "grep -q '^Type=Application' \"$f\" || continue; "
        "grep -qE '^(NoDisplay|Hidden)=true' \"$f\" && continue; "
        "t=$(sed -n 's/^TryExec=//p' \"$f\" | head -1); "
        "[ -n \"$t\" ] && ! command -v \"$t\" >/dev/null && continue; "
        "p=$(dpkg-query -S \"$f\" 2>/dev/null | head -1 | sed 's/: .*//'); "
        "v=; [ -n \"$p\" ] && v=$(dpkg-query -W -f='${Version}' \"$p\"); "
        "printf '%s\\t%s\\t%s\\n' \"$(basename \"$f\" .desktop)\" \"$p\" \"$v\"; done");
    ASSERT_EQ(expected.status, 0);
    if (expected.output.empty()) {
        GTEST_SKIP() << "no application entry in /usr/share/applications (scripts/install-deps "
                        "installs some)";
    }
    platform::AppSearchRoots roots = platform::standardAppRoots();
    roots.dataDirs = {test::fixtureHome() + "/.local/share", "/usr/share"};
    platform::AppRecords records = platform::readInstalledApps(roots);
    ASSERT_TRUE(records.complete);
    size_t checked = 0;
    std::string_view rest = expected.output;
    while (!rest.empty()) {
        std::string line(rest.substr(0, rest.find('\n')));
        rest.remove_prefix(std::min(rest.size(), line.size() + 1));
        std::string id = line.substr(0, line.find('\t'));
        std::string package = line.substr(id.size() + 1, line.rfind('\t') - id.size() - 1);
        std::string version = line.substr(line.rfind('\t') + 1);
        const InstalledApp* app = byId(records.apps, id);
        ASSERT_NE(app, nullptr) << id;
        if (package.empty()) {
            EXPECT_EQ(app->source, AppSource::local) << id;
            continue;
        }
        EXPECT_EQ(app->source, AppSource::deb) << id;
        EXPECT_EQ(app->package.value_or(""), package) << id;
        EXPECT_EQ(app->version, version) << id;
        EXPECT_EQ(platform::removalCommand(*app), "sudo apt remove " + package);
        ++checked;
    }
    std::printf("checked %zu entries against dpkg-query\n", checked);
}

TEST(AppData, MatchValuesNameExactlyOneFolder) {
    struct Case {
        std::string value;
        std::optional<std::string> prepared; // empty: refused
    };
    const std::vector<Case> cases{
        {"com.example.app", "com.example.app"},
        {"  com.example.app\n", "com.example.app"},
        {"we*rd", "we\\*rd"},
        {"x[1]?", "x\\[1\\]\\?"},
        {"back\\slash", "back\\\\slash"},
        {"", std::nullopt},
        {"   ", std::nullopt},
        {".", std::nullopt},
        {"..", std::nullopt},
        {"a/b", std::nullopt},
        {"tab\there", std::nullopt},
        {std::string("bad\xff"), std::nullopt},
    };
    for (const Case& c : cases) {
        if (c.prepared) {
            EXPECT_EQ(prepareMatchValue(c.value), *c.prepared) << c.value;
        } else {
            try {
                prepareMatchValue(c.value);
                ADD_FAILURE() << "accepted " << c.value;
            } catch (const CleanerError& error) {
                EXPECT_EQ(error.kind(), CleanerError::Kind::safetyViolation);
                EXPECT_STREQ(error.what(), "Invalid leftover match value");
            }
        }
    }
}

TEST(AppData, TableKeepsTheSharedRowsAndAddsFreedesktopOnes) {
    const std::vector<std::string> shared{"application_support",
                                          "caches",
                                          "preferences",
                                          "preferences_byhost",
                                          "containers",
                                          "group_containers",
                                          "saved_state",
                                          "http_storages",
                                          "webkit",
                                          "cookies",
                                          "logs",
                                          "launch_agents",
                                          "application_scripts",
                                          "diagnostic_reports",
                                          "crash_reporter",
                                          "synced_preferences"};
    const auto& rows = leftoverLocations();
    ASSERT_GT(rows.size(), shared.size());
    std::set<std::string_view> ids;
    for (size_t i = 0; i < rows.size(); ++i) {
        if (i < shared.size()) {
            EXPECT_EQ(rows[i].id, shared[i]);
        } else {
            EXPECT_TRUE(rows[i].id.ends_with("_linux")) << rows[i].id;
        }
        EXPECT_TRUE(ids.insert(rows[i].id).second) << "ids are unique";
        EXPECT_NE(rows[i].pathTemplate.find("{match}"), std::string_view::npos);
        bool both = rows[i].matchBy.size() == 2;
        bool byNameOnly = rows[i].matchBy == std::vector<MatchStrategy>{MatchStrategy::appName};
        if (i < shared.size()) {
            EXPECT_EQ(both, rows[i].id == "application_support" || rows[i].id == "logs")
                << rows[i].id;
            EXPECT_EQ(byNameOnly,
                      rows[i].id == "diagnostic_reports" || rows[i].id == "crash_reporter")
                << rows[i].id;
        }
    }
    ASSERT_EQ(appOverrides().size() >= 6, true);
    const std::vector<std::string> overrides{"com.docker.docker",         "com.spotify.client",
                                             "com.tinyspeck.slackmacgap", "com.microsoft.VSCode",
                                             "ru.keepcoder.Telegram",     "ph.telegra.Telegraph"};
    for (size_t i = 0; i < overrides.size(); ++i) {
        EXPECT_EQ(appOverrides()[i].bundleId, overrides[i]);
    }
}

std::vector<std::string> foundPaths(const LeftoverScanResult& result) {
    std::vector<std::string> paths;
    for (const Leftover& place : result.leftovers) {
        paths.push_back(place.path);
    }
    return paths;
}

TEST(AppData, FindsPlacesByIdOrExactNameOnly) {
    const std::string& home = test::fixtureHome();
    putFilled(home + "/.config/com.example.app/settings.json", 5000);
    putFilled(home + "/.config/com.example.app2/settings.json", 5000);
    putFilled(home + "/.cache/com.example.app/blob", 70000);
    putFilled(home + "/.var/app/com.example.app/data/x", 9000);
    put(home + "/.config/autostart/com.example.app-tray.desktop", "[Desktop Entry]\n");
    put(home + "/.config/autostart/other.desktop", "[Desktop Entry]\n");
    putFilled(home + "/.local/share/Example App/db", 3000);
    putFilled(home + "/.local/share/Example App 2/db", 3000);
    test::makeDirs(home + "/.config/we*rd");
    test::makeDirs(home + "/.config/weXYZrd");
    test::makeDirs(home + "/.config/[ab]");
    test::makeDirs(home + "/.config/a");
    put(home + "/Library/Logs/DiagnosticReports/Example App-2024.ips", "crash");
    test::makeDirs(home + "/.config/git");

    LeftoverScanResult found = findAppData(queryFor("com.example.app", "Example App"));
    std::vector<std::string> expected{
        home + "/.config/com.example.app", home + "/.cache/com.example.app",
        home + "/.local/share/Example App", home + "/.var/app/com.example.app",
        home + "/.config/autostart/com.example.app-tray.desktop"};
    EXPECT_EQ(foundPaths(found), expected)
        << "table order; never com.example.app2, never a longer name, never ~/Library here";
    std::uint64_t sum = 0;
    for (const Leftover& place : found.leftovers) {
        EXPECT_EQ(place.bytes, test::peerAllocatedBytes(place.path)) << place.path;
        sum += place.bytes;
    }
    EXPECT_EQ(found.totalBytes, sum);
    EXPECT_EQ(found.leftovers[0].description,
              "Settings and data the app keeps in your config folder");

    EXPECT_EQ(foundPaths(findAppData(queryFor("id.none", "we*rd"))),
              std::vector<std::string>{home + "/.config/we*rd"});
    EXPECT_EQ(foundPaths(findAppData(queryFor("id.none", "[ab]"))),
              std::vector<std::string>{home + "/.config/[ab]"});
    for (const char* bad : {".", "..", "a/b"}) {
        LeftoverScanResult none = findAppData(queryFor(bad, bad));
        EXPECT_TRUE(none.leftovers.empty()) << bad;
        EXPECT_FALSE(none.warnings.empty()) << "a skipped value says so";
    }
    LeftoverScanResult protectedOne = findAppData(queryFor("git", "git"));
    EXPECT_TRUE(protectedOne.leftovers.empty()) << "~/.config/git is never an app's data";
    EXPECT_TRUE(std::any_of(
        protectedOne.warnings.begin(), protectedOne.warnings.end(),
        [](const std::string& w) { return w.starts_with("Skipped protected path: "); }));
}

TEST(Leftovers, FlatpakAndSnapFoldersWithoutTheirAppMatchedByIdOnly) {
    const std::string& home = test::fixtureHome();
    putFilled(home + "/.var/app/org.example.Gone/config/x", 40000);
    putFilled(home + "/.config/org.example.Gone/y", 4000);
    putFilled(home + "/.var/app/org.example.Here/config/x", 40000);
    putFilled(home + "/snap/oldsnap/common/z", 8000);
    putFilled(home + "/.config/Gone/settings", 4000); // a loose name
    putFilled(home + "/.cache/old.remembered/blob", 12000);
    putFilled(home + "/.cache/still.here/blob", 12000);

    std::vector<InstalledApp> installed(2);
    installed[0].id = "org.example.Here";
    installed[0].name = "Here";
    installed[0].source = AppSource::flatpak;
    installed[1].id = "still.here";
    installed[1].name = "Still Here";
    installed[1].source = AppSource::deb;

    LeftoversReport report =
        findRemovedAppLeftovers(installed, {"old.remembered", "still.here"}, std::stop_token{});
    std::map<std::string, std::vector<std::string>> groups;
    std::uint64_t total = 0;
    for (const OrphanGroup& group : report.groups) {
        for (const Leftover& place : group.places) {
            groups[group.appId].push_back(place.path);
        }
        total += group.bytes;
    }
    EXPECT_EQ(report.totalBytes, total);
    EXPECT_EQ(groups["org.example.Gone"],
              (std::vector<std::string>{home + "/.config/org.example.Gone",
                                        home + "/.var/app/org.example.Gone"}));
    EXPECT_EQ(groups["oldsnap"], std::vector<std::string>{home + "/snap/oldsnap"});
    EXPECT_EQ(groups["old.remembered"], std::vector<std::string>{home + "/.cache/old.remembered"});
    EXPECT_EQ(groups.count("org.example.Here"), 0U);
    EXPECT_EQ(groups.count("still.here"), 0U);
    // No id names ~/.config/Gone: the Flatpak org.example.Gone never claims it by a word.
    for (const auto& [id, paths] : groups) {
        EXPECT_EQ(std::count(paths.begin(), paths.end(), home + "/.config/Gone"), 0) << id;
    }
    EXPECT_EQ(groups.size(), 3U);
}

std::string buildDeb(const std::string& folder, const std::string& package,
                     const std::string& version) {
    std::string root = folder + "/pkg-" + package + "-" + version;
    put(root + "/DEBIAN/control", "Package: " + package + "\nVersion: " + version +
                                      "\nArchitecture: all\nMaintainer: Test "
                                      "<test@example.org>\nDescription: test\n");
    put(root + "/usr/share/doc/" + package + "/note", "x");
    std::string deb = folder + "/" + package + "_" + version + "_all.deb";
    test::CommandResult built =
        test::runShell("dpkg-deb --root-owner-group --build " + test::shellQuote(root) + " " +
                       test::shellQuote(deb) + " >/dev/null 2>&1");
    EXPECT_EQ(built.status, 0);
    return deb;
}

TEST(UsedInstallers, OnlyThoseWhoseAppIsInstalled) {
    if (!test::haveTool("dpkg-deb") || !test::haveTool("dpkg-query")) {
        GTEST_SKIP() << "dpkg-deb and dpkg-query are needed";
    }
    const std::string& home = test::fixtureHome();
    std::string downloads = home + "/Downloads";
    test::makeDirs(downloads);
    std::string version = test::runShell("dpkg-query -W -f='${Version}' dpkg").output;
    ASSERT_FALSE(version.empty());
    std::string sameVersion = buildDeb(downloads, "dpkg", version);
    std::string older = buildDeb(downloads, "dpkg", "0.1");
    std::string newer = buildDeb(downloads, "dpkg", "999:1.0");
    std::string stranger = buildDeb(downloads, "sparrowdeck-not-installed", "1.0");
    put(downloads + "/here.flatpakref", "[Flatpak Ref]\nName=org.example.Here\nBranch=stable\n");
    put(downloads + "/gone.flatpakref", "[Flatpak Ref]\nName=org.example.Gone\nBranch=stable\n");
    writeAppImage(home + "/Applications/Tool-2.0-x86_64.AppImage", 50000, 'n');
    writeAppImage(downloads + "/Tool-1.0-x86_64.AppImage", 40000, 'o');
    writeAppImage(downloads + "/Tool-3.0-x86_64.AppImage", 40000, 'p');
    writeAppImage(home + "/Copy.AppImage", 50000, 'n'); // identical to the installed one
    writeAppImage(downloads + "/Other-1.0.AppImage", 40000, 'q');

    std::vector<InstalledApp> installed(2);
    installed[0].id = "org.example.Here";
    installed[0].source = AppSource::flatpak;
    installed[1].id = "Tool";
    installed[1].version = "2.0";
    installed[1].source = AppSource::appImage;
    installed[1].location = home + "/Applications/Tool-2.0-x86_64.AppImage";
    installed[1].identity = *platform::currentIdentity(installed[1].location);

    InstallerSearch search;
    search.folders = {downloads, home + "/Desktop", home};
    search.appImageFolders = {home + "/Applications"};
    InstallerPlan plan = planUsedInstallers(installed, search);
    std::set<std::string> listed;
    std::uint64_t total = 0;
    for (const UsedInstaller& item : plan.items) {
        listed.insert(item.path);
        EXPECT_EQ(item.bytes, test::peerAllocatedBytes(item.path));
        EXPECT_EQ(item.identity, *platform::currentIdentity(item.path));
        total += item.bytes;
    }
    EXPECT_EQ(plan.totalBytes, total);
    EXPECT_EQ(listed, (std::set<std::string>{sameVersion, older, downloads + "/here.flatpakref",
                                             downloads + "/Tool-1.0-x86_64.AppImage",
                                             home + "/Copy.AppImage"}));
    EXPECT_EQ(listed.count(newer), 0U) << "a newer package than the installed one is not used";
    EXPECT_EQ(listed.count(stranger), 0U);
}

TEST(UsedInstallers, VersionsOrderAsThePackageSystemDoes) {
    struct Case {
        const char* a;
        const char* b;
        bool atLeast;
    };
    const std::vector<Case> cases{
        {"1.0", "1.0", true},      {"1.0", "1.0~rc1", true},
        {"1.0~rc1", "1.0", false}, {"1.10", "1.9", true},
        {"1:0.1", "9.9", true},    {"2.0-1", "2.0-2", false},
        {"2.0-10", "2.0-9", true}, {"1.0a", "1.0", true},
        {"1.0", "1.0+b1", false},  {"9.0.1378-2+deb12u2", "9.0.1378-2", true},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(platform::versionAtLeast(c.a, c.b), c.atLeast) << c.a << " vs " << c.b;
    }
    EXPECT_EQ(platform::appImageNameAndVersion("Tool-1.2.3-x86_64.AppImage"),
              (std::pair<std::string, std::string>{"Tool", "1.2.3"}));
    EXPECT_EQ(platform::appImageNameAndVersion("My_App_v2.1.AppImage"),
              (std::pair<std::string, std::string>{"My_App", "2.1"}));
    EXPECT_EQ(platform::appImageNameAndVersion("Plain.AppImage"),
              (std::pair<std::string, std::string>{"Plain", ""}));
}

} // namespace
} // namespace sd
