#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sd {

// What a long operation tells while it runs, written by its workers and read by a front end a
// few times a second. Counters are relaxed atomics that cost a worker nothing to bump; the phase,
// the current path and the things found so far sit under a lock held only to copy them. A worker
// never waits for a reader and never calls into one.
class OperationProgress {
public:
    // Something found before the operation ends, shown at once (a very large folder, say).
    struct Notice {
        std::string path;
        std::uint64_t bytes = 0;
    };

    struct Reading {
        std::string phase;
        std::optional<std::string> currentPath;
        double fraction = 0;       // 0 to 1
        std::uint64_t items = 0;   // entries, files or items handled so far
        std::uint64_t bytes = 0;   // bytes measured or moved so far
        std::uint64_t done = 0;    // units of work finished
        std::uint64_t total = 0;   // units of work known, 0 when unknown
        std::uint64_t version = 0; // grows with every change a reader may want to redraw for
    };

    OperationProgress() = default;
    OperationProgress(const OperationProgress&) = delete;
    OperationProgress& operator=(const OperationProgress&) = delete;

    void addItems(std::uint64_t count) noexcept {
        items_.fetch_add(count, std::memory_order_relaxed);
        touch();
    }
    void setItems(std::uint64_t count) noexcept {
        items_.store(count, std::memory_order_relaxed);
        touch();
    }
    void addBytes(std::uint64_t bytes) noexcept;
    void setBytes(std::uint64_t bytes) noexcept {
        bytes_.store(bytes, std::memory_order_relaxed);
        touch();
    }
    void addDone(std::uint64_t units = 1) noexcept {
        done_.fetch_add(units, std::memory_order_relaxed);
        touch();
    }
    void setTotal(std::uint64_t units) noexcept {
        total_.store(units, std::memory_order_relaxed);
        touch();
    }
    // An explicit share of the work done; when never set, done / total is read instead.
    void setFraction(double fraction) noexcept;

    void setPhase(std::string_view phase);
    void setCurrentPath(std::string_view path);
    void clearCurrentPath();
    void notice(std::string path, std::uint64_t bytes);

    Reading read() const;
    // The notices posted since the last call, oldest first.
    std::vector<Notice> takeNotices();

private:
    void touch() noexcept { version_.fetch_add(1, std::memory_order_relaxed); }

    std::atomic<std::uint64_t> items_{0};
    std::atomic<std::uint64_t> bytes_{0};
    std::atomic<std::uint64_t> done_{0};
    std::atomic<std::uint64_t> total_{0};
    std::atomic<std::uint32_t> millionths_{0};
    std::atomic<bool> fractionSet_{false};
    std::atomic<std::uint64_t> version_{0};

    mutable std::mutex lock_;
    std::string phase_;
    std::optional<std::string> currentPath_;
    std::vector<Notice> notices_;
};

} // namespace sd
