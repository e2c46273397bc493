#include "platform/FileSystemExtras.h"

#include <cerrno>
#include <stdio.h>
#include <sys/stat.h>

namespace sd::platform {

int renameNoReplace(int fromDir, const char* fromName, int toDir, const char* toName) {
    return ::renameatx_np(fromDir, fromName, toDir, toName, RENAME_EXCL) == 0 ? 0 : errno;
}

std::optional<Timestamp> birthTime(int, const char*, const struct stat& st) {
    return Timestamp{st.st_birthtimespec.tv_sec, st.st_birthtimespec.tv_nsec};
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
