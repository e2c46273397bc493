#pragma once

#include <span>
#include <string_view>

namespace sd::platform {

// Rows this platform adds after the shared tables of the scope rules. Paths are relative to the
// home folder; the shared rows always come first and are never dropped or reordered.
std::span<const std::string_view> extraProtectedLocations();
std::span<const std::string_view> extraAppDataLocations();

} // namespace sd::platform
