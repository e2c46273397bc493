#include "core/CoreFileSystem.h"

#include "base/CleanerError.h"
#include "base/Descriptors.h"
#include "base/OpenFlags.h"
#include "base/PathText.h"
#include "base/Saturating.h"
#include "base/Stop.h"
#include "core/MockRoots.h"
#include "core/PathRules.h"
#include "platform/CloneAttributes.h"
#include "platform/DirectoryReader.h"
#include "platform/FileSystemExtras.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <fnmatch.h>
#include <limits>
#include <unistd.h>

namespace sd {
namespace {

// A component with an unescaped "*", "?" or "[", or ending in a lone backslash, is matched
// against the directory's listing; any other is opened by name.
bool isPatternComponent(std::string_view component) noexcept {
    for (size_t i = 0; i < component.size(); ++i) {
        char c = component[i];
        if (c == '\\') {
            if (i + 1 == component.size()) {
                return true;
            }
            ++i;
        } else if (c == '*' || c == '?' || c == '[') {
            return true;
        }
    }
    return false;
}

std::string unescapeComponent(std::string_view component) {
    std::string out;
    out.reserve(component.size());
    for (size_t i = 0; i < component.size(); ++i) {
        if (component[i] == '\\' && i + 1 < component.size()) {
            ++i;
        }
        out.push_back(component[i]);
    }
    return out;
}

bool isInsideScope(std::string_view path) {
    const std::string& home = homeDirectory();
    return (!home.empty() && isInside(path, home)) || MockRoots::owns(path);
}

std::uint64_t saturatingSize(off_t size) {
    return size < 0 ? 0 : static_cast<std::uint64_t>(size);
}

} // namespace

std::vector<std::string> listDirectory(int fd, std::string_view path, const std::stop_token& stop) {
    throwIfStopped(stop);
    std::vector<std::string> names;
    platform::DirectoryReadFailure failure = platform::readDirectoryNames(fd, names);
    if (!failure.operation.empty()) {
        throw makeCoreError(failure.operation, path, failure.error);
    }
    for (const std::string& name : names) {
        if (!isUtf8(name)) {
            throw CleanerError::safety("Directory contains a filename that is not valid UTF-8: " +
                                       std::string(path));
        }
    }
    throwIfStopped(stop);
    std::sort(names.begin(), names.end());
    return names;
}

void refuseSymlink(std::string_view path) {
    std::optional<ParentHandle> parent = openParent(path);
    if (!parent) {
        return;
    }
    std::optional<struct stat> st = statEntry(parent->fd.get(), parent->name.c_str(), path);
    if (st && S_ISLNK(st->st_mode)) {
        throw CleanerError::safety("Symlinks are not allowed: " + std::string(path));
    }
}

std::optional<FileSample> readCloneAttributes(int parentFd, const char* name, std::string_view path,
                                              const EntryIdentity& expected,
                                              const struct stat& st) {
    std::string pathText(path);
    platform::CloneReading reading = platform::readCloneAttributes(parentFd, name, pathText, st);
    if (reading.vanished) {
        return std::nullopt;
    }
    FileSample sample;
    sample.device = expected.device;
    sample.inode = expected.inode;
    sample.linkCount = st.st_nlink == 0 ? 1 : static_cast<std::uint64_t>(st.st_nlink);
    sample.allocatedBytes = allocatedBytesOf(st);
    sample.privateBytes = sample.allocatedBytes;
    if (!reading.device || !reading.inode) {
        return sample; // nothing returned: the file counts as wholly its own
    }
    if (*reading.device != expected.device || *reading.inode != expected.inode) {
        throw CleanerError::safety("Entry changed during measurement: " + pathText);
    }
    if (reading.privateBytes) {
        sample.privateBytes = std::min(*reading.privateBytes, sample.allocatedBytes);
    }
    if (reading.cloneId) {
        sample.cloneID = reading.cloneId;
        if (reading.cloneReferences) {
            sample.cloneReferences = *reading.cloneReferences == 0 ? 1 : *reading.cloneReferences;
        }
    }
    return sample;
}

std::vector<ResolvedRoot> resolveRoots(std::string_view pathTemplate,
                                       std::optional<std::string_view> relativeGlob,
                                       std::vector<std::string>& warnings,
                                       const std::stop_token& stop) {
    throwIfStopped(stop);
    std::string expanded;
    if (pathTemplate == "~") {
        expanded = homeDirectory();
    } else if (pathTemplate.starts_with("~/")) {
        expanded = homeDirectory() + std::string(pathTemplate.substr(1));
    } else {
        expanded = pathTemplate;
    }
    if (relativeGlob) {
        std::vector<std::string_view> globParts = splitComponents(*relativeGlob);
        bool dotted = std::any_of(globParts.begin(), globParts.end(),
                                  [](std::string_view c) { return c == "." || c == ".."; });
        if (relativeGlob->starts_with("/") || dotted) {
            warnings.push_back("Rejected invalid relative glob: " + std::string(*relativeGlob));
            return {};
        }
        expanded.append("/").append(*relativeGlob);
    }
    if (expanded.empty() || expanded.front() != '/' || !isInsideScope(expanded)) {
        warnings.push_back("Skipped path outside the user home and owned mock roots: " + expanded);
        return {};
    }
    std::vector<std::string_view> components = splitComponents(expanded);
    if (components.size() > maxRootComponents) {
        warnings.push_back("Root resolution depth limit (256 components): " + expanded);
        return {};
    }
    if (components.empty()) {
        throw CleanerError::safety("The filesystem root cannot be operated on");
    }

    auto flagsBefore = [&](size_t index) {
        // A directory whose next component is a pattern must be listed, not only searched.
        return index < components.size() && isPatternComponent(components[index]) ? listingOpenFlags
                                                                                  : searchOpenFlags;
    };
    UniqueFd rootFd(::open("/", flagsBefore(0)));
    if (!rootFd) {
        throw makeCoreError(operation::opening, "/", errno);
    }

    struct Branch {
        UniqueFd fd;
        std::string path;
        size_t index;
    };
    std::vector<ResolvedRoot> roots;
    std::vector<Branch> pending;
    pending.push_back({std::move(rootFd), "/", 0});

    // Follows one entry of `branch` that is known to exist; returns the branch to continue with,
    // or records a root when this was the last component.
    auto follow = [&](Branch& branch, const std::string& name, const struct stat& st,
                      std::vector<Branch>& out) {
        std::string path = childPath(branch.path, name);
        size_t next = branch.index + 1;
        if (next == components.size()) {
            roots.push_back(
                {path, EntryIdentity::of(st), static_cast<mode_t>(st.st_mode & S_IFMT)});
            return;
        }
        if (!S_ISDIR(st.st_mode)) {
            return; // a file where a folder was expected ends this branch
        }
        UniqueFd fd = openListedFolder(branch.fd.get(), name.c_str(), path, st, flagsBefore(next));
        if (fd) {
            out.push_back({std::move(fd), std::move(path), next});
        }
    };

    while (!pending.empty()) {
        throwIfStopped(stop);
        Branch branch = std::move(pending.back());
        pending.pop_back();
        if (branch.index == components.size()) {
            continue;
        }
        std::string_view component = components[branch.index];
        if (component == "..") {
            continue;
        }
        if (component == ".") {
            if (branch.index + 1 == components.size()) {
                struct stat st {};
                if (::fstat(branch.fd.get(), &st) == 0) {
                    roots.push_back({branch.path, EntryIdentity::of(st), S_IFDIR});
                }
                continue;
            }
            ++branch.index;
            pending.push_back(std::move(branch));
            continue;
        }
        std::vector<Branch> children;
        if (isPatternComponent(component)) {
            std::string pattern(component);
            for (const std::string& name : listDirectory(branch.fd.get(), branch.path, stop)) {
                if (::fnmatch(pattern.c_str(), name.c_str(), FNM_PERIOD) != 0) {
                    continue;
                }
                std::string path = childPath(branch.path, name);
                std::optional<struct stat> st = statEntry(branch.fd.get(), name.c_str(), path);
                if (!st || S_ISLNK(st->st_mode)) {
                    continue; // a link among the matches is never followed
                }
                follow(branch, name, *st, children);
            }
        } else {
            std::string name = unescapeComponent(component);
            std::string path = childPath(branch.path, name);
            std::optional<struct stat> st = statEntry(branch.fd.get(), name.c_str(), path);
            if (!st) {
                continue;
            }
            if (S_ISLNK(st->st_mode)) {
                throw CleanerError::safety("Symlinks are not allowed: " + path);
            }
            follow(branch, name, *st, children);
        }
        // Depth first, in name order: the first match is taken next.
        for (auto it = children.rbegin(); it != children.rend(); ++it) {
            pending.push_back(std::move(*it));
        }
    }
    return roots;
}

namespace {

// Opens the folder at `path` that `st` (its no-follow stat from `parent`) describes.
UniqueFd openRootFolder(const ParentHandle& parent, std::string_view path, const struct stat& st) {
    return openListedFolder(parent.fd.get(), parent.name.c_str(), path, st);
}

// What measuring a tree adds up: allocated bytes with hard links once, what removing it would
// free, and its counts.
class FootprintVisitor {
public:
    struct Folder {};

