#pragma once

#include <atomic>
#include <mutex>
#include <stop_token>
#include <utility>

namespace sd {

// The flag through which Stop reaches a worker. It is set once and polled by every long loop,
// before each directory entry, so polling must stay cheap: writers take the lock, readers see the
// value through an atomic that is only changed under it.
class CoreCancellationState {
public:
    CoreCancellationState() = default;
    CoreCancellationState(const CoreCancellationState&) = delete;
    CoreCancellationState& operator=(const CoreCancellationState&) = delete;

    void cancel() {
        std::lock_guard guard(lock_);
        cancelled_.store(true, std::memory_order_release);
    }
    void reset() {
        std::lock_guard guard(lock_);
        cancelled_.store(false, std::memory_order_release);
    }
    bool isCancelled() const noexcept { return cancelled_.load(std::memory_order_acquire); }

private:
    std::mutex lock_;
    std::atomic<bool> cancelled_{false};
};

using CancellationFlag = CoreCancellationState;

// What a walk polls: the shared flag, if any, and the stop request of the task it runs on.
struct Cancellation {
    Cancellation() = default;
    explicit Cancellation(const CoreCancellationState* flag, std::stop_token stop = {})
        : flag(flag), stop(std::move(stop)) {}

    const CoreCancellationState* flag = nullptr;
    std::stop_token stop;

    bool requested() const noexcept {
        return (flag != nullptr && flag->isCancelled()) || stop.stop_requested();
    }
    // Throws "Operation cancelled" when Stop was pressed.
    void check() const;
};

} // namespace sd
