#include "cli/Terminal.h"

#include <csignal>
#include <cstdio>
#include <exception>
#include <unistd.h>

namespace sd::cli {
namespace {

volatile std::sig_atomic_t interrupted = 0;

extern "C" void onInterrupt(int) {
    interrupted = 1;
}

} // namespace

bool progressVisible() {
    return ::isatty(STDERR_FILENO) == 1;
}

void runWithProgress(const std::function<void()>& work, const std::function<std::string()>& status,
                     CoreCancellationState& cancellation) {
    interrupted = 0;
    struct sigaction action {};
    action.sa_handler = &onInterrupt;
    sigemptyset(&action.sa_mask);
    struct sigaction previous {};
    ::sigaction(SIGINT, &action, &previous);

    std::atomic<bool> finished{false};
    std::exception_ptr failure;
    std::jthread worker([&] {
        try {
            work();
        } catch (...) {
            failure = std::current_exception();
        }
        finished.store(true, std::memory_order_release);
    });
    const bool draw = progressVisible();
    bool drew = false;
    while (!finished.load(std::memory_order_acquire)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        if (interrupted != 0) {
            cancellation.cancel();
        }
        static int tick = 0;
        if (draw && ++tick % 4 == 0) {
            std::string line = status();
            std::fprintf(stderr, "\r\033[K%s", line.c_str());
            std::fflush(stderr);
            drew = true;
        }
    }
    worker.join();
    if (drew) {
        std::fprintf(stderr, "\r\033[K");
        std::fflush(stderr);
    }
    ::sigaction(SIGINT, &previous, nullptr);
    if (failure) {
        std::rethrow_exception(failure);
    }
}

} // namespace sd::cli
