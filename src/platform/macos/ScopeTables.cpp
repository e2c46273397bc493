#include "platform/ScopeTables.h"

namespace sd::platform {

std::span<const std::string_view> extraProtectedLocations() {
    return {};
}
std::span<const std::string_view> extraAppDataLocations() {
    return {};
}

} // namespace sd::platform
