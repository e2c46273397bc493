#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <exception>
#include <stop_token>
#include <thread>
#include <vector>

namespace sd {

// Runs `work(index)` for every index below `count` on up to `workers` threads, the calling thread
// among them, each taking the next index as it becomes free. Indexes not yet taken when `stop` is
// requested are never run. The first exception thrown by any call is rethrown here once every
// thread has finished; the other threads take no new index after it.
template <typename Work>
void parallelFor(std::size_t count, unsigned workers, const std::stop_token& stop, Work&& work) {
    std::atomic<std::size_t> next{0};
    std::atomic<bool> failed{false};
    std::exception_ptr failure;
    std::atomic_flag recorded = ATOMIC_FLAG_INIT;
    auto run = [&] {
        for (;;) {
            if (failed.load(std::memory_order_relaxed) || stop.stop_requested()) {
                return;
            }
            std::size_t index = next.fetch_add(1, std::memory_order_relaxed);
            if (index >= count) {
                return;
            }
            try {
                work(index);
            } catch (...) {
                if (!recorded.test_and_set()) {
                    failure = std::current_exception();
                }
                failed.store(true, std::memory_order_relaxed);
                return;
            }
        }
    };
    const auto helpers = static_cast<std::size_t>(std::clamp<std::size_t>(
                             std::min<std::size_t>(workers, count), 1, count == 0 ? 1 : count)) -
                         1;
    {
        std::vector<std::jthread> threads;
        threads.reserve(helpers);
        for (std::size_t i = 0; i < helpers; ++i) {
            threads.emplace_back(run);
        }
        run();
    }
    if (failure) {
        std::rethrow_exception(failure);
    }
}

// How many threads long work should use: one per core, at least one.
unsigned hardwareWorkers() noexcept;

} // namespace sd
