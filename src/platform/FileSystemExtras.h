#pragma once

#include "base/Identity.h"

#include <cstdint>
#include <optional>
#include <sys/stat.h>

namespace sd::platform {

// Renames `fromName` in `fromDir` to `toName` in `toDir`, failing with EEXIST instead of
// replacing anything already there. Never copies: across devices it fails with EXDEV.
// Returns 0 or an errno value.
int renameNoReplace(int fromDir, const char* fromName, int toDir, const char* toName);

// Creation time of an entry, where the file system records one.
std::optional<Timestamp> birthTime(int dirFd, const char* name, const struct stat& st);

// The times of a stat record, read from the fields each system names its own way.
Timestamp modifiedTime(const struct stat& st) noexcept;
Timestamp changedTime(const struct stat& st) noexcept; // the last status change
Timestamp accessedTime(const struct stat& st) noexcept;

// A pipe whose two ends close on exec. Returns false with errno set on failure.
bool makePipe(int (&ends)[2]) noexcept;

// True for a placeholder whose contents live in the cloud, not on this disk.
bool isDataless(const struct stat& st);

} // namespace sd::platform
