#pragma once

#include "base/UniqueFd.h"

#include <optional>
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

// A record file's whole text, or nothing when it does not exist. Refuses to follow a link or to
// read anything but a regular file (a folder where the file should be). Throws CleanerError.
std::optional<std::string> readRecordFile(const std::string& file);

// Renames a record that cannot be decoded to "<file>.unreadable-<UTC time>" (another free name
// if that one is taken), so the next write never replaces it. Returns the new file name, without
// its folder. Throws CleanerError.
std::string keepAside(const std::string& file);

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
