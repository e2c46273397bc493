#pragma once

#include <cstdint>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

namespace sd {

// One thing the assistant is told about: only its name, sizes, counts and dates. Contents of
// files never leave the computer.
struct Fact {
    std::string name{};                   // a path below the home written "~/…", or a title
    std::string kind{};                   // one of Sparrowdeck's own words: "folder", "file"…
    std::optional<std::uint64_t> bytes{}; // allocated bytes, as measured
    std::optional<std::uint64_t> files{};
    std::optional<std::uint64_t> folders{};
    std::optional<std::int64_t> changed{}; // last change, seconds since 1970
    std::optional<std::int64_t> opened{};  // last opened, where known
};

// Everything one request sends besides its fixed instructions. `text()` is exactly what goes to
// the tool, and what the user can read before sending.
struct AssistantFacts {
    std::string subject{};            // "The folder ~/Projects/old", "The Sweep tile Developer"
    std::optional<Fact> about{};      // the item itself
    std::vector<Fact> contents{};     // what is in it, biggest first
    std::vector<Fact> alsoMeasured{}; // beside it: the last Sweep's tiles, say
    std::vector<std::string> notes{}; // Sparrowdeck's own sentences ("Comes back by itself.")

    std::string text() const;
    // Every byte count the facts hold, for checking the numbers of an answer.
    std::vector<std::uint64_t> byteFigures() const;
};

// A path as the facts name it: "~/…" below `home`, so the account's name is never sent.
std::string factName(const std::string& path, const std::string& home);

// Measures the folder or file at `path` (absolute, inside the home) and the items directly in it:
// each one's allocated bytes, counts and last change, the `limit` biggest kept, the rest summed
// in one line. Throws CleanerError for a path that is not there or not allowed; "Operation
// cancelled" when stopped.
AssistantFacts measureFacts(const std::string& path, const std::string& home,
                            const std::stop_token& stop = {}, std::size_t limit = 40);

} // namespace sd
