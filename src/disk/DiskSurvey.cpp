#include "disk/DiskSurvey.h"

#include "base/ChildProcess.h"
#include "base/CleanerError.h"
#include "base/Descriptors.h"
#include "base/ParallelFor.h"
#include "base/Saturating.h"
#include "core/ByteFormat.h"
#include "core/Ledgers.h"
#include "core/PathRules.h"
#include "core/Walk.h"
#include "platform/Dirs.h"
#include "platform/Home.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <map>
#include <unistd.h>

namespace sd {
namespace {

constexpr size_t unreadableExampleLimit = 3;

// Sums every entry's blocks, folders' own included, so that what the rows measure is as close to
// the file system's used figure as a walk can come.
class PlaceVisitor {
public:
    struct Folder {};

    PlaceVisitor(PlaceMeasure& measure, std::uint64_t device)
        : measure_(measure), device_(device) {}

    WalkStep visit(Folder&, const WalkEntry& entry) {
        const struct stat& st = entry.stat();
        if (S_ISDIR(st.st_mode)) {
            if (static_cast<std::uint64_t>(st.st_dev) != device_ || entry.depth >= maxWalkDepth) {
                return WalkStep::skip;
            }
            measure_.bytes = saturatingAdd(measure_.bytes, allocatedBytesOf(st));
            measure_.folderBytes = saturatingAdd(measure_.folderBytes, allocatedBytesOf(st));
            return WalkStep::enter;
        }
        if (ledger_.countOnce(st)) {
            measure_.bytes = saturatingAdd(measure_.bytes, allocatedBytesOf(st));
        }
        if (S_ISREG(st.st_mode)) {
            measure_.fileCount = saturatingAdd(measure_.fileCount, 1);
        }
        return WalkStep::skip;
    }
    void enter(Folder&, Folder&, const WalkEntry&) {}
    void leave(Folder&, Folder*, const WalkExit&) {}
    WalkStep problem(Folder&, const std::string& path, const CleanerError& error) {
        if (error.kind() == CleanerError::Kind::operationCancelled) {
            throw error;
        }
        // A folder this account may not open, or one that changed under the walk: what it holds
        // stays in the unexplained rest rather than spoiling the row.
        noteUnreadable(measure_, path);
        return WalkStep::skip;
    }

