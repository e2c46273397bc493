#pragma once

#include "history/ScanHistory.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace sd {

// Where free space is heading, fitted to the samples of the last two weeks.
struct FreeSpaceForecast {
    enum class Kind {
        tooLittleData, // under three days of samples: nothing is said
        steady,        // not falling, or falling too slowly to matter within a year
        filling,       // falling: `fullAt` is when it would reach nothing
    };
    Kind kind = Kind::tooLittleData;
    double bytesPerDay = 0; // negative while the disk fills
    std::optional<std::int64_t> fullAt;

    // "At this rate the disk is full around 12 December." / "Free space has been steady." /
    // empty when there is too little data.
    std::string sentence() const;
};

inline constexpr std::int64_t forecastWindowSeconds = std::int64_t{14} * 86'400;

// Fits the samples (oldest first) as of `now`: each day becomes its median, and the rate is the
// median slope between days up to four apart, so one big download or deletion (a step) does
// not become a trend and the noise of single samples is ignored.
FreeSpaceForecast forecastFreeSpace(std::span<const FreeSpaceSample> samples, std::int64_t now);

} // namespace sd
