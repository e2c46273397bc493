#include "space/SpaceTreeScanner.h"

#include "base/OpenFlags.h"
#include "base/ParallelFor.h"
#include "base/PathText.h"
#include "base/Saturating.h"
#include "base/Stop.h"
#include "base/TestHooks.h"
#include "core/ByteFormat.h"
#include "core/CoreFileSystem.h"
#include "core/MockRoots.h"
#include "core/PathRules.h"
#include "core/Walk.h"
#include "platform/CloneAttributes.h"
#include "platform/DirectoryReader.h"
#include "platform/FileSystemExtras.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <exception>
#include <fcntl.h>
#include <functional>
#include <iterator>
#include <map>
#include <mutex>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>
#include <unordered_map>
#include <unordered_set>

// How the scan is laid out:
//
// The calling thread opens the root, lists it (the root's own files are counted there, its
// folders become the top-level work items) and then only waits, sending progress. Workers take
// items from a shared queue and walk each with its own stack of frames, reading every folder
// once through a lent buffer and stat'ing entries relative to the open folder. When a worker
// goes idle and the queue is empty, a busy worker hands over the unread rest of the shallowest
// folder it has open, so that one huge folder does not leave the other cores waiting.
//
// Each item yields the subtree of nodes that might be drawn. Nothing a worker decides depends on
// what the others did, except through the shared ledgers, whose rules do not depend on timing
// (see SpaceLedgers.h). Once all workers are done the pieces are merged by path, the ledgers'
// corrections are applied, and the node budget and child limit pick the final tree from exact
// sizes, so the tree comes out the same with one worker or eight.
namespace sd {
namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t streamBufferBytes = 32 * 1024;
constexpr size_t maxProblemWarnings = 20;
constexpr std::chrono::milliseconds progressInterval{100};
constexpr std::uint64_t progressBatch = 256;

// The walk keeps one descriptor open per folder level on every worker.
void raiseOpenFileLimit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return;
    }
    rlim_t wanted = limit.rlim_max == RLIM_INFINITY ? 4096 : std::min<rlim_t>(limit.rlim_max, 4096);
    if (limit.rlim_cur != RLIM_INFINITY && limit.rlim_cur < wanted) {
        limit.rlim_cur = wanted;
        ::setrlimit(RLIMIT_NOFILE, &limit); // the scan still works, with fewer workers' worth
    }
}

struct OpenRoot {
    std::string path;
    UniqueFd fd;
    struct stat st {};
};

// The root must be a folder in the home (or an owned fixture root), reached without a link.
OpenRoot openRoot(std::string_view given) {
    OpenRoot root;
    root.path = normalizePath(given);
    const std::string& home = homeDirectory();
    if (!((!home.empty() && isInside(root.path, home)) || MockRoots::owns(root.path))) {
        throw CleanerError::safety("Protected or out-of-home path: " + root.path);
    }
    std::optional<ParentHandle> parent = openParent(root.path);
    std::optional<struct stat> st;
    if (parent) {
        st = statEntry(parent->fd.get(), parent->name.c_str(), root.path);
    }
    if (!st) {
        throw makeCoreError(operation::openingDirectory, root.path, ENOENT);
    }
    if (S_ISLNK(st->st_mode)) {
        throw CleanerError::safety("Symlinks are not allowed: " + root.path);
    }
    if (!S_ISDIR(st->st_mode)) {
        throw makeCoreError(operation::openingDirectory, root.path, ENOTDIR);
    }
    root.fd = openListing(parent->fd.get(), parent->name.c_str());
    if (!root.fd) {
        throw makeCoreError(operation::openingDirectory, root.path, errno);
    }
    struct stat opened {};
    if (::fstat(root.fd.get(), &opened) != 0) {
        throw makeCoreError(operation::readingMetadata, root.path, errno);
    }
    if (opened.st_dev != st->st_dev || opened.st_ino != st->st_ino || !S_ISDIR(opened.st_mode)) {
        throw CleanerError::safety("Directory changed during traversal: " + root.path);
    }
    root.st = opened;
    return root;
}

// One piece of work on the shared queue: a top-level folder not opened yet, or the unread rest
// of a folder another worker started.
struct WorkUnit {
    size_t topIndex = 0;
    std::string path;
    int depth = 1;
    std::string name; // a top-level folder: its name in the root and what the listing said
    struct stat listed {};
    std::optional<sd::WalkUnit> rest; // the rest of a folder: its open listing
};

// The queue workers take units from. Workers can join while a scan runs (when the disk, not the
// processor, is what they wait for); the queue is finished once every worker waits on it empty.
class WorkQueue {
public:
    explicit WorkQueue(unsigned workers) : workers_(workers) {}

    void push(WorkUnit unit) {
        {
            std::lock_guard guard(lock_);
            units_.push_back(std::move(unit));
            queued_.store(units_.size(), std::memory_order_relaxed);
        }
        ready_.notify_one();
    }

    // Counts one more worker that will take units. False once the queue is finished.
    bool addWorker() {
        std::lock_guard guard(lock_);
        if (finished_) {
            return false;
        }
        ++workers_;
        return true;
    }

    // The next unit; empty once every worker is idle and nothing is queued.
    std::optional<WorkUnit> pop() {
        std::unique_lock guard(lock_);
        idleHint_.store(++idle_, std::memory_order_relaxed);
        for (;;) {
            if (!units_.empty()) {
                WorkUnit unit = std::move(units_.front());
                units_.pop_front();
                queued_.store(units_.size(), std::memory_order_relaxed);
                idleHint_.store(--idle_, std::memory_order_relaxed);
                return unit;
            }
            if (finished_ || idle_ == workers_) {
                if (!finished_) {
                    finished_ = true;
                    ready_.notify_all();
                    done_.notify_all();
                }
                return std::nullopt;
            }
            ready_.wait(guard);
        }
    }

