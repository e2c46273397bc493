#include "base/ChildProcess.h"
#include "base/CleanerError.h"
#include "platform/LocalSnapshotTool.h"

#include <charconv>
#include <ctime>
#include <nlohmann/json.hpp>
#include <unistd.h>

namespace sd::platform {
namespace {

// The tools get a fixed environment: the system's folders and English messages, since what
// they say is shown to the user as their own words.
const std::vector<std::string> toolEnvironment{"PATH=/usr/bin:/bin:/usr/sbin:/sbin", "LC_ALL=C"};

std::string trimmed(std::string_view text) {
    const char* space = " \t\r\n";
    size_t first = text.find_first_not_of(space);
    if (first == std::string_view::npos) {
        return "";
    }
    return std::string(text.substr(first, text.find_last_not_of(space) - first + 1));
}

std::string lastLine(std::string_view text) {
    std::string all = trimmed(text);
    size_t newline = all.rfind('\n');
    return newline == std::string::npos ? all : trimmed(std::string_view(all).substr(newline + 1));
}

std::string exitMessage(std::string_view tool, const ChildResult& run) {
    return std::string(tool) + " exited with status " + std::to_string(run.status);
}

// Runs the tool; a tool that cannot start fails like one that exits with an error.
ChildResult runTool(const std::string& executable, std::vector<std::string> arguments,
                    std::chrono::milliseconds timeout, const std::stop_token& stop) {
    ChildCommand command;
    command.executable = executable;
    command.arguments = std::move(arguments);
    command.environment = toolEnvironment;
    command.timeout = timeout;
    return runChild(command, stop);
}

SnapshotDeletionRun deletionRun(std::string_view tool, const ChildResult& run) {
    SnapshotDeletionRun result;
    result.ok = run.succeeded();
    if (!result.ok) {
        result.message = exitMessage(tool, run);
        result.reason = lastLine(run.errors.empty() ? run.output : run.errors);
    }
    return result;
}

bool digits(std::string_view text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

int number(std::string_view text) {
    int value = 0;
    std::from_chars(text.data(), text.data() + text.size(), value);
    return value;
}

// Fields of a broken-down time, checked by converting them and reading them back: 31 February
// comes back as 3 March and is refused.
std::optional<double> checkedTime(int year, int month, int day, int hour, int minute, int second,
                                  bool utc) {
    std::tm parts{};
    parts.tm_year = year - 1900;
    parts.tm_mon = month - 1;
    parts.tm_mday = day;
    parts.tm_hour = hour;
    parts.tm_min = minute;
    parts.tm_sec = second;
    parts.tm_isdst = -1;
    std::tm copy = parts;
    std::time_t when = utc ? ::timegm(&copy) : std::mktime(&copy);
    if (when == static_cast<std::time_t>(-1) || copy.tm_year != parts.tm_year ||
        copy.tm_mon != parts.tm_mon || copy.tm_mday != parts.tm_mday ||
        copy.tm_min != parts.tm_min || copy.tm_sec != parts.tm_sec) {
        return std::nullopt;
    }
    return static_cast<double>(when);
}

constexpr std::string_view tmutilPrefix = "com.apple.TimeMachine.";
constexpr std::string_view tmutilSuffix = ".local";

class Tmutil final : public LocalSnapshotTool {
public:
    Tmutil(std::string executable, std::chrono::milliseconds timeout)
        : executable_(std::move(executable)), timeout_(timeout) {}

    std::string_view toolName() const override { return "tmutil"; }
    std::string_view speaker() const override { return "macOS"; }
    std::string_view spaceReturnText() const override {
        return "macOS hands their space back over the next few minutes.";
    }

    LocalSnapshotListing list(const std::stop_token& stop) const override {
        LocalSnapshotListing listing;
        ChildResult run;
        try {
            run = runTool(executable_, {"listlocalsnapshots", "/"}, timeout_, stop);
        } catch (const CleanerError& error) {
            listing.failure = error.message();
            return listing;
        }
        if (!run.succeeded()) {
            listing.failure = exitMessage(toolName(), run);
            return listing;
        }
        std::string_view rest = run.output;
        while (!rest.empty()) {
            size_t end = rest.find('\n');
            std::string line = trimmed(rest.substr(0, end));
            if (line.starts_with(tmutilPrefix) && line.ends_with(tmutilSuffix) &&
                line.size() > tmutilPrefix.size() + tmutilSuffix.size()) {
                LocalSnapshot snapshot;
                snapshot.name = line;
                snapshot.stamp = line.substr(
                    tmutilPrefix.size(), line.size() - tmutilPrefix.size() - tmutilSuffix.size());
                snapshot.date = parseTmutilStamp(snapshot.stamp);
                listing.snapshots.push_back(std::move(snapshot));
            }
            if (end == std::string_view::npos) {
                break;
            }
            rest.remove_prefix(end + 1);
        }
        return listing;
    }

    bool names(const LocalSnapshot& snapshot, std::string_view stamp) const override {
        return snapshot.name ==
                   std::string(tmutilPrefix) + std::string(stamp) + std::string(tmutilSuffix) &&
               parseTmutilStamp(stamp).has_value();
    }

    SnapshotDeletionRun remove(const LocalSnapshot& snapshot) const override {
        try {
            return deletionRun(
                toolName(),
                runTool(executable_, {"deletelocalsnapshots", snapshot.stamp}, timeout_, {}));
        } catch (const CleanerError& error) {
            return {false, error.message(), ""};
        }
    }

private:
    std::string executable_;
    std::chrono::milliseconds timeout_;
};

// "CONFIG:NUMBER" with a number of digits only; the configuration's name may hold anything but
// a colon, as snapper's own names may not either.
std::optional<std::pair<std::string, std::string>> splitSnapperStamp(std::string_view stamp) {
    size_t colon = stamp.rfind(':');
    if (colon == std::string_view::npos || colon == 0 || !digits(stamp.substr(colon + 1)) ||
        stamp.substr(0, colon).find(':') != std::string_view::npos) {
        return std::nullopt;
    }
    return std::pair{std::string(stamp.substr(0, colon)), std::string(stamp.substr(colon + 1))};
}

// snapper's "--iso --utc" dates: "YYYY-MM-DD HH:MM:SS" in UTC.
std::optional<double> parseSnapperDate(std::string_view text) {
    if (text.size() != 19 || text[4] != '-' || text[7] != '-' || text[10] != ' ' ||
        text[13] != ':' || text[16] != ':') {
        return std::nullopt;
    }
    for (size_t at : {0, 5, 8, 11, 14, 17}) {
        size_t length = at == 0 ? 4 : 2;
        if (!digits(text.substr(at, length))) {
            return std::nullopt;
        }
    }
    return checkedTime(number(text.substr(0, 4)), number(text.substr(5, 2)),
                       number(text.substr(8, 2)), number(text.substr(11, 2)),
                       number(text.substr(14, 2)), number(text.substr(17, 2)), true);
}

class Snapper final : public LocalSnapshotTool {
public:
    explicit Snapper(SnapperSetup setup) : setup_(std::move(setup)) {}

    std::string_view toolName() const override { return "snapper"; }
    std::string_view speaker() const override { return "snapper"; }
    std::string_view spaceReturnText() const override {
        return "Linux hands their space back over the next few minutes.";
    }

    LocalSnapshotListing list(const std::stop_token& stop) const override {
        LocalSnapshotListing listing;
        if (::access(setup_.executable.c_str(), X_OK) != 0) {
            listing.note = "snapper is not installed, so there are no local snapshots to show.";
            return listing;
        }
        std::vector<std::string> arguments = setup_.extra;
        arguments.insert(arguments.end(),
                         {"--utc", "--iso", "--jsonout", "list", "--all-configs", "--columns",
                          "config,number,date,used-space,description"});
        ChildResult run;
        try {
            run = runTool(setup_.executable, std::move(arguments), setup_.timeout, stop);
        } catch (const CleanerError& error) {
            listing.failure = error.message();
            return listing;
        }
        if (!run.succeeded()) {
            listing.failure = exitMessage(toolName(), run);
            return listing;
        }
        nlohmann::json configs = nlohmann::json::parse(run.output, nullptr, false);
        if (!configs.is_object()) {
            listing.failure = "snapper's list could not be read.";
            return listing;
        }
        if (configs.empty()) {
            listing.note = "snapper has no configuration you may read, so there are no local "
                           "snapshots to show.";
            return listing;
        }
        for (const auto& [config, rows] : configs.items()) {
            if (!rows.is_array()) {
                continue;
            }
            for (const nlohmann::json& row : rows) {
                if (!row.is_object() ||
                    !row.value("number", nlohmann::json()).is_number_unsigned()) {
                    continue;
                }
                const auto number = row["number"].get<std::uint64_t>();
                if (number == 0) {
                    continue; // the live file system itself, not a snapshot
                }
                LocalSnapshot snapshot;
                snapshot.stamp = config + ":" + std::to_string(number);
                const std::string description = row.value("description", std::string());
                snapshot.name = config + " snapshot " + std::to_string(number) +
                                (description.empty() ? "" : " (" + description + ")");
                const nlohmann::json date = row.value("date", nlohmann::json());
                if (date.is_string()) {
                    snapshot.date = parseSnapperDate(date.get<std::string>());
                }
                const nlohmann::json used = row.value("used-space", nlohmann::json());
                if (used.is_number_unsigned()) {
                    snapshot.bytes = used.get<std::uint64_t>();
                }
                listing.snapshots.push_back(std::move(snapshot));
            }
        }
        return listing;
    }

    bool names(const LocalSnapshot& snapshot, std::string_view stamp) const override {
        return snapshot.stamp == stamp && splitSnapperStamp(stamp) && snapshot.date.has_value();
    }

    SnapshotDeletionRun remove(const LocalSnapshot& snapshot) const override {
        std::optional<std::pair<std::string, std::string>> parts =
            splitSnapperStamp(snapshot.stamp);
        if (!parts) {
            return {false, "snapper cannot name " + snapshot.stamp, ""};
        }
        std::vector<std::string> arguments = setup_.extra;
        arguments.insert(arguments.end(), {"--config", parts->first, "delete", parts->second});
        try {
            return deletionRun(
                toolName(), runTool(setup_.executable, std::move(arguments), setup_.timeout, {}));
        } catch (const CleanerError& error) {
            return {false, error.message(), ""};
        }
    }

private:
    SnapperSetup setup_;
};

} // namespace

std::optional<double> parseTmutilStamp(std::string_view stamp) {
    // yyyy-MM-dd-HHmmss
    if (stamp.size() != 17 || stamp[4] != '-' || stamp[7] != '-' || stamp[10] != '-' ||
        !digits(stamp.substr(0, 4)) || !digits(stamp.substr(5, 2)) || !digits(stamp.substr(8, 2)) ||
        !digits(stamp.substr(11, 6))) {
        return std::nullopt;
    }
    return checkedTime(number(stamp.substr(0, 4)), number(stamp.substr(5, 2)),
                       number(stamp.substr(8, 2)), number(stamp.substr(11, 2)),
                       number(stamp.substr(13, 2)), number(stamp.substr(15, 2)), false);
}

std::unique_ptr<LocalSnapshotTool> makeTmutil(std::string executable,
                                              std::chrono::milliseconds timeout) {
    return std::make_unique<Tmutil>(std::move(executable), timeout);
}

std::unique_ptr<LocalSnapshotTool> makeSnapper(SnapperSetup setup) {
    return std::make_unique<Snapper>(std::move(setup));
}

} // namespace sd::platform
