#pragma once

#include <cstdint>
#include <optional>
#include <sys/stat.h>

namespace sd::platform {

// Renames `fromName` in `fromDir` to `toName` in `toDir`, failing with EEXIST instead of
// replacing anything already there. Never copies: across devices it fails with EXDEV.
// Returns 0 or an errno value.
int renameNoReplace(int fromDir, const char* fromName, int toDir, const char* toName);

struct Timestamp {
    std::int64_t sec = 0;
    std::int64_t nsec = 0;
    friend bool operator==(const Timestamp&, const Timestamp&) = default;
};

// Creation time of an entry, where the file system records one.
std::optional<Timestamp> birthTime(int dirFd, const char* name, const struct stat& st);

// True for a placeholder whose contents live in the cloud, not on this disk.
bool isDataless(const struct stat& st);

} // namespace sd::platform
