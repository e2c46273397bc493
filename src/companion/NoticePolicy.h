#pragma once

#include "companion/Forecast.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Which notices the companion sends, and when it keeps quiet. What it has said is kept between
// runs, so a restart never repeats a notice.
namespace sd {

enum class NoticeKind { lowSpace, weeklyDigest, leftovers };

// Where the notice's "Review" action leads.
enum class ReviewScreen { sweep, spaceMap, apps };

struct Notice {
    NoticeKind kind = NoticeKind::lowSpace;
    std::string title;
    std::string body;
    ReviewScreen screen = ReviewScreen::sweep;

    friend bool operator==(const Notice&, const Notice&) = default;
};

// Data an app removed from this computer left behind.
struct LeftBehindData {
    std::string appId;
    std::string path;
    std::uint64_t bytes = 0;

    friend bool operator==(const LeftBehindData&, const LeftBehindData&) = default;
};

inline constexpr std::uint64_t lowSpaceBytes = 10'000'000'000;
// Free space must climb back above this before a new low-space notice can come, so hovering
// around the limit does not send one each time it crosses it.
inline constexpr std::uint64_t lowSpaceRearmBytes = 12'000'000'000;
// Digests and leftovers notices in any 30 days; the low-space notice is bounded by its own rule.
inline constexpr size_t noticesPerMonth = 6;

// What the companion has said, kept as JSON between runs.
struct NoticeState {
    bool lowSpaceArmed = true;
    std::int64_t lastDigestWeek = -1;       // the week (Monday-based, local) of the last digest
    std::vector<std::string> leftoversTold; // app ids already mentioned
    std::vector<std::int64_t> sentAt;       // digests and leftovers notices of the last 30 days

    std::string toJson() const;
    // A missing or unreadable text is a fresh state.
    static NoticeState fromJson(std::string_view text);

    friend bool operator==(const NoticeState&, const NoticeState&) = default;
};

// What the companion sees on one look.
struct Observation {
    std::int64_t now = 0;
    std::uint64_t freeBytes = 0;
    std::uint64_t totalBytes = 0;
    std::optional<std::uint64_t> freeWeekAgo; // the free space of the sample nearest a week ago
    FreeSpaceForecast forecast;
    std::vector<LeftBehindData> leftovers;
};

// The notices due for `observation`, recording them in `state`. Low space: once when free space
// falls under 10 GB, again only once it has been back above 12 GB. Weekly digest: once on a
// Sunday. Leftovers: each app's data once. Digests and leftovers together stay within
// noticesPerMonth.
std::vector<Notice> decideNotices(NoticeState& state, const Observation& observation);

// The local week number (weeks start on Monday) and whether it is Sunday, as of `now`.
std::int64_t localWeek(std::int64_t now);
bool isLocalSunday(std::int64_t now);

} // namespace sd
