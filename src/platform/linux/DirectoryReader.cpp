#include "platform/DirectoryReader.h"

#include "base/CleanerError.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <dirent.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>

namespace sd::platform {
namespace {

bool isDotOrDotDot(const char* name) noexcept {
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

long readEntries(int fd, char* buffer, std::size_t bytes) noexcept {
    return ::syscall(SYS_getdents64, fd, buffer, bytes);
}

EntryKind kindOf(unsigned char type) noexcept {
    switch (type) {
    case DT_REG:
        return EntryKind::regular;
    case DT_DIR:
        return EntryKind::directory;
    case DT_LNK:
        return EntryKind::symlink;
    case DT_UNKNOWN:
        return EntryKind::unknown;
    default:
        return EntryKind::other;
    }
}

} // namespace

// Reads with getdents64 straight from the caller's descriptor into one large buffer: no dup, no
// DIR stream and no per-call fstat, which on a tree of many small folders is most of what a
// listing costs.
DirectoryReadFailure readDirectoryNames(int fd, std::vector<std::string>& names) {
    if (::lseek(fd, 0, SEEK_SET) < 0) {
        return {operation::readingDirectory, errno};
    }
    alignas(struct dirent64) static thread_local char buffer[64 * 1024];
    for (;;) {
        long n = readEntries(fd, buffer, sizeof buffer);
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
            if (!isDotOrDotDot(entry->d_name)) {
                names.emplace_back(entry->d_name);
            }
        }
    }
}

DirectoryStream::DirectoryStream(UniqueFd fd, std::unique_ptr<char[]> buffer,
                                 std::size_t bufferBytes) noexcept
    : fd_(std::move(fd)), buffer_(std::move(buffer)), capacity_(bufferBytes) {}

DirectoryStream::DirectoryStream(DirectoryStream&& other) noexcept
    : fd_(std::move(other.fd_)), buffer_(std::move(other.buffer_)), capacity_(other.capacity_),
      filled_(other.filled_), at_(other.at_), ended_(other.ended_), failure_(other.failure_) {
    other.reset();
}

DirectoryStream& DirectoryStream::operator=(DirectoryStream&& other) noexcept {
    if (this != &other) {
        fd_ = std::move(other.fd_);
        buffer_ = std::move(other.buffer_);
        capacity_ = other.capacity_;
        filled_ = other.filled_;
        at_ = other.at_;
        ended_ = other.ended_;
        failure_ = other.failure_;
        other.reset();
    }
    return *this;
}

DirectoryStream::~DirectoryStream() = default;

void DirectoryStream::reset() noexcept {
    capacity_ = filled_ = at_ = 0;
    ended_ = false;
    failure_ = {};
}

bool DirectoryStream::next(DirectoryEntry& entry) {
    for (;;) {
        while (at_ < filled_) {
            const auto* raw = reinterpret_cast<const struct dirent64*>(buffer_.get() + at_);
            at_ += raw->d_reclen;
            if (isDotOrDotDot(raw->d_name)) {
                continue;
            }
            entry.name = raw->d_name;
            entry.kind = kindOf(raw->d_type);
            entry.inode = static_cast<std::uint64_t>(raw->d_ino);
            return true;
        }
        if (ended_ || !fd_) {
            ended_ = true;
            return false;
        }
        long n = readEntries(fd_.get(), buffer_.get(), capacity_);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            failure_ = {operation::readingDirectory, errno};
            ended_ = true;
            return false;
        }
        filled_ = static_cast<std::size_t>(n);
        at_ = 0;
        if (n == 0) {
            ended_ = true;
            return false;
        }
    }
}

std::unique_ptr<char[]> DirectoryStream::close() noexcept {
    fd_.reset();
    filled_ = at_ = 0;
    ended_ = true;
    return std::move(buffer_);
}

} // namespace sd::platform
