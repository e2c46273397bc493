#include "core/Ledgers.h"

#include "base/Saturating.h"

#include <algorithm>

namespace sd {

bool HardlinkLedger::countOnce(const struct stat& st) {
    ++visited_;
    if (st.st_nlink < 2) {
        return true;
    }
    // Keyed by the file alone (device and inode), as sight() is.
    Sighting& seen = sightings_[Key{static_cast<std::uint64_t>(st.st_dev),
                                    static_cast<std::uint64_t>(st.st_ino)}];
    seen.count = saturatingAdd(seen.count, 1);
    if (seen.count == 1) {
        seen.bytes = allocatedBytesOf(st);
        return true;
    }
    return false;
}

std::uint64_t HardlinkLedger::sight(const Key& key) {
    Sighting& seen = sightings_[key];
    seen.count = saturatingAdd(seen.count, 1);
    return seen.count;
}

void FreeableAccumulator::add(const FileSample& sample) {
    std::uint64_t links = sample.linkCount == 0 ? 1 : sample.linkCount;
    if (links >= 2 && ledger_.sight({sample.device, sample.inode}) != links) {
        return;
    }
    privateTotal_ = saturatingAdd(privateTotal_, sample.privateBytes);
    std::uint32_t references = sample.cloneReferences == 0 ? 1 : sample.cloneReferences;
    if (!sample.cloneID || references < 2) {
        return;
    }
    std::uint64_t shared = sample.allocatedBytes > sample.privateBytes
                               ? sample.allocatedBytes - sample.privateBytes
                               : 0;
    auto [group, inserted] = groups_.try_emplace(GroupKey{sample.device, *sample.cloneID});
    Group& g = group->second;
    g.members = saturatingAdd(g.members, 1);
    if (inserted) {
        g.references = references;
        g.sharedBytes = shared;
    } else {
        g.references = std::max<std::uint64_t>(g.references, references);
        g.sharedBytes = std::min(g.sharedBytes, shared);
    }
}

std::uint64_t FreeableAccumulator::freeableBytes() const noexcept {
    std::uint64_t total = privateTotal_;
    for (const auto& [key, group] : groups_) {
        if (group.members >= group.references) {
            total = saturatingAdd(total, group.sharedBytes);
        }
    }
    return total;
}

} // namespace sd
