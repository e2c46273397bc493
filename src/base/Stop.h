#pragma once

#include <stop_token>
#include <utility>

// How a long operation is stopped. Every long operation takes a std::stop_token and looks at it
// before each entry, item or request; nothing polls a flag on a timer, and nothing translates one
// way of stopping into another on a watcher thread.
namespace sd {

// Throws CleanerError "Operation cancelled" once a stop was requested.
void throwIfStopped(const std::stop_token& stop);

// The flag Stop sets: set once and never cleared (a new operation gets a new one), readable from
// any thread. Its token is what the operation looks at.
class CoreCancellationState {
public:
    CoreCancellationState() = default;
    CoreCancellationState(const CoreCancellationState&) = delete;
    CoreCancellationState& operator=(const CoreCancellationState&) = delete;

    void cancel() noexcept { source_.request_stop(); }
    bool isCancelled() const noexcept { return source_.stop_requested(); }
    std::stop_token token() const noexcept { return source_.get_token(); }

private:
    std::stop_source source_;
};

// A stop of its own that also follows an outer one: stopped when `outer` is, or when
// requestStop() is called. Joins a caller's stop to an operation's own flag without a thread.
class LinkedStop {
public:
    explicit LinkedStop(const std::stop_token& outer) : link_(outer, Forward{&source_}) {}
    LinkedStop(const LinkedStop&) = delete;
    LinkedStop& operator=(const LinkedStop&) = delete;

    void requestStop() noexcept { source_.request_stop(); }
    bool stopRequested() const noexcept { return source_.stop_requested(); }
    std::stop_token token() const noexcept { return source_.get_token(); }

private:
    struct Forward {
        std::stop_source* source;
        void operator()() const noexcept { source->request_stop(); }
    };
    std::stop_source source_;
    std::stop_callback<Forward> link_; // after source_: it may fire at once, into a live source
};

} // namespace sd
