#pragma once

#include "base/CleanerError.h"
#include "base/Descriptors.h"
#include "base/PathText.h"
#include "base/Progress.h"
#include "base/UniqueFd.h"
#include "platform/DirectoryReader.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <concepts>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <utility>
#include <vector>

// The one directory walk. Every reader of a tree (measuring, the space scan, the review searches,
// the vault's look inside an item, the clean planner, removal of fixture roots) is a visitor of
// it: the walk keeps a stack of open folders, reads each folder once, stats each entry relative
// to its open folder without following links, opens a folder only through openVerifiedChild (the
// folder that opened must be the one listed: device, inode and type), and asks the visitor what
// to do. It never recurses, never resolves a path string again once its parent is open, and
// looks at its stop token before every entry.
namespace sd {

inline constexpr int maxWalkDepth = 256;

// What a visitor answers for an entry: open this folder and walk it, pass it over, or end the
// whole walk. For anything that is not a folder `enter` is the same as `skip`.
enum class WalkStep { enter, skip, stop };

// The order entries come in: sorted by name, so that a walk is the same every time (fingerprints,
// reports), or as the file system lists them, which is faster where only sums matter.
enum class WalkOrder { byName, asListed };

enum class WalkEnd { finished, stopped, cancelled, timedOut };

struct WalkOptions {
    WalkOrder order = WalkOrder::byName;
    // When false, what the listing itself names a link, pipe, socket or device is passed over
    // without a stat: the visitor sees only files and folders (and entries of unknown kind).
    bool specialEntries = true;
    // When true, a name that is not UTF-8 is a problem for the visitor, never an entry.
    bool utf8Names = false;
    // A visitor that asks to enter a folder deeper than this meets "Traversal depth limit".
    int maxDepth = maxWalkDepth;
    std::stop_token stop;
    std::optional<std::chrono::steady_clock::time_point> deadline;
    // Counts entries as they are examined and shows the folder being read, in batches.
    OperationProgress* progress = nullptr;
};

// One entry of an open folder: the listing's name and a no-follow stat taken relative to the
// open folder. Valid only during the visitor's call.
class WalkEntry {
public:
    int folderFd = -1; // the open folder that holds it
    const char* name = nullptr;
    const struct stat* st = nullptr;
    int depth = 0; // 1 for the entries of the walk's root

    const struct stat& stat() const noexcept { return *st; }
    // The entry's full path, built on first use in a buffer the walk reuses.
    const std::string& path() const {
        if (!built_) {
            scratch_->assign(*folderPath_, 0, folderLength_);
            if (folderLength_ != 1 || (*folderPath_)[0] != '/') {
                scratch_->push_back('/');
            }
            scratch_->append(name);
            built_ = true;
        }
        return *scratch_;
    }
    std::string_view folderPath() const noexcept {
        return std::string_view(*folderPath_).substr(0, folderLength_);
    }

private:
    template <typename> friend class TreeWalk;
    const std::string* folderPath_ = nullptr;
    size_t folderLength_ = 0;
    std::string* scratch_ = nullptr;
    mutable bool built_ = false;
};

// How a folder's walk ended, told to the visitor as the folder is closed.
struct WalkExit {
    int fd = -1; // still open during the call
    std::string_view path;
    int depth = 0;
    bool complete = true; // read to its end; false when the walk ended before or reading failed
};

// The listing of one open folder, read in one of the two orders. Movable, so the unread rest of a
// folder can be handed to another worker.
class FolderListing {
public:
    FolderListing() = default;
    FolderListing(UniqueFd fd, WalkOrder order, std::unique_ptr<char[]> buffer);
    FolderListing(FolderListing&&) noexcept = default;
    FolderListing& operator=(FolderListing&&) noexcept = default;

    int fd() const noexcept { return stream_.fd(); }
    bool isOpen() const noexcept { return stream_.isOpen(); }
    // False at the end or when reading failed; failure() tells the two apart.
    bool next(platform::DirectoryEntry& entry);
    bool ended() const noexcept;
    const platform::DirectoryReadFailure& failure() const noexcept { return stream_.failure(); }
    // Closes the folder and hands back the buffer for the next listing.
    std::unique_ptr<char[]> close() noexcept;

    static constexpr size_t bufferBytes = 32 * 1024;

private:
    struct Named {
        std::string name;
        platform::EntryKind kind;
        std::uint64_t inode;
    };
    void readAllSorted();

