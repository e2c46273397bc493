#include "platform/ContentReading.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/fiemap.h>
#include <linux/fs.h>
#include <linux/magic.h>
#include <sys/ioctl.h>
#include <sys/vfs.h>

namespace sd::platform {
namespace {

#ifndef XFS_SUPER_MAGIC
constexpr long xfsSuperMagic = 0x58465342;
#else
constexpr long xfsSuperMagic = XFS_SUPER_MAGIC;
#endif

constexpr unsigned extentBatch = 128;

struct FiemapBuffer {
    alignas(struct fiemap) unsigned char bytes[sizeof(struct fiemap) +
                                               extentBatch * sizeof(struct fiemap_extent)];
    struct fiemap* header() noexcept {
        return reinterpret_cast<struct fiemap*>(bytes);
    }
};

// splitmix64's finaliser: every input bit reaches every output bit.
std::uint64_t mix(std::uint64_t seed, std::uint64_t value) noexcept {
    std::uint64_t z = seed ^ (value + 0x9E3779B97F4A7C15ULL + (seed << 6) + (seed >> 2));
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31);
}

} // namespace

UniqueFd openContent(int dirFd, const char* name) {
    constexpr int flags = O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
    // O_NOATIME is only granted to the file's owner; anyone else reads it the ordinary way.
    UniqueFd fd(::openat(dirFd, name, flags | O_NOATIME));
    if (!fd && errno == EPERM) {
        fd.reset(::openat(dirFd, name, flags));
    }
    return fd;
}

void adviseSequential(int fd) {
    ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
}

std::optional<std::uint64_t> firstPhysicalOffset(int fd) {
    alignas(struct fiemap) unsigned char
        bytes[sizeof(struct fiemap) + sizeof(struct fiemap_extent)] = {};
    auto* request = reinterpret_cast<struct fiemap*>(bytes);
    request->fm_start = 0;
    request->fm_length = FIEMAP_MAX_OFFSET;
    request->fm_extent_count = 1;
    // No FIEMAP_FLAG_SYNC: an approximate order must not cost a flush of the file.
    if (::ioctl(fd, FS_IOC_FIEMAP, request) != 0 || request->fm_mapped_extents == 0) {
        return std::nullopt;
    }
    const fiemap_extent& first = request->fm_extents[0];
    constexpr unsigned placeless =
        FIEMAP_EXTENT_UNKNOWN | FIEMAP_EXTENT_DATA_INLINE | FIEMAP_EXTENT_DELALLOC;
    if ((first.fe_flags & placeless) != 0) {
        return std::nullopt;
    }
    return first.fe_physical;
}

std::optional<std::uint64_t> sharedStorageKey(int fd, const struct stat& st) {
    if (!S_ISREG(st.st_mode) || st.st_size <= 0) {
        return std::nullopt;
    }
    // Only btrfs and XFS can share blocks between files; anywhere else every file owns its own.
    struct statfs fs {};
    if (::fstatfs(fd, &fs) != 0 ||
        (static_cast<long>(fs.f_type) != static_cast<long>(BTRFS_SUPER_MAGIC) &&
         static_cast<long>(fs.f_type) != xfsSuperMagic)) {
        return std::nullopt;
    }
    // The whole extent map goes into the key, so a file that shares only some of its blocks
    // with another (one copy was partly rewritten) is not taken for a clone of it. Flushing
    // first makes delayed allocations show their real place.
    FiemapBuffer buffer{};
    struct fiemap* request = buffer.header();
    std::uint64_t key = static_cast<std::uint64_t>(st.st_size);
    bool sharesAny = false;
    std::uint64_t start = 0;
    for (;;) {
        std::memset(buffer.bytes, 0, sizeof buffer.bytes);
        request->fm_start = start;
        request->fm_length = FIEMAP_MAX_OFFSET - start;
        request->fm_flags = FIEMAP_FLAG_SYNC;
        request->fm_extent_count = extentBatch;
        if (::ioctl(fd, FS_IOC_FIEMAP, request) != 0) {
            return std::nullopt;
        }
        unsigned count = request->fm_mapped_extents;
        if (count == 0) {
            break;
        }
        bool last = false;
        for (unsigned i = 0; i < count && i < extentBatch; ++i) {
            const fiemap_extent& extent = request->fm_extents[i];
            constexpr unsigned placeless =
                FIEMAP_EXTENT_UNKNOWN | FIEMAP_EXTENT_DATA_INLINE | FIEMAP_EXTENT_DELALLOC;
            if ((extent.fe_flags & placeless) != 0) {
                return std::nullopt; // no place on disk to compare
            }
            sharesAny = sharesAny || (extent.fe_flags & FIEMAP_EXTENT_SHARED) != 0;
            key = mix(key, extent.fe_logical);
            key = mix(key, extent.fe_physical);
            key = mix(key, extent.fe_length);
            last = last || (extent.fe_flags & FIEMAP_EXTENT_LAST) != 0;
        }
        const fiemap_extent& tail =
            request->fm_extents[(count < extentBatch ? count : extentBatch) - 1];
        start = tail.fe_logical + tail.fe_length;
        if (last || count < extentBatch) {
            break;
        }
    }
    if (!sharesAny) {
        return std::nullopt;
    }
    return key;
}

} // namespace sd::platform