    FootprintVisitor(Footprint& footprint, FootprintTally& tally,
                     std::vector<std::string>& warnings, std::uint64_t rootDevice, bool askClones,
                     OperationProgress* progress)
        : footprint_(footprint), tally_(tally), warnings_(warnings), rootDevice_(rootDevice),
          askClones_(askClones), progress_(progress) {}

    // One regular file; `path` is only read when the file system must be asked about clones.
    template <typename PathOf>
    void countFile(int dirFd, const char* name, const struct stat& st, PathOf&& path) {
        footprint_.fileCount = saturatingAdd(footprint_.fileCount, 1);
        if (tally_.ledger.countOnce(st)) {
            footprint_.allocatedBytes =
                saturatingAdd(footprint_.allocatedBytes, allocatedBytesOf(st));
            if (progress_ != nullptr) {
                progress_->setBytes(footprint_.allocatedBytes);
            }
        }
        EntryIdentity identity = EntryIdentity::of(st);
        if (askClones_) {
            if (auto sample = readCloneAttributes(dirFd, name, path(), identity, st)) {
                tally_.freeable.add(*sample);
            }
            return;
        }
        FileSample sample;
        sample.device = identity.device;
        sample.inode = identity.inode;
        sample.linkCount = st.st_nlink == 0 ? 1 : static_cast<std::uint64_t>(st.st_nlink);
        sample.allocatedBytes = allocatedBytesOf(st);
        sample.privateBytes = sample.allocatedBytes;
        tally_.freeable.add(sample);
    }

