#include "core/Walk.h"

namespace sd {

FolderListing::FolderListing(UniqueFd fd, WalkOrder order, std::unique_ptr<char[]> buffer)
    : stream_(std::move(fd), std::move(buffer), bufferBytes), order_(order) {}

void FolderListing::readAllSorted() {
    names_.clear();
    at_ = 0;
    platform::DirectoryEntry entry;
    while (stream_.next(entry)) {
        names_.push_back({entry.name, entry.kind, entry.inode});
    }
    std::sort(names_.begin(), names_.end(),
              [](const Named& a, const Named& b) { return a.name < b.name; });
    sorted_ = true;
}

bool FolderListing::next(platform::DirectoryEntry& entry) {
    if (order_ == WalkOrder::asListed) {
        return stream_.next(entry);
    }
    if (!sorted_) {
        readAllSorted();
    }
    // A listing that failed part way gives nothing: a partial, sorted listing would look whole.
    if (!stream_.failure().operation.empty() || at_ >= names_.size()) {
        return false;
    }
    const Named& named = names_[at_++];
    entry.name = named.name.c_str();
    entry.kind = named.kind;
    entry.inode = named.inode;
    return true;
}

bool FolderListing::ended() const noexcept {
    if (order_ == WalkOrder::asListed) {
        return stream_.ended();
    }
    return sorted_ && (at_ >= names_.size() || !stream_.failure().operation.empty());
}

std::unique_ptr<char[]> FolderListing::close() noexcept {
    names_.clear();
    at_ = 0;
    sorted_ = false;
    return stream_.close();
}

} // namespace sd
