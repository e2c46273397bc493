#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace sd {

struct ChildResult {
    std::optional<int> exitStatus; // empty when it was killed or could not start
    std::string output;            // everything it wrote to standard output
    bool timedOut = false;
};

// Runs `program` with exactly `arguments` (argv[1..]) and exactly `environment`, standard input
// and standard error on the null device, and reads standard output to its end. Past `limit` the
// child is terminated (then killed) and its status is empty. Never throws for the child's
// failures; only a failure to create the pipe throws.
ChildResult runChild(const std::string& program, const std::vector<std::string>& arguments,
                     const std::vector<std::string>& environment, std::chrono::milliseconds limit);

} // namespace sd
