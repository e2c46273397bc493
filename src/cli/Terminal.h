#pragma once

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

// A bar of `width` cells filled in proportion to `share` (0 to 1); anything above nothing fills
// at least one cell.
std::string shareBar(double share, int width);

// Runs `work` on a worker thread while the calling thread redraws one status line a few times a
// second from `status` (only on a terminal) and turns Ctrl-C into a request to stop `work`'s
// token. What `work` throws is thrown here once it has ended.
void runWithProgress(const std::function<void(std::stop_token)>& work,
                     const std::function<std::string()>& status);

} // namespace sd::cli
