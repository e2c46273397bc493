#pragma once

#include "base/UniqueFd.h"

#include <string>
#include <string_view>
#include <sys/types.h>

namespace sd {

// Writes all of `text`, retrying short writes and interruptions. False with errno set on failure.
bool writeAll(int fd, std::string_view text);

// Reads to the end, or at most `limit` bytes.
std::string readAll(int fd, size_t limit = size_t(1) << 30);

// Creates `directory` and its missing parents with `mode`. Throws CleanerError.
void makeDirectories(const std::string& directory, mode_t mode);

// Replaces `file` with `text` so that a reader sees either the old or the new contents, never a
// mix: a temporary file beside it is written, flushed and renamed over it. Throws CleanerError.
void replaceFileAtomically(const std::string& file, std::string_view text);

// An advisory lock on "<file>.lock", held for the object's lifetime, shared by every process
// that writes `file`.
class FileLock {
public:
    explicit FileLock(const std::string& file);
    ~FileLock();
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

private:
    UniqueFd fd_;
};

} // namespace sd