    // True when a worker waits and nothing is queued: a busy worker should hand work over. Two
    // relaxed loads of values that change only when a unit moves, so it costs the hot path
    // nothing to ask before every entry.
    bool wantsWork() const noexcept {
        return idleHint_.load(std::memory_order_relaxed) > 0 &&
               queued_.load(std::memory_order_relaxed) == 0;
    }

    bool waitFinished(std::chrono::milliseconds interval) {
        std::unique_lock guard(lock_);
        return done_.wait_for(guard, interval, [&] { return finished_; });
    }

private:
    std::mutex lock_;
    std::condition_variable ready_;
    std::condition_variable done_;
    std::deque<WorkUnit> units_;
    unsigned workers_;
    unsigned idle_ = 0;
    bool finished_ = false;
    std::atomic<unsigned> idleHint_{0};
    std::atomic<size_t> queued_{0};
};

// What every worker of one scan shares.
struct ScanState {
    const SpaceTreeScanner& scanner;
    const SpaceScanOptions& options;
    std::string rootPath;
    int rootFd = -1;
    std::uint64_t rootDevice = 0;
    bool askClones = false;
    std::string home;
    Clock::time_point deadline;
    OperationProgress* progress = nullptr;

    SharedHardlinkLedger hardlinks;
    SharedCloneLedger clones;
    WorkQueue queue;
    // Stops every worker: the caller's stop, or the time limit reached by any of them.
    LinkedStop stop;

    std::atomic<bool> timedOut{false};
    std::atomic<bool> tooDeep{false};
    std::atomic<std::uint64_t> entries{0};
    std::atomic<std::uint64_t> topItemsDone{0};
    std::atomic<std::uint64_t> workItems{0};
    std::atomic<std::uint64_t> splits{0};
    size_t topItemCount = 0;

    ScanState(const SpaceTreeScanner& s, unsigned workers, const std::stop_token& outer)
        : scanner(s), options(s.options), queue(workers), stop(outer) {}

    // A very large item, shown before the scan ends.
    void streamBig(std::string path, std::uint64_t bytes) {
        if (progress != nullptr) {
            progress->notice(std::move(path), bytes);
        }
    }
};

// A file that shares storage with others, counted during the walk at `placed` bytes; what it
// really holds is known only when the walk is over.
struct CloneSighting {
    EntryIdentity file;
    std::string path;
    std::uint64_t allocated = 0;
    std::uint64_t placed = 0;
    bool multiLink = false;
    std::vector<platform::SharedPiece> pieces;
};

// Facts about a kept child that its node does not carry.
struct KeptNote {
    std::uint64_t atLeast = 0; // the smallest its bytes can become
    bool open = false;         // other workers still add to it: its size is not known yet
};

} // namespace

struct SpaceTreeScanner::Frame {
    int depth = 0;          // levels below the scanned root
    bool filesOnly = false; // below maxDepth: totals only, no nodes
    std::uint64_t total = 0;
    std::uint64_t files = 0;
    std::uint64_t entries = 0; // files and folders directly inside
    std::int64_t latest = 0;
    std::uint64_t disputed = 0; // bytes in `total` that the ledgers may still take back
    std::vector<SpaceNode> kept;
    std::vector<KeptNote> notes;
    bool complete = true;
    bool shared = false;  // part of this folder is walked elsewhere
    bool donated = false; // its unread rest went to another worker
    bool warned = false;

    // Makes a reused frame new again, keeping the memory its lists hold.
    void reset(int newDepth, int maxDepth) {
        depth = newDepth;
        filesOnly = newDepth > maxDepth;
        total = files = entries = disputed = 0;
        latest = 0;
        kept.clear();
        notes.clear();
        complete = true;
        shared = donated = warned = false;
    }
};

struct SpaceTreeScanner::ItemResult {
    SpaceNode node;            // the folder this item walked, with the children it might keep
    std::uint64_t entries = 0; // entries examined
    size_t topIndex = 0;
    std::vector<std::string> sharedFolders; // folders other items also walked part of
};

struct SpaceTreeScanner::Drained {
    ScanPartial partial;
    std::map<size_t, std::vector<ItemResult>> results; // by top-level index
    ItemResult root;                                   // the root's own files
    std::vector<CloneSighting> sightings;
    std::vector<std::string> mountPoints;
    std::vector<std::string> problems;
};

namespace {

using ItemResult = SpaceTreeScanner::ItemResult;

// One worker: a visitor of the shared walk that keeps, per open folder, the sums and the
// children that might become nodes, and hands folders over to idle workers.
class Walker {
public:
    using Folder = SpaceTreeScanner::Frame;

    explicit Walker(ScanState& state)
        : state_(state), options_(state.options), walk_(*this, walkOptions(state)) {}

    // Takes units from the queue until there are none left.
    void run() {
        while (std::optional<WorkUnit> unit = state_.queue.pop()) {
            state_.workItems.fetch_add(1, std::memory_order_relaxed);
            bool topLevel = !unit->rest;
            if (state_.stop.stopRequested()) {
                results.push_back(abandoned(*unit));
            } else {
                results.push_back(walk(std::move(*unit)));
            }
            if (topLevel) {
                state_.topItemsDone.fetch_add(1, std::memory_order_relaxed);
            }
        }
        flushProgress();
    }

