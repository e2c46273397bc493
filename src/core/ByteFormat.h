#pragma once

#include <cstdint>
#include <string>

namespace sd {

// A byte count in decimal units as people read them on a desktop: "0 bytes", "999 bytes",
// "1.2 KB", "34.5 MB", "1.23 GB", "4.1 TB".
std::string formatBytes(std::uint64_t bytes);

// A count with thousands separated by commas: "1,234,567".
std::string formatCount(std::uint64_t count);

// A duration as a person reads it: "0.4 s", "59.9 s", "2 min 00 s", "61 min 05 s". Rounded once,
// so 119.6 s reads "2 min 00 s", never "1 min 00 s".
std::string formatDuration(double seconds);

} // namespace sd
