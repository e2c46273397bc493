#include "space/SpaceLedgers.h"

#include "base/Saturating.h"

#include <algorithm>
#include <functional>
#include <utility>

namespace sd {

bool walkOrderLess(std::string_view a, std::string_view b) noexcept {
    // '/' ends a component, so it must sort before every byte a name can hold.
    size_t n = std::min(a.size(), b.size());
    for (size_t i = 0; i < n; ++i) {
        auto x = static_cast<unsigned char>(a[i]);
        auto y = static_cast<unsigned char>(b[i]);
        if (x == y) {
            continue;
        }
        if (x == '/') {
            return true;
        }
        if (y == '/') {
            return false;
        }
        return x < y;
    }
    return a.size() < b.size();
}

bool SharedHardlinkLedger::claim(const EntryIdentity& file, std::string_view path,
                                 std::uint64_t bytes) {
    std::lock_guard guard(lock_);
    auto [found, inserted] = ledger_.try_emplace(file);
    Carrier& carrier = found->second;
    if (!inserted) {
        if (!walkOrderLess(path, carrier.path)) {
            return false;
        }
        corrections_.push_back({std::move(carrier.path), carrier.bytes});
    }
    carrier.path.assign(path);
    carrier.bytes = bytes;
    return true;
}

std::optional<std::string> SharedHardlinkLedger::carrierOf(const EntryIdentity& file) const {
    std::lock_guard guard(lock_);
    auto found = ledger_.find(file);
    if (found == ledger_.end()) {
        return std::nullopt;
    }
    return found->second.path;
}

std::vector<SpaceCorrection> SharedHardlinkLedger::takeCorrections() {
    std::lock_guard guard(lock_);
    return std::exchange(corrections_, {});
}

size_t SharedHardlinkLedger::trackedFiles() const {
    std::lock_guard guard(lock_);
    return ledger_.size();
}

std::uint64_t SharedCloneLedger::claim(const EntryIdentity& file,
                                       std::span<const platform::SharedPiece> pieces) {
    std::uint64_t foreign = 0;
    std::lock_guard guard(lock_);
    for (const platform::SharedPiece& piece : pieces) {
        auto [found, inserted] =
            seen_.try_emplace(Key{file.device, piece.key, piece.length}, Holder{file, piece.bytes});
        if (inserted) {
            continue;
        }
        Holder& holder = found->second;
        if (before(holder.file, file)) {
            foreign = saturatingAdd(foreign, piece.bytes);
        } else if (before(file, holder.file)) {
            holder.file = file;
        }
    }
    return foreign;
}

std::uint64_t SharedCloneLedger::foreignBytes(const EntryIdentity& file,
                                              std::span<const platform::SharedPiece> pieces) const {
    std::uint64_t foreign = 0;
    std::lock_guard guard(lock_);
    for (const platform::SharedPiece& piece : pieces) {
        auto found = seen_.find(Key{file.device, piece.key, piece.length});
        if (found != seen_.end() && found->second.file != file) {
            foreign = saturatingAdd(foreign, piece.bytes);
        }
    }
    return foreign;
}

std::uint64_t SharedCloneLedger::sharedBytes() const {
    std::uint64_t total = 0;
    std::lock_guard guard(lock_);
    for (const auto& [key, holder] : seen_) {
        total = saturatingAdd(total, holder.bytes);
    }
    return total;
}

SpaceRetention::SpaceRetention(size_t capacity, std::uint64_t floor)
    : capacity_(capacity), floor_(floor), current_(capacity == 0 ? UINT64_MAX : floor) {
    heap_.reserve(std::min<size_t>(capacity, 1 << 16));
}

bool SpaceRetention::offer(std::uint64_t bytes) {
    std::lock_guard guard(lock_);
    if (bytes < current_ || capacity_ == 0) {
        return false;
    }
    // std::greater turns the standard max-heap into a min-heap: front() is the smallest size.
    if (heap_.size() < capacity_) {
        heap_.push_back(bytes);
        std::push_heap(heap_.begin(), heap_.end(), std::greater<>());
    } else {
        std::pop_heap(heap_.begin(), heap_.end(), std::greater<>());
        heap_.back() = bytes;
        std::push_heap(heap_.begin(), heap_.end(), std::greater<>());
    }
    if (heap_.size() == capacity_) {
        current_ = std::max(floor_, saturatingAdd(heap_.front(), 1));
    }
    return true;
}

std::uint64_t SpaceRetention::current() const {
    std::lock_guard guard(lock_);
    return current_;
}

} // namespace sd
