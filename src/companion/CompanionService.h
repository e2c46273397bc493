#pragma once

#include "companion/Forecast.h"
#include "companion/NoticePolicy.h"
#include "platform/InstalledApps.h"
#include "platform/Volumes.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

namespace sd {

// Data that apps no longer installed left behind, one record per place, measured: Flatpak and
// snap folders without their app, and the places of apps an earlier listing remembered, all
// matched by app id, never by a name. Nothing when the installed apps could not all be read.
std::vector<LeftBehindData> removedAppLeftovers(const platform::AppSearchRoots& roots,
                                                const std::stop_token& stop = {});

// What the companion shows in its menu.
struct CompanionStatus {
    std::uint64_t freeBytes = 0;
    std::uint64_t totalBytes = 0;
    FreeSpaceForecast forecast;
    std::int64_t sampledAt = 0;
};

// The companion's work without any window: sample free space into the history every 30 minutes,
// forecast, look for leftovers and decide the notices, keeping what was said in the history so a
// restart does not say it again. The sources are replaceable so tests can drive time and space.
class CompanionService {
public:
    static constexpr std::int64_t sampleIntervalSeconds = std::int64_t{30} * 60;
    static constexpr std::string_view stateKey = "companion.notices";

    struct Sources {
        std::function<std::int64_t()> clock;
        std::function<std::optional<platform::VolumeFigures>()> figures;
        std::function<std::vector<LeftBehindData>()> leftovers;
    };
    // The running system's clock, the home's file system and its Flatpak leftovers.
    static Sources systemSources();

    CompanionService(std::string historyFile, Sources sources);

    // One look. Returns the notices to send now; they are already recorded as sent. Throws
    // CleanerError when the history cannot be used.
    std::vector<Notice> tick();
    const CompanionStatus& status() const noexcept { return status_; }
    std::int64_t now() const { return sources_.clock(); }
    const std::string& historyFile() const noexcept { return historyFile_; }

private:
    std::string historyFile_;
    Sources sources_;
    CompanionStatus status_;
};

} // namespace sd