    WalkStep visit(Folder&, const WalkEntry& entry) {
        const struct stat& st = entry.stat();
        if (S_ISREG(st.st_mode)) {
            countFile(entry.folderFd, entry.name, st,
                      [&]() -> const std::string& { return entry.path(); });
            return WalkStep::skip;
        }
        if (!S_ISDIR(st.st_mode)) {
            return WalkStep::skip; // links are not followed; devices and pipes hold no blocks
        }
        if (static_cast<std::uint64_t>(st.st_dev) != rootDevice_) {
            warnings_.push_back("Skipped mounted filesystem: " + entry.path());
            return WalkStep::skip;
        }
        if (entry.depth >= maxWalkDepth) {
            warnings_.push_back("Traversal depth limit: " + entry.path());
            return WalkStep::skip;
        }
        return WalkStep::enter;
    }
    void enter(Folder&, Folder&, const WalkEntry&) {
        footprint_.directoryCount = saturatingAdd(footprint_.directoryCount, 1);
    }
    void leave(Folder&, Folder*, const WalkExit&) {}
    WalkStep problem(Folder&, const std::string&, const CleanerError& error) {
        // A name the system cannot show is left out with its sentence, like a mounted disk;
        // anything else makes the sum untrustworthy.
        if (error.kind() == CleanerError::Kind::safetyViolation &&
            std::string_view(error.what()).starts_with("Directory contains a filename")) {
            warnings_.push_back(error.what());
            return WalkStep::skip;
        }
        throw error;
    }

private:
    Footprint& footprint_;
    FootprintTally& tally_;
    std::vector<std::string>& warnings_;
    std::uint64_t rootDevice_;
    bool askClones_;
    OperationProgress* progress_;
};

} // namespace

Footprint measureFootprint(std::string_view path, std::optional<EntryIdentity> expected,
                           std::vector<std::string>& warnings, FootprintTally& tally,
                           const std::stop_token& stop, OperationProgress* progress) {
    throwIfStopped(stop);
    Footprint footprint;
    std::optional<ParentHandle> parent = openParent(path);
    std::optional<struct stat> rootStat;
    if (parent) {
        rootStat = statEntry(parent->fd.get(), parent->name.c_str(), path);
    }
    if (!rootStat) {
        footprint.vanished = true;
        return footprint;
    }
    if (S_ISLNK(rootStat->st_mode)) {
        return footprint;
    }
    if (expected && *expected != EntryIdentity::of(*rootStat)) {
        throw CleanerError::safety("Changed since it was measured: " + std::string(path));
    }
    const std::string pathText(path);
    const auto rootDevice = static_cast<std::uint64_t>(rootStat->st_dev);
    if (S_ISREG(rootStat->st_mode)) {
        // Whether to ask about shared blocks is a question for the file system the entry lives
        // on; for a file that is its folder's.
        FootprintVisitor visitor(footprint, tally, warnings, rootDevice,
                                 platform::mayShareBlocks(parent->fd.get(), rootDevice), progress);
        visitor.countFile(parent->fd.get(), parent->name.c_str(), *rootStat,
                          [&]() -> const std::string& { return pathText; });
        return footprint;
    }
    if (!S_ISDIR(rootStat->st_mode)) {
        return footprint;
    }
    UniqueFd rootFd = openRootFolder(*parent, pathText, *rootStat);
    if (!rootFd) {
        footprint.vanished = true;
        return footprint;
    }
    parent.reset();
    // A mount point's own file system decides, not its parent folder's: asked of the root itself.
    FootprintVisitor visitor(footprint, tally, warnings, rootDevice,
                             platform::mayShareBlocks(rootFd.get(), rootDevice), progress);
    footprint.directoryCount = 1;
    FootprintVisitor::Folder root;
    WalkOptions options;
    options.order = WalkOrder::asListed; // sums do not depend on the order
    options.specialEntries = false;      // links, pipes and devices hold no blocks
    options.utf8Names = true;
    options.stop = stop;
    options.progress = progress;
    if (walkFolder(visitor, root, std::move(rootFd), pathText, options) == WalkEnd::cancelled) {
        throw CleanerError::cancelled();
    }
    return footprint;
}

namespace {

// A measured tree of nodes, each folder's sums folded from its children as it closes.
class InventoryVisitor {
public:
    struct Folder {
        InventoryNode node;
        bool sawChild = false;
    };

