#include "platform/FileSystemExtras.h"

#include <cerrno>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

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

Timestamp modifiedTime(const struct stat& st) noexcept {
    return {st.st_mtim.tv_sec, st.st_mtim.tv_nsec};
}

Timestamp changedTime(const struct stat& st) noexcept {
    return {st.st_ctim.tv_sec, st.st_ctim.tv_nsec};
}

Timestamp accessedTime(const struct stat& st) noexcept {
    return {st.st_atim.tv_sec, st.st_atim.tv_nsec};
}

bool makePipe(int (&ends)[2]) noexcept {
    return ::pipe2(ends, O_CLOEXEC) == 0;
}

bool isDataless(const struct stat&) {
    return false;
}

} // namespace sd::platform
