#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

// The system's own tool for local snapshots of the disk, which Sparrowdeck only lists and, after
// the user's explicit consent, deletes one at a time. Snapshots cannot go to the Trash: deleting
// one cannot be undone.
namespace sd::platform {

struct LocalSnapshot {
    std::string name;                   // the full name, as the tool prints it
    std::string stamp;                  // what the user picks it by, and the tool deletes it by
    std::optional<double> date;         // seconds since 1970, when the stamp parsed
    std::optional<std::uint64_t> bytes; // its size, where the tool knows it
    friend bool operator==(const LocalSnapshot&, const LocalSnapshot&) = default;
};

// A listing: the snapshots, or why there are none to show.
struct LocalSnapshotListing {
    std::vector<LocalSnapshot> snapshots{};
    std::optional<std::string> failure; // the tool failed: nothing can be chosen
    std::optional<std::string> note;    // listed, but there is nothing to list, and why
};

struct SnapshotDeletionRun {
    bool ok = false;
    std::string message{}; // "<tool> exited with status N" when not ok
    std::string reason{};  // what the tool itself said, when it said anything
};

class LocalSnapshotTool {
public:
    virtual ~LocalSnapshotTool() = default;

    virtual std::string_view toolName() const = 0;
    // Who speaks in "Nothing was deleted — macOS said: …".
    virtual std::string_view speaker() const = 0;
    // The sentence after a deletion, on when the space comes back.
    virtual std::string_view spaceReturnText() const = 0;

    virtual LocalSnapshotListing list(const std::stop_token& stop = {}) const = 0;
    // True when `snapshot` is exactly the snapshot `stamp` names, with a stamp that parsed: the
    // only kind the tool is ever asked to delete.
    virtual bool names(const LocalSnapshot& snapshot, std::string_view stamp) const = 0;
    // Deletes one snapshot. Runs to its end or its time limit: a Stop lets it finish.
    virtual SnapshotDeletionRun remove(const LocalSnapshot& snapshot) const = 0;
};

// macOS's Time Machine tool, run as `tmutil listlocalsnapshots /` and
// `tmutil deletelocalsnapshots STAMP`. Its stamps are "yyyy-MM-dd-HHmmss", local time.
std::unique_ptr<LocalSnapshotTool>
makeTmutil(std::string executable = "/usr/bin/tmutil",
           std::chrono::milliseconds timeout = std::chrono::seconds(120));

// snapper, over every configuration the user may read. A stamp is "CONFIG:NUMBER". `extra`
// options go before the command (tests and root use "--no-dbus").
struct SnapperSetup {
    std::string executable = "/usr/bin/snapper";
    std::vector<std::string> extra{};
    std::chrono::milliseconds timeout = std::chrono::seconds(120);
};
std::unique_ptr<LocalSnapshotTool> makeSnapper(SnapperSetup setup = {});

// The tool this system keeps its local snapshots with.
std::unique_ptr<LocalSnapshotTool> systemSnapshotTool();

// "yyyy-MM-dd-HHmmss" in local time; empty when the text is not exactly that.
std::optional<double> parseTmutilStamp(std::string_view stamp);

} // namespace sd::platform
