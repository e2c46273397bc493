#include "core/CoreFileSystem.h"

#include "base/CleanerError.h"
#include "base/Descriptors.h"
#include "base/OpenFlags.h"
#include "base/PathText.h"
#include "base/Saturating.h"
#include "core/MockRoots.h"
#include "core/PathRules.h"
#include "platform/CloneAttributes.h"
#include "platform/DirectoryReader.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <fnmatch.h>
#include <limits>
#include <unistd.h>

namespace sd {
namespace {

// Opens a child directory that a listing just described and proves it is the same directory.
// Empty when it vanished in between. A link, a file or another directory in its place is a race
// or an attack and stops the walk.
UniqueFd openCheckedDirectory(int parentFd, const std::string& parentPath, const char* name,
                              const struct stat& listed, int flags) {
    return openListedFolder(parentFd, name, childPath(parentPath, name), listed, flags);
}

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

std::vector<std::string> listDirectory(int fd, std::string_view path, const Cancellation& cancel) {
    cancel.check();
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
    cancel.check();
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
                                       const Cancellation& cancel) {
    cancel.check();
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
        UniqueFd fd =
            openCheckedDirectory(branch.fd.get(), branch.path, name.c_str(), st, flagsBefore(next));
        if (fd) {
            out.push_back({std::move(fd), std::move(path), next});
        }
    };

