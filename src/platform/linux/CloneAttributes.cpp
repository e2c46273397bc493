#include "platform/CloneAttributes.h"

#include "base/CleanerError.h"
#include "base/Saturating.h"
#include "base/UniqueFd.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/fiemap.h>
#include <linux/fs.h>
#include <linux/magic.h>
#include <mutex>
#include <sys/ioctl.h>
#include <sys/vfs.h>
#include <unordered_map>

namespace sd::platform {
namespace {

#ifndef XFS_SUPER_MAGIC
constexpr long xfsSuperMagic = 0x58465342;
#else
constexpr long xfsSuperMagic = XFS_SUPER_MAGIC;
#endif

// Only btrfs and XFS can share blocks between files; asking any other file system for its
// extent map costs an open and an ioctl per file and can only say "all private".
// `fresh` asks the file system again instead of trusting what was remembered: a device number
// is handed to another file system once the first is unmounted.
bool deviceCanShareBlocks(int parentFd, std::uint64_t device, bool fresh) {
    static std::mutex lock;
    static std::unordered_map<std::uint64_t, bool> known;
    if (!fresh) {
        std::lock_guard guard(lock);
        if (auto found = known.find(device); found != known.end()) {
            return found->second;
        }
    }
    // The directory only speaks for `device` when it lives there: the parent of a mount point
    // is on another file system. Without an answer, let each file's extent map decide, and
    // drop what was remembered so the next file's own directory is asked.
    struct stat dir {};
    struct statfs fs {};
    if (::fstat(parentFd, &dir) != 0 || static_cast<std::uint64_t>(dir.st_dev) != device ||
        ::fstatfs(parentFd, &fs) != 0) {
        std::lock_guard guard(lock);
        known.erase(device);
        return true;
    }
    bool canShare = static_cast<long>(fs.f_type) == static_cast<long>(BTRFS_SUPER_MAGIC) ||
                    static_cast<long>(fs.f_type) == xfsSuperMagic;
    std::lock_guard guard(lock);
    known.insert_or_assign(device, canShare);
    return canShare;
}

constexpr unsigned extentBatch = 128;

// struct fiemap ends in a flexible array, so the request lives in raw, suitably aligned storage.
struct FiemapBuffer {
    alignas(struct fiemap) unsigned char bytes[sizeof(struct fiemap) +
                                               extentBatch * sizeof(struct fiemap_extent)];
    struct fiemap* header() noexcept {
        return reinterpret_cast<struct fiemap*>(bytes);
    }
};

// Calls `visit` with every extent of the open file `fd` that the file system marks as shared
// with another file. False when the file system cannot map extents at all.
template <typename Visit> bool forEachSharedExtent(int fd, const std::string& path, Visit visit) {
    FiemapBuffer buffer{};
    struct fiemap* request = buffer.header();
    std::uint64_t start = 0;
    for (;;) {
        std::memset(buffer.bytes, 0, sizeof buffer.bytes);
        request->fm_start = start;
        request->fm_length = FIEMAP_MAX_OFFSET - start;
        request->fm_extent_count = extentBatch;
        if (::ioctl(fd, FS_IOC_FIEMAP, request) != 0) {
            int error = errno;
            if (error == EOPNOTSUPP || error == ENOTTY) {
                return false;
            }
            throw makeCoreError(operation::readingCloneAttributes, path, error);
        }
        unsigned count = request->fm_mapped_extents;
        if (count == 0) {
            return true;
        }
        bool last = false;
        for (unsigned i = 0; i < count && i < extentBatch; ++i) {
            const fiemap_extent& extent = request->fm_extents[i];
            last = last || (extent.fe_flags & FIEMAP_EXTENT_LAST) != 0;
            // Inline data lives in metadata, and unknown or delayed extents have no place on
            // disk yet: none of them can be shared.
            constexpr unsigned placeless =
                FIEMAP_EXTENT_UNKNOWN | FIEMAP_EXTENT_DATA_INLINE | FIEMAP_EXTENT_DELALLOC;
            if ((extent.fe_flags & placeless) == 0 && (extent.fe_flags & FIEMAP_EXTENT_SHARED)) {
                visit(extent);
            }
        }
        const fiemap_extent& tail = request->fm_extents[std::min(count, extentBatch) - 1];
        start = tail.fe_logical + tail.fe_length;
        if (last || count < extentBatch) {
            return true;
        }
    }
}

} // namespace

bool mayShareBlocks(int dirFd, std::uint64_t device) {
    // Once per measurement, so the per-file checks of this walk read a current answer.
    return deviceCanShareBlocks(dirFd, device, true);
}

CloneReading readCloneAttributes(int parentFd, const char* name, const std::string& path,
                                 const struct stat& st) {
    CloneReading reading;
    if (!S_ISREG(st.st_mode) || !deviceCanShareBlocks(parentFd, st.st_dev, false)) {
        return reading;
    }
    UniqueFd fd(
        ::openat(parentFd, name, O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    if (!fd) {
        int error = errno;
        if (error == ENOENT) {
            reading.vanished = true;
            return reading;
        }
        // A file we may not read still has a size we can report; its sharing is simply unknown,
        // which the core treats like a file system that keeps no such record.
        if (error == EACCES || error == EPERM) {
            return reading;
        }
        throw makeCoreError(operation::readingCloneAttributes, path, error);
    }
    struct stat opened {};
    if (::fstat(fd.get(), &opened) != 0) {
        throw makeCoreError(operation::readingCloneAttributes, path, errno);
    }
    reading.device = static_cast<std::uint64_t>(opened.st_dev);
    reading.inode = static_cast<std::uint64_t>(opened.st_ino);

    std::uint64_t shared = 0;
    bool supported = forEachSharedExtent(fd.get(), path, [&](const fiemap_extent& extent) {
        shared = saturatingAdd(shared, extent.fe_length);
    });
    if (!supported) {
        return CloneReading{reading.device, reading.inode, {}, {}, {}, false};
    }
    std::uint64_t allocated = allocatedBytesOf(st);
    reading.privateBytes = shared >= allocated ? 0 : allocated - shared;
    return reading;
}

SharedPiecesOutcome readSharedPieces(int parentFd, const char* name, const std::string& path,
                                     const struct stat& st, std::vector<SharedPiece>& pieces) {
    if (!S_ISREG(st.st_mode) || st.st_blocks <= 0 ||
        !deviceCanShareBlocks(parentFd, st.st_dev, false)) {
        return SharedPiecesOutcome::read;
    }
    UniqueFd fd(
        ::openat(parentFd, name, O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    if (!fd) {
        int error = errno;
        if (error == ENOENT) {
            return SharedPiecesOutcome::vanished;
        }
        if (error == ELOOP) {
            return SharedPiecesOutcome::changed;
        }
        // A file we may not read still has a size; whether it shares blocks is unknown, and it
        // is counted as wholly its own.
        if (error == EACCES || error == EPERM) {
            return SharedPiecesOutcome::read;
        }
        throw makeCoreError(operation::readingCloneAttributes, path, error);
    }
    struct stat opened {};
    if (::fstat(fd.get(), &opened) != 0) {
        throw makeCoreError(operation::readingCloneAttributes, path, errno);
    }
    if (opened.st_dev != st.st_dev || opened.st_ino != st.st_ino) {
        return SharedPiecesOutcome::changed;
    }
    // Each shared extent is one piece: the blocks at that physical place are the same blocks
    // whichever file reports them.
    forEachSharedExtent(fd.get(), path, [&](const fiemap_extent& extent) {
        pieces.push_back({extent.fe_physical, extent.fe_length, extent.fe_length});
    });
    return SharedPiecesOutcome::read;
}

} // namespace sd::platform
