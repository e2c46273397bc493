#include "companion/CompanionService.h"

#include "base/CleanerError.h"
#include "base/Descriptors.h"
#include "core/CoreFileSystem.h"
#include "disk/DiskSurvey.h"
#include "history/ScanHistory.h"
#include "platform/Dirs.h"
#include "platform/Home.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <set>

namespace sd {
namespace {

constexpr std::int64_t secondsPerDay = 86'400;

// The names in a folder, or none when it cannot be opened.
std::vector<std::string> namesIn(const std::string& folder) {
    try {
        std::optional<ParentHandle> parent = openParent(folder);
        if (!parent) {
            return {};
        }
        UniqueFd fd = openListing(parent->fd.get(), parent->name.c_str());
        return fd ? listDirectory(fd.get(), folder) : std::vector<std::string>{};
    } catch (const CleanerError&) {
        return {};
    }
}

} // namespace

std::vector<LeftBehindData> findFlatpakLeftovers(const std::string& home,
                                                 const std::string& dataHome,
                                                 const std::string& systemFlatpak) {
    std::vector<std::string> data = namesIn(home + "/.var/app");
    if (data.empty()) {
        return {};
    }
    std::set<std::string> installed;
    for (const std::string& folder : {dataHome + "/flatpak/app", systemFlatpak + "/app"}) {
        for (std::string& name : namesIn(folder)) {
            installed.insert(std::move(name));
        }
    }
    std::vector<LeftBehindData> leftovers;
    for (const std::string& id : data) {
        if (!installed.contains(id)) {
            std::string path = home + "/.var/app/" + id;
            PlaceMeasure m = measurePlace(path);
            if (m.exists) {
                leftovers.push_back({id, path, m.bytes});
            }
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
        [] { return findFlatpakLeftovers(platform::homeDirectory(), platform::dataHome()); },
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
