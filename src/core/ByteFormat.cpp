#include "core/ByteFormat.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

namespace sd {

std::string formatBytes(std::uint64_t bytes) {
    if (bytes < 1000) {
        return std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
    }
    static constexpr std::array<const char*, 6> units{"KB", "MB", "GB", "TB", "PB", "EB"};
    double value = static_cast<double>(bytes) / 1000.0;
    size_t unit = 0;
    while (value >= 999.95 && unit + 1 < units.size()) {
        value /= 1000.0;
        ++unit;
    }
    // Gigabytes and up keep two decimals so that a change of a few megabytes still shows.
    char text[32];
    std::snprintf(text, sizeof text, unit >= 2 && value < 100 ? "%.2f %s" : "%.1f %s", value,
                  units[unit]);
    return text;
}

std::string formatCount(std::uint64_t count) {
    std::string digits = std::to_string(count);
    std::string out;
    out.reserve(digits.size() + digits.size() / 3);
    size_t lead = digits.size() % 3;
    for (size_t i = 0; i < digits.size(); ++i) {
        if (i != 0 && (i + 3 - lead) % 3 == 0) {
            out.push_back(',');
        }
        out.push_back(digits[i]);
    }
    return out;
}

std::string formatDuration(double seconds) {
    if (!(seconds >= 0)) {
        seconds = 0; // negative or not a number: nothing measurable
    }
    char text[32];
    // Tenths below a minute, whole seconds above; the rounding decides which side a value is on.
    if (std::round(seconds * 10) < 600) {
        std::snprintf(text, sizeof text, "%.1f s", seconds);
        return text;
    }
    const auto total = static_cast<std::uint64_t>(std::llround(std::min(seconds, 1e15)));
    std::snprintf(text, sizeof text, "%llu min %02llu s",
                  static_cast<unsigned long long>(total / 60),
                  static_cast<unsigned long long>(total % 60));
    return text;
}

} // namespace sd