    // Lists the root: its files are counted here, its folders become the top-level units.
    ItemResult walkRoot(UniqueFd rootFd, const std::string& rootPath,
                        std::vector<WorkUnit>& topLevel) {
        topLevel_ = &topLevel;
        ItemResult result;
        result.node.path = rootPath;
        result_ = &result;
        topIndex_ = 0;
        Folder root;
        root.reset(0, options_.maxDepth);
        root.shared = true; // its total is known only once every top-level item is in
        finish(walk_.run(root, std::move(rootFd), rootPath, 0));
        result.entries = takeExamined();
        topLevel_ = nullptr;
        result_ = nullptr;
        flushProgress();
        return result;
    }

    // The walk's own calls.
    WalkStep visit(Folder& in, const WalkEntry& entry) {
        countEntry();
        const struct stat& st = entry.stat();
        if (S_ISREG(st.st_mode)) {
            countFile(in, entry);
        } else if (S_ISDIR(st.st_mode)) {
            return enterFolder(in, entry);
        }
        return WalkStep::skip;
    }
    void enter(Folder& child, Folder&, const WalkEntry& entry) {
        child.reset(entry.depth, options_.maxDepth);
    }
    void leave(Folder& folder, Folder* parent, const WalkExit& exit) {
        if (!exit.complete) {
            folder.complete = false;
        }
        finishFolder(folder, parent, exit.path);
    }
    WalkStep problem(Folder& in, const std::string&, const CleanerError& error) {
        noteProblem(in, error);
        return WalkStep::skip;
    }
    bool wantsShare() const noexcept { return state_.queue.wantsWork(); }
    // Below the node depth nothing is kept apart, so a part read elsewhere could not be merged
    // back by path.
    bool canShare(const Folder& folder) const noexcept { return !folder.filesOnly; }
    void share(Folder& folder, sd::WalkUnit rest) {
        WorkUnit unit;
        unit.topIndex = topIndex_;
        unit.path = rest.path;
        unit.depth = rest.depth;
        unit.rest = std::move(rest);
        folder.donated = true;
        folder.shared = true;
        state_.splits.fetch_add(1, std::memory_order_relaxed);
        state_.queue.push(std::move(unit));
    }

    ScanPartial partial;
    std::vector<ItemResult> results;
    std::vector<CloneSighting> cloneSightings;
    std::vector<std::string> mountPoints;
    std::vector<std::string> problems; // first problem of each folder not read in full

private:
    static WalkOptions walkOptions(const ScanState& state) {
        WalkOptions options;
        options.order = WalkOrder::asListed; // sums do not depend on the order
        options.specialEntries = false;      // links are never followed; pipes hold nothing
        options.maxDepth = SpaceTreeScanner::maxNestingDepth;
        options.stop = state.stop.token();
        options.deadline = state.deadline;
        return options;
    }

    ItemResult abandoned(const WorkUnit& unit) {
        ItemResult result;
        result.topIndex = unit.topIndex;
        result.node.name = lastComponent(unit.path);
        result.node.path = unit.path;
        result.node.isComplete = false;
        return result;
    }

    ItemResult walk(WorkUnit unit) {
        ItemResult result;
        result.topIndex = unit.topIndex;
        result.node.path = unit.path;
        result_ = &result;
        topIndex_ = unit.topIndex;
        Folder root;
        root.reset(unit.depth, options_.maxDepth);
        if (unit.rest) {
            // The rest of a folder another worker started.
            root.shared = true;
            finish(walk_.run(root, std::move(*unit.rest)));
        } else {
            VerifiedChild child = openVerifiedChild(state_.rootFd, unit.name.c_str(), unit.path,
                                                    unit.listed, listingOpenFlags);
            if (child.outcome == ChildOpening::opened) {
                finish(walk_.run(root, std::move(child.fd), unit.path, unit.depth));
            } else {
                if (child.outcome != ChildOpening::vanished) {
                    noteProblem(root, childOpeningError(child, unit.path));
                }
                finishFolder(root, nullptr, unit.path);
            }
        }
        result.entries = takeExamined();
        result_ = nullptr;
        return result;
    }

    void finish(WalkEnd end) {
        if (end == WalkEnd::timedOut) {
            state_.timedOut.store(true, std::memory_order_relaxed);
            state_.stop.requestStop();
        }
    }

    std::uint64_t takeExamined() {
        std::uint64_t total = walk_.examined();
        std::uint64_t delta = total - examinedBefore_;
        examinedBefore_ = total;
        partial.nodeCount = saturatingAdd(partial.nodeCount, delta);
        return delta;
    }

    void countEntry() {
        if (++unflushed_ == progressBatch) {
            flushProgress();
        }
    }

    void flushProgress() {
        state_.entries.fetch_add(unflushed_, std::memory_order_relaxed);
        unflushed_ = 0;
    }

    // A folder that could not be read in full: it and everything above it is incomplete, and
    // the first problem in each folder is told.
    void noteProblem(Folder& folder, const CleanerError& error) {
        folder.complete = false;
        if (!folder.warned) {
            folder.warned = true;
            problems.push_back(error.what());
        }
    }

