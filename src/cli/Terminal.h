#pragma once

#include "core/Cancellation.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <stop_token>
#include <string>
#include <thread>

namespace sd::cli {

// Asks a yes/no question on the terminal; anything but "y" or "yes" is no.
bool confirm(const std::string& question);

// True when standard error is a terminal, so live progress may be drawn there.
bool progressVisible();

// Runs `work` on a worker thread while the calling thread redraws one status line a few times a
// second from `status` (only on a terminal) and turns Ctrl-C into a Stop.
void runWithProgress(const std::function<void()>& work, const std::function<std::string()>& status,
                     CoreCancellationState& cancellation);

// The same for work that takes a stop token: Ctrl-C requests the stop.
void runStoppable(const std::function<void(std::stop_token)>& work,
                  const std::function<std::string()>& status);

} // namespace sd::cli
