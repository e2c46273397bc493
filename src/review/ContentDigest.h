#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

// SHA-256 digests of file contents, read with positioned reads from an open descriptor.
namespace sd {

using ContentDigest = std::array<unsigned char, 32>;

// Lower-case hexadecimal, as sha256sum prints it.
std::string hexDigest(const ContentDigest& digest);

// Incremental SHA-256 through OpenSSL's EVP interface, which uses the CPU's SHA instructions
// where there are any. One object per thread; reset() starts a new digest.
class Sha256 {
public:
    Sha256();
    ~Sha256();
    Sha256(const Sha256&) = delete;
    Sha256& operator=(const Sha256&) = delete;

    void reset();
    void update(const void* data, size_t length);
    ContentDigest finish();

private:
    struct State;
    std::unique_ptr<State> state_;
};

// The size of one read, and of the scratch buffer every reader needs.
inline constexpr size_t contentChunkBytes = 1u << 20;

// SHA-256 over the file's size as eight little-endian bytes, then its first and last
// `sampleBytes` bytes when it is more than twice that long, else all of it. Empty when a read
// fails or ends before `size` bytes. `buffer` holds at least 2 × sampleBytes.
std::optional<ContentDigest> sampleDigest(int fd, std::uint64_t size, std::uint64_t sampleBytes,
                                          std::vector<unsigned char>& buffer, Sha256& sha,
                                          std::atomic<std::uint64_t>* bytesRead = nullptr);

struct FullDigest {
    std::optional<ContentDigest> digest; // empty when the file could not be read in full
    bool timedOut = false;               // the deadline passed before the last chunk
    bool cancelled = false;
};

// SHA-256 over the whole `size` bytes, read one chunk at a time, with the deadline and Stop
// checked before each chunk. `buffer` holds at least contentChunkBytes.
FullDigest fullDigest(int fd, std::uint64_t size, std::chrono::steady_clock::time_point deadline,
                      const std::stop_token& stop, std::vector<unsigned char>& buffer, Sha256& sha,
                      std::atomic<std::uint64_t>* bytesRead = nullptr);

// How one file of a side-by-side reading ended.
enum class SideBySide { matched, differs, unreadable };

struct SideBySideReading {
    // The first file's digest when at least one other file matched it to the end.
    std::optional<ContentDigest> digest;
    // One per descriptor. The first file's own entry says matched when another file matched
    // it, and differs when none did.
    std::vector<SideBySide> files;
    bool timedOut = false;
    bool cancelled = false;
};

// Reads files of `size` bytes side by side, one chunk of each at a time with the deadline and
// Stop checked before each, comparing every file's bytes with the first file's and hashing only
// the first. Files equal to the first share its digest; equal files have equal SHA-256 digests
// and the other way round, so a group is settled with one digest instead of one per file, and
// a file that differs stops being read at the chunk that shows it. `first` and `other` hold at
// least contentChunkBytes each.
SideBySideReading readSideBySide(const std::vector<int>& fds, std::uint64_t size,
                                 std::chrono::steady_clock::time_point deadline,
                                 const std::stop_token& stop, std::vector<unsigned char>& first,
                                 std::vector<unsigned char>& other, Sha256& sha,
                                 std::atomic<std::uint64_t>* bytesRead = nullptr);

} // namespace sd
