#include "platform/Home.h"

#include "base/PathText.h"

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <pwd.h>
#include <unistd.h>
#include <vector>

namespace sd::platform {
namespace {

std::string homeFromEnvironmentOrAccount() {
#ifdef SPARROWDECK_HOME_OVERRIDE
    if (const char* overridden = std::getenv("SPARROWDECK_HOME");
        overridden != nullptr && *overridden != '\0') {
        return overridden;
    }
#endif
    return accountHomeDirectory();
}

} // namespace

std::string accountHomeDirectory() {
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
    return found != nullptr && found->pw_dir != nullptr ? std::string(found->pw_dir)
                                                        : std::string();
}

const std::string& homeDirectory() {
    static const std::string home = [] {
        std::string raw = homeFromEnvironmentOrAccount();
        if (raw.empty() || raw.front() != '/') {
            return std::string();
        }
        std::unique_ptr<char, decltype(&std::free)> real(::realpath(raw.c_str(), nullptr),
                                                         &std::free);
        std::string chosen = real ? std::string(real.get()) : raw;
        std::string normalized;
        for (std::string_view component : splitComponents(chosen)) {
            if (component == "." || component == "..") {
                return std::string();
            }
            normalized.append("/").append(component);
        }
        return normalized.empty() ? std::string("/") : normalized;
    }();
    return home;
}

} // namespace sd::platform
