#pragma once

#include "base/UniqueFd.h"

#include <cstdint>
#include <optional>
#include <sys/stat.h>

namespace sd::platform {

// Opens `name` in the open directory `dirFd` to read its contents: never through a link, never
// blocking on a pipe, and, where the system allows it, without recording the read as an access,
// so that comparing files does not make them look recently opened. Returns an invalid
// descriptor with errno set on failure.
UniqueFd openContent(int dirFd, const char* name);

// Tells the system the open file will be read once, front to back.
void adviseSequential(int fd);

// Where the open regular file's first block lies on its device, where the file system says: a
// cold disk reads files fastest in this order. Empty when it does not say (or the file is
// empty, inline or not yet placed).
std::optional<std::uint64_t> firstPhysicalOffset(int fd);

// A key for the storage under the open regular file `fd` (`st` is its fstat): two files on one
// device with equal keys are made of exactly the same blocks, so one is a clone of the other
// and removing it frees nothing. Empty when the file shares none of its storage, or when its
// file system cannot share blocks at all.
std::optional<std::uint64_t> sharedStorageKey(int fd, const struct stat& st);

} // namespace sd::platform
