#include "companion/CompanionService.h"

#include "Fixture.h"
#include "history/ScanHistory.h"

#include <gtest/gtest.h>
#include <map>

namespace sd {
namespace {

constexpr std::uint64_t GB = 1'000'000'000;

// The companion asks the apps subsystem, so it tells of the same leftovers the Sweep's tile
// shows: by app id, from the apps the fixture's own folders hold.
TEST(CompanionService, TellsOfDataOfRemovedAppsByIdOnly) {
    const std::string& home = test::fixtureHome();
    const std::string system = test::freshFolder("leftovers-system");
    for (const char* id : {"org.example.Gone", "org.example.User", "org.example.System"}) {
        test::makeDirs(home + "/.var/app/" + id + "/config");
        test::writeFilledFile(home + "/.var/app/" + id + "/config/state", 200'000);
    }
    test::makeDirs(home + "/snap/oldsnap/common");
    test::writeFilledFile(home + "/snap/oldsnap/common/z", 8'000);
    test::makeDirs(home + "/.config/Gone"); // a loose name is never anyone's leftover
    test::writeFilledFile(home + "/.config/Gone/settings", 4'000);
    const std::string user = home + "/.local/share/flatpak";
    for (const auto& [installation, id] :
         {std::pair{user, "org.example.User"}, std::pair{system, "org.example.System"}}) {
        std::string active = installation + "/app/" + id + "/current/active";
        test::makeDirs(active);
        test::writeFile(active + "/metadata", std::string("[Application]\nname=") + id + "\n");
    }
    platform::AppSearchRoots roots;
    roots.home = home;
    roots.flatpakInstallations = {{user, true}, {system, false}};
    roots.snapRoot = test::freshFolder("no-snaps");

    std::map<std::string, LeftBehindData> found;
    for (const LeftBehindData& place : removedAppLeftovers(roots)) {
        found[place.path] = place;
    }
    ASSERT_EQ(found.size(), 2U);
    const LeftBehindData& gone = found.at(home + "/.var/app/org.example.Gone");
    EXPECT_EQ(gone.appId, "org.example.Gone");
    // Measured as the Sweep measures it: the files' allocated blocks, hard links once.
    EXPECT_EQ(gone.bytes, test::peerAllocatedBytes(gone.path));
    EXPECT_EQ(found.at(home + "/snap/oldsnap").appId, "oldsnap");

    // A Flatpak installation whose apps cannot be read might hold the app: nothing is told. (A
    // file where the folder should be fails to list for root too.)
    const std::string broken = test::freshFolder("leftovers-broken");
    test::writeFile(broken + "/app", "not a folder");
    roots.flatpakInstallations.emplace_back(broken, false);
    EXPECT_TRUE(removedAppLeftovers(roots).empty());
}

TEST(CompanionService, SamplesEveryHalfHourAndRemembersWhatItSaid) {
    std::string file = test::freshFolder("companion-service") + "/history.sqlite";
    std::int64_t now = 1'700'006'400;
    std::uint64_t free = 9 * GB;
    std::vector<LeftBehindData> leftovers{{"org.example.Gone", "/x", 5}};
    CompanionService::Sources sources{[&] { return now; },
                                      [&]() -> std::optional<platform::VolumeFigures> {
                                          platform::VolumeFigures f;
                                          f.freeBytes = free;
                                          f.totalBytes = 100 * GB;
                                          return f;
                                      },
                                      [&] {
                                          return leftovers;
                                      }};
    std::vector<NoticeKind> said;
    auto look = [&](CompanionService& service) {
        for (const Notice& n : service.tick()) {
            said.push_back(n.kind);
        }
    };
    {
        CompanionService service(file, sources);
        look(service);
        EXPECT_EQ(service.status().freeBytes, 9 * GB);
        EXPECT_EQ(service.status().forecast.kind, FreeSpaceForecast::Kind::tooLittleData);
        for (int minutes = 5; minutes <= 65; minutes += 5) {
            now += std::int64_t{5} * 60;
            look(service);
        }
    }
    EXPECT_EQ(said, (std::vector<NoticeKind>{NoticeKind::lowSpace, NoticeKind::leftovers}));
    ScanHistory history(file);
    std::vector<FreeSpaceSample> samples = history.freeSpaceSince(0);
    ASSERT_EQ(samples.size(), 3U) << "at 0, 30 and 60 minutes";
    EXPECT_EQ(samples[1].takenAt - samples[0].takenAt, 30 * 60);

    // A new process: the same state, so nothing is said again.
    CompanionService again(file, sources);
    now += 60;
    look(again);
    EXPECT_EQ(said.size(), 2U);
}

} // namespace
} // namespace sd
