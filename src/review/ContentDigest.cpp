#include "review/ContentDigest.h"

#include <cerrno>
#include <cstring>
#include <openssl/evp.h>
#include <stdexcept>
#include <unistd.h>

namespace sd {
namespace {

// Fetched once: an implicit fetch on every initialisation costs a lock and a lookup.
const EVP_MD* sha256Algorithm() {
    static EVP_MD* algorithm = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    if (algorithm == nullptr) {
        throw std::runtime_error("OpenSSL has no SHA-256");
    }
    return algorithm;
}

// Reads exactly `length` bytes at `offset`, retrying interrupted and short reads. False on an
// error or when the file ends first.
bool readExactly(int fd, unsigned char* into, size_t length, std::uint64_t offset,
                 std::atomic<std::uint64_t>* bytesRead) {
    size_t done = 0;
    while (done < length) {
        ssize_t n = ::pread(fd, into + done, length - done, static_cast<off_t>(offset + done));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        done += static_cast<size_t>(n);
    }
    if (bytesRead != nullptr) {
        bytesRead->fetch_add(length, std::memory_order_relaxed);
    }
    return true;
}

} // namespace

std::string hexDigest(const ContentDigest& digest) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(digest.size() * 2);
    for (unsigned char byte : digest) {
        text.push_back(digits[byte >> 4]);
        text.push_back(digits[byte & 0xF]);
    }
    return text;
}

struct Sha256::State {
    EVP_MD_CTX* context = nullptr;
};

Sha256::Sha256() : state_(std::make_unique<State>()) {
    state_->context = EVP_MD_CTX_new();
    if (state_->context == nullptr) {
        throw std::bad_alloc();
    }
    reset();
}

Sha256::~Sha256() {
    EVP_MD_CTX_free(state_->context);
}

void Sha256::reset() {
    if (EVP_DigestInit_ex(state_->context, sha256Algorithm(), nullptr) != 1) {
        throw std::runtime_error("SHA-256 could not be started");
    }
}

void Sha256::update(const void* data, size_t length) {
    if (EVP_DigestUpdate(state_->context, data, length) != 1) {
        throw std::runtime_error("SHA-256 could not take more data");
    }
}

ContentDigest Sha256::finish() {
    ContentDigest digest{};
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(state_->context, digest.data(), &length) != 1 ||
        length != digest.size()) {
        throw std::runtime_error("SHA-256 could not be finished");
    }
    return digest;
}

std::optional<ContentDigest> sampleDigest(int fd, std::uint64_t size, std::uint64_t sampleBytes,
                                          std::vector<unsigned char>& buffer, Sha256& sha,
                                          std::atomic<std::uint64_t>* bytesRead) {
    sha.reset();
    unsigned char sizeBytes[8];
    for (int i = 0; i < 8; ++i) {
        sizeBytes[i] = static_cast<unsigned char>(size >> (8 * i));
    }
    sha.update(sizeBytes, sizeof sizeBytes);
    if (size > 2 * sampleBytes) {
        auto sample = static_cast<size_t>(sampleBytes);
        if (buffer.size() < 2 * sample || !readExactly(fd, buffer.data(), sample, 0, bytesRead) ||
            !readExactly(fd, buffer.data() + sample, sample, size - sampleBytes, bytesRead)) {
            return std::nullopt;
        }
        sha.update(buffer.data(), 2 * sample);
        return sha.finish();
    }
    auto whole = static_cast<size_t>(size);
    if (buffer.size() < whole || !readExactly(fd, buffer.data(), whole, 0, bytesRead)) {
        return std::nullopt;
    }
    sha.update(buffer.data(), whole);
    return sha.finish();
}

FullDigest fullDigest(int fd, std::uint64_t size, std::chrono::steady_clock::time_point deadline,
                      const std::stop_token& stop, std::vector<unsigned char>& buffer, Sha256& sha,
                      std::atomic<std::uint64_t>* bytesRead) {
    FullDigest result;
    if (buffer.size() < contentChunkBytes) {
        return result;
    }
    sha.reset();
    std::uint64_t offset = 0;
    while (offset < size) {
        if (stop.stop_requested()) {
            result.cancelled = true;
            return result;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            result.timedOut = true;
            return result;
        }
        auto length =
            static_cast<size_t>(std::min<std::uint64_t>(contentChunkBytes, size - offset));
        if (!readExactly(fd, buffer.data(), length, offset, bytesRead)) {
            return result;
        }
        sha.update(buffer.data(), length);
        offset += length;
    }
    result.digest = sha.finish();
    return result;
}

SideBySideReading readSideBySide(const std::vector<int>& fds, std::uint64_t size,
                                 std::chrono::steady_clock::time_point deadline,
                                 const std::stop_token& stop, std::vector<unsigned char>& first,
                                 std::vector<unsigned char>& other, Sha256& sha,
                                 std::atomic<std::uint64_t>* bytesRead) {
    SideBySideReading result;
    result.files.assign(fds.size(), SideBySide::matched);
    if (fds.empty() || first.size() < contentChunkBytes || other.size() < contentChunkBytes) {
        result.files.assign(fds.size(), SideBySide::unreadable);
        return result;
    }
    size_t following = fds.size() - 1; // files still equal to the first so far
    sha.reset();
    std::uint64_t offset = 0;
    while (offset < size && following > 0) {
        if (stop.stop_requested()) {
            result.cancelled = true;
            return result;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            result.timedOut = true;
            return result;
        }
        auto length =
            static_cast<size_t>(std::min<std::uint64_t>(contentChunkBytes, size - offset));
        if (!readExactly(fds[0], first.data(), length, offset, bytesRead)) {
            result.files[0] = SideBySide::unreadable;
            // Nothing can be compared with a file that cannot be read: the rest are on their own.
            for (size_t i = 1; i < fds.size(); ++i) {
                if (result.files[i] == SideBySide::matched) {
                    result.files[i] = SideBySide::differs;
                }
            }
            return result;
        }
        for (size_t i = 1; i < fds.size(); ++i) {
            if (result.files[i] != SideBySide::matched) {
                continue;
            }
            if (!readExactly(fds[i], other.data(), length, offset, bytesRead)) {
                result.files[i] = SideBySide::unreadable;
                --following;
            } else if (std::memcmp(first.data(), other.data(), length) != 0) {
                result.files[i] = SideBySide::differs;
                --following;
            }
        }
        sha.update(first.data(), length);
        offset += length;
    }
    if (following == 0) {
        result.files[0] = SideBySide::differs; // nothing matched it
        return result;
    }
    result.digest = sha.finish();
    return result;
}

} // namespace sd