    while (!pending.empty()) {
        cancel.check();
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
            for (const std::string& name : listDirectory(branch.fd.get(), branch.path, cancel)) {
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

Footprint measureFootprint(std::string_view path, std::optional<EntryIdentity> expected,
                           std::vector<std::string>& warnings, FootprintTally& tally,
                           const Cancellation& cancel, MeasureProgress* progress) {
    cancel.check();
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

    // Whether to ask about shared blocks is a question for the file system the root lives on,
    // which for a mount point is not the one its parent folder is on: it is settled below with
    // the root's own descriptor once that is open.
    bool askClones = false;
    auto countFile = [&](int dirFd, const char* name, const struct stat& st,
                         const std::string& dirPath) {
        footprint.fileCount = saturatingAdd(footprint.fileCount, 1);
        if (tally.ledger.countOnce(st)) {
            footprint.allocatedBytes =
                saturatingAdd(footprint.allocatedBytes, allocatedBytesOf(st));
            if (progress != nullptr) {
                progress->allocatedBytes.store(footprint.allocatedBytes, std::memory_order_relaxed);
            }
        }
        EntryIdentity identity = EntryIdentity::of(st);
        if (askClones) {
            if (auto sample =
                    readCloneAttributes(dirFd, name, childPath(dirPath, name), identity, st)) {
                tally.freeable.add(*sample);
            }
            return;
        }
        FileSample sample;
        sample.device = identity.device;
        sample.inode = identity.inode;
        sample.linkCount = st.st_nlink == 0 ? 1 : static_cast<std::uint64_t>(st.st_nlink);
        sample.allocatedBytes = allocatedBytesOf(st);
        sample.privateBytes = sample.allocatedBytes;
        tally.freeable.add(sample);
    };

    std::string pathText(path);
    const auto rootDevice = static_cast<std::uint64_t>(rootStat->st_dev);
    if (S_ISREG(rootStat->st_mode)) {
        askClones = platform::mayShareBlocks(parent->fd.get(), rootDevice);
        std::string dirPath = pathText.substr(0, pathText.size() - parent->name.size() - 1);
        countFile(parent->fd.get(), parent->name.c_str(), *rootStat,
                  dirPath.empty() ? "/" : dirPath);
        return footprint;
    }
    if (!S_ISDIR(rootStat->st_mode)) {
        return footprint;
    }

    std::string parentPath = pathText.substr(0, pathText.size() - parent->name.size() - 1);
    UniqueFd rootFd = openCheckedDirectory(parent->fd.get(), parentPath.empty() ? "/" : parentPath,
                                           parent->name.c_str(), *rootStat, listingOpenFlags);
    if (!rootFd) {
        footprint.vanished = true;
        return footprint;
    }
    parent.reset();
    askClones = platform::mayShareBlocks(rootFd.get(), rootDevice);
    footprint.directoryCount = 1;

    std::vector<FootprintFrame> stack;
    stack.push_back({std::move(rootFd), pathText, {}, 0, 0});
    stack.back().names = listDirectory(stack.back().fd.get(), stack.back().path, cancel);

    while (!stack.empty()) {
        FootprintFrame& frame = stack.back();
        if (frame.next >= frame.names.size()) {
            stack.pop_back();
            continue;
        }
        cancel.check();
        const std::string& name = frame.names[frame.next++];
        if (progress != nullptr) {
            progress->entries.fetch_add(1, std::memory_order_relaxed);
        }
        struct stat st {};
        if (::fstatat(frame.fd.get(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
            if (errno == ENOENT) {
                continue;
            }
            throw makeCoreError(operation::readingMetadata, childPath(frame.path, name), errno);
        }
        if (S_ISREG(st.st_mode)) {
            countFile(frame.fd.get(), name.c_str(), st, frame.path);
            continue;
        }
        if (!S_ISDIR(st.st_mode)) {
            continue; // links are not followed; devices, pipes and sockets hold no blocks
        }
        if (static_cast<std::uint64_t>(st.st_dev) != rootDevice) {
            warnings.push_back("Skipped mounted filesystem: " + childPath(frame.path, name));
            continue;
        }
        if (frame.depth + 1 >= maxWalkDepth) {
            warnings.push_back("Traversal depth limit: " + childPath(frame.path, name));
            continue;
        }
        UniqueFd child =
            openCheckedDirectory(frame.fd.get(), frame.path, name.c_str(), st, listingOpenFlags);
        if (!child) {
            continue;
        }
        footprint.directoryCount = saturatingAdd(footprint.directoryCount, 1);
        FootprintFrame next{std::move(child), childPath(frame.path, name), {}, frame.depth + 1, 0};
        next.names = listDirectory(next.fd.get(), next.path, cancel);
        stack.push_back(std::move(next)); // `frame` may dangle from here on
    }
    return footprint;
}

size_t InventoryNodeHash::operator()(const InventoryNode& node) const noexcept {
    auto mix = [](size_t seed, size_t value) {
        return seed ^ (value + 0x9E3779B97F4A7C15ULL + (seed << 6) + (seed >> 2));
    };
    size_t h = std::hash<std::string>{}(node.path);
    h = mix(h, std::hash<std::string>{}(node.name));
    h = mix(h, node.isDirectory);
    h = mix(h, node.physicalBytes);
    h = mix(h, node.logicalBytes);
    h = mix(h, node.fileCount);
    h = mix(h, static_cast<size_t>(node.newest));
    h = mix(h, static_cast<size_t>(node.oldest));
    h = mix(h, node.isComplete);
    for (const InventoryNode& child : node.children) {
        h = mix(h, (*this)(child));
    }
    return h;
}

InventoryNode buildInventory(int parentFd, const std::string& name, const std::string& path,
                             const struct stat& st, int depth,
                             std::chrono::steady_clock::time_point deadline, HardlinkLedger& ledger,
                             const Cancellation& cancel) {
    auto leaf = [&ledger](std::string leafName, std::string leafPath, const struct stat& s) {
        InventoryNode node;
        node.name = std::move(leafName);
        node.path = std::move(leafPath);
        node.physicalBytes = ledger.countOnce(s) ? allocatedBytesOf(s) : 0;
        node.logicalBytes = saturatingSize(s.st_size);
        node.fileCount = 1;
        node.newest = node.oldest = static_cast<std::int64_t>(s.st_mtime);
        return node;
    };
    auto cutOff = [](std::string dirName, std::string dirPath) {
        InventoryNode node;
        node.name = std::move(dirName);
        node.path = std::move(dirPath);
        node.isDirectory = true;
        node.isComplete = false;
        return node;
    };
    auto stopsHere = [&deadline](int d) {
        return d > maxWalkDepth || std::chrono::steady_clock::now() >= deadline;
    };
    if (!S_ISDIR(st.st_mode)) {
        return leaf(name, path, st);
    }
    if (stopsHere(depth)) {
        return cutOff(name, path);
    }

    struct Frame {
        FootprintFrame walk;
        InventoryNode node;
        bool sawChild = false;
    };
    // Folds a finished child into its parent's sums.
    auto absorb = [](InventoryNode& parent, bool& sawChild, InventoryNode child) {
        parent.physicalBytes = saturatingAdd(parent.physicalBytes, child.physicalBytes);
        parent.logicalBytes = saturatingAdd(parent.logicalBytes, child.logicalBytes);
        parent.fileCount = saturatingAdd(parent.fileCount, child.fileCount);
        if (child.fileCount > 0 || !child.isDirectory) {
            parent.newest = sawChild ? std::max(parent.newest, child.newest) : child.newest;
            parent.oldest = sawChild ? std::min(parent.oldest, child.oldest) : child.oldest;
            sawChild = true;
        }
        parent.isComplete = parent.isComplete && child.isComplete;
        parent.children.push_back(std::move(child));
    };

    std::string parentPath = path.size() > name.size()
                                 ? path.substr(0, path.size() - name.size() - 1)
                                 : std::string("/");
    UniqueFd rootFd = openCheckedDirectory(parentFd, parentPath.empty() ? "/" : parentPath,
                                           name.c_str(), st, listingOpenFlags);
    if (!rootFd) {
        return cutOff(name, path);
    }
    std::vector<Frame> stack;
    {
        Frame root;
        root.walk = {std::move(rootFd), path, {}, depth, 0};
        root.walk.names = listDirectory(root.walk.fd.get(), path, cancel);
        root.node.name = name;
        root.node.path = path;
        root.node.isDirectory = true;
        stack.push_back(std::move(root));
    }
    for (;;) {
        Frame& top = stack.back();
        if (top.walk.next >= top.walk.names.size()) {
            InventoryNode done = std::move(top.node);
            stack.pop_back();
            if (stack.empty()) {
                return done;
            }
            absorb(stack.back().node, stack.back().sawChild, std::move(done));
            continue;
        }
        cancel.check();
        const std::string& childName = top.walk.names[top.walk.next++];
        std::string childFull = childPath(top.walk.path, childName);
        std::optional<struct stat> childStat =
            statEntry(top.walk.fd.get(), childName.c_str(), childFull);
        if (!childStat || !(S_ISDIR(childStat->st_mode) || S_ISREG(childStat->st_mode))) {
            continue;
        }
        if (S_ISREG(childStat->st_mode)) {
            absorb(top.node, top.sawChild, leaf(childName, std::move(childFull), *childStat));
            continue;
        }
        int childDepth = top.walk.depth + 1;
        if (stopsHere(childDepth)) {
            absorb(top.node, top.sawChild, cutOff(childName, std::move(childFull)));
            continue;
        }
        UniqueFd fd = openCheckedDirectory(top.walk.fd.get(), top.walk.path, childName.c_str(),
                                           *childStat, listingOpenFlags);
        if (!fd) {
            continue;
        }
        Frame next;
        next.walk = {std::move(fd), childFull, {}, childDepth, 0};
        next.walk.names = listDirectory(next.walk.fd.get(), childFull, cancel);
        next.node.name = childName;
        next.node.path = std::move(childFull);
        next.node.isDirectory = true;
        stack.push_back(std::move(next)); // `top` may dangle from here on
    }
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

RemovalCounts removeTree(std::string_view path, std::uint64_t expectedDevice,
                         const RemovalOptions& options) {
    options.cancel.check();
    RemovalCounts counts;
    std::string pathText = normalizePath(path);
    auto guardScope = [&](const std::string& candidate) {
        if (options.ownedRoot && !isInside(candidate, *options.ownedRoot)) {
            throw CleanerError::safety("Mock teardown escaped its owned root");
        }
    };
    guardScope(pathText);
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

    std::string parentPath = pathText.substr(0, pathText.size() - parent->name.size() - 1);
    if (parentPath.empty()) {
        parentPath = "/";
    }
    UniqueFd rootFd = openCheckedDirectory(parent->fd.get(), parentPath, parent->name.c_str(), *st,
                                           listingOpenFlags);
    if (!rootFd) {
        return counts;
    }
    struct Level {
        FootprintFrame walk;
        struct stat recorded;
        std::string name;
    };
    std::vector<Level> stack;
    stack.push_back({{std::move(rootFd), pathText, {}, 0, 0}, *st, parent->name});
    stack.back().walk.names = listDirectory(stack.back().walk.fd.get(), pathText, options.cancel);

    while (!stack.empty()) {
        Level& level = stack.back();
        FootprintFrame& frame = level.walk;
        if (frame.next >= frame.names.size()) {
            // Emptied: remove the directory itself from its parent.
            Level done = std::move(stack.back());
            stack.pop_back();
            done.walk.fd.reset();
            int parentFd = stack.empty() ? parent->fd.get() : stack.back().walk.fd.get();
            removeEntry(parentFd, done.name, done.walk.path, done.recorded, options, counts);
            continue;
        }
        options.cancel.check();
        std::string name = frame.names[frame.next++];
        std::string child = childPath(frame.path, name);
        guardScope(child);
        std::optional<struct stat> childStat = statEntry(frame.fd.get(), name.c_str(), child);
        if (!childStat) {
            continue;
        }
        if (childStat->st_dev != st->st_dev) {
            throw CleanerError::safety("Refusing to cross mounted filesystem: " + child);
        }
        if (S_ISREG(childStat->st_mode) || S_ISLNK(childStat->st_mode)) {
            removeEntry(frame.fd.get(), name, child, *childStat, options, counts);
            continue;
        }
        if (!S_ISDIR(childStat->st_mode)) {
            continue; // devices, pipes and sockets are left for the person to look at
        }
        if (frame.depth + 1 >= maxWalkDepth) {
            throw CleanerError::safety("Traversal depth limit: " + child);
        }
        if (options.keep && options.keep(child)) {
            continue;
        }
        UniqueFd fd = openCheckedDirectory(frame.fd.get(), frame.path, name.c_str(), *childStat,
                                           listingOpenFlags);
        if (!fd) {
            continue;
        }
        Level next{{std::move(fd), child, {}, frame.depth + 1, 0}, *childStat, name};
        next.walk.names = listDirectory(next.walk.fd.get(), child, options.cancel);
        stack.push_back(std::move(next)); // `level` and `frame` may dangle from here on
    }
    return counts;
}

} // namespace sd
