#include "platform/CloneAttributes.h"

#include "base/CleanerError.h"
#include "base/Saturating.h"

#include <cerrno>
#include <cstring>
#include <sys/attr.h>
#include <unistd.h>

namespace sd::platform {

// Every file on APFS may be a clone; the attribute call itself is the cheap test.
bool mayShareBlocks(int, std::uint64_t) {
    return true;
}

CloneReading readCloneAttributes(int parentFd, const char* name, const std::string& path,
                                 const struct stat& st) {
    CloneReading reading;
    attrlist request{};
    request.bitmapcount = ATTR_BIT_MAP_COUNT;
    request.commonattr = ATTR_CMN_RETURNED_ATTRS | ATTR_CMN_DEVID | ATTR_CMN_FILEID;
    request.forkattr = ATTR_CMNEXT_PRIVATESIZE | ATTR_CMNEXT_CLONEID | ATTR_CMNEXT_CLONE_REFCNT;

    alignas(8) unsigned char buffer[128] = {};
    if (::getattrlistat(parentFd, name, &request, buffer, sizeof buffer,
                        FSOPT_NOFOLLOW | FSOPT_ATTR_CMN_EXTENDED) != 0) {
        if (errno == ENOENT) {
            reading.vanished = true;
            return reading;
        }
        throw makeCoreError(operation::readingCloneAttributes, path, errno);
    }
    std::uint32_t length = 0;
    std::memcpy(&length, buffer, sizeof length);
    length = std::min<std::uint32_t>(length, sizeof buffer);
    if (length < 24) {
        return reading;
    }
    attribute_set_t returned{};
    std::memcpy(&returned, buffer + sizeof(std::uint32_t), sizeof returned);
    const unsigned char* cursor = buffer + sizeof(std::uint32_t) + sizeof returned;
    const unsigned char* end = buffer + length;
    auto take = [&](auto& value) {
        if (cursor + sizeof value > end) {
            return false;
        }
        std::memcpy(&value, cursor, sizeof value);
        cursor += sizeof value;
        return true;
    };
    dev_t device = 0;
    std::uint64_t fileId = 0;
    if (!(returned.commonattr & ATTR_CMN_DEVID) || !take(device) ||
        !(returned.commonattr & ATTR_CMN_FILEID) || !take(fileId)) {
        return reading;
    }
    reading.device = static_cast<std::uint64_t>(device);
    reading.inode = fileId;
    if (returned.forkattr & ATTR_CMNEXT_PRIVATESIZE) {
        off_t privateSize = 0;
        if (take(privateSize)) {
            reading.privateBytes = privateSize < 0 ? 0 : static_cast<std::uint64_t>(privateSize);
        }
    }
    if (returned.forkattr & ATTR_CMNEXT_CLONEID) {
        std::uint64_t cloneId = 0;
        if (take(cloneId)) {
            reading.cloneId = cloneId;
        }
    }
    if (returned.forkattr & ATTR_CMNEXT_CLONE_REFCNT) {
        std::uint32_t references = 0;
        if (take(references)) {
            reading.cloneReferences = references;
        }
    }
    (void)st;
    return reading;
}

SharedPiecesOutcome readSharedPieces(int parentFd, const char* name, const std::string& path,
                                     const struct stat& st, std::vector<SharedPiece>& pieces) {
    if (!S_ISREG(st.st_mode) || st.st_blocks <= 0) {
        return SharedPiecesOutcome::read;
    }
    CloneReading reading = readCloneAttributes(parentFd, name, path, st);
    if (reading.vanished) {
        return SharedPiecesOutcome::vanished;
    }
    if (!reading.device || !reading.inode) {
        return SharedPiecesOutcome::read;
    }
    if (*reading.device != static_cast<std::uint64_t>(st.st_dev) ||
        *reading.inode != static_cast<std::uint64_t>(st.st_ino)) {
        return SharedPiecesOutcome::changed;
    }
    // APFS names a clone family but not its blocks: the family is one piece, holding what the
    // file does not have to itself.
    std::uint64_t allocated = allocatedBytesOf(st);
    if (reading.cloneId && reading.cloneReferences.value_or(1) >= 2 && reading.privateBytes &&
        *reading.privateBytes < allocated) {
        pieces.push_back({*reading.cloneId, 0, allocated - *reading.privateBytes});
    }
    return SharedPiecesOutcome::read;
}

} // namespace sd::platform
