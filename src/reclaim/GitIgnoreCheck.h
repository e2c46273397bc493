#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace sd {

// The one question the vault asks of version control: is this path ignored by the repository at
// `root` and not tracked? Callable from any thread.
struct VCSIgnoreCheck {
    std::function<bool(const std::string& root, const std::string& path)> isIgnoredAndUntracked;
};

// Asks the real git, with a fixed environment, empty standard input, a 5-second limit per
// run and a 5-second answer cache shared by the process. `candidates` are the places git is
// looked for, in order; none executable means every answer is no.
VCSIgnoreCheck makeGitIgnoreCheck(std::vector<std::string> candidates);

// The same with the platform's usual places for git.
VCSIgnoreCheck makeGitIgnoreCheck();

} // namespace sd
