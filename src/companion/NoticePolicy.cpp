#include "companion/NoticePolicy.h"

#include "core/ByteFormat.h"

#include <algorithm>
#include <ctime>
#include <nlohmann/json.hpp>

namespace sd {
namespace {

constexpr std::int64_t secondsPerDay = 86'400;

std::int64_t localDay(std::int64_t now) {
    std::time_t t = static_cast<std::time_t>(now);
    std::tm local{};
    localtime_r(&t, &local);
    // The local calendar date as a count of days, whatever the offset from UTC.
    std::tm date{};
    date.tm_year = local.tm_year;
    date.tm_mon = local.tm_mon;
    date.tm_mday = local.tm_mday;
    return static_cast<std::int64_t>(timegm(&date)) / secondsPerDay;
}

std::string signedBytes(std::uint64_t now, std::uint64_t before) {
    return now >= before ? "+" + formatBytes(now - before) : "−" + formatBytes(before - now);
}

} // namespace

std::int64_t localWeek(std::int64_t now) {
    // Day 0 (1 January 1970) was a Thursday: three days on from a Monday.
    return (localDay(now) + 3) / 7;
}

bool isLocalSunday(std::int64_t now) {
    return (localDay(now) + 3) % 7 == 6;
}

std::string NoticeState::toJson() const {
    return nlohmann::json{{"lowSpaceArmed", lowSpaceArmed},
                          {"lastDigestWeek", lastDigestWeek},
                          {"leftoversTold", leftoversTold},
                          {"sentAt", sentAt}}
        .dump();
}

NoticeState NoticeState::fromJson(std::string_view text) {
    NoticeState state;
    try {
        auto json = nlohmann::json::parse(text);
        state.lowSpaceArmed = json.value("lowSpaceArmed", true);
        state.lastDigestWeek = json.value("lastDigestWeek", std::int64_t{-1});
        state.leftoversTold = json.value("leftoversTold", std::vector<std::string>{});
        state.sentAt = json.value("sentAt", std::vector<std::int64_t>{});
    } catch (const nlohmann::json::exception&) {
        return NoticeState{};
    }
    return state;
}

std::vector<Notice> decideNotices(NoticeState& state, const Observation& o) {
    std::vector<Notice> notices;
    std::erase_if(state.sentAt, [&](std::int64_t at) { return o.now - at >= 30 * secondsPerDay; });
    auto roomThisMonth = [&] {
        return state.sentAt.size() < noticesPerMonth;
    };

    if (o.totalBytes > 0 && o.freeBytes < lowSpaceBytes && state.lowSpaceArmed) {
        state.lowSpaceArmed = false;
        std::string body =
            "Only " + formatBytes(o.freeBytes) + " of " + formatBytes(o.totalBytes) + " is free.";
        std::string forecast = o.forecast.sentence();
        if (!forecast.empty()) {
            body += " " + forecast;
        }
        body += " The Sweep shows what comes back by itself.";
        notices.push_back(
            {NoticeKind::lowSpace, "Your disk is almost full", body, ReviewScreen::sweep});
    } else if (o.freeBytes >= lowSpaceRearmBytes) {
        state.lowSpaceArmed = true;
    }

    const std::int64_t week = localWeek(o.now);
    if (isLocalSunday(o.now) && state.lastDigestWeek != week && roomThisMonth()) {
        state.lastDigestWeek = week;
        state.sentAt.push_back(o.now);
        std::string body =
            formatBytes(o.freeBytes) + " of " + formatBytes(o.totalBytes) + " is free";
        body +=
            o.freeWeekAgo ? " (" + signedBytes(o.freeBytes, *o.freeWeekAgo) + " this week)." : ".";
        std::string forecast = o.forecast.sentence();
        if (!forecast.empty()) {
            body += " " + forecast;
        }
        notices.push_back(
            {NoticeKind::weeklyDigest, "Your disk this week", body, ReviewScreen::spaceMap});
    }

    std::vector<const LeftBehindData*> fresh;
    for (const LeftBehindData& l : o.leftovers) {
        if (std::find(state.leftoversTold.begin(), state.leftoversTold.end(), l.appId) ==
            state.leftoversTold.end()) {
            fresh.push_back(&l);
        }
    }
    if (!fresh.empty() && roomThisMonth()) {
        std::uint64_t bytes = 0;
        for (const LeftBehindData* l : fresh) {
            bytes += l->bytes;
            state.leftoversTold.push_back(l->appId);
        }
        state.sentAt.push_back(o.now);
        std::string body =
            fresh.size() == 1
                ? fresh[0]->appId + " was removed but left " + formatBytes(bytes) + " behind."
                : std::to_string(fresh.size()) + " removed apps left " + formatBytes(bytes) +
                      " behind.";
        body += " Nothing was moved; review it to decide.";
        notices.push_back(
            {NoticeKind::leftovers, "Removed apps left data behind", body, ReviewScreen::apps});
    }
    return notices;
}

} // namespace sd