    platform::DirectoryStream stream_;
    WalkOrder order_ = WalkOrder::asListed;
    bool sorted_ = false;
    std::vector<Named> names_;
    size_t at_ = 0;
};

// The unread rest of a folder, given by one walker to another.
struct WalkUnit {
    FolderListing listing;
    std::string path;
    int depth = 0;
};

// The walk over one root folder. `Visitor` provides:
//   struct Folder;                                   state kept for each open folder
//   WalkStep visit(Folder& in, const WalkEntry& e);  every entry
//   void enter(Folder& child, Folder& in, const WalkEntry& e);
//                                                    a folder was opened; `child` is a reused
//                                                    object to be set up afresh
//   void leave(Folder& folder, Folder* parent, const WalkExit& exit);
//                                                    a folder is closed (parent null at the root)
//   WalkStep problem(Folder& in, const std::string& path, const CleanerError& error);
//                                                    an entry or folder could not be read; skip
//                                                    carries on, stop ends the walk, or throw
// and, to share work with other walkers, optionally:
//   bool wantsShare() const;              asked before every entry
//   bool canShare(const Folder&) const;   whether this open folder's unread rest may go
//   void share(Folder& folder, WalkUnit unit);
// An entry that vanished between listing and reading is passed over in silence.
template <typename Visitor> class TreeWalk {
public:
    using Folder = typename Visitor::Folder;

    TreeWalk(Visitor& visitor, WalkOptions options)
        : visitor_(visitor), options_(std::move(options)) {}

    // Walks the open folder `fd` at `path`, which is at `depth` below whatever the caller counts
    // from, with `root` as its state.
    WalkEnd run(Folder& root, UniqueFd fd, std::string_view path, int depth = 0) {
        return run(root, WalkUnit{FolderListing(std::move(fd), options_.order, takeBuffer()),
                                  std::string(path), depth});
    }

    // Carries on with the unread rest of a folder another walker started.
    WalkEnd run(Folder& root, WalkUnit unit) {
        path_.assign(unit.path);
        top_ = 0;
        rootFolder_ = &root;
        Frame& frame = push(unit.path.size(), unit.depth);
        frame.listing = std::move(unit.listing);
        return loop();
    }

    // Entries examined by this walk so far, across runs.
    std::uint64_t examined() const noexcept { return examined_; }

private:
    struct Frame {
        FolderListing listing;
        size_t pathLength = 0;
        int depth = 0;
        bool given = false; // its unread rest went to another walker
        Folder folder{};
    };

    Folder& folderAt(size_t index) { return index == 0 ? *rootFolder_ : frames_[index].folder; }

    Frame& push(size_t pathLength, int depth) {
        if (top_ == frames_.size()) {
            frames_.emplace_back();
        }
        Frame& frame = frames_[top_++];
        frame.pathLength = pathLength;
        frame.depth = depth;
        frame.given = false;
        return frame;
    }

    std::unique_ptr<char[]> takeBuffer() {
        if (buffers_.empty()) {
            return std::unique_ptr<char[]>(new char[FolderListing::bufferBytes]);
        }
        std::unique_ptr<char[]> buffer = std::move(buffers_.back());
        buffers_.pop_back();
        return buffer;
    }

    void pop(bool complete) {
        Frame& frame = frames_[top_ - 1];
        const std::string_view path = std::string_view(path_).substr(0, frame.pathLength);
        const platform::DirectoryReadFailure failure = frame.listing.failure();
        bool whole = complete;
        if (!frame.given && !failure.operation.empty()) {
            whole = false;
            if (visitor_.problem(folderAt(top_ - 1), std::string(path),
                                 makeCoreError(failure.operation, path, failure.error)) ==
                WalkStep::stop) {
                stopRequested_ = true;
            }
        }
        Folder* parent = top_ >= 2 ? &folderAt(top_ - 2) : nullptr;
        visitor_.leave(folderAt(top_ - 1), parent,
                       WalkExit{frame.listing.fd(), path, frame.depth, whole});
        if (std::unique_ptr<char[]> buffer = frame.listing.close()) {
            buffers_.push_back(std::move(buffer));
        }
        --top_;
    }

    void unwind() {
        while (top_ > 0) {
            pop(false);
        }
    }

    void flushProgress() {
        if (options_.progress != nullptr && unflushed_ > 0) {
            options_.progress->addItems(unflushed_);
            if (top_ > 0) {
                options_.progress->setCurrentPath(
                    std::string_view(path_).substr(0, frames_[top_ - 1].pathLength));
            }
        }
        unflushed_ = 0;
    }

    // Gives the unread rest of the shallowest folder that is not the one being read to another
    // walker. The folder being read is never given away whole, or two walkers would pass one flat
    // folder back and forth an entry at a time.
    void shareWork() {
        if constexpr (requires(Visitor & v, Folder & f, WalkUnit u) {
                          { v.wantsShare() } -> std::convertible_to<bool>;
                          { v.canShare(f) } -> std::convertible_to<bool>;
                          v.share(f, std::move(u));
                      }) {
            if (!visitor_.wantsShare()) {
                return;
            }
            for (size_t i = 0; i + 1 < top_; ++i) {
                Frame& frame = frames_[i];
                if (frame.given || frame.listing.ended() || !frame.listing.isOpen() ||
                    !visitor_.canShare(folderAt(i))) {
                    continue;
                }
                WalkUnit unit{std::move(frame.listing), std::string(path_, 0, frame.pathLength),
                              frame.depth};
                frame.given = true;
                visitor_.share(folderAt(i), std::move(unit));
                return;
            }
        }
    }

    WalkEnd loop() {
        platform::DirectoryEntry listed;
        struct stat st {};
        WalkEntry entry;
        entry.folderPath_ = &path_;
        entry.scratch_ = &scratch_;
        entry.st = &st;
        WalkEnd end = WalkEnd::finished;
        while (top_ > 0) {
            if (stopRequested_) {
                end = WalkEnd::stopped;
                break;
            }
            if (options_.stop.stop_requested()) {
                end = WalkEnd::cancelled;
                break;
            }
            if (options_.deadline && (examined_ & 15U) == 0 &&
                std::chrono::steady_clock::now() >= *options_.deadline) {
                end = WalkEnd::timedOut;
                break;
            }
            shareWork();
            Frame& frame = frames_[top_ - 1];
            if (frame.given || !frame.listing.next(listed)) {
                pop(true);
                continue;
            }
            ++examined_;
            if (++unflushed_ == 256) {
                flushProgress();
            }
            if (!options_.specialEntries && (listed.kind == platform::EntryKind::symlink ||
                                             listed.kind == platform::EntryKind::other)) {
                continue;
            }
            entry.folderFd = frame.listing.fd();
            entry.name = listed.name;
            entry.depth = frame.depth + 1;
            entry.folderLength_ = frame.pathLength;
            entry.built_ = false;
            const size_t index = top_ - 1;
            if (options_.utf8Names && !isUtf8(listed.name)) {
                if (report(index, std::string(entry.folderPath()),
                           CleanerError::safety(
                               "Directory contains a filename that is not valid UTF-8: " +
                               std::string(entry.folderPath())))) {
                    continue;
                }
                end = WalkEnd::stopped;
                break;
            }
            if (::fstatat(entry.folderFd, listed.name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
                if (errno == ENOENT) {
                    continue;
                }
                int error = errno;
                if (report(index, entry.path(),
                           makeCoreError(operation::readingMetadata, entry.path(), error))) {
                    continue;
                }
                end = WalkEnd::stopped;
                break;
            }
            WalkStep step = visitor_.visit(folderAt(index), entry);
            if (step == WalkStep::stop) {
                end = WalkEnd::stopped;
                break;
            }
            if (step == WalkStep::skip || !S_ISDIR(st.st_mode)) {
                continue;
            }
            if (entry.depth > options_.maxDepth) {
                if (report(index, entry.path(),
                           CleanerError::safety("Traversal depth limit: " + entry.path()))) {
                    continue;
                }
                end = WalkEnd::stopped;
                break;
            }
            VerifiedChild child =
                openVerifiedChild(entry.folderFd, listed.name, entry.path(), st, listingOpenFlags);
            if (child.outcome == ChildOpening::vanished) {
                continue;
            }
            if (child.outcome != ChildOpening::opened) {
                if (report(index, entry.path(), childOpeningError(child, entry.path()))) {
                    continue;
                }
                end = WalkEnd::stopped;
                break;
            }
            // The child's path is the entry's; `frame` may be moved by push from here on.
            path_.resize(frames_[index].pathLength);
            if (path_.size() != 1 || path_[0] != '/') {
                path_.push_back('/');
            }
            path_.append(listed.name);
            Frame& next = push(path_.size(), entry.depth);
            next.listing = FolderListing(std::move(child.fd), options_.order, takeBuffer());
            visitor_.enter(next.folder, folderAt(index), entry);
        }
        flushProgress();
        if (top_ > 0) {
            unwind();
        }
        return end;
    }

    // Hands a problem to the visitor; true when the walk carries on.
    bool report(size_t index, const std::string& path, const CleanerError& error) {
        return visitor_.problem(folderAt(index), path, error) != WalkStep::stop;
    }

    Visitor& visitor_;
    WalkOptions options_;
    std::deque<Frame> frames_; // reused between runs; references stay valid as it grows
    size_t top_ = 0;
    Folder* rootFolder_ = nullptr;
    std::string path_;
    std::string scratch_;
    std::vector<std::unique_ptr<char[]>> buffers_;
    std::uint64_t examined_ = 0;
    std::uint64_t unflushed_ = 0;
    bool stopRequested_ = false;
};

// The common case: a walk of one open folder with a visitor, run to its end.
template <typename Visitor>
WalkEnd walkFolder(Visitor& visitor, typename Visitor::Folder& root, UniqueFd fd,
                   std::string_view path, WalkOptions options, int depth = 0) {
    TreeWalk<Visitor> walk(visitor, std::move(options));
    return walk.run(root, std::move(fd), path, depth);
}

} // namespace sd
