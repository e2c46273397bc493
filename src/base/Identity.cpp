#include "base/Identity.h"

#include <cmath>

namespace sd {

std::string identityToken(const EntryIdentity& identity) {
    // The device is written as the unsigned 32-bit number the journal has always used.
    return std::to_string(static_cast<std::uint32_t>(identity.device)) + ":" +
           std::to_string(identity.inode);
}

Timestamp Timestamp::fromSeconds(double seconds) noexcept {
    double whole = std::floor(seconds);
    auto nsec = static_cast<std::int64_t>(std::llround((seconds - whole) * 1e9));
    auto sec = static_cast<std::int64_t>(whole);
    if (nsec >= 1'000'000'000) {
        ++sec;
        nsec -= 1'000'000'000;
    }
    return {sec, nsec};
}

} // namespace sd
