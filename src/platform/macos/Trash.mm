// The Finder's Trash, through NSFileManager: it picks the right Trash for the item's volume,
// names collisions itself and records where the item came from so Finder's Put Back works.
#include "platform/Trash.h"

#include "base/CleanerError.h"
#include "base/Descriptors.h"
#include "base/Saturating.h"
#include "platform/DirectoryReader.h"
#include "platform/Home.h"

#import <Foundation/Foundation.h>
#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>

namespace sd::platform {
namespace {

NSURL* urlFor(const std::string& path) {
    return [NSURL fileURLWithPath:[NSString stringWithUTF8String:path.c_str()]];
}

} // namespace

TrashMoveResult moveToTrash(int parentFd, const std::string& name, const std::string& path,
                            const struct stat& st, std::uint64_t) {
    TrashMoveResult result;
    @autoreleasepool {
        // The Foundation call works by path; the object it finds must still be the one the
        // caller opened, which the caller verifies again once it is in the Trash.
        struct stat now {};
        if (::fstatat(parentFd, name.c_str(), &now, AT_SYMLINK_NOFOLLOW) != 0) {
            result.error = errno;
            return result;
        }
        if (now.st_dev != st.st_dev || now.st_ino != st.st_ino) {
            result.error = ESTALE;
            return result;
        }
        NSURL* resulting = nil;
        NSError* error = nil;
        if (![[NSFileManager defaultManager] trashItemAtURL:urlFor(path)
                                           resultingItemURL:&resulting
                                                      error:&error]) {
            result.nonTrashable = error.code == NSFeatureUnsupportedError;
            result.error = EIO;
            return result;
        }
        result.trashPath = std::string(resulting.path.fileSystemRepresentation);
    }
    return result;
}

bool trashCanTake(const std::string& path, const struct stat&) {
    @autoreleasepool {
        NSURL* trash = [[NSFileManager defaultManager] URLForDirectory:NSTrashDirectory
                                                              inDomain:NSUserDomainMask
                                                     appropriateForURL:urlFor(path)
                                                                create:NO
                                                                 error:nil];
        return trash != nil;
    }
}

void forgetTrashed(const std::string&) {
    // Finder keeps its own record of where items came from and drops it when they leave.
}

std::vector<std::string> trashFolders() {
    return {homeDirectory() + "/.Trash"};
}

std::vector<TrashedEntry> listTrash() {
    std::vector<TrashedEntry> entries;
    for (const std::string& folder : trashFolders()) {
        UniqueFd fd = openChain(folder);
        std::vector<std::string> names;
        if (!fd || !readDirectoryNames(fd.get(), names).operation.empty()) {
            continue;
        }
        std::sort(names.begin(), names.end());
        for (const std::string& name : names) {
            struct stat st {};
            if (::fstatat(fd.get(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
                continue;
            }
            TrashedEntry entry;
            entry.trashPath = folder + "/" + name;
            entry.identity = EntryIdentity::of(st);
            entry.isDirectory = S_ISDIR(st.st_mode);
            if (!entry.isDirectory) {
                entry.bytes = allocatedBytesOf(st);
            }
            entries.push_back(std::move(entry));
        }
    }
    return entries;
}

} // namespace sd::platform
