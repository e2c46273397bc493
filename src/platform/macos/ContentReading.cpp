#include "platform/ContentReading.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/attr.h>
#include <sys/fcntl.h>
#include <unistd.h>

namespace sd::platform {

UniqueFd openContent(int dirFd, const char* name) {
    return UniqueFd(
        ::openat(dirFd, name, O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
}

void adviseSequential(int fd) {
    ::fcntl(fd, F_RDAHEAD, 1);
}

std::optional<std::uint64_t> firstPhysicalOffset(int fd) {
    // F_LOG2PHYS_EXT maps the first byte to its place on the device.
    struct log2phys place {};
    place.l2p_contigbytes = 1;
    place.l2p_devoffset = 0;
    if (::fcntl(fd, F_LOG2PHYS_EXT, &place) != 0 || place.l2p_devoffset < 0) {
        return std::nullopt;
    }
    return static_cast<std::uint64_t>(place.l2p_devoffset);
}

std::optional<std::uint64_t> sharedStorageKey(int fd, const struct stat& st) {
    if (!S_ISREG(st.st_mode)) {
        return std::nullopt;
    }
    // APFS names a clone family outright; a file that was never cloned has a reference count
    // of one and shares nothing.
    attrlist request{};
    request.bitmapcount = ATTR_BIT_MAP_COUNT;
    request.commonattr = ATTR_CMN_RETURNED_ATTRS;
    request.forkattr = ATTR_CMNEXT_CLONEID | ATTR_CMNEXT_CLONE_REFCNT;
    alignas(8) unsigned char buffer[64] = {};
    if (::fgetattrlist(fd, &request, buffer, sizeof buffer, FSOPT_ATTR_CMN_EXTENDED) != 0) {
        return std::nullopt;
    }
    std::uint32_t length = 0;
    std::memcpy(&length, buffer, sizeof length);
    attribute_set_t returned{};
    std::memcpy(&returned, buffer + sizeof(std::uint32_t), sizeof returned);
    const unsigned char* cursor = buffer + sizeof(std::uint32_t) + sizeof returned;
    const unsigned char* end = buffer + (length < sizeof buffer ? length : sizeof buffer);
    std::uint64_t cloneId = 0;
    std::uint32_t references = 0;
    if (!(returned.forkattr & ATTR_CMNEXT_CLONEID) || cursor + sizeof cloneId > end) {
        return std::nullopt;
    }
    std::memcpy(&cloneId, cursor, sizeof cloneId);
    cursor += sizeof cloneId;
    if ((returned.forkattr & ATTR_CMNEXT_CLONE_REFCNT) && cursor + sizeof references <= end) {
        std::memcpy(&references, cursor, sizeof references);
    }
    if (references <= 1) {
        return std::nullopt;
    }
    return cloneId;
}

} // namespace sd::platform
