#include "companion/NoticePolicy.h"

#include <gtest/gtest.h>

namespace sd {
namespace {

constexpr std::int64_t hour = 3600;
constexpr std::int64_t day = 24 * hour;
constexpr std::uint64_t GB = 1'000'000'000;
// Wednesday 15 November 2023, 00:00 UTC.
constexpr std::int64_t wednesday = 1'700'006'400;

class NoticePolicy : public ::testing::Test {
protected:
    void SetUp() override {
        ::setenv("TZ", "UTC", 1);
        ::tzset();
    }

    // Runs one look and returns the kinds of notice it sent.
    std::vector<NoticeKind> look(std::int64_t at, std::uint64_t free,
                                 std::vector<LeftBehindData> leftovers = {}) {
        Observation o;
        o.now = at;
        o.freeBytes = free;
        o.totalBytes = 500 * GB;
        o.leftovers = std::move(leftovers);
        // Every look goes through the stored text, as a restart would.
        NoticeState restored = NoticeState::fromJson(state.toJson());
        EXPECT_EQ(restored, state);
        std::vector<NoticeKind> kinds;
        for (const Notice& n : decideNotices(restored, o)) {
            kinds.push_back(n.kind);
            EXPECT_FALSE(n.body.empty());
        }
        state = restored;
        return kinds;
    }

    NoticeState state;
};

using Kinds = std::vector<NoticeKind>;

TEST_F(NoticePolicy, LowSpaceIsToldOnceUntilSpaceComesBack) {
    struct Step {
        std::uint64_t free;
        Kinds expected;
    };
    const std::vector<Step> steps{
        {30 * GB, {}},
        {11 * GB, {}},
        {9 * GB, {NoticeKind::lowSpace}},
        {8 * GB, {}},  // still low: no second notice
        {11 * GB, {}}, // back above 10 GB but not far enough to count as recovered
        {9 * GB, {}},
        {13 * GB, {}}, // recovered
        {7 * GB, {NoticeKind::lowSpace}},
    };
    std::int64_t at = wednesday;
    for (const Step& s : steps) {
        SCOPED_TRACE(s.free);
        EXPECT_EQ(look(at, s.free), s.expected);
        at += hour / 2;
    }
}

TEST_F(NoticePolicy, ADigestComesOnceEachSunday) {
    const std::int64_t sunday = wednesday + 4 * day;
    EXPECT_TRUE(isLocalSunday(sunday));
    EXPECT_FALSE(isLocalSunday(wednesday));
    EXPECT_EQ(localWeek(sunday), localWeek(wednesday));
    EXPECT_EQ(localWeek(sunday + day), localWeek(wednesday) + 1) << "weeks start on Monday";
    struct Step {
        std::int64_t at;
        Kinds expected;
    };
    const std::vector<Step> steps{
        {wednesday, {}},          {sunday + 9 * hour, {NoticeKind::weeklyDigest}},
        {sunday + 10 * hour, {}}, {sunday + 23 * hour, {}},
        {sunday + 3 * day, {}},   {sunday + 7 * day, {NoticeKind::weeklyDigest}},
    };
    for (const Step& s : steps) {
        SCOPED_TRACE(s.at);
        EXPECT_EQ(look(s.at, 80 * GB), s.expected);
    }
}

TEST_F(NoticePolicy, LeftoversAreToldOnceEachAndAllNoticesStayFewAMonth) {
    LeftBehindData a{"org.example.Paint", "/h/.var/app/org.example.Paint", 300'000'000};
    LeftBehindData b{"org.example.Chat", "/h/.var/app/org.example.Chat", 50'000'000};
    EXPECT_EQ(look(wednesday, 80 * GB, {a}), Kinds{NoticeKind::leftovers});
    EXPECT_EQ(look(wednesday + hour, 80 * GB, {a}), Kinds{});
    EXPECT_EQ(look(wednesday + 2 * hour, 80 * GB, {a, b}), Kinds{NoticeKind::leftovers});

    // A flood of newly found leftovers and digests over two months stays within the cap in any
    // 30 days.
    std::vector<std::int64_t> sent;
    for (int i = 0; i < 60; ++i) {
        std::int64_t at = wednesday + day + i * day;
        LeftBehindData fresh{"app" + std::to_string(i), "/h/.var/app/x", 1};
        for (NoticeKind k : look(at, 80 * GB, {fresh})) {
            if (k != NoticeKind::lowSpace) {
                sent.push_back(at);
            }
        }
    }
    sent.insert(sent.begin(), {wednesday, wednesday + 2 * hour});
    for (size_t i = 0; i < sent.size(); ++i) {
        size_t inWindow = 0;
        for (std::int64_t t : sent) {
            inWindow += t >= sent[i] && t - sent[i] < 30 * day ? 1 : 0;
        }
        EXPECT_LE(inWindow, noticesPerMonth);
    }
    EXPECT_GE(sent.size(), 2 * noticesPerMonth - 1) << "the cap is not silence";
}

TEST_F(NoticePolicy, AStateThatCannotBeReadStartsFresh) {
    for (const char* text : {"", "{", "[1,2]", "{\"lowSpaceArmed\": \"yes\"}"}) {
        SCOPED_TRACE(text);
        EXPECT_EQ(NoticeState::fromJson(text), NoticeState{});
    }
}

} // namespace
} // namespace sd
