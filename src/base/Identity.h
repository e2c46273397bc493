#pragma once

#include <compare>
#include <cstdint>
#include <string>
#include <sys/stat.h>

namespace sd {

// Which object an entry is: its device, inode and file type (the S_IFMT bits). Compared before a
// descriptor is trusted and before anything moves; an inode number alone is reused too readily.
struct EntryIdentity {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::uint32_t type = 0;

    friend bool operator==(const EntryIdentity&, const EntryIdentity&) = default;
    static EntryIdentity of(const struct stat& st) noexcept {
        return {static_cast<std::uint64_t>(st.st_dev), static_cast<std::uint64_t>(st.st_ino),
                static_cast<std::uint32_t>(st.st_mode & S_IFMT)};
    }
    // The same device and inode, whatever the type: for ledgers keyed by the file itself.
    bool sameFile(const EntryIdentity& other) const noexcept {
        return device == other.device && inode == other.inode;
    }
};

struct EntryIdentityHash {
    size_t operator()(const EntryIdentity& key) const noexcept {
        // Inodes are dense and devices few: mixing the device in with a multiply is enough.
        return static_cast<size_t>(key.inode ^ (key.device * 0x9E3779B97F4A7C15ULL));
    }
};

// The journal's identity token: device and inode in decimal joined by ":". A pure function of the
// identity, so two records of one object always agree.
std::string identityToken(const EntryIdentity& identity);

// A point in time as the file system keeps it: whole seconds since 1970 and nanoseconds. Ordered
// and compared exactly; converted to a fraction of seconds only for display.
struct Timestamp {
    std::int64_t sec = 0;
    std::int64_t nsec = 0;

    // clang-tidy 14 reads the defaulted comparison as a literal 0 compared with a pointer.
    friend auto operator<=>(const Timestamp&,
                            const Timestamp&) = default; // NOLINT(modernize-use-nullptr)
    double seconds() const noexcept {
        return static_cast<double>(sec) + static_cast<double>(nsec) / 1e9;
    }
    static Timestamp fromSeconds(double seconds) noexcept;
};

} // namespace sd
