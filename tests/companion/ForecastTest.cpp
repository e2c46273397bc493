#include "companion/Forecast.h"

#include <cmath>
#include <functional>
#include <gtest/gtest.h>

namespace sd {
namespace {

constexpr std::int64_t day = 86'400;
constexpr std::int64_t now = 1'700'000'000;
constexpr double GB = 1e9;

// A sample every 30 minutes for `days` days up to now, free space given by `f(days before now)`.
std::vector<FreeSpaceSample> history(double days, const std::function<double(double)>& f) {
    std::vector<FreeSpaceSample> out;
    for (std::int64_t t = now - static_cast<std::int64_t>(days * day); t <= now; t += 1800) {
        double ago = static_cast<double>(now - t) / day;
        out.push_back({t, static_cast<std::uint64_t>(std::max(0.0, f(ago))),
                       static_cast<std::uint64_t>(500 * GB)});
    }
    return out;
}

// Noise that repeats from run to run: a fixed pseudo-random sequence.
double noise(double ago) {
    double x = std::sin(ago * 12345.678) * 43758.5453;
    return (x - std::floor(x) - 0.5) * 4 * GB; // ±2 GB
}

TEST(Forecast, FitsTwoWeeksOfSamples) {
    using Kind = FreeSpaceForecast::Kind;
    struct Case {
        const char* name;
        std::vector<FreeSpaceSample> samples;
        Kind kind;
        double daysLeft; // for filling: days from now until full, within a day
    };
    const std::vector<Case> cases{
        {"steady", history(14, [](double) { return 80 * GB; }), Kind::steady, 0},
        {"linear decline of 2 GB a day from 60 GB",
         history(14, [](double ago) { return 60 * GB + 2 * GB * ago; }), Kind::filling, 30},
        {"one big drop is not a trend",
         history(14, [](double ago) { return ago > 6 ? 90 * GB : 40 * GB; }), Kind::steady, 0},
        {"noisy but steady", history(14, [](double ago) { return 70 * GB + noise(ago); }),
         Kind::steady, 0},
        {"noisy decline of 1 GB a day from 20 GB",
         history(14, [](double ago) { return 20 * GB + 1 * GB * ago + noise(ago); }), Kind::filling,
         20},
        {"growing free space is steady",
         history(14, [](double ago) { return 50 * GB - 1 * GB * ago; }), Kind::steady, 0},
        {"a decline too slow to matter within a year",
         history(14, [](double ago) { return 400 * GB + 0.5 * GB * ago; }), Kind::steady, 0},
        {"two days are too little", history(1.9, [](double ago) { return 10 * GB + GB * ago; }),
         Kind::tooLittleData, 0},
        {"no samples at all", {}, Kind::tooLittleData, 0},
        {"old samples outside the two weeks do not count",
         [] {
             auto old = history(40, [](double ago) { return 10 * GB + GB * ago; });
             old.erase(std::remove_if(
                           old.begin(), old.end(),
                           [](const FreeSpaceSample& s) { return s.takenAt > now - 20 * day; }),
                       old.end());
             return old;
         }(),
         Kind::tooLittleData, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        FreeSpaceForecast f = forecastFreeSpace(c.samples, now);
        EXPECT_EQ(f.kind, c.kind);
        if (c.kind == Kind::filling) {
            ASSERT_TRUE(f.fullAt);
            EXPECT_NEAR(static_cast<double>(*f.fullAt - now) / day, c.daysLeft, 1.0);
            EXPECT_LT(f.bytesPerDay, 0);
        } else {
            EXPECT_FALSE(f.fullAt);
        }
    }
}

TEST(Forecast, SaysItInASentence) {
    ::setenv("TZ", "UTC", 1);
    ::tzset();
    FreeSpaceForecast filling;
    filling.kind = FreeSpaceForecast::Kind::filling;
    filling.fullAt = 1'702'382'400; // 12 December 2023, noon UTC
    EXPECT_EQ(filling.sentence(), "At this rate the disk is full around 12 December.");
    FreeSpaceForecast steady;
    steady.kind = FreeSpaceForecast::Kind::steady;
    EXPECT_EQ(steady.sentence(), "Free space has been steady.");
    EXPECT_EQ(FreeSpaceForecast{}.sentence(), "");
}

} // namespace
} // namespace sd
