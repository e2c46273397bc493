#include "reclaim/VaultMeter.h"

namespace sd {

void VaultMeter::maybeReport(std::unique_lock<std::mutex>& guard) {
    Clock::time_point now = Clock::now();
    if (stopped_ || !report_ ||
        (lastReport_ != Clock::time_point::min() && now - lastReport_ < interval_)) {
        return;
    }
    lastReport_ = now;
    Reading reading{done_, total_, entries_};
    guard.unlock();
    report_(reading);
}

void VaultMeter::addEntries(std::uint64_t k) {
    std::unique_lock guard(lock_);
    entries_ += k;
    maybeReport(guard);
}

void VaultMeter::finishItem() {
    std::unique_lock guard(lock_);
    ++done_;
    maybeReport(guard);
}

void VaultMeter::stop() {
    std::lock_guard guard(lock_);
    stopped_ = true;
}

VaultMeter::Reading VaultMeter::reading() const {
    std::lock_guard guard(lock_);
    return {done_, total_, entries_};
}

} // namespace sd