    InventoryVisitor(HardlinkLedger& ledger, std::chrono::steady_clock::time_point deadline)
        : ledger_(ledger), deadline_(deadline) {}

    InventoryNode leaf(std::string name, std::string path, const struct stat& st) const {
        InventoryNode node;
        node.name = std::move(name);
        node.path = std::move(path);
        node.physicalBytes = ledger_.countOnce(st) ? allocatedBytesOf(st) : 0;
        node.logicalBytes = saturatingSize(st.st_size);
        node.fileCount = 1;
        node.newest = node.oldest = platform::modifiedTime(st).sec;
        return node;
    }
    static InventoryNode cutOff(std::string name, std::string path) {
        InventoryNode node;
        node.name = std::move(name);
        node.path = std::move(path);
        node.isDirectory = true;
        node.isComplete = false;
        return node;
    }
    bool stopsHere(int depth) const {
        return depth > maxWalkDepth || std::chrono::steady_clock::now() >= deadline_;
    }

    // Folds a finished child into its parent's sums.
    static void absorb(Folder& parent, InventoryNode child) {
        InventoryNode& node = parent.node;
        node.physicalBytes = saturatingAdd(node.physicalBytes, child.physicalBytes);
        node.logicalBytes = saturatingAdd(node.logicalBytes, child.logicalBytes);
        node.fileCount = saturatingAdd(node.fileCount, child.fileCount);
        if (child.fileCount > 0 || !child.isDirectory) {
            node.newest = parent.sawChild ? std::max(node.newest, child.newest) : child.newest;
            node.oldest = parent.sawChild ? std::min(node.oldest, child.oldest) : child.oldest;
            parent.sawChild = true;
        }
        node.isComplete = node.isComplete && child.isComplete;
        node.children.push_back(std::move(child));
    }

