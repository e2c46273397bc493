#include "platform/FileSystemExtras.h"

#include <cerrno>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

namespace sd::platform {

int renameNoReplace(int fromDir, const char* fromName, int toDir, const char* toName) {
    return ::renameatx_np(fromDir, fromName, toDir, toName, RENAME_EXCL) == 0 ? 0 : errno;
}

std::optional<Timestamp> birthTime(int, const char*, const struct stat& st) {
    return Timestamp{st.st_birthtimespec.tv_sec, st.st_birthtimespec.tv_nsec};
}

Timestamp modifiedTime(const struct stat& st) noexcept {
    return {st.st_mtimespec.tv_sec, st.st_mtimespec.tv_nsec};
}

Timestamp changedTime(const struct stat& st) noexcept {
    return {st.st_ctimespec.tv_sec, st.st_ctimespec.tv_nsec};
}

Timestamp accessedTime(const struct stat& st) noexcept {
    return {st.st_atimespec.tv_sec, st.st_atimespec.tv_nsec};
}

// macOS has no pipe2: the ends are made close-on-exec one by one, before any child can start
// from this thread.
bool makePipe(int (&ends)[2]) noexcept {
    if (::pipe(ends) != 0) {
        return false;
    }
    for (int fd : ends) {
        if (::fcntl(fd, F_SETFD, FD_CLOEXEC) != 0) {
            int error = errno;
            ::close(ends[0]);
            ::close(ends[1]);
            errno = error;
            return false;
        }
    }
    return true;
}

bool isDataless(const struct stat& st) {
#ifdef SF_DATALESS
    return (st.st_flags & SF_DATALESS) != 0;
#else
    (void)st;
    return false;
#endif
}

} // namespace sd::platform
