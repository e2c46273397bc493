#include "core/MoveListing.h"

#include "core/ByteFormat.h"
#include "core/PathRules.h"

#include <algorithm>

namespace sd {

std::string homeShortPath(const std::string& path) {
    const std::string& home = homeDirectory();
    if (home.size() > 1 && isInside(path, home)) {
        return "~" + path.substr(home.size());
    }
    return path;
}

std::vector<std::string> moveListingLines(std::vector<ListedMove> items, size_t limit) {
    std::sort(items.begin(), items.end(), [](const ListedMove& a, const ListedMove& b) {
        return a.bytes != b.bytes ? a.bytes > b.bytes : a.path < b.path;
    });
    std::vector<std::string> lines;
    for (size_t i = 0; i < items.size() && i < limit; ++i) {
        lines.push_back(homeShortPath(items[i].path) + " — " + formatBytes(items[i].bytes));
    }
    if (items.size() > limit) {
        lines.push_back("and " + formatCount(items.size() - limit) + " more");
    }
    return lines;
}

std::string moveQuestion(std::uint64_t bytes) {
    return "Move " + formatBytes(bytes) + " to the Trash?";
}

} // namespace sd
