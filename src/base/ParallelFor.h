#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <exception>
#include <stop_token>
#include <thread>
#include <vector>

namespace sd {

// Runs `work(state, index)` for every index below `count` on up to `workers` threads, the calling
// thread among them, each taking the next index as it becomes free. `makeState()` is called once
// on each thread that takes part, and `work` gets that thread's own state (buffers, hashers), so
// workers share nothing they did not ask to. Indexes not yet taken when `stop` is requested are
// never run. The first exception thrown on any thread is rethrown here once every thread has
// finished; the other threads take no new index after it.
template <typename MakeState, typename Work>
void parallelForEach(std::size_t count, unsigned workers, const std::stop_token& stop,
                     MakeState&& makeState, Work&& work) {
    std::atomic<std::size_t> next{0};
    std::atomic<bool> failed{false};
    std::exception_ptr failure;
    std::atomic_flag recorded = ATOMIC_FLAG_INIT;
    auto run = [&] {
        try {
            auto state = makeState();
            for (;;) {
                if (failed.load(std::memory_order_relaxed) || stop.stop_requested()) {
                    return;
                }
                std::size_t index = next.fetch_add(1, std::memory_order_relaxed);
                if (index >= count) {
                    return;
                }
                work(state, index);
            }
        } catch (...) {
            if (!recorded.test_and_set()) {
                failure = std::current_exception();
            }
            failed.store(true, std::memory_order_relaxed);
        }
    };
    if (count == 0) {
        return;
    }
    const std::size_t helpers = std::clamp<std::size_t>(workers, 1, count) - 1;
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

// The same without per-thread state: `work(index)`.
template <typename Work>
void parallelFor(std::size_t count, unsigned workers, const std::stop_token& stop, Work&& work) {
    struct None {};
    parallelForEach(
        count, workers, stop, [] { return None{}; },
        [&](None&, std::size_t index) { work(index); });
}

// How many threads long work should use: one per core, at least one.
unsigned hardwareWorkers() noexcept;

} // namespace sd
