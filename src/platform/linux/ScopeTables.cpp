#include "platform/ScopeTables.h"

#include <array>

namespace sd::platform {
namespace {

// Key rings, certificates, password stores, mail and the Trash itself hold what a person
// cannot get back.
constexpr std::array<std::string_view, 6> protectedRows{
    ".local/share/keyrings", ".pki", ".password-store", ".thunderbird", ".local/share/evolution",
    ".local/share/Trash",
};

// Where applications keep their per-app data on a freedesktop system.
constexpr std::array<std::string_view, 6> appDataRows{
    ".config", ".cache", ".local/share", ".local/state", ".var/app", "snap",
};

} // namespace

std::span<const std::string_view> extraProtectedLocations() {
    return protectedRows;
}
std::span<const std::string_view> extraAppDataLocations() {
    return appDataRows;
}

} // namespace sd::platform
