#include "platform/LastOpened.h"

#include <CoreServices/CoreServices.h>
#include <cstdint>
#include <cstring>
#include <sys/xattr.h>

namespace sd::platform {
namespace {

constexpr double appleEpochOffset = 978307200.0; // 2001-01-01 in seconds since 1970

template <typename T> struct CFReleaser {
    T ref = nullptr;
    ~CFReleaser() {
        if (ref != nullptr) {
            CFRelease(ref);
        }
    }
};

std::optional<double> dateAttribute(MDItemRef item, CFStringRef name) {
    CFReleaser<CFTypeRef> value{MDItemCopyAttribute(item, name)};
    if (value.ref == nullptr || CFGetTypeID(value.ref) != CFDateGetTypeID()) {
        return std::nullopt;
    }
    return CFDateGetAbsoluteTime(static_cast<CFDateRef>(value.ref)) + appleEpochOffset;
}

// Sixteen bytes: signed seconds since 1970, then signed nanoseconds.
std::optional<double> lastUsedAttribute(const std::string& path) {
    unsigned char bytes[16] = {};
    ssize_t n = ::getxattr(path.c_str(), "com.apple.lastuseddate#PS", bytes, sizeof bytes, 0,
                           XATTR_NOFOLLOW);
    if (n != static_cast<ssize_t>(sizeof bytes)) {
        return std::nullopt;
    }
    std::int64_t seconds = 0;
    std::int64_t nanoseconds = 0;
    std::memcpy(&seconds, bytes, sizeof seconds);
    std::memcpy(&nanoseconds, bytes + sizeof seconds, sizeof nanoseconds);
    if (seconds < 1) {
        return std::nullopt;
    }
    return static_cast<double>(seconds) + static_cast<double>(nanoseconds) / 1e9;
}

} // namespace

LastOpenedReader systemLastOpenedReader() {
    return [](const std::string& path, const FileTimes&) {
        LastOpenedRecord record;
        CFReleaser<CFStringRef> cfPath{
            CFStringCreateWithFileSystemRepresentation(kCFAllocatorDefault, path.c_str())};
        if (cfPath.ref != nullptr) {
            CFReleaser<MDItemRef> item{MDItemCreate(kCFAllocatorDefault, cfPath.ref)};
            if (item.ref != nullptr) {
                record.indexed = true;
                record.dateAdded = dateAttribute(item.ref, kMDItemDateAdded);
                record.lastOpened = dateAttribute(item.ref, kMDItemLastUsedDate);
            }
        }
        if (!record.lastOpened) {
            record.lastOpened = lastUsedAttribute(path);
        }
        return record;
    };
}

// The last-used dates of apps come from Spotlight on this system, not from a record of opened
// files.
std::vector<ApplicationUse> recentApplicationUses(const std::string& /*file*/) {
    return {};
}

} // namespace sd::platform
