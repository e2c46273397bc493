#include "platform/AssistantTools.h"

#include <array>
#include <cerrno>
#include <pwd.h>
#include <unistd.h>
#include <vector>

namespace sd::platform {
namespace {

// The account's user-database entry, or nothing. The fields are copied out while the buffer
// they point into is alive.
template <typename Read> std::string fromAccount(Read read) {
    long suggested = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(suggested > 0 ? static_cast<size_t>(suggested) : 16384);
    passwd entry{};
    passwd* found = nullptr;
    for (;;) {
        int rc = ::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found);
        if (rc == ERANGE && buffer.size() < (1U << 20)) {
            buffer.resize(buffer.size() * 2);
            continue;
        }
        break;
    }
    return found != nullptr ? read(*found) : std::string();
}

// Package managers and version managers that install command-line tools for one user, and the
// system folders a desktop session's PATH may lack.
constexpr std::array<std::string_view, 6> toolFolders{
    "~/bin", "~/.local/share/pnpm", "~/.yarn/bin", "~/.deno/bin", "/usr/bin", "/snap/bin",
};

} // namespace

std::string loginShell() {
    std::string shell = fromAccount([](const passwd& p) {
        return p.pw_shell != nullptr ? std::string(p.pw_shell) : std::string();
    });
    return shell.empty() || shell.front() != '/' ? std::string("/bin/sh") : shell;
}

std::string accountUserName() {
    return fromAccount([](const passwd& p) {
        return p.pw_name != nullptr ? std::string(p.pw_name) : std::string();
    });
}

std::span<const std::string_view> extraToolFolders() {
    return toolFolders;
}

std::string_view terminalName() {
    return "a terminal";
}

} // namespace sd::platform
