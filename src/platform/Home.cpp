#include "platform/Home.h"

#include <pwd.h>
#include <unistd.h>
#include <vector>

namespace sd::platform {

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

} // namespace sd::platform