    void countFile(Folder& frame, const WalkEntry& entry) {
        const struct stat& st = entry.stat();
        const EntryIdentity identity = EntryIdentity::of(st);
        const std::uint64_t allocated = allocatedBytesOf(st);
        std::uint64_t counted = allocated;
        bool settled = true;
        pieces_.clear();
        if (state_.askClones && allocated > 0) {
            try {
                platform::SharedPiecesOutcome outcome = platform::readSharedPieces(
                    entry.folderFd, entry.name, entry.path(), st, pieces_);
                if (outcome == platform::SharedPiecesOutcome::vanished) {
                    return;
                }
                if (outcome == platform::SharedPiecesOutcome::changed) {
                    noteProblem(frame, CleanerError::safety("Entry changed during measurement: " +
                                                            entry.path()));
                    return;
                }
            } catch (const CleanerError& error) {
                noteProblem(frame, error); // counted whole: what it shares is unknown
                pieces_.clear();
            }
            if (!pieces_.empty()) {
                settled = false;
                std::uint64_t foreign = state_.clones.claim(identity, pieces_);
                counted = saturatingSub(allocated, foreign);
            }
        }
        const bool multiLink = st.st_nlink >= 2;
        if (multiLink) {
            settled = false;
            if (!state_.hardlinks.claim(identity, entry.path(), counted)) {
                counted = 0;
            }
        }
        if (!pieces_.empty() && counted > 0) {
            cloneSightings.push_back(
                {identity, entry.path(), allocated, counted, multiLink, pieces_});
        }

        const std::int64_t modified = platform::modifiedTime(st).sec;
        frame.files = saturatingAdd(frame.files, 1);
        frame.entries = saturatingAdd(frame.entries, 1);
        frame.latest = std::max(frame.latest, modified);
        frame.total = saturatingAdd(frame.total, counted);
        partial.totalBytes = saturatingAdd(partial.totalBytes, counted);
        if (!settled) {
            frame.disputed = saturatingAdd(frame.disputed, counted);
        }
        if (counted == 0) {
            return;
        }
        if (frame.depth < options_.maxDepth && counted >= options_.minimumNodeBytes) {
            SpaceNode node;
            node.name = entry.name;
            node.kind = SpaceNode::Kind::file;
            node.bytes = counted;
            node.fileCount = 1;
            node.latestChange = modified;
            frame.kept.push_back(std::move(node));
            frame.notes.push_back({settled ? counted : 0, false});
        }
        const bool finding = counted >= options_.findings.minNodeBytes;
        const bool big = counted >= state_.scanner.streamMinimumBytes;
        if (!finding && !big) {
            return;
        }
        if (finding && findingAllowed(entry.path(), state_.home, state_.scanner.distribution,
                                      options_.findings)) {
            partial.offerFile({entry.path(), counted, false, 1, modified}, settled,
                              options_.findings.topN);
        }
        if (big) {
            state_.streamBig(entry.path(), counted);
        }
    }

    WalkStep enterFolder(Folder& parent, const WalkEntry& entry) {
        const struct stat& st = entry.stat();
        if (static_cast<std::uint64_t>(st.st_dev) != state_.rootDevice) {
            mountPoints.push_back(entry.path());
            return WalkStep::skip; // another file system: recorded, never entered
        }
        parent.entries = saturatingAdd(parent.entries, 1);
        if (entry.depth > SpaceTreeScanner::maxNestingDepth) {
            state_.tooDeep.store(true, std::memory_order_relaxed);
            parent.complete = false;
            return WalkStep::skip;
        }
        if (topLevel_ != nullptr) {
            WorkUnit unit;
            unit.topIndex = topLevel_->size();
            unit.path = entry.path();
            unit.depth = entry.depth;
            unit.name = entry.name;
            unit.listed = st;
            topLevel_->push_back(std::move(unit));
            return WalkStep::skip;
        }
        return WalkStep::enter;
    }

    // The final tree keeps a folder's biggest maxChildren children by exact size. During the
    // walk a child can be let go only when maxChildren others certainly beat it, whatever the
    // ledgers' corrections take off them later: then it could never be chosen, and letting it
    // go changes nothing but the memory it held.
    void trimKept(Folder& frame) const {
        const auto limit = static_cast<size_t>(std::max(options_.maxChildren, 0));
        if (frame.kept.size() <= limit) {
            return;
        }
        std::vector<std::uint64_t> least;
        for (size_t i = 0; i < frame.kept.size(); ++i) {
            if (!frame.notes[i].open) {
                least.push_back(frame.notes[i].atLeast);
            }
        }
        if (least.size() <= limit || limit == 0) {
            if (limit == 0) {
                frame.kept.clear();
                frame.notes.clear();
            }
            return;
        }
        std::nth_element(least.begin(), least.begin() + static_cast<std::ptrdiff_t>(limit - 1),
                         least.end(), std::greater<>());
        const std::uint64_t bar = least[limit - 1];
        size_t out = 0;
        for (size_t i = 0; i < frame.kept.size(); ++i) {
            if (frame.notes[i].open || frame.kept[i].bytes >= bar) {
                if (out != i) {
                    frame.kept[out] = std::move(frame.kept[i]);
                    frame.notes[out] = frame.notes[i];
                }
                ++out;
            }
        }
        frame.kept.resize(out);
        frame.notes.resize(out);
    }

    SpaceNode nodeOf(Folder& frame, std::string_view path) {
        trimKept(frame);
        SpaceNode node;
        node.name = path == "/" ? std::string("/") : lastComponent(path);
        node.kind = SpaceNode::Kind::directory;
        node.bytes = frame.total;
        node.fileCount = frame.files;
        node.latestChange = frame.latest;
        node.otherCount = frame.entries; // entries directly inside, until children are chosen
        node.isComplete = frame.complete;
        node.children = std::move(frame.kept);
        frame.kept.clear();
        frame.notes.clear();
        return node;
    }