    static void noteUnreadable(PlaceMeasure& measure, const std::string& path) {
        measure.unreadableFolders = saturatingAdd(measure.unreadableFolders, 1);
        if (measure.unreadableExamples.size() < unreadableExampleLimit) {
            measure.unreadableExamples.push_back(path);
        }
    }

private:
    PlaceMeasure& measure_;
    std::uint64_t device_;
    HardlinkLedger ledger_;
};

std::string plural(std::uint64_t count, const char* one, const char* many) {
    return formatCount(count) + " " + (count == 1 ? one : many);
}

std::string joinedExamples(const std::vector<std::string>& examples) {
    std::string out;
    for (size_t i = 0; i < examples.size(); ++i) {
        out += (i == 0 ? "" : i + 1 == examples.size() ? " and " : ", ") + examples[i];
    }
    return out;
}

// A command is named only where its program is installed: "sudo apt-get clean" needs apt-get.
bool commandAvailable(const std::string& command) {
    std::string program = command.substr(0, command.find(' '));
    if (program == "sudo") {
        std::string rest = command.substr(command.find(' ') + 1);
        program = rest.substr(0, rest.find(' '));
    }
    for (const char* folder : {"/usr/bin/", "/bin/", "/usr/sbin/", "/sbin/", "/usr/local/bin/"}) {
        if (::access((folder + program).c_str(), X_OK) == 0) {
            return true;
        }
    }
    return false;
}

bool insideOrSame(const std::string& path, const std::string& folder) {
    return path == folder || isInside(path, folder);
}

} // namespace

PlaceMeasure measurePlace(const std::string& path, const std::stop_token& stop,
                          OperationProgress* progress) {
    if (stop.stop_requested()) {
        throw CleanerError::cancelled();
    }
    PlaceMeasure measure;
    measure.path = path;
    std::optional<ParentHandle> parent;
    std::optional<struct stat> st;
    try {
        parent = openParent(path);
        if (parent) {
            st = statEntry(parent->fd.get(), parent->name.c_str(), path);
        }
    } catch (const CleanerError& error) {
        // An ancestor this account may not search: the place may exist, but nothing of it shows.
        if (error.kind() == CleanerError::Kind::accessDenied) {
            measure.exists = true;
            PlaceVisitor::noteUnreadable(measure, path);
        }
        return measure;
    }
    if (!st || S_ISLNK(st->st_mode)) {
        return measure;
    }
    measure.exists = true;
    measure.device = static_cast<std::uint64_t>(st->st_dev);
    measure.bytes = allocatedBytesOf(*st);
    if (S_ISDIR(st->st_mode)) {
        measure.folderBytes = measure.bytes;
    } else {
        measure.fileCount = S_ISREG(st->st_mode) ? 1 : 0;
        return measure;
    }
    VerifiedChild root = openVerifiedChild(parent->fd.get(), parent->name.c_str(), path, *st);
    if (root.outcome != ChildOpening::opened) {
        if (root.outcome == ChildOpening::vanished) {
            measure = PlaceMeasure{};
            measure.path = path;
        } else {
            PlaceVisitor::noteUnreadable(measure, path);
        }
        return measure;
    }
    parent.reset();
    PlaceVisitor visitor(measure, measure.device);
    PlaceVisitor::Folder folder;
    WalkOptions options;
    options.order = WalkOrder::asListed; // sums do not depend on the order
    options.stop = stop;
    options.progress = progress;
    if (walkFolder(visitor, folder, std::move(root.fd), path, options) == WalkEnd::cancelled) {
        throw CleanerError::cancelled();
    }
    return measure;
}

std::uint64_t sumInstalledSizes(std::string_view listing) {
    std::uint64_t kib = 0;
    size_t at = 0;
    while (at < listing.size()) {
        size_t end = listing.find('\n', at);
        std::string_view line =
            listing.substr(at, end == std::string_view::npos ? std::string_view::npos : end - at);
        std::uint64_t value = 0;
        auto [ptr, ec] = std::from_chars(line.data(), line.data() + line.size(), value);
        if (ec == std::errc() && ptr == line.data() + line.size()) {
            kib = saturatingAdd(kib, value);
        }
        if (end == std::string_view::npos) {
            break;
        }
        at = end + 1;
    }
    return kib > UINT64_MAX / 1024 ? UINT64_MAX : kib * 1024;
}

std::optional<std::uint64_t> debianInstalledBytes(const std::stop_token& stop) {
    const std::string tool = "/usr/bin/dpkg-query";
    if (::access(tool.c_str(), X_OK) != 0) {
        return std::nullopt;
    }
    ChildCommand command;
    command.executable = tool;
    // Only installed packages: a removed package keeps its record with the size it had.
    command.arguments = {"-W", "-f=${db:Status-Abbrev}${Installed-Size}\\n"};
    command.environment = {"LC_ALL=C", "PATH=/usr/bin:/bin"};
    ChildResult result = runChild(command, stop);
    if (!result.succeeded()) {
        return std::nullopt;
    }
    std::string sizes;
    size_t at = 0;
    while (at < result.output.size()) {
        size_t end = result.output.find('\n', at);
        std::string line = result.output.substr(at, end - at);
        // "ii " is a package that is installed and configured.
        if (line.starts_with("ii ")) {
            sizes += line.substr(3) + "\n";
        }
        if (end == std::string::npos) {
            break;
        }
        at = end + 1;
    }
    return sumInstalledSizes(sizes);
}

DiskVolume assembleVolume(const platform::VolumeFigures& figures, bool holdsHome,
                          std::vector<DiskRow> rows, bool readsEverything,
                          const std::vector<std::string>& unreadableExamples) {
    DiskVolume volume;
    volume.figures = figures;
    volume.holdsHome = holdsHome;
    std::uint64_t measured = 0;
    std::uint64_t unreadable = 0;
    for (const DiskRow& row : rows) {
        measured = saturatingAdd(measured, row.bytes);
        unreadable = saturatingAdd(unreadable, row.unreadableFolders);
    }
    if (measured > figures.usedBytes) {
        // Blocks two rows both hold, or files written while the walk ran, would make the rows
        // claim more than is used; the biggest rows give up the difference.
        volume.overcountBytes = measured - figures.usedBytes;
        std::uint64_t left = volume.overcountBytes;
        std::vector<DiskRow*> bySize;
        bySize.reserve(rows.size());
        for (DiskRow& row : rows) {
            bySize.push_back(&row);
        }
        std::stable_sort(bySize.begin(), bySize.end(),
                         [](const DiskRow* a, const DiskRow* b) { return a->bytes > b->bytes; });
        for (DiskRow* row : bySize) {
            std::uint64_t take = std::min(left, row->bytes);
            row->bytes -= take;
            left -= take;
        }
        measured = figures.usedBytes;
    }
    volume.unexplainedBytes = figures.usedBytes - measured;
    volume.rows = std::move(rows);
    if (readsEverything) {
        volume.unexplainedSentence =
            "Everything no row names: settings in /etc, programs' data in /var/lib, other "
            "accounts' folders, and the file system's own records.";
    } else if (unreadable > 0) {
        volume.unexplainedSentence =
            "Mostly folders this account cannot read (" + plural(unreadable, "folder", "folders") +
            (unreadableExamples.empty() ? std::string()
                                        : ", among them " + joinedExamples(unreadableExamples)) +
            "), and everything no row names, such as programs' data in /var/lib and other "
            "accounts' folders. Run as the administrator (sudo sparrowdeck disk) to measure them.";
    } else {
        volume.unexplainedSentence =
            "Everything no row names: programs' data in /var/lib, other accounts' folders, and "
            "the file system's own records. Run as the administrator (sudo sparrowdeck disk) to "
            "see into folders only it may read.";
    }
    return volume;
}

std::optional<DiskRow> snapshotRow(const platform::LocalSnapshotListing& listing,
                                   std::string_view toolName) {
    if (listing.failure || listing.snapshots.empty()) {
        return std::nullopt;
    }
    DiskRow row;
    row.id = "snapshots";
    row.title = "Snapshots";
    size_t unsized = 0;
    for (const platform::LocalSnapshot& snapshot : listing.snapshots) {
        if (snapshot.bytes) {
            row.bytes = saturatingAdd(row.bytes, *snapshot.bytes);
        } else {
            ++unsized;
        }
    }
    row.fileCount = 0;
    row.sentence = plural(listing.snapshots.size(), "local snapshot", "local snapshots") +
                   " kept by " + std::string(toolName) +
                   ": the space counted is what only they hold, old versions of files that "
                   "have changed or gone since. Snapshots can't go to the Trash; review them under "
                   "Snapshots (sparrowdeck snapshots).";
    if (unsized > 0) {
        row.isComplete = false;
        row.sentence += " " + std::string(toolName) + " did not report the size of " +
                        plural(unsized, "snapshot", "snapshots") +
                        ", so their space is in the unexplained rest.";
    }
    return row;
}

DiskReport DiskSurvey::survey(const std::stop_token& stop, OperationProgress* progress) {
    DiskReport report;
    report.readsEverything = ::geteuid() == 0;
    const std::string& home = platform::homeDirectory();
    if (home.empty()) {
        throw CleanerError::invalidPath("This account has no home folder, so the disk was not "
                                        "measured.");
    }
    const std::string dataHome = platform::dataHome();

    // Which file systems to show: the home's, then the root's when it is another.
    std::string error;
    std::vector<std::string> volumePaths{home};
    std::optional<platform::VolumeFigures> homeFigures = platform::volumeFigures(home, error);
    if (!homeFigures) {
        throw CleanerError(CleanerError::Kind::ioError, error + " — nothing was measured.");
    }
    std::optional<platform::VolumeFigures> rootFigures = platform::volumeFigures("/", error);
    if (rootFigures && rootFigures->device != homeFigures->device) {
        volumePaths.push_back("/");
    }

    std::vector<platform::DiskRowPlan> plans;
    plans.push_back({"trash",
                     "Your Trash",
                     {dataHome + "/Trash"},
                     "What you moved to the Trash still fills the disk until the Trash is "
                     "emptied.",
                     {"gio trash --empty"}});
    for (platform::DiskRowPlan& plan : platform::diskRowPlans(home, dataHome)) {
        plans.push_back(std::move(plan));
    }

    if (progress != nullptr) {
        progress->setPhase("Measuring your home folder");
    }
    SpaceTreeScanner scanner;
    scanner.budget = homeBudget;
    homeScan_ = scanner.scan(home, stop, progress);
    if (homeScanned) {
        homeScanned(*homeScan_);
    }

    if (progress != nullptr) {
        progress->setPhase("Measuring the system's folders");
    }
    std::vector<std::string> places;
    for (const platform::DiskRowPlan& plan : plans) {
        for (const std::string& path : plan.paths) {
            if (std::find(places.begin(), places.end(), path) == places.end()) {
                places.push_back(path);
            }
        }
    }
    std::vector<PlaceMeasure> measures(places.size());
    parallelFor(places.size(), std::max(1U, workers), stop,
                [&](size_t i) { measures[i] = measurePlace(places[i], stop, progress); });
    if (stop.stop_requested()) {
        throw CleanerError::cancelled();
    }
    std::map<std::string, const PlaceMeasure*> byPath;
    for (const PlaceMeasure& m : measures) {
        byPath[m.path] = &m;
    }

    std::optional<std::uint64_t> debianBytes = debianInstalledBytes(stop);

    // Rows by device; a row whose places lie on two file systems shows on each.
    std::map<std::uint64_t, std::vector<DiskRow>> rowsOn;
    std::map<std::uint64_t, std::vector<std::string>> examplesOn;
    std::uint64_t carvedFromHome = 0;
    const SpaceTree& homeTree = homeScan_->tree;
    DiskRow homeRow;
    homeRow.id = "home";
    homeRow.title = "Your home folder";
    homeRow.bytes = homeTree.root.bytes;
    homeRow.fileCount = homeTree.root.fileCount;
    homeRow.paths = {home};
    homeRow.sentence = "Your own files, and the settings and caches your apps keep for you. The "
                       "Space Map shows what is inside.";
    homeRow.isComplete = !homeTree.isTruncated && homeTree.root.isComplete && !homeScan_->rootError;
    if (homeTree.isTruncated) {
        homeRow.sentence += " The scan stopped at its time limit, so part of it is counted in "
                            "the unexplained rest.";
    }
    for (const platform::DiskRowPlan& plan : plans) {
        std::map<std::uint64_t, DiskRow> parts;
        for (const std::string& path : plan.paths) {
            const PlaceMeasure& m = *byPath.at(path);
            if (!m.exists) {
                continue;
            }
            std::uint64_t device = m.device != 0 ? m.device : homeFigures->device;
            DiskRow& row = parts[device];
            row.bytes = saturatingAdd(row.bytes, m.bytes);
            row.fileCount = saturatingAdd(row.fileCount, m.fileCount);
            row.unreadableFolders = saturatingAdd(row.unreadableFolders, m.unreadableFolders);
            row.paths.push_back(path);
            for (const std::string& example : m.unreadableExamples) {
                if (examplesOn[device].size() < unreadableExampleLimit) {
                    examplesOn[device].push_back(example);
                }
            }
            // The home scan measured this place's files too (folders' own blocks it leaves
            // out); they are shown in their own row instead.
            if (device == homeFigures->device && insideOrSame(path, home)) {
                carvedFromHome = saturatingAdd(carvedFromHome, m.bytes - m.folderBytes);
            }
        }
        if (plan.id == "apps" && debianBytes && parts.empty()) {
            parts[rootFigures ? rootFigures->device : homeFigures->device];
        }
        for (auto& [device, row] : parts) {
            row.id = plan.id;
            row.title = plan.title;
            row.sentence = plan.sentence;
            for (const std::string& command : plan.reclaimCommands) {
                if (commandAvailable(command)) {
                    row.reclaimCommands.push_back(command);
                }
            }
            if (plan.id == "apps" && debianBytes) {
                row.sentence += " Debian packages add about " + formatBytes(*debianBytes) +
                                " by their own record; their files are counted with the system "
                                "itself.";
            }
            if (row.unreadableFolders > 0) {
                row.isComplete = false;
                row.sentence += " This account could not read " +
                                plural(row.unreadableFolders, "folder", "folders") +
                                " here, so the row shows only part of it.";
            }
            rowsOn[device].push_back(std::move(row));
        }
    }
    homeRow.bytes = carvedFromHome >= homeRow.bytes ? 0 : homeRow.bytes - carvedFromHome;
    rowsOn[homeFigures->device].insert(rowsOn[homeFigures->device].begin(), std::move(homeRow));

    // Snapshots are of the system's file system: their row goes with the root's figures.
    std::shared_ptr<const platform::LocalSnapshotTool> tool =
        snapshotTool ? snapshotTool : platform::systemSnapshotTool();
    if (std::optional<DiskRow> row = snapshotRow(tool->list(stop), tool->toolName())) {
        rowsOn[rootFigures ? rootFigures->device : homeFigures->device].push_back(std::move(*row));
    }
    for (const std::string& warning : homeTree.warnings) {
        report.warnings.push_back(warning);
    }

    // The figures are read last, so that they are as close as possible to what the walks saw.
    for (const std::string& path : volumePaths) {
        std::optional<platform::VolumeFigures> figures = platform::volumeFigures(path, error);
        if (!figures) {
            report.warnings.push_back(error);
            continue;
        }
        report.volumes.push_back(
            assembleVolume(*figures, path == home, std::move(rowsOn[figures->device]),
                           report.readsEverything, examplesOn[figures->device]));
    }
    return report;
}

} // namespace sd
