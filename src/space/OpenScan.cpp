#include "space/OpenScan.h"

#include "base/Saturating.h"
#include "core/PathRules.h"

#include <algorithm>
#include <array>

namespace sd {
namespace {

// A heap whose front is the finding that would be dropped first.
struct WorstFirst {
    bool operator()(const Finding& a, const Finding& b) const noexcept {
        return findingBefore(a, b);
    }
};

void pushBounded(std::vector<Finding>& heap, Finding file, std::uint32_t topN) {
    if (topN == 0) {
        return;
    }
    if (heap.size() < topN) {
        heap.push_back(std::move(file));
        std::push_heap(heap.begin(), heap.end(), WorstFirst{});
        return;
    }
    if (!findingBefore(file, heap.front())) {
        return;
    }
    std::pop_heap(heap.begin(), heap.end(), WorstFirst{});
    heap.back() = std::move(file);
    std::push_heap(heap.begin(), heap.end(), WorstFirst{});
}

// Other apps' containers, which a sandboxed build can neither read nor move.
constexpr std::array<std::string_view, 2> sandboxedAway{"Library/Containers",
                                                        "Library/Group Containers"};

} // namespace

bool findingBefore(const Finding& a, const Finding& b) noexcept {
    if (a.bytes != b.bytes) {
        return a.bytes > b.bytes;
    }
    return walkOrderLess(a.path, b.path);
}

void ScanPartial::offerFile(Finding file, bool settled, std::uint32_t topN) {
    if (settled) {
        pushBounded(topFiles, std::move(file), topN);
    } else {
        unsettledFiles.push_back(std::move(file));
    }
}

void ScanPartial::merge(ScanPartial&& other, std::uint32_t topN) {
    for (Finding& file : other.topFiles) {
        pushBounded(topFiles, std::move(file), topN);
    }
    unsettledFiles.insert(unsettledFiles.end(),
                          std::make_move_iterator(other.unsettledFiles.begin()),
                          std::make_move_iterator(other.unsettledFiles.end()));
    directoryTotals.merge(other.directoryTotals);
    totalBytes += other.totalBytes;
    cloneSharedBytes += other.cloneSharedBytes;
    nodeCount += other.nodeCount;
    warnings.insert(warnings.end(), std::make_move_iterator(other.warnings.begin()),
                    std::make_move_iterator(other.warnings.end()));
}

void ScanPartial::correct(std::string_view path, std::uint64_t bytes) {
    totalBytes = saturatingSub(totalBytes, bytes);
    for (Finding& file : unsettledFiles) {
        if (file.path == path) {
            file.bytes = saturatingSub(file.bytes, bytes);
        }
    }
    for (std::string_view above = path;;) {
        size_t slash = above.rfind('/');
        if (slash == std::string_view::npos || slash == 0) {
            break;
        }
        above = above.substr(0, slash);
        if (auto found = directoryTotals.find(above); found != directoryTotals.end()) {
            found->second.bytes = saturatingSub(found->second.bytes, bytes);
        }
    }
}

bool findingAllowed(std::string_view path, std::string_view home, DistributionMode distribution,
                    const OpenScanOptions& options) {
    if (!options.includeUserData && isProtected(path)) {
        return false;
    }
    if (distribution == DistributionMode::appStore && !home.empty()) {
        std::string base = home == "/" ? std::string() : std::string(home);
        for (std::string_view row : sandboxedAway) {
            if (isInside(path, base + "/" + std::string(row))) {
                return false;
            }
        }
    }
    return true;
}

std::vector<Finding> selectTopFindings(const ScanPartial& partial, std::string_view root,
                                       std::string_view home, DistributionMode distribution,
                                       const OpenScanOptions& options) {
    std::vector<Finding> all;
    auto take = [&](const Finding& f) {
        if (f.bytes > 0 && f.bytes >= options.minNodeBytes && f.path != root &&
            findingAllowed(f.path, home, distribution, options)) {
            all.push_back(f);
        }
    };
    for (const Finding& f : partial.topFiles) {
        take(f);
    }
    for (const Finding& f : partial.unsettledFiles) {
        take(f);
    }
    for (const auto& [path, f] : partial.directoryTotals) {
        take(f);
    }
    std::sort(all.begin(), all.end(), findingBefore);
    if (all.size() > options.topN) {
        all.resize(options.topN);
    }
    return all;
}

} // namespace sd
