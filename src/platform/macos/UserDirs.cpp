#include "platform/UserDirs.h"

namespace sd::platform {

// The Mac's own folders have fixed names, already among the shared protected rows.
const std::vector<std::string>& userDirectories() {
    static const std::vector<std::string> none;
    return none;
}

std::vector<std::string> parseUserDirectories(std::string_view, std::string_view) {
    return {};
}

} // namespace sd::platform
