#include "platform/ScopeTables.h"

#include <array>

namespace sd::platform {
namespace {

constexpr std::array<std::string_view, 7> systemRootRows{"/System", "/Library", "/bin", "/sbin",
                                                         "/usr",    "/cores",   "/dev"};
constexpr std::array<std::string_view, 4> gitRows{
    "/Library/Developer/CommandLineTools/usr/bin/git",
    "/Applications/Xcode.app/Contents/Developer/usr/bin/git", "/opt/homebrew/bin/git",
    "/usr/local/bin/git"};

} // namespace

std::span<const std::string_view> extraCloudFolders() {
    return {};
}
std::span<const std::string_view> extraReviewExclusions() {
    return {};
}
std::span<const std::string_view> extraDeveloperFolders() {
    return {};
}
std::span<const std::string_view> systemRoots() {
    return systemRootRows;
}
std::span<const std::string_view> gitCandidates() {
    return gitRows;
}

std::span<const std::string_view> extraProtectedLocations() {
    return {};
}
std::span<const std::string_view> extraAppDataLocations() {
    return {};
}
std::span<const std::string_view> extraOwnFolders() {
    return {};
}

} // namespace sd::platform
