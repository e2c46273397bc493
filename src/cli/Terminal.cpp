#include "cli/Terminal.h"

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <exception>
#include <iostream>
#include <mutex>
#include <unistd.h>

namespace sd::cli {
namespace {

volatile std::sig_atomic_t interrupted = 0;

extern "C" void onInterrupt(int) {
    interrupted = 1;
}

} // namespace

bool confirm(const std::string& question) {
    std::fprintf(stderr, "%s [y/N] ", question.c_str());
    std::fflush(stderr);
    std::string answer;
    return std::getline(std::cin, answer) && (answer == "y" || answer == "Y" || answer == "yes");
}

bool progressVisible() {
    return ::isatty(STDERR_FILENO) == 1;
}

void runWithProgress(const std::function<void(std::stop_token)>& work,
                     const std::function<std::string()>& status) {
    interrupted = 0;
    struct sigaction action {};
    action.sa_handler = &onInterrupt;
    sigemptyset(&action.sa_mask);
    struct sigaction previous {};
    ::sigaction(SIGINT, &action, &previous);

    std::mutex lock;
    std::condition_variable done;
    bool finished = false;
    std::exception_ptr failure;
    std::jthread worker([&](const std::stop_token& stop) {
        try {
            work(stop);
        } catch (...) {
            failure = std::current_exception();
        }
        std::lock_guard guard(lock);
        finished = true;
        done.notify_one();
    });
    const bool draw = progressVisible();
    bool drew = false;
    int tick = 0;
    // Wake as soon as the work ends, so a short job is not rounded up to the next tick.
    for (std::unique_lock guard(lock);
         !done.wait_for(guard, std::chrono::milliseconds(50), [&] { return finished; });) {
        if (interrupted != 0) {
            worker.request_stop();
        }
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

std::string shareBar(double share, int width) {
    int filled = static_cast<int>(std::lround(share * width));
    filled = std::clamp(filled, share > 0 ? 1 : 0, width);
    std::string out;
    for (int i = 0; i < width; ++i) {
        out += i < filled ? "█" : "░";
    }
    return out;
}

} // namespace sd::cli
