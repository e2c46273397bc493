#include "base/FileIo.h"

#include "base/CleanerError.h"

#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <random>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace sd {

bool writeAll(int fd, std::string_view text) {
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            if (n == 0) {
                errno = EIO;
            }
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

std::string readAll(int fd, size_t limit) {
    std::string text;
    char buffer[65536];
    while (text.size() < limit) {
        ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        text.append(buffer, static_cast<size_t>(n));
    }
    return text;
}

void makeDirectories(const std::string& directory, mode_t mode) {
    for (size_t at = 1; at <= directory.size(); ++at) {
        if (at == directory.size() || directory[at] == '/') {
            std::string prefix = directory.substr(0, at);
            if (::mkdir(prefix.c_str(), mode) != 0 && errno != EEXIST) {
                throw makeCoreError(operation::opening, prefix, errno);
            }
        }
    }
}

void replaceFileAtomically(const std::string& file, std::string_view text) {
    std::random_device random;
    std::string temporary =
        file + ".tmp-" + std::to_string(::getpid()) + "-" + std::to_string(random());
    UniqueFd fd(
        ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!fd) {
        throw makeCoreError(operation::opening, temporary, errno);
    }
    if (!writeAll(fd.get(), text) || ::fsync(fd.get()) != 0) {
        int error = errno;
        ::unlink(temporary.c_str());
        throw makeCoreError(operation::opening, temporary, error);
    }
    fd.reset();
    if (::rename(temporary.c_str(), file.c_str()) != 0) {
        int error = errno;
        ::unlink(temporary.c_str());
        throw makeCoreError(operation::opening, file, error);
    }
    // The rename itself must survive a crash too.
    UniqueFd dir(
        ::open(file.substr(0, file.rfind('/')).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dir) {
        ::fsync(dir.get());
    }
}

std::optional<std::string> readRecordFile(const std::string& file) {
    UniqueFd fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    if (!fd) {
        if (errno == ENOENT) {
            return std::nullopt;
        }
        throw makeCoreError(operation::opening, file, errno);
    }
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0) {
        throw makeCoreError(operation::readingMetadata, file, errno);
    }
    if (!S_ISREG(st.st_mode)) {
        throw makeCoreError(operation::opening, file, S_ISDIR(st.st_mode) ? EISDIR : EINVAL);
    }
    return readAll(fd.get(), size_t(1) << 28);
}

std::string keepAside(const std::string& file) {
    std::time_t now = std::time(nullptr);
    std::tm utc{};
    ::gmtime_r(&now, &utc);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y%m%d-%H%M%S", &utc);
    std::string aside = file + ".unreadable-" + stamp;
    for (int n = 2; ::access(aside.c_str(), F_OK) == 0; ++n) {
        aside = file + ".unreadable-" + stamp + "-" + std::to_string(n);
    }
    if (::rename(file.c_str(), aside.c_str()) != 0) {
        throw makeCoreError(operation::opening, file, errno);
    }
    return aside.substr(aside.rfind('/') + 1);
}

FileLock::FileLock(const std::string& file) {
    std::string lockPath = file + ".lock";
    fd_.reset(::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!fd_) {
        throw makeCoreError(operation::opening, lockPath, errno);
    }
    while (::flock(fd_.get(), LOCK_EX) != 0) {
        if (errno != EINTR) {
            throw makeCoreError(operation::opening, lockPath, errno);
        }
    }
}

FileLock::~FileLock() {
    ::flock(fd_.get(), LOCK_UN);
}

} // namespace sd
