// The Finder's Trash, through NSFileManager: it picks the right Trash for the item's volume,
// names collisions itself and records where the item came from so Finder's Put Back works.
#include "platform/Trash.h"

#include "core/CleanerError.h"
#include "core/CoreFileSystem.h"
#include "core/PathRules.h"
#include "core/Saturating.h"

#import <Foundation/Foundation.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

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
        std::vector<std::string> names;
        try {
            std::optional<ParentHandle> parent = openParent(folder);
            UniqueFd fd = parent ? openListing(parent->fd.get(), parent->name.c_str()) : UniqueFd();
            if (!fd) {
                continue;
            }
            names = listDirectory(fd.get(), folder);
        } catch (const CleanerError&) {
            continue;
        }
        for (const std::string& name : names) {
            std::string item = folder + "/" + name;
            std::vector<std::string> warnings;
            FootprintTally tally;
            TrashedEntry entry;
            entry.trashPath = item;
            try {
                entry.bytes = measureFootprint(item, std::nullopt, warnings, tally).allocatedBytes;
            } catch (const CleanerError&) {
                continue;
            }
            struct stat st {};
            entry.isDirectory = ::lstat(item.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
            entries.push_back(std::move(entry));
        }
    }
    return entries;
}

} // namespace sd::platform
