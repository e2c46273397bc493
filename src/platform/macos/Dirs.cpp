#include "platform/Dirs.h"

#include "platform/Home.h"

namespace sd::platform {

std::string dataHome() {
    return homeDirectory() + "/Library/Application Support";
}
std::string supportDirectory() {
    return dataHome() + "/Sparrowdeck";
}
std::string configHome() {
    return homeDirectory() + "/Library/Preferences";
}

} // namespace sd::platform
