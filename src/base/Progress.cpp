#include "base/Progress.h"

#include "base/Saturating.h"

#include <algorithm>
#include <cmath>

namespace sd {

void OperationProgress::addBytes(std::uint64_t bytes) noexcept {
    std::uint64_t now = bytes_.load(std::memory_order_relaxed);
    while (
        !bytes_.compare_exchange_weak(now, saturatingAdd(now, bytes), std::memory_order_relaxed)) {
    }
    touch();
}

void OperationProgress::setFraction(double fraction) noexcept {
    double clamped = std::isnan(fraction) ? 0.0 : std::clamp(fraction, 0.0, 1.0);
    millionths_.store(static_cast<std::uint32_t>(std::lround(clamped * 1e6)),
                      std::memory_order_relaxed);
    fractionSet_.store(true, std::memory_order_relaxed);
    touch();
}

void OperationProgress::setPhase(std::string_view phase) {
    {
        std::lock_guard guard(lock_);
        phase_.assign(phase);
    }
    touch();
}

void OperationProgress::setCurrentPath(std::string_view path) {
    {
        std::lock_guard guard(lock_);
        currentPath_.emplace(path);
    }
    touch();
}

void OperationProgress::clearCurrentPath() {
    {
        std::lock_guard guard(lock_);
        currentPath_.reset();
    }
    touch();
}

void OperationProgress::notice(std::string path, std::uint64_t bytes) {
    {
        std::lock_guard guard(lock_);
        notices_.push_back({std::move(path), bytes});
    }
    touch();
}

OperationProgress::Reading OperationProgress::read() const {
    Reading reading;
    reading.version = version_.load(std::memory_order_relaxed);
    reading.items = items_.load(std::memory_order_relaxed);
    reading.bytes = bytes_.load(std::memory_order_relaxed);
    reading.done = done_.load(std::memory_order_relaxed);
    reading.total = total_.load(std::memory_order_relaxed);
    if (fractionSet_.load(std::memory_order_relaxed)) {
        reading.fraction = static_cast<double>(millionths_.load(std::memory_order_relaxed)) / 1e6;
    } else if (reading.total > 0) {
        reading.fraction =
            std::min(1.0, static_cast<double>(reading.done) / static_cast<double>(reading.total));
    }
    std::lock_guard guard(lock_);
    reading.phase = phase_;
    reading.currentPath = currentPath_;
    return reading;
}

std::vector<OperationProgress::Notice> OperationProgress::takeNotices() {
    std::lock_guard guard(lock_);
    std::vector<Notice> taken;
    taken.swap(notices_);
    return taken;
}

} // namespace sd
