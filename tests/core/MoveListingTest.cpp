#include "core/MoveListing.h"

#include "core/PathRules.h"

#include <gtest/gtest.h>

namespace sd {
namespace {

// What a confirmation names: the biggest first, ties by path, ten at most and then a count, and
// the home shown as "~" only where a path really lies in it.
TEST(MoveListing, NamesTheBiggestItemsThenCountsTheRest) {
    const std::string home = homeDirectory();
    std::vector<ListedMove> twelve;
    for (int i = 0; i < 12; ++i) {
        twelve.push_back({home + "/cache/" + std::to_string(i), std::uint64_t(1000) * (i % 6)});
    }
    struct Row {
        std::vector<ListedMove> items;
        size_t limit;
        std::vector<std::string> lines;
    };
    const Row rows[] = {
        {{}, 10, {}},
        {{{home + "/.cache/pip", 2'000'000}, {"/srv/other", 5'000'000}},
         10,
         {"/srv/other — 5.0 MB", "~/.cache/pip — 2.0 MB"}},
        // A sibling whose name starts like the home is not in it.
        {{{home + "x/file", 1000}}, 10, {home + "x/file — 1.0 KB"}},
        {{{home + "/b", 1000}, {home + "/a", 1000}}, 10, {"~/a — 1.0 KB", "~/b — 1.0 KB"}},
        {twelve,
         10,
         {"~/cache/11 — 5.0 KB", "~/cache/5 — 5.0 KB", "~/cache/10 — 4.0 KB", "~/cache/4 — 4.0 KB",
          "~/cache/3 — 3.0 KB", "~/cache/9 — 3.0 KB", "~/cache/2 — 2.0 KB", "~/cache/8 — 2.0 KB",
          "~/cache/1 — 1.0 KB", "~/cache/7 — 1.0 KB", "and 2 more"}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.lines.empty() ? "empty" : row.lines.front());
        EXPECT_EQ(moveListingLines(row.items, row.limit), row.lines);
    }
    EXPECT_EQ(moveQuestion(433'100'000), "Move 433.1 MB to the Trash?");
}

} // namespace
} // namespace sd
