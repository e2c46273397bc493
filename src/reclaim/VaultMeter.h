#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>

namespace sd {

// Progress of a planning or move run, shared by its workers. However many workers count, the
// callback runs at most five times a second, and never under the lock.
class VaultMeter {
public:
    struct Reading {
        std::uint64_t done = 0;
        std::uint64_t total = 0;
        std::uint64_t entries = 0;
    };
    using Clock = std::chrono::steady_clock;

    VaultMeter(std::uint64_t total, std::function<void(const Reading&)> report,
               Clock::duration interval = std::chrono::milliseconds(200))
        : total_(total), report_(std::move(report)), interval_(interval) {}

    // Counts `k` more file-system entries examined.
    void addEntries(std::uint64_t k);
    // Counts one more requested item finished.
    void finishItem();
    // No report is sent after this.
    void stop();
    Reading reading() const;

private:
    void maybeReport(std::unique_lock<std::mutex>& guard);

    const std::uint64_t total_;
    mutable std::mutex lock_;
    std::uint64_t done_ = 0;
    std::uint64_t entries_ = 0;
    bool stopped_ = false;
    Clock::time_point lastReport_ = Clock::time_point::min();
    std::function<void(const Reading&)> report_;
    Clock::duration interval_;
};

} // namespace sd
