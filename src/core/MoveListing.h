#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace sd {

// One thing a confirmation says will move, with the space it takes on disk.
struct ListedMove {
    std::string path;
    std::uint64_t bytes = 0;
};

// The lines a confirmation shows before anything moves: the biggest `limit` items as
// "~/.cache/pip — 120.3 MB", then "and 7 more" when there are more. Paths in the home are shown
// from "~". The order is a pure function of the items: size, then path.
std::vector<std::string> moveListingLines(std::vector<ListedMove> items, size_t limit = 10);

// "Move 433.1 MB to the Trash?" — what moves and where, never what it frees: items in the Trash
// still take their space until the Trash is emptied.
std::string moveQuestion(std::uint64_t bytes);

// A path under the home shown from "~", others as they are.
std::string homeShortPath(const std::string& path);

} // namespace sd
