#pragma once

#include "core/Ledgers.h"
#include "platform/CloneAttributes.h"

#include <cstdint>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

// The objects all workers of one space scan share. Each has one lock, held for one lookup or
// insertion only, and no code holds two of them at once.
//
// Several workers meet the links of one file, or the clones of one extent, in an order that
// changes from run to run. So that the tree does not change with it, the ledgers do not keep
// "whoever came first" but a fixed choice: a hard-linked file is counted at the path a walk over
// sorted listings meets first, a shared piece of storage by the file with the smallest device
// and inode. A worker that finds it counted something another holds by that rule gets the bytes
// back as a correction, applied once the walk is over.
namespace sd {

// True when a walk over sorted listings meets `a` before `b`: paths compared component by
// component, so "a/b" comes before "a-c" although '-' sorts before '/'.
bool walkOrderLess(std::string_view a, std::string_view b) noexcept;

// Bytes counted at `path` during the walk that belong elsewhere.
struct SpaceCorrection {
    std::string path;
    std::uint64_t bytes = 0;
    friend bool operator==(const SpaceCorrection&, const SpaceCorrection&) = default;
};

// Counts a file with several links at one of its paths only.
class SharedHardlinkLedger {
public:
    // Offers the link at `path`, which would carry `bytes`. True when this link carries the
    // file's bytes from now on; a link it takes over from is queued as a correction.
    bool claim(const EntryIdentity& file, std::string_view path, std::uint64_t bytes);
    // The link that carries the file's bytes, once the walk is over.
    std::optional<std::string> carrierOf(const EntryIdentity& file) const;
    // The corrections queued so far; the ledger forgets them.
    std::vector<SpaceCorrection> takeCorrections();
    size_t trackedFiles() const;

private:
    struct Carrier {
        std::string path;
        std::uint64_t bytes = 0;
    };
    mutable std::mutex lock_;
    std::unordered_map<EntryIdentity, Carrier, EntryIdentityHash> ledger_;
    std::vector<SpaceCorrection> corrections_;
};

// Counts each shared piece of storage (a shared extent, or a clone family) once.
class SharedCloneLedger {
public:
    // Records that `file` on `device` holds `pieces` and returns how many of their bytes
    // another file holds by the ledger's rule, so far.
    std::uint64_t claim(const EntryIdentity& file, std::span<const platform::SharedPiece> pieces);
    // The same question once the walk is over, asked without changing anything.
    std::uint64_t foreignBytes(const EntryIdentity& file,
                               std::span<const platform::SharedPiece> pieces) const;
    // Bytes of every shared piece met, each once.
    std::uint64_t sharedBytes() const;

private:
    struct Key {
        std::uint64_t device = 0;
        std::uint64_t key = 0;
        std::uint64_t length = 0;
        friend bool operator==(const Key&, const Key&) = default;
    };
    struct KeyHash {
        size_t operator()(const Key& k) const noexcept {
            return EntryIdentityHash{}({k.device ^ (k.length << 20), k.key});
        }
    };
    struct Holder {
        EntryIdentity file;
        std::uint64_t bytes = 0;
    };
    static bool before(const EntryIdentity& a, const EntryIdentity& b) noexcept {
        return a.device != b.device ? a.device < b.device : a.inode < b.inode;
    }

    mutable std::mutex lock_;
    std::unordered_map<Key, Holder, KeyHash> seen_;
};

// Holds the global node budget: the sizes of the nodes kept so far (a min-heap of at most
// `capacity`) and the size a new node must reach to be kept, never below the floor. Offered
// nodes biggest first, it keeps exactly the `capacity` biggest.
//
// The scan offers nodes only once every worker is done, in one fixed order: a bar that rose
// while workers were still running would make the tree depend on which of them finished first.
class SpaceRetention {
public:
    SpaceRetention(size_t capacity, std::uint64_t floor);

    // True when a node of `bytes` is kept: it reaches current(), and takes the place of the
    // smallest size kept when the budget is full.
    bool offer(std::uint64_t bytes);
    std::uint64_t current() const;

private:
    mutable std::mutex lock_;
    std::vector<std::uint64_t> heap_;
    size_t capacity_;
    std::uint64_t floor_;
    std::uint64_t current_;
};

} // namespace sd
