#pragma once

#include "base/UniqueFd.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace sd::platform {

struct DirectoryReadFailure {
    std::string_view operation; // one of the core's operation words
    int error = 0;
};

// Appends the names in the open directory `fd` to `names`, "." and ".." left out, in the order
// the file system gives them. The descriptor stays open and usable. Returns a failure with the
// operation word and errno, or an empty operation on success.
DirectoryReadFailure readDirectoryNames(int fd, std::vector<std::string>& names);

// What a listing says an entry is, before anyone stats it. `unknown` means the file system did
// not say, and the entry must be stat'ed to find out.
enum class EntryKind : unsigned char { unknown, regular, directory, symlink, other };

struct DirectoryEntry {
    const char* name = nullptr; // valid until the next call to next()
    EntryKind kind = EntryKind::unknown;
    std::uint64_t inode = 0;
};

// Reads one open directory entry by entry, in the order the file system gives them, through a
// buffer the caller lends it, so that a walk makes no allocation per entry and as few reading
// calls as the buffer allows. The stream owns the descriptor; it can be moved, unread entries
// and all, to another thread that carries on where this one stopped.
class DirectoryStream {
public:
    DirectoryStream() noexcept = default;
    DirectoryStream(UniqueFd fd, std::unique_ptr<char[]> buffer, std::size_t bufferBytes) noexcept;
    DirectoryStream(DirectoryStream&& other) noexcept;
    DirectoryStream& operator=(DirectoryStream&& other) noexcept;
    DirectoryStream(const DirectoryStream&) = delete;
    DirectoryStream& operator=(const DirectoryStream&) = delete;
    ~DirectoryStream();

    // The directory's descriptor, for opening and stat'ing entries relative to it.
    int fd() const noexcept { return fd_.get(); }
    bool isOpen() const noexcept { return fd_.valid(); }

    // The next entry, "." and ".." skipped. False at the end or when reading failed; failure()
    // tells the two apart.
    bool next(DirectoryEntry& entry);
    // True once the end was reached or reading failed: no call to next() will return an entry.
    bool ended() const noexcept { return ended_ && at_ >= filled_; }
    const DirectoryReadFailure& failure() const noexcept { return failure_; }

    // Closes the directory and hands back the buffer for the next stream.
    std::unique_ptr<char[]> close() noexcept;

private:
    void reset() noexcept;

    UniqueFd fd_;
    std::unique_ptr<char[]> buffer_;
    std::size_t capacity_ = 0;
    std::size_t filled_ = 0;
    std::size_t at_ = 0;
    bool ended_ = false;
    DirectoryReadFailure failure_;
    void* handle_ = nullptr; // the system's own directory stream, where the platform needs one
};

} // namespace sd::platform