    WalkStep visit(Folder& in, const WalkEntry& entry) {
        const struct stat& st = entry.stat();
        if (S_ISREG(st.st_mode)) {
            absorb(in, leaf(entry.name, entry.path(), st));
            return WalkStep::skip;
        }
        if (!S_ISDIR(st.st_mode)) {
            return WalkStep::skip;
        }
        if (stopsHere(entry.depth + base_)) {
            absorb(in, cutOff(entry.name, entry.path()));
            return WalkStep::skip;
        }
        return WalkStep::enter;
    }
    void enter(Folder& child, Folder&, const WalkEntry& entry) {
        child = Folder{};
        child.node.name = entry.name;
        child.node.path = entry.path();
        child.node.isDirectory = true;
    }
    void leave(Folder& folder, Folder* parent, const WalkExit&) {
        if (parent != nullptr) {
            absorb(*parent, std::move(folder.node));
        }
    }
    WalkStep problem(Folder&, const std::string&, const CleanerError& error) { throw error; }

    int base_ = 0; // the depth of the walk's root

private:
    HardlinkLedger& ledger_;
    std::chrono::steady_clock::time_point deadline_;
};

} // namespace

InventoryNode buildInventory(int parentFd, const std::string& name, const std::string& path,
                             const struct stat& st, int depth,
                             std::chrono::steady_clock::time_point deadline, HardlinkLedger& ledger,
                             const std::stop_token& stop) {
    InventoryVisitor visitor(ledger, deadline);
    visitor.base_ = depth;
    if (!S_ISDIR(st.st_mode)) {
        return visitor.leaf(name, path, st);
    }
    if (visitor.stopsHere(depth)) {
        return InventoryVisitor::cutOff(name, path);
    }
    UniqueFd rootFd = openListedFolder(parentFd, name.c_str(), path, st);
    if (!rootFd) {
        return InventoryVisitor::cutOff(name, path);
    }
    InventoryVisitor::Folder root;
    root.node.name = name;
    root.node.path = path;
    root.node.isDirectory = true;
    WalkOptions options;
    options.utf8Names = true;
    options.stop = stop;
    if (walkFolder(visitor, root, std::move(rootFd), path, options) == WalkEnd::cancelled) {
        throw CleanerError::cancelled();
    }
    return std::move(root.node);
}

bool removeEntry(int parentFd, const std::string& name, const std::string& path,
                 const struct stat& recorded, const RemovalOptions& options,
                 RemovalCounts& counts) {
    if (options.keep && options.keep(path)) {
        return false;
    }
    if (options.perEntry) {
        options.perEntry(path);
    }
    std::optional<struct stat> now = statEntry(parentFd, name.c_str(), path);
    if (!now) {
        return false;
    }
    if (now->st_dev != recorded.st_dev || now->st_ino != recorded.st_ino ||
        (now->st_mode & S_IFMT) != (recorded.st_mode & S_IFMT)) {
        throw CleanerError::safety("Entry changed before removal: " + path);
    }
    bool directory = S_ISDIR(now->st_mode);
    if (::unlinkat(parentFd, name.c_str(), directory ? AT_REMOVEDIR : 0) != 0) {
        if (errno == ENOENT) {
            return false;
        }
        throw makeCoreError(operation::removing, path, errno);
    }
    counts.removedEntries = saturatingAdd(counts.removedEntries, 1);
    if (!directory && now->st_nlink <= 1) {
        counts.freedBytes = saturatingAdd(counts.freedBytes, allocatedBytesOf(*now));
    }
    return true;
}

namespace {

// Empties a tree depth-first: files and links as they are met, each folder once it is empty.
class RemovalVisitor {
public:
    struct Folder {
        struct stat recorded {};
        std::string name;
        int parentFd = -1;
    };

