#include "platform/Dirs.h"

#include "platform/Home.h"

#include <cstdlib>

namespace sd::platform {
namespace {

std::string fromEnvironment(const char* name, const char* fallbackBelowHome) {
    const char* value = std::getenv(name);
    if (value != nullptr && value[0] == '/') {
        return value;
    }
    return homeDirectory() + fallbackBelowHome;
}

} // namespace

std::string dataHome() {
    return fromEnvironment("XDG_DATA_HOME", "/.local/share");
}
std::string supportDirectory() {
    return dataHome() + "/Sparrowdeck";
}
std::string configHome() {
    return fromEnvironment("XDG_CONFIG_HOME", "/.config");
}

} // namespace sd::platform
