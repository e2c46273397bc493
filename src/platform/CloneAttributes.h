#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <sys/stat.h>

namespace sd::platform {

// What the file system says about how much of a file is its own. Every field is optional
// because file systems answer in part or not at all; the core decides what a missing answer
// means.
struct CloneReading {
    // Identity of the object that was actually read, to be compared with the one that was listed.
    std::optional<std::uint64_t> device;
    std::optional<std::uint64_t> inode;
    // Bytes no other file shares. On file systems that cannot share blocks this is not returned.
    std::optional<std::uint64_t> privateBytes;
    // A clone family the file belongs to, and how many members the family has, where the file
    // system keeps such a record.
    std::optional<std::uint64_t> cloneId;
    std::optional<std::uint32_t> cloneReferences;
    // The entry was gone by the time it was read.
    bool vanished = false;
};

// False when files on the device of the open directory `dirFd` can never share blocks, so a walk
// can skip asking about every file.
bool mayShareBlocks(int dirFd, std::uint64_t device);

// Reads the clone accounting of `name` in the open directory `parentFd`, never following a link.
// `st` is the entry's no-follow stat, taken just before. Throws CleanerError with the operation
// word "Reading clone attributes for" when the file system refuses the question.
CloneReading readCloneAttributes(int parentFd, const char* name, const std::string& path,
                                 const struct stat& st);

} // namespace sd::platform
