#include "platform/AssistantTools.h"

#include <pwd.h>
#include <unistd.h>

namespace sd::platform {

std::string loginShell() {
    // Apps are started by the system with none of the user's shell set-up; zsh is the shell
    // every account has, and the one whose start-up files people put their PATH in.
    return "/bin/zsh";
}

std::string accountUserName() {
    const passwd* entry = ::getpwuid(::getuid());
    return entry != nullptr && entry->pw_name != nullptr ? std::string(entry->pw_name)
                                                         : std::string();
}

std::span<const std::string_view> extraToolFolders() {
    return {};
}

std::string_view terminalName() {
    return "Terminal";
}

} // namespace sd::platform
