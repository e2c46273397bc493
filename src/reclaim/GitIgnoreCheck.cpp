#include "reclaim/GitIgnoreCheck.h"

#include "base/ChildProcess.h"
#include "base/CleanerError.h"
#include "core/PathRules.h"
#include "platform/ScopeTables.h"

#include <algorithm>
#include <unistd.h>

namespace sd {
namespace {

using Clock = std::chrono::steady_clock;
constexpr auto answerLifetime = std::chrono::seconds(5);
constexpr auto runLimit = std::chrono::milliseconds(5000);

// No index lock, no prompt that could block, no file-system monitor started on the user's
// repository, and nothing inherited from the caller's environment.
const std::vector<std::string>& gitEnvironment() {
    static const std::vector<std::string> environment{
        "GIT_OPTIONAL_LOCKS=0", "GIT_TERMINAL_PROMPT=0",           "GIT_PAGER=cat",
        "GIT_CONFIG_COUNT=1",   "GIT_CONFIG_KEY_0=core.fsmonitor", "GIT_CONFIG_VALUE_0=false",
        "PATH=/usr/bin:/bin",
    };
    return environment;
}

struct AnswerCache {
    std::mutex lock;
    std::map<std::string, std::pair<bool, Clock::time_point>> answers;
};

AnswerCache& cache() {
    static AnswerCache instance;
    return instance;
}

bool askGit(const std::string& git, const std::string& root, const std::string& relative) {
    std::string key = root + '\0' + relative;
    {
        AnswerCache& c = cache();
        std::lock_guard guard(c.lock);
        auto found = c.answers.find(key);
        if (found != c.answers.end() && Clock::now() - found->second.second <= answerLifetime) {
            return found->second.first;
        }
    }
    auto run = [&](std::vector<std::string> arguments) {
        ChildCommand command{.executable = git,
                             .arguments = std::move(arguments),
                             .environment = gitEnvironment(),
                             .timeout = runLimit};
        try {
            return runChild(command);
        } catch (const CleanerError&) {
            return ChildResult{}; // git that cannot start answers no
        }
    };
    ChildResult ignored = run({"-C", root, "check-ignore", "-q", "--", relative});
    bool answer = false;
    if (ignored.succeeded()) {
        ChildResult tracked = run({"-C", root, "ls-files", "-z", "--", relative});
        answer = tracked.succeeded() && tracked.output.empty();
    }
    AnswerCache& c = cache();
    std::lock_guard guard(c.lock);
    c.answers[key] = {answer, Clock::now()};
    return answer;
}

} // namespace

VCSIgnoreCheck makeGitIgnoreCheck(std::vector<std::string> candidates) {
    auto found = std::find_if(candidates.begin(), candidates.end(), [](const std::string& path) {
        return ::access(path.c_str(), X_OK) == 0;
    });
    std::optional<std::string> git;
    if (found != candidates.end()) {
        git = *found;
    }
    return {[git](const std::string& root, const std::string& path) {
        if (!git || root.empty() || !path.starts_with(root + "/")) {
            return false;
        }
        std::string relative = path.substr(root.size() + 1);
        std::vector<std::string_view> parts = splitComponents(relative);
        if (parts.empty() || std::any_of(parts.begin(), parts.end(),
                                         [](std::string_view c) { return c == ".git"; })) {
            return false;
        }
        // Everything below an ignored folder is ignored, so the parent's answer settles it.
        size_t slash = relative.rfind('/');
        if (slash != std::string::npos && slash > 0 &&
            askGit(*git, root, relative.substr(0, slash))) {
            return true;
        }
        return askGit(*git, root, relative);
    }};
}

VCSIgnoreCheck makeGitIgnoreCheck() {
    std::vector<std::string> candidates;
    for (std::string_view candidate : platform::gitCandidates()) {
        candidates.emplace_back(candidate);
    }
    return makeGitIgnoreCheck(std::move(candidates));
}

} // namespace sd
