#include "platform/FileSystemExtras.h"

#include <cerrno>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>

namespace sd::platform {

int renameNoReplace(int fromDir, const char* fromName, int toDir, const char* toName) {
    return ::renameat2(fromDir, fromName, toDir, toName, RENAME_NOREPLACE) == 0 ? 0 : errno;
}

std::optional<Timestamp> birthTime(int dirFd, const char* name, const struct stat&) {
    struct statx stx {};
    if (::statx(dirFd, name, AT_SYMLINK_NOFOLLOW | AT_STATX_DONT_SYNC, STATX_BTIME, &stx) != 0 ||
        (stx.stx_mask & STATX_BTIME) == 0) {
        return std::nullopt;
    }
    return Timestamp{stx.stx_btime.tv_sec, stx.stx_btime.tv_nsec};
}

bool isDataless(const struct stat&) {
    return false;
}

} // namespace sd::platform