    RemovalVisitor(const RemovalOptions& options, RemovalCounts& counts, dev_t device)
        : options_(options), counts_(counts), device_(device) {}

    void guardScope(const std::string& path) const {
        if (options_.ownedRoot && !isInside(path, *options_.ownedRoot)) {
            throw CleanerError::safety("Mock teardown escaped its owned root");
        }
    }

    WalkStep visit(Folder&, const WalkEntry& entry) {
        const struct stat& st = entry.stat();
        guardScope(entry.path());
        if (st.st_dev != device_) {
            throw CleanerError::safety("Refusing to cross mounted filesystem: " + entry.path());
        }
        if (S_ISREG(st.st_mode) || S_ISLNK(st.st_mode)) {
            removeEntry(entry.folderFd, entry.name, entry.path(), st, options_, counts_);
            return WalkStep::skip;
        }
        if (!S_ISDIR(st.st_mode)) {
            return WalkStep::skip; // devices, pipes and sockets are left for the person to look at
        }
        if (entry.depth >= maxWalkDepth) {
            throw CleanerError::safety("Traversal depth limit: " + entry.path());
        }
        if (options_.keep && options_.keep(entry.path())) {
            return WalkStep::skip;
        }
        return WalkStep::enter;
    }
    void enter(Folder& child, Folder&, const WalkEntry& entry) {
        child.recorded = entry.stat();
        child.name = entry.name;
        child.parentFd = entry.folderFd;
    }
    void leave(Folder& folder, Folder*, const WalkExit& exit) {
        if (exit.complete) {
            removeEntry(folder.parentFd, folder.name, std::string(exit.path), folder.recorded,
                        options_, counts_);
        }
    }
    WalkStep problem(Folder&, const std::string&, const CleanerError& error) { throw error; }

private:
    const RemovalOptions& options_;
    RemovalCounts& counts_;
    dev_t device_;
};

} // namespace

RemovalCounts removeTree(std::string_view path, std::uint64_t expectedDevice,
                         const RemovalOptions& options) {
    throwIfStopped(options.stop);
    RemovalCounts counts;
    std::string pathText = normalizePath(path);
    if (options.ownedRoot && !isInside(pathText, *options.ownedRoot)) {
        throw CleanerError::safety("Mock teardown escaped its owned root");
    }
    std::optional<ParentHandle> parent = openParent(pathText);
    if (!parent) {
        return counts;
    }
    std::optional<struct stat> st = statEntry(parent->fd.get(), parent->name.c_str(), pathText);
    if (!st) {
        return counts;
    }
    if (static_cast<std::uint64_t>(st->st_dev) != expectedDevice) {
        throw CleanerError::safety("Refusing to cross mounted filesystem: " + pathText);
    }
    if (S_ISREG(st->st_mode) || S_ISLNK(st->st_mode)) {
        removeEntry(parent->fd.get(), parent->name, pathText, *st, options, counts);
        return counts;
    }
    if (!S_ISDIR(st->st_mode)) {
        return counts;
    }
    UniqueFd rootFd = openRootFolder(*parent, pathText, *st);
    if (!rootFd) {
        return counts;
    }
    RemovalVisitor visitor(options, counts, st->st_dev);
    RemovalVisitor::Folder root;
    root.recorded = *st;
    root.name = parent->name;
    root.parentFd = parent->fd.get();
    WalkOptions walk;
    walk.stop = options.stop;
    if (walkFolder(visitor, root, std::move(rootFd), pathText, walk) == WalkEnd::cancelled) {
        throw CleanerError::cancelled();
    }
    return counts;
}

} // namespace sd