    void finishFolder(Folder& frame, Folder* parent, std::string_view path) {
        const bool nodeCapable = !frame.filesOnly;
        if (!frame.shared) {
            recordTotals(frame, path);
        } else if (nodeCapable) {
            result_->sharedFolders.emplace_back(path);
        }
        if (parent == nullptr) {
            SpaceNode node = nodeOf(frame, path);
            node.path = std::move(result_->node.path);
            result_->node = std::move(node);
            return;
        }
        parent->total = saturatingAdd(parent->total, frame.total);
        parent->files = saturatingAdd(parent->files, frame.files);
        parent->disputed = saturatingAdd(parent->disputed, frame.disputed);
        parent->latest = std::max(parent->latest, frame.latest);
        parent->complete = parent->complete && frame.complete;
        if (nodeCapable) {
            if (frame.shared) {
                parent->shared = true;
                parent->kept.push_back(nodeOf(frame, path));
                parent->notes.push_back({0, true});
            } else if (frame.total > 0 && frame.total >= options_.minimumNodeBytes) {
                std::uint64_t atLeast = frame.total - frame.disputed;
                parent->kept.push_back(nodeOf(frame, path));
                parent->notes.push_back({atLeast, false});
            }
        }
    }

    // A finished folder's findings and streamed news: only for a folder walked whole here; the
    // totals of a folder shared with other items are known only at the end.
    void recordTotals(const Folder& frame, std::string_view folderPath) {
        const auto depth = static_cast<std::uint32_t>(frame.depth);
        const bool finding = frame.total > 0 && frame.total >= options_.findings.minNodeBytes &&
                             depth <= options_.findings.maxTreeDepth;
        const bool big = frame.depth > 0 && frame.depth <= options_.maxDepth &&
                         frame.total >= state_.scanner.streamMinimumBytes;
        if (!finding && !big) {
            return;
        }
        std::string path(folderPath);
        if (finding &&
            findingAllowed(path, state_.home, state_.scanner.distribution, options_.findings)) {
            partial.directoryTotals.insert_or_assign(
                path, Finding{path, frame.total, true, frame.files, frame.latest});
        }
        if (big) {
            state_.streamBig(std::move(path), frame.total);
        }
    }

