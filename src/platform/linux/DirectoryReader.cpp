#include "platform/DirectoryReader.h"

#include "core/CleanerError.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <dirent.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace sd::platform {
// Reads with getdents64 straight from the caller's descriptor into one large buffer: no dup, no
// DIR stream and no per-call fstat, which on a tree of many small folders is most of what a
// listing costs.
DirectoryReadFailure readDirectoryNames(int fd, std::vector<std::string>& names) {
    if (::lseek(fd, 0, SEEK_SET) < 0) {
        return {operation::readingDirectory, errno};
    }
    alignas(struct dirent64) static thread_local char buffer[64 * 1024];
    for (;;) {
        long n = ::syscall(SYS_getdents64, fd, buffer, sizeof buffer);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return {operation::readingDirectory, errno};
        }
        if (n == 0) {
            return {};
        }
        for (long at = 0; at < n;) {
            const auto* entry = reinterpret_cast<const struct dirent64*>(buffer + at);
            at += entry->d_reclen;
            const char* name = entry->d_name;
            if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) {
                continue;
            }
            names.emplace_back(name);
        }
    }
}

} // namespace sd::platform
