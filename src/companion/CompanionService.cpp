#include "companion/CompanionService.h"

#include "apps/AppListing.h"
#include "apps/Leftovers.h"
#include "disk/DiskSurvey.h"
#include "history/ScanHistory.h"
#include "platform/Home.h"

#include <algorithm>
#include <cmath>
#include <ctime>

namespace sd {
namespace {

constexpr std::int64_t secondsPerDay = 86'400;

} // namespace

std::vector<LeftBehindData> removedAppLeftovers(const platform::AppSearchRoots& roots,
                                                const std::stop_token& stop) {
    platform::AppRecords records = platform::readInstalledApps(roots, stop);
    // A source that could not be read might hold an installed app: its data must not look
    // left behind.
    if (!records.complete) {
        return {};
    }
    LeftoversReport report = findRemovedAppLeftovers(records.apps, rememberedAppIds(), stop);
    std::vector<LeftBehindData> leftovers;
    for (const OrphanGroup& group : report.groups) {
        for (const Leftover& place : group.places) {
            leftovers.push_back({group.appId, place.path, place.bytes});
        }
    }
    return leftovers;
}

CompanionService::Sources CompanionService::systemSources() {
    return {
        [] { return static_cast<std::int64_t>(std::time(nullptr)); },
        []() -> std::optional<platform::VolumeFigures> {
            std::string error;
            return platform::volumeFigures(platform::homeDirectory(), error);
        },
        [] {
            // Which apps are installed is all that is needed, not which package owns each: the
            // package database is not asked every half hour.
            platform::AppSearchRoots roots = platform::standardAppRoots();
            roots.dpkgQuery.clear();
            return removedAppLeftovers(roots);
        },
    };
}

CompanionService::CompanionService(std::string historyFile, Sources sources)
    : historyFile_(std::move(historyFile)), sources_(std::move(sources)) {}

std::vector<Notice> CompanionService::tick() {
    const std::int64_t now = sources_.clock();
    std::optional<platform::VolumeFigures> figures = sources_.figures();
    if (!figures) {
        return {};
    }
    ScanHistory history(historyFile_);
    std::vector<FreeSpaceSample> samples = history.freeSpaceSince(now - forecastWindowSeconds);
    if (samples.empty() || now - samples.back().takenAt >= sampleIntervalSeconds) {
        FreeSpaceSample sample{now, figures->freeBytes, figures->totalBytes};
        history.addFreeSpace(sample);
        samples.push_back(sample);
    }
    status_.freeBytes = figures->freeBytes;
    status_.totalBytes = figures->totalBytes;
    status_.sampledAt = now;
    status_.forecast = forecastFreeSpace(samples, now);

    Observation observation;
    observation.now = now;
    observation.freeBytes = figures->freeBytes;
    observation.totalBytes = figures->totalBytes;
    observation.forecast = status_.forecast;
    const std::int64_t weekAgo = now - 7 * secondsPerDay;
    const FreeSpaceSample* nearest = nullptr;
    for (const FreeSpaceSample& s : samples) {
        if (nearest == nullptr ||
            std::llabs(s.takenAt - weekAgo) < std::llabs(nearest->takenAt - weekAgo)) {
            nearest = &s;
        }
    }
    // Only a sample from about a week ago says how the week went.
    if (nearest != nullptr && std::llabs(nearest->takenAt - weekAgo) < secondsPerDay) {
        observation.freeWeekAgo = nearest->freeBytes;
    }
    if (sources_.leftovers) {
        observation.leftovers = sources_.leftovers();
    }

    NoticeState state = NoticeState::fromJson(history.value(stateKey).value_or(""));
    std::vector<Notice> notices = decideNotices(state, observation);
    history.setValue(stateKey, state.toJson());
    return notices;
}

} // namespace sd
