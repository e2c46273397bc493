#include "platform/DirectoryReader.h"

#include "core/CleanerError.h"
#include "core/UniqueFd.h"

#include <cerrno>
#include <dirent.h>
#include <memory>
#include <unistd.h>

namespace sd::platform {

DirectoryReadFailure readDirectoryNames(int fd, std::vector<std::string>& names) {
    // A DIR stream takes ownership of its descriptor, so it reads a duplicate.
    UniqueFd copy(::dup(fd));
    if (!copy) {
        return {operation::duplicatingDirectory, errno};
    }
    DIR* dir = ::fdopendir(copy.get());
    if (dir == nullptr) {
        return {operation::readingDirectory, errno};
    }
    copy.release();
    std::unique_ptr<DIR, int (*)(DIR*)> owner(dir, &::closedir);
    ::rewinddir(dir);
    for (;;) {
        errno = 0;
        const dirent* entry = ::readdir(dir);
        if (entry == nullptr) {
            if (errno != 0) {
                return {operation::readingDirectory, errno};
            }
            return {};
        }
        const char* name = entry->d_name;
        if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) {
            continue;
        }
        names.emplace_back(name);
    }
}

} // namespace sd::platform
