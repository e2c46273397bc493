#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <vector>

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

// One piece of storage a file may share with other files: on Linux a shared extent, keyed by its
// physical offset and length; on macOS the file's clone family, keyed by its clone id. Two files
// that report the same key on one device hold the same `bytes` once between them.
struct SharedPiece {
    std::uint64_t key = 0;
    std::uint64_t length = 0;
    std::uint64_t bytes = 0;
    friend bool operator==(const SharedPiece&, const SharedPiece&) = default;
};

enum class SharedPiecesOutcome {
    read,     // `pieces` holds what the file shares (nothing when it shares nothing)
    vanished, // the entry was gone by the time it was opened
    changed,  // another object now answers to the name that was listed
};

// The pieces of storage the regular file `name` in the open directory `parentFd` shares with
// other files, appended to `pieces`. `st` is the entry's no-follow stat, taken just before; a
// file system that never shares blocks answers at once with nothing. Throws CleanerError with
// the operation word "Reading clone attributes for" when the file system refuses the question.
SharedPiecesOutcome readSharedPieces(int parentFd, const char* name, const std::string& path,
                                     const struct stat& st, std::vector<SharedPiece>& pieces);

} // namespace sd::platform
