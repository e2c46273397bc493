#include "companion/CompanionService.h"

#include "Fixture.h"
#include "history/ScanHistory.h"

#include <gtest/gtest.h>

namespace sd {
namespace {

constexpr std::uint64_t GB = 1'000'000'000;

TEST(CompanionService, FindsFlatpakDataWhoseAppIsGone) {
    std::string home = test::freshFolder("leftovers-home");
    std::string system = test::freshFolder("leftovers-system");
    std::string data = home + "/.local/share";
    for (const char* id : {"org.example.Gone", "org.example.User", "org.example.System"}) {
        test::makeDirs(home + "/.var/app/" + id + "/config");
        test::writeFilledFile(home + "/.var/app/" + id + "/config/state", 200'000);
    }
    test::makeDirs(data + "/flatpak/app/org.example.User/current");
    test::makeDirs(system + "/app/org.example.System/current");
    std::vector<LeftBehindData> found = findFlatpakLeftovers(home, data, system);
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].appId, "org.example.Gone");
    EXPECT_EQ(found[0].path, home + "/.var/app/org.example.Gone");
    EXPECT_EQ(std::to_string(found[0].bytes) + "\n",
              test::runShell("du -s -B1 " + test::shellQuote(found[0].path) + " | cut -f1").output);
    EXPECT_TRUE(findFlatpakLeftovers(test::freshFolder("no-flatpak"), data, system).empty());
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
            now += 5 * 60;
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
