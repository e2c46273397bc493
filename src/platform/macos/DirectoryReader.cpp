#include "platform/DirectoryReader.h"

#include "base/CleanerError.h"
#include "base/UniqueFd.h"

#include <cerrno>
#include <dirent.h>
#include <memory>
#include <unistd.h>
#include <utility>

namespace sd::platform {
namespace {

bool isDotOrDotDot(const char* name) noexcept {
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
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
        if (!isDotOrDotDot(entry->d_name)) {
            names.emplace_back(entry->d_name);
        }
    }
}

// The system's DIR stream does its own buffering (getdirentries64 underneath), so the lent
// buffer is only kept to be handed back; the stream reads a duplicate of the descriptor so that
// fd() stays usable for opening entries relative to the directory.
DirectoryStream::DirectoryStream(UniqueFd fd, std::unique_ptr<char[]> buffer,
                                 std::size_t bufferBytes) noexcept
    : fd_(std::move(fd)), buffer_(std::move(buffer)), capacity_(bufferBytes) {}

DirectoryStream::DirectoryStream(DirectoryStream&& other) noexcept
    : fd_(std::move(other.fd_)), buffer_(std::move(other.buffer_)), capacity_(other.capacity_),
      filled_(other.filled_), at_(other.at_), ended_(other.ended_), failure_(other.failure_),
      handle_(std::exchange(other.handle_, nullptr)) {
    other.reset();
}

DirectoryStream& DirectoryStream::operator=(DirectoryStream&& other) noexcept {
    if (this != &other) {
        if (handle_ != nullptr) {
            ::closedir(static_cast<DIR*>(handle_));
        }
        fd_ = std::move(other.fd_);
        buffer_ = std::move(other.buffer_);
        capacity_ = other.capacity_;
        filled_ = other.filled_;
        at_ = other.at_;
        ended_ = other.ended_;
        failure_ = other.failure_;
        handle_ = std::exchange(other.handle_, nullptr);
        other.reset();
    }
    return *this;
}

DirectoryStream::~DirectoryStream() {
    if (handle_ != nullptr) {
        ::closedir(static_cast<DIR*>(handle_));
    }
}

void DirectoryStream::reset() noexcept {
    capacity_ = filled_ = at_ = 0;
    ended_ = false;
    failure_ = {};
    handle_ = nullptr;
}

bool DirectoryStream::next(DirectoryEntry& entry) {
    if (ended_ || !fd_) {
        ended_ = true;
        return false;
    }
    if (handle_ == nullptr) {
        UniqueFd copy(::dup(fd_.get()));
        if (!copy) {
            failure_ = {operation::duplicatingDirectory, errno};
            ended_ = true;
            return false;
        }
        DIR* dir = ::fdopendir(copy.get());
        if (dir == nullptr) {
            failure_ = {operation::readingDirectory, errno};
            ended_ = true;
            return false;
        }
        copy.release();
        handle_ = dir;
    }
    for (;;) {
        errno = 0;
        const dirent* raw = ::readdir(static_cast<DIR*>(handle_));
        if (raw == nullptr) {
            if (errno != 0) {
                failure_ = {operation::readingDirectory, errno};
            }
            ended_ = true;
            return false;
        }
        if (isDotOrDotDot(raw->d_name)) {
            continue;
        }
        entry.name = raw->d_name;
        entry.kind = kindOf(raw->d_type);
        entry.inode = static_cast<std::uint64_t>(raw->d_ino);
        return true;
    }
}

std::unique_ptr<char[]> DirectoryStream::close() noexcept {
    if (handle_ != nullptr) {
        ::closedir(static_cast<DIR*>(handle_));
        handle_ = nullptr;
    }
    fd_.reset();
    ended_ = true;
    return std::move(buffer_);
}

} // namespace sd::platform
