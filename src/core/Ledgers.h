#pragma once

#include "base/Identity.h"

#include <cstdint>
#include <optional>
#include <sys/stat.h>
#include <unordered_map>

namespace sd {

// What one measured regular file contributes to the bytes a removal would free.
struct FileSample {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::uint64_t linkCount = 1;
    std::uint64_t allocatedBytes = 0;
    std::uint64_t privateBytes = 0;
    std::optional<std::uint64_t> cloneID;
    std::uint32_t cloneReferences = 1;
};

// Counts each hard-linked file at the first of its links met, so a set's total holds its blocks
// once. One ledger lives as long as one scan.
class HardlinkLedger {
public:
    using Key = EntryIdentity;

    // True when this entry's blocks should be added: always for a single link, else only at the
    // first sighting of its inode.
    bool countOnce(const struct stat& st);
    // Records one more sighting of `key` and returns how many there have been.
    std::uint64_t sight(const Key& key);

    std::uint64_t visited() const noexcept { return visited_; }
    size_t trackedFiles() const noexcept { return sightings_.size(); }

    // Calls `visit(key, allocatedBytes)` for every multiply linked file this ledger counted, so a
    // caller that measured several sets apart can take off what an earlier set already holds.
    template <typename Visit> void forEachCounted(Visit&& visit) const {
        for (const auto& [key, sighting] : sightings_) {
            if (sighting.bytes > 0) {
                visit(key, sighting.bytes);
            }
        }
    }

private:
    struct Sighting {
        std::uint64_t count = 0;
        std::uint64_t bytes = 0; // allocated bytes counted at the first sighting, by countOnce
    };
    std::unordered_map<Key, Sighting, EntryIdentityHash> sightings_;
    std::uint64_t visited_ = 0;
};

// What removing a set of files would really give back: a hard-linked file only when all of its
// links are in the set, and blocks shared by clones only when the whole clone family is.
class FreeableAccumulator {
public:
    struct GroupKey {
        std::uint64_t device = 0;
        std::uint64_t cloneID = 0;
        friend bool operator==(const GroupKey&, const GroupKey&) = default;
    };
    struct Group {
        std::uint64_t members = 0;
        std::uint64_t references = 0;
        std::uint64_t sharedBytes = 0;
    };

    void add(const FileSample& sample);
    std::uint64_t freeableBytes() const noexcept;
    std::uint64_t privateTotal() const noexcept { return privateTotal_; }

private:
    struct GroupKeyHash {
        size_t operator()(const GroupKey& key) const noexcept {
            return EntryIdentityHash{}({key.device, key.cloneID});
        }
    };
    HardlinkLedger ledger_;
    std::uint64_t privateTotal_ = 0;
    std::unordered_map<GroupKey, Group, GroupKeyHash> groups_;
};

// The two ledgers one measurement keeps: one for the allocated total, one for what is freeable.
struct FootprintTally {
    HardlinkLedger ledger;
    FreeableAccumulator freeable;
};

} // namespace sd