    ScanState& state_;
    const SpaceScanOptions& options_;
    TreeWalk<Walker> walk_;
    std::vector<platform::SharedPiece> pieces_;
    ItemResult* result_ = nullptr;
    size_t topIndex_ = 0;
    std::vector<WorkUnit>* topLevel_ = nullptr;
    std::uint64_t examinedBefore_ = 0;
    std::uint64_t unflushed_ = 0;
};

// ---- assembling the tree --------------------------------------------------------------------

std::vector<std::string_view> componentsBelow(std::string_view path, std::string_view root) {
    std::string_view rest = path.substr(root.size() == 1 ? 1 : root.size());
    std::vector<std::string_view> parts;
    while (!rest.empty()) {
        if (rest.front() == '/') {
            rest.remove_prefix(1);
            continue;
        }
        size_t slash = rest.find('/');
        parts.push_back(rest.substr(0, slash));
        rest = slash == std::string_view::npos ? std::string_view() : rest.substr(slash);
    }
    return parts;
}

SpaceNode* childNamed(SpaceNode& node, std::string_view name) {
    for (SpaceNode& child : node.children) {
        if (child.name == name) {
            return &child;
        }
    }
    return nullptr;
}

void absorbTotals(SpaceNode& into, const SpaceNode& from) {
    into.bytes = saturatingAdd(into.bytes, from.bytes);
    into.fileCount = saturatingAdd(into.fileCount, from.fileCount);
    into.latestChange = std::max(into.latestChange, from.latestChange);
    into.isComplete = into.isComplete && from.isComplete;
}

// Two items that walked parts of one folder: their sums add up and their children join.
void mergeNode(SpaceNode& into, SpaceNode&& from) {
    absorbTotals(into, from);
    into.otherCount = saturatingAdd(into.otherCount, from.otherCount);
    for (SpaceNode& child : from.children) {
        if (SpaceNode* same = childNamed(into, child.name)) {
            mergeNode(*same, std::move(child));
        } else {
            into.children.push_back(std::move(child));
        }
    }
}

void mergeItem(SpaceNode& root, const std::string& rootPath, ItemResult&& item) {
    std::vector<std::string_view> parts = componentsBelow(item.node.path, rootPath);
    if (parts.empty()) {
        mergeNode(root, std::move(item.node));
        return;
    }
    SpaceNode* node = &root;
    for (size_t i = 0; i < parts.size(); ++i) {
        absorbTotals(*node, item.node);
        SpaceNode* next = childNamed(*node, parts[i]);
        if (next == nullptr) {
            SpaceNode created;
            created.name = std::string(parts[i]);
            node->children.push_back(std::move(created));
            next = &node->children.back();
        }
        node = next;
    }
    mergeNode(*node, std::move(item.node));
}

// Takes `bytes` off every node from the root down to the deepest one at or above `path`.
void subtractAlong(SpaceNode& root, const std::string& rootPath, std::string_view path,
                   std::uint64_t bytes) {
    SpaceNode* node = &root;
    node->bytes = saturatingSub(node->bytes, bytes);
    for (std::string_view part : componentsBelow(path, rootPath)) {
        node = childNamed(*node, part);
        if (node == nullptr) {
            return;
        }
        node->bytes = saturatingSub(node->bytes, bytes);
    }
}

SpaceNode* nodeAt(SpaceNode& root, const std::string& rootPath, std::string_view path) {
    SpaceNode* node = &root;
    for (std::string_view part : componentsBelow(path, rootPath)) {
        node = childNamed(*node, part);
        if (node == nullptr) {
            return nullptr;
        }
    }
    return node;
}

struct Candidate {
    SpaceNode* node;
    const SpaceNode* parent;
    int depth;
};

void gatherCandidates(SpaceNode& node, int depth, std::uint64_t floor,
                      std::vector<Candidate>& out) {
    for (SpaceNode& child : node.children) {
        child.path = node.path == "/" ? "/" + child.name : node.path + "/" + child.name;
        if (child.bytes > 0 && child.bytes >= floor) {
            out.push_back({&child, &node, depth + 1});
        }
        gatherCandidates(child, depth + 1, floor, out);
    }
}

bool childBefore(const SpaceNode& a, const SpaceNode& b) noexcept {
    if (a.bytes != b.bytes) {
        return a.bytes > b.bytes;
    }
    return walkOrderLess(a.name, b.name);
}

// Keeps the chosen children, biggest first and at most `maxChildren`; the rest become "other".
void settle(SpaceNode& node, const std::unordered_set<const SpaceNode*>& chosen,
            size_t maxChildren) {
    std::uint64_t direct = node.otherCount;
    std::vector<SpaceNode> kept;
    for (SpaceNode& child : node.children) {
        if (chosen.count(&child) != 0) {
            kept.push_back(std::move(child));
        }
    }
    std::sort(kept.begin(), kept.end(), childBefore);
    if (kept.size() > maxChildren) {
        kept.resize(maxChildren);
    }
    std::uint64_t keptBytes = 0;
    for (SpaceNode& child : kept) {
        keptBytes = saturatingAdd(keptBytes, child.bytes);
    }
    node.children = std::move(kept);
    if (node.kind == SpaceNode::Kind::file) {
        node.otherBytes = node.otherCount = 0;
        node.isCollapsed = false;
        return;
    }
    node.otherBytes = saturatingSub(node.bytes, keptBytes);
    node.otherCount = saturatingSub(direct, node.children.size());
    node.isCollapsed = node.children.empty() && node.otherCount > 0;
    for (SpaceNode& child : node.children) {
        settle(child, chosen, maxChildren);
    }
}

std::uint64_t elapsedMs(Clock::time_point start) {
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
    return ms < 0 ? 0 : static_cast<std::uint64_t>(ms);
}

SpaceScanResult unreadableRoot(std::string_view given, const CleanerError& error,
                               Clock::time_point start) {
    SpaceScanResult result;
    std::string path(given);
    try {
        path = normalizePath(given);
    } catch (const CleanerError&) {
        // Shown as it was given.
    }
    result.tree.root.name = lastComponent(path);
    result.tree.root.path = path;
    result.tree.root.isComplete = false;
    std::string warning = "Cannot read " + path + ": " + error.what();
    result.tree.warnings.push_back(warning);
    result.openScan.warnings.push_back(warning);
    result.tree.durationMs = result.openScan.durationMs = elapsedMs(start);
    result.rootError = error;
    return result;
}

using Drained = SpaceTreeScanner::Drained;

// How many workers a scan starts with, and how many it may grow to while it waits on the disk.
struct WorkerPlan {
    unsigned initial = 1;
    unsigned limit = 1;
};

WorkerPlan workersFor(unsigned requested) {
    if (requested != 0) {
        return {requested, requested};
    }
    const unsigned cores = hardwareWorkers();
    // A cold disk answers many metadata requests at once far faster than one at a time, and a
    // worker waiting on it uses no processor: up to four workers a core, at most 64.
    return {cores, std::clamp(cores * 4, 8U, 64U)};
}

// Processor time this process has used so far.
std::chrono::microseconds processorTime() {
    rusage usage{};
    if (::getrusage(RUSAGE_SELF, &usage) != 0) {
        return {};
    }
    auto micros = [](const timeval& t) {
        return std::chrono::seconds(t.tv_sec) + std::chrono::microseconds(t.tv_usec);
    };
    return micros(usage.ru_utime) + micros(usage.ru_stime);
}

// Walks the queued items on worker threads while this thread publishes progress a few times a
// second, from counters the workers bump, until the queue has run dry. When the workers leave the
// processors idle while work waits, they are waiting on the disk, and more are started.
std::vector<std::unique_ptr<Walker>> runWorkers(ScanState& state, WorkerPlan plan,
                                                Clock::time_point start, double seconds) {
    std::vector<std::unique_ptr<Walker>> walkers;
    std::vector<std::exception_ptr> failures;
    std::vector<std::jthread> threads;
    std::mutex failureLock;
    auto launch = [&] {
        walkers.push_back(std::make_unique<Walker>(state));
        Walker& walker = *walkers.back();
        threads.emplace_back([&state, &walker, &failures, &failureLock] {
            try {
                walker.run();
            } catch (...) {
                {
                    std::lock_guard guard(failureLock);
                    failures.push_back(std::current_exception());
                }
                state.stop.requestStop();
                try {
                    walker.run(); // keep taking units so the queue can finish
                } catch (...) {
                }
            }
        });
    };
    walkers.reserve(plan.limit);
    threads.reserve(plan.limit);
    for (unsigned i = 0; i < plan.initial; ++i) {
        launch();
    }
    const unsigned cores = hardwareWorkers();
    auto lastCheck = Clock::now();
    auto lastProcessor = processorTime();
    double shown = 0;
    while (!state.queue.waitFinished(progressInterval)) {
        // Whichever says more: the share of the time budget used or of top-level items done.
        double byTime = seconds > 0 ? std::chrono::duration<double>(Clock::now() - start) /
                                          std::chrono::duration<double>(seconds)
                                    : 1.0;
        double byItems = state.topItemCount == 0 ? 0.0
                                                 : static_cast<double>(state.topItemsDone.load()) /
                                                       static_cast<double>(state.topItemCount);
        shown = std::max(shown, std::min(0.99, std::max(byTime, byItems)));
        if (state.progress != nullptr) {
            state.progress->setItems(state.entries.load(std::memory_order_relaxed));
            state.progress->setFraction(shown);
        }
        const auto now = Clock::now();
        const auto processor = processorTime();
        const double wall = std::chrono::duration<double>(now - lastCheck).count();
        const double busy = std::chrono::duration<double>(processor - lastProcessor).count();
        lastCheck = now;
        lastProcessor = processor;
        const auto running = static_cast<unsigned>(walkers.size());
        const double usable = static_cast<double>(std::min(running, cores));
        if (running < plan.limit && wall > 0 && busy < 0.5 * usable * wall &&
            !state.queue.wantsWork()) {
            // Work is waiting and the processors are not: double the workers, within the limit.
            for (unsigned add = std::min(running, plan.limit - running); add > 0; --add) {
                if (!state.queue.addWorker()) {
                    break;
                }
                launch();
            }
        }
    }
    threads.clear(); // joins
    if (!failures.empty()) {
        std::rethrow_exception(failures.front());
    }
    return walkers;
}

// Every worker's results in one place, by top-level index.
Drained drain(Walker& rootWalker, ItemResult rootItem,
              std::vector<std::unique_ptr<Walker>>& walkers, std::uint32_t topN) {
    Drained drained;
    drained.root = std::move(rootItem);
    drained.partial = std::move(rootWalker.partial);
    drained.mountPoints = std::move(rootWalker.mountPoints);
    drained.problems = std::move(rootWalker.problems);
    for (auto& walker : walkers) {
        drained.partial.merge(std::move(walker->partial), topN);
        for (ItemResult& item : walker->results) {
            drained.results[item.topIndex].push_back(std::move(item));
        }
        std::move(walker->cloneSightings.begin(), walker->cloneSightings.end(),
                  std::back_inserter(drained.sightings));
        std::move(walker->mountPoints.begin(), walker->mountPoints.end(),
                  std::back_inserter(drained.mountPoints));
        std::move(walker->problems.begin(), walker->problems.end(),
                  std::back_inserter(drained.problems));
    }
    return drained;
}

// What was counted in two places is taken off one: links that lost the file's bytes to an
// earlier path, and files that counted blocks a smaller file holds.
std::vector<SpaceCorrection> ledgerCorrections(ScanState& state, const Drained& drained) {
    std::vector<SpaceCorrection> corrections = state.hardlinks.takeCorrections();
    for (const CloneSighting& s : drained.sightings) {
        if (s.multiLink && state.hardlinks.carrierOf(s.file) != s.path) {
            continue; // this link lost all of its bytes: corrected above
        }
        std::uint64_t holds =
            saturatingSub(s.allocated, state.clones.foreignBytes(s.file, s.pieces));
        if (s.placed > holds) {
            corrections.push_back({s.path, s.placed - holds});
        }
    }
    return corrections;
}

// Biggest first (a folder before a child of the same size): a node is kept while its parent is
// kept with room for another child and the budget has room.
void chooseNodes(SpaceNode& tree, const SpaceScanOptions& options) {
    std::vector<Candidate> candidates;
    gatherCandidates(tree, 0, options.minimumNodeBytes, candidates);
    std::sort(candidates.begin(), candidates.end(), [](const Candidate& a, const Candidate& b) {
        if (a.node->bytes != b.node->bytes) {
            return a.node->bytes > b.node->bytes;
        }
        if (a.depth != b.depth) {
            return a.depth < b.depth;
        }
        return walkOrderLess(a.node->path, b.node->path);
    });
    SpaceRetention retention(static_cast<size_t>(std::max(options.nodeBudget, 0)),
                             options.minimumNodeBytes);
    const auto maxChildren = static_cast<size_t>(std::max(options.maxChildren, 0));
    std::unordered_map<const SpaceNode*, size_t> childrenKept{{&tree, 0}};
    std::unordered_set<const SpaceNode*> chosen;
    for (const Candidate& c : candidates) {
        auto parent = childrenKept.find(c.parent);
        if (parent == childrenKept.end() || parent->second >= maxChildren) {
            continue;
        }
        if (!retention.offer(c.node->bytes)) {
            break;
        }
        ++parent->second;
        childrenKept.emplace(c.node, 0);
        chosen.insert(c.node);
    }
    settle(tree, chosen, maxChildren);
}

std::vector<std::string> scanWarnings(const ScanState& state, Drained& drained) {
    std::vector<std::string> warnings;
    if (state.timedOut.load()) {
        warnings.push_back(
            "Scan stopped at the time limit — showing the biggest items found so far.");
    }
    if (state.tooDeep.load()) {
        warnings.push_back("Scan skipped folders nested deeper than " +
                           std::to_string(SpaceTreeScanner::maxNestingDepth) + " levels");
    }
    std::sort(drained.mountPoints.begin(), drained.mountPoints.end(), walkOrderLess);
    for (const std::string& mount : drained.mountPoints) {
        warnings.push_back("Scan didn't enter " + mount + ": another disk is mounted there");
    }
    std::vector<std::string>& problems = drained.problems;
    std::sort(problems.begin(), problems.end());
    for (size_t i = 0; i < problems.size() && i < maxProblemWarnings; ++i) {
        warnings.push_back(problems[i] + " — counted what could be read.");
    }
    if (problems.size() > maxProblemWarnings) {
        warnings.push_back("…and " + formatCount(problems.size() - maxProblemWarnings) +
                           " more folders that could not be read in full.");
    }
    return warnings;
}

} // namespace

