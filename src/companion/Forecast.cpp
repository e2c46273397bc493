#include "companion/Forecast.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <map>
#include <vector>

namespace sd {
namespace {

constexpr std::int64_t secondsPerDay = 86'400;
constexpr int minimumDays = 3;
constexpr size_t maximumLagDays = 4;
constexpr size_t levelDays = 3;
// Losing less than this a day is steady: it would take years to matter.
constexpr double steadyBytesPerDay = 50e6;
constexpr std::int64_t horizonSeconds = 365 * secondsPerDay;

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    size_t n = values.size();
    return n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

} // namespace

std::string FreeSpaceForecast::sentence() const {
    switch (kind) {
    case Kind::tooLittleData:
        return {};
    case Kind::steady:
        return "Free space has been steady.";
    case Kind::filling: {
        std::time_t at = static_cast<std::time_t>(*fullAt);
        std::tm local{};
        localtime_r(&at, &local);
        static const char* const months[] = {"January",   "February", "March",    "April",
                                             "May",       "June",     "July",     "August",
                                             "September", "October",  "November", "December"};
        return "At this rate the disk is full around " + std::to_string(local.tm_mday) + " " +
               months[local.tm_mon] + ".";
    }
    }
    return {};
}

FreeSpaceForecast forecastFreeSpace(std::span<const FreeSpaceSample> samples, std::int64_t now) {
    FreeSpaceForecast forecast;
    struct Day {
        std::vector<double> values;
        double timeSum = 0; // in days, for the day's mean sampling time
    };
    std::map<std::int64_t, Day> byDay;
    for (const FreeSpaceSample& s : samples) {
        if (s.takenAt > now - forecastWindowSeconds && s.takenAt <= now) {
            Day& day = byDay[s.takenAt / secondsPerDay];
            day.values.push_back(static_cast<double>(s.freeBytes));
            day.timeSum += static_cast<double>(s.takenAt) / secondsPerDay;
        }
    }
    if (byDay.size() < static_cast<size_t>(minimumDays)) {
        return forecast;
    }
    // Each day as one point: the median of its samples at their mean time, so a day sampled
    // only in part (the first and the last) sits where its samples were.
    std::vector<std::pair<double, double>> days;
    for (const auto& [number, day] : byDay) {
        days.emplace_back(day.timeSum / static_cast<double>(day.values.size()), median(day.values));
    }
    // Slopes between days up to four apart: far enough apart to average out a noisy day,
    // near enough that the few pairs spanning one sudden step stay a minority.
    std::vector<double> rates;
    for (size_t i = 0; i < days.size(); ++i) {
        for (size_t j = i + 1; j < days.size() && j <= i + maximumLagDays; ++j) {
            rates.push_back((days[j].second - days[i].second) / (days[j].first - days[i].first));
        }
    }
    forecast.bytesPerDay = median(rates);
    if (forecast.bytesPerDay > -steadyBytesPerDay) {
        forecast.kind = FreeSpaceForecast::Kind::steady;
        return forecast;
    }
    // Where the line stands now: the last few days' medians carried forward at the fitted rate,
    // and the median of those, so one noisy sample does not move the date.
    std::vector<double> levels;
    const double today = static_cast<double>(now) / secondsPerDay;
    for (size_t i = days.size() > levelDays ? days.size() - levelDays : 0; i < days.size(); ++i) {
        levels.push_back(days[i].second + forecast.bytesPerDay * (today - days[i].first));
    }
    const double freeNow = std::max(0.0, median(levels));
    const double daysLeft = freeNow / -forecast.bytesPerDay;
    const auto secondsLeft = static_cast<std::int64_t>(daysLeft * secondsPerDay);
    if (secondsLeft > horizonSeconds) {
        forecast.kind = FreeSpaceForecast::Kind::steady;
        return forecast;
    }
    forecast.kind = FreeSpaceForecast::Kind::filling;
    forecast.fullAt = now + secondsLeft;
    return forecast;
}

} // namespace sd