SpaceScanResult SpaceTreeScanner::scan(std::string_view rootArgument, const std::stop_token& stop,
                                       OperationProgress* progress) {
    const Clock::time_point start = Clock::now();
    const double seconds = std::max(effectiveBudget(), 0.0);
    statistics_ = {};
    raiseOpenFileLimit();
    throwIfStopped(stop);
    OpenRoot root;
    try {
        root = openRoot(rootArgument);
    } catch (const CleanerError& error) {
        return unreadableRoot(rootArgument, error, start);
    }
    // The root stays open while the workers open the top-level folders relative to it.
    UniqueFd rootFd(::dup(root.fd.get()));
    if (!rootFd) {
        return unreadableRoot(
            rootArgument, makeCoreError(operation::duplicatingDirectory, root.path, errno), start);
    }

    const WorkerPlan plan = workersFor(workerCount);
    ScanState state(*this, plan.initial, stop);
    state.deadline = start + std::chrono::duration_cast<Clock::duration>(
                                 std::chrono::duration<double>(std::min(seconds, 1e9)));
    state.rootPath = root.path;
    state.rootFd = rootFd.get();
    state.rootDevice = static_cast<std::uint64_t>(root.st.st_dev);
    state.askClones = platform::mayShareBlocks(root.fd.get(), state.rootDevice);
    state.home = homeDirectory();
    state.progress = progress;
    if (progress != nullptr) {
        progress->setPhase("Scanning");
        progress->setItems(0);
        progress->setFraction(0);
    }

    // ---- the root's own listing, then its folders on the workers --------------------------
    Walker rootWalker(state);
    std::vector<WorkUnit> topLevel;
    ItemResult rootItem = rootWalker.walkRoot(std::move(root.fd), root.path, topLevel);
    throwIfStopped(stop);
    state.topItemCount = topLevel.size();
    for (WorkUnit& unit : topLevel) {
        state.queue.push(std::move(unit));
    }
    std::vector<std::unique_ptr<Walker>> walkers = runWorkers(state, plan, start, seconds);
    throwIfStopped(stop);
    statistics_.workers = static_cast<unsigned>(walkers.size());
    statistics_.workItems = state.workItems.load();
    statistics_.splits = state.splits.load();
    Drained drained = drain(rootWalker, std::move(rootItem), walkers, options.findings.topN);

    // ---- one tree, merged by path, with the ledgers' corrections --------------------------
    SpaceNode tree = std::move(drained.root.node);
    tree.name = lastComponent(root.path);
    tree.path = root.path;
    std::vector<std::string> sharedFolders{root.path};
    for (auto& [index, items] : drained.results) {
        for (ItemResult& item : items) {
            sharedFolders.insert(sharedFolders.end(), item.sharedFolders.begin(),
                                 item.sharedFolders.end());
            mergeItem(tree, root.path, std::move(item));
        }
    }
    for (const SpaceCorrection& c : ledgerCorrections(state, drained)) {
        subtractAlong(tree, root.path, c.path, c.bytes);
        drained.partial.correct(c.path, c.bytes);
    }
    // Folders several items shared, and the root, get their findings and news now that they
    // are whole.
    std::sort(sharedFolders.begin(), sharedFolders.end());
    sharedFolders.erase(std::unique(sharedFolders.begin(), sharedFolders.end()),
                        sharedFolders.end());
    for (const std::string& path : sharedFolders) {
        const SpaceNode* node = nodeAt(tree, root.path, path);
        if (node == nullptr) {
            continue;
        }
        const auto depth = static_cast<std::uint32_t>(componentsBelow(path, root.path).size());
        if (node->bytes > 0 && node->bytes >= options.findings.minNodeBytes &&
            depth <= options.findings.maxTreeDepth &&
            findingAllowed(path, state.home, distribution, options.findings)) {
            drained.partial.directoryTotals.insert_or_assign(
                path, Finding{path, node->bytes, true, node->fileCount, node->latestChange});
        }
        if (depth > 0 && node->bytes >= streamMinimumBytes) {
            state.streamBig(path, node->bytes);
        }
    }
    chooseNodes(tree, options);

    SpaceScanResult result;
    std::vector<std::string> warnings = scanWarnings(state, drained);
    const std::uint64_t duration = elapsedMs(start);
    const std::uint64_t examined = drained.partial.nodeCount;
    result.tree.root = std::move(tree);
    result.tree.isTruncated = state.timedOut.load();
    result.tree.warnings = warnings;
    result.tree.scannedNodeCount = examined;
    result.tree.durationMs = duration;
    result.openScan.totalPhysicalBytes = result.tree.root.bytes;
    result.openScan.cloneSharedBytes = state.clones.sharedBytes();
    result.openScan.topFindings =
        selectTopFindings(drained.partial, root.path, state.home, distribution, options.findings);
    result.openScan.scannedNodeCount = examined;
    result.openScan.warnings = std::move(warnings);
    result.openScan.durationMs = duration;
    if (progress != nullptr) {
        progress->setItems(examined);
        progress->setPhase("Scan complete");
        progress->setFraction(1.0);
    }
    return result;
}

} // namespace sd
