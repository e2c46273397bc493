#include "review/ReviewWalk.h"

#include "base/CleanerError.h"
#include "base/Saturating.h"
#include "core/ByteFormat.h"
#include "core/CoreFileSystem.h"
#include "core/MockRoots.h"
#include "core/PathRules.h"
#include "platform/FileSystemExtras.h"
#include "platform/ScopeTables.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fnmatch.h>
#include <unistd.h>

namespace sd {
namespace {

using Clock = std::chrono::steady_clock;

// Folders the duplicate search leaves out on every platform: the Library, the Trash, and the
// download caches of developer tools, whose copies are the tools' own business.
constexpr std::array<std::string_view, 17> sharedDuplicateExclusions{
    "Library",
    ".Trash",
    ".npm",
    ".cargo/registry",
    ".cargo/git",
    ".rustup/toolchains",
    ".gradle/caches",
    ".gradle/wrapper/dists",
    ".m2/repository",
    ".nuget/packages",
    "go/pkg/mod",
    ".pnpm-store",
    ".pub-cache",
    ".conda/pkgs",
    "miniconda3/pkgs",
    "anaconda3/pkgs",
    ".ollama/models",
};

// Large and old leaves the Library and the Trash to the Sweep; hidden folders go by the rule
// for all hidden folders.
constexpr std::array<std::string_view, 2> sharedLargeOldExclusions{"Library", ".Trash"};

constexpr std::array<std::string_view, 1> sharedDeveloperFolders{"Library/Developer"};

// Version-control databases hold the history of a project, never a copy anyone would remove.
constexpr std::array<std::string_view, 3> repositoryFolders{".git", ".hg", ".svn"};

constexpr std::array<std::string_view, 24> packageExtensions{
    "app",           "appex",        "bundle",    "framework",     "plugin",    "kext",
    "photoslibrary", "musiclibrary", "tvlibrary", "imovielibrary", "fcpbundle", "logicx",
    "band",          "sparsebundle", "vmwarevm",  "utm",           "pvm",       "xcarchive",
    "pkg",           "mpkg",         "rtfd",      "pages",         "numbers",   "key",
};

constexpr size_t warningLimit = 20;
constexpr std::uint64_t checkEvery = 64;
constexpr auto reportEvery = std::chrono::milliseconds(100);

double seconds(const struct timespec& t) {
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

std::string childPath(std::string_view parent, std::string_view name) {
    std::string path;
    path.reserve(parent.size() + name.size() + 1);
    path.append(parent == "/" ? std::string_view() : parent).append("/").append(name);
    return path;
}

std::vector<std::string> splitPattern(std::string_view pattern) {
    const std::string absolute = std::string("/").append(pattern); // the views point into it
    std::vector<std::string> parts;
    for (std::string_view part : splitComponents(absolute)) {
        parts.emplace_back(part);
    }
    return parts;
}

struct Frame {
    UniqueFd fd;
    std::string path;
    std::vector<std::string> names;
    size_t next = 0;
    int depth = 0;
    std::uint64_t device = 0;
    // Path relative to the home while it is shallow enough for an exclusion to match below it.
    std::optional<std::string> relative;
    size_t relativeDepth = 0;
};

class Walker {
public:
    Walker(const ReviewWalkOptions& options, const Cancellation& cancel,
           const ReviewProgressCallback& progress)
        : options_(options), cancel_(cancel), progress_(progress), started_(Clock::now()),
          deadline_(started_ + std::chrono::duration_cast<Clock::duration>(
                                   std::chrono::duration<double>(std::max(0.0, options.budget)))) {
        for (const std::string& pattern : options.excluded) {
            patterns_.push_back(splitPattern(pattern));
            deepestPattern_ = std::max(deepestPattern_, patterns_.back().size());
        }
    }

    ReviewWalkResult run() {
        for (const ReviewRoot& root : options_.roots) {
            if (result_.cancelled || result_.truncated) {
                break;
            }
            walkRoot(root);
        }
        if (overflow_ > 0) {
            result_.warnings.push_back("…and " + formatCount(overflow_) +
                                       (overflow_ == 1 ? " more problem" : " more problems") +
                                       " like these.");
        }
        report(nullptr);
        return std::move(result_);
    }

private:
    void warn(std::string text) {
        if (result_.warnings.size() < warningLimit) {
            result_.warnings.push_back(std::move(text));
        } else {
            ++overflow_;
        }
    }

    [[noreturn]] static void refuse(CleanerError::Kind kind, const std::string& path,
                                    std::string_view why) {
        throw CleanerError(kind, "Can’t look in " + path + ": " + std::string(why) +
                                     ". Nothing on your disk was changed.");
    }

    // Opens a root folder without following any link on the way. Throws for a required root;
    // an optional one that is missing gives an empty descriptor.
    UniqueFd openRoot(const ReviewRoot& root, std::string& path, struct stat& st) {
        const bool required = root.requirement == RootRequirement::required;
        auto fail = [&](CleanerError::Kind kind, std::string_view why) -> UniqueFd {
            if (required) {
                refuse(kind, path, why);
            }
            warn("Can’t look in " + path + ": " + std::string(why) + " — left out.");
            return UniqueFd();
        };
        try {
            path = normalizePath(root.path);
        } catch (const CleanerError&) {
            path = root.path;
            return fail(CleanerError::Kind::invalidPath, "it is not an absolute path");
        }
        if (!isInside(path, options_.home) && !MockRoots::owns(path)) {
            return fail(CleanerError::Kind::invalidPath,
                        "only folders inside your home folder are searched");
        }
        std::optional<ParentHandle> parent;
        std::optional<struct stat> found;
        try {
            if (path == "/") {
                return fail(CleanerError::Kind::invalidPath, "it is the whole disk");
            }
            parent = openParent(path);
            if (parent) {
                found = statEntry(parent->fd.get(), parent->name.c_str(), path);
            }
        } catch (const CleanerError& error) {
            switch (error.kind()) {
            case CleanerError::Kind::safetyViolation:
                return fail(error.kind(), "a folder on its way is a symbolic link, and links are "
                                          "never followed");
            case CleanerError::Kind::accessDenied:
                return fail(error.kind(), "you don’t have permission to open a folder on its way");
            default:
                return fail(error.kind(), error.what());
            }
        }
        if (!found) {
            if (!required) {
                return UniqueFd();
            }
            refuse(CleanerError::Kind::ioError, path, "it does not exist");
        }
        if (S_ISLNK(found->st_mode)) {
            return fail(CleanerError::Kind::safetyViolation,
                        "it is a symbolic link, and links are never followed");
        }
        if (!S_ISDIR(found->st_mode)) {
            return fail(CleanerError::Kind::invalidPath, "it is not a folder");
        }
        UniqueFd fd = openListing(parent->fd.get(), parent->name.c_str());
        if (!fd) {
            int error = errno;
            return fail(error == EACCES || error == EPERM ? CleanerError::Kind::accessDenied
                                                          : CleanerError::Kind::ioError,
                        std::strerror(error));
        }
        if (::fstat(fd.get(), &st) != 0 || st.st_dev != found->st_dev ||
            st.st_ino != found->st_ino) {
            return fail(CleanerError::Kind::safetyViolation, "it changed while it was opened");
        }
        return fd;
    }

    void walkRoot(const ReviewRoot& root) {
        std::string path;
        struct stat st {};
        UniqueFd fd = openRoot(root, path, st);
        if (!fd) {
            return;
        }
        Frame frame;
        frame.fd = std::move(fd);
        frame.path = path;
        frame.device = static_cast<std::uint64_t>(st.st_dev);
        if (isInside(path, options_.home)) {
            std::string relative =
                path.size() > options_.home.size() ? path.substr(options_.home.size() + 1) : "";
            size_t depth =
                relative.empty() ? 0 : splitComponents(std::string("/").append(relative)).size();
            if (depth < deepestPattern_) {
                frame.relative = relative;
                frame.relativeDepth = depth;
            }
        }
        try {
            frame.names = listDirectory(frame.fd.get(), path);
        } catch (const CleanerError& error) {
            if (root.requirement == RootRequirement::required) {
                refuse(error.kind(), path, "its contents could not be read");
            }
            ++result_.unreadable;
            warn(std::string(error.what()) + " — left out.");
            return;
        }
        stack_.clear();
        stack_.push_back(std::move(frame));
        while (!stack_.empty()) {
            Frame& top = stack_.back();
            if (top.next >= top.names.size()) {
                stack_.pop_back();
                continue;
            }
            const std::string name = top.names[top.next++];
            if (!visit(top, name)) {
                return;
            }
        }
    }

    // Examines one entry of `frame`; false once the walk must stop. May push a frame, after
    // which `frame` must not be used.
    bool visit(Frame& frame, const std::string& name) {
        result_.nodeCount = saturatingAdd(result_.nodeCount, 1);
        if (cancel_.requested()) {
            result_.cancelled = true;
            return false;
        }
        if (result_.nodeCount % checkEvery == 0) {
            Clock::time_point now = Clock::now();
            if (now >= deadline_) {
                result_.truncated = true;
                return false;
            }
            if (now - lastReport_ >= reportEvery) {
                report(&frame.path);
            }
        }
        struct stat st {};
        if (::fstatat(frame.fd.get(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
            if (errno != ENOENT) {
                warn(makeCoreError(operation::readingMetadata, childPath(frame.path, name), errno)
                         .message() +
                     " — left out.");
            }
            return true;
        }
        if (S_ISREG(st.st_mode)) {
            consider(frame, name, st);
            return true;
        }
        if (!S_ISDIR(st.st_mode)) {
            return true; // links are never followed; devices and pipes hold no documents
        }
        if (leftOut(frame, name)) {
            return true;
        }
        std::string path = childPath(frame.path, name);
        if (static_cast<std::uint64_t>(st.st_dev) != frame.device) {
            warn("Skipped mounted filesystem: " + path);
            return true;
        }
        if (isPackageName(name)) {
            if (options_.packages == PackageHandling::asItems) {
                return considerPackage(frame, name, std::move(path), st);
            }
            return true;
        }
        if (frame.depth + 1 >= maxWalkDepth) {
            warn("Traversal depth limit: " + path);
            return true;
        }
        UniqueFd child = openListing(frame.fd.get(), name.c_str());
        if (!child) {
            if (errno != ENOENT) {
                ++result_.unreadable;
                warn(makeCoreError(operation::openingDirectory, path, errno).message() +
                     " — left out.");
            }
            return true;
        }
        struct stat opened {};
        if (::fstat(child.get(), &opened) != 0 || opened.st_dev != st.st_dev ||
            opened.st_ino != st.st_ino) {
            warn("Directory changed during traversal: " + path + " — left out.");
            return true;
        }
        Frame next;
        try {
            next.names = listDirectory(child.get(), path, cancel_);
        } catch (const CleanerError& error) {
            if (error.kind() == CleanerError::Kind::operationCancelled) {
                result_.cancelled = true;
                return false;
            }
            ++result_.unreadable;
            warn(std::string(error.what()) + " — left out.");
            return true;
        }
        next.fd = std::move(child);
        next.path = std::move(path);
        next.depth = frame.depth + 1;
        next.device = frame.device;
        if (frame.relative && frame.relativeDepth + 1 < deepestPattern_) {
            next.relative = frame.relative->empty() ? name : *frame.relative + "/" + name;
            next.relativeDepth = frame.relativeDepth + 1;
        }
        stack_.push_back(std::move(next)); // `frame` may dangle from here on
        return true;
    }

    bool leftOut(const Frame& frame, const std::string& name) const {
        if (std::find(repositoryFolders.begin(), repositoryFolders.end(), name) !=
                repositoryFolders.end() ||
            isCacheName(name)) {
            return true;
        }
        if (options_.hidden == HiddenFolders::skip && name.starts_with('.')) {
            return true;
        }
        if (!frame.relative) {
            return false;
        }
        const size_t depth = frame.relativeDepth + 1;
        for (const std::vector<std::string>& pattern : patterns_) {
            if (pattern.size() != depth) {
                continue;
            }
            if (::fnmatch(pattern.back().c_str(), name.c_str(), FNM_PERIOD) != 0) {
                continue;
            }
            const std::string absolute = std::string("/").append(*frame.relative); // views into it
            std::vector<std::string_view> above = splitComponents(absolute);
            bool all = true;
            for (size_t i = 0; all && i < above.size(); ++i) {
                all = ::fnmatch(pattern[i].c_str(), std::string(above[i]).c_str(), FNM_PERIOD) == 0;
            }
            if (all) {
                return true;
            }
        }
        return false;
    }

    bool bigEnough(std::uint64_t logical, std::uint64_t allocated) const {
        return logical >= options_.minimumBytes &&
               (options_.sizeRule == SizeRule::logical || allocated >= options_.minimumBytes);
    }

    ReviewCandidate candidateOf(const std::string& path, const struct stat& st) const {
        ReviewCandidate c;
        c.path = path;
        c.device = static_cast<std::uint64_t>(st.st_dev);
        c.inode = static_cast<std::uint64_t>(st.st_ino);
        c.links = st.st_nlink == 0 ? 1 : static_cast<std::uint64_t>(st.st_nlink);
        c.logicalSize = st.st_size < 0 ? 0 : static_cast<std::uint64_t>(st.st_size);
        c.physicalBytes = allocatedBytesOf(st);
        c.modified = seconds(st.st_mtim);
        c.accessed = seconds(st.st_atim);
        c.changedSec = st.st_ctim.tv_sec;
        c.changedNsec = st.st_ctim.tv_nsec;
        c.born = c.modified;
        return c;
    }

    void consider(const Frame& frame, const std::string& name, const struct stat& st) {
        std::uint64_t logical = st.st_size < 0 ? 0 : static_cast<std::uint64_t>(st.st_size);
        if (platform::isDataless(st)) {
            if (logical >= options_.minimumBytes) {
                ++result_.datalessSkipped;
            }
            return;
        }
        if (!bigEnough(logical, allocatedBytesOf(st))) {
            return;
        }
        ReviewCandidate c = candidateOf(childPath(frame.path, name), st);
        if (auto born = platform::birthTime(frame.fd.get(), name.c_str(), st)) {
            c.born = static_cast<double>(born->sec) + static_cast<double>(born->nsec) / 1e9;
        }
        result_.candidates.push_back(std::move(c));
    }

    // A package is measured whole; its date is the newest change of anything inside it.
    bool considerPackage(const Frame& frame, const std::string& name, std::string path,
                         const struct stat& st) {
        HardlinkLedger ledger;
        InventoryNode node;
        try {
            node = buildInventory(frame.fd.get(), name, path, st, frame.depth + 1, deadline_,
                                  ledger, cancel_);
        } catch (const CleanerError& error) {
            if (error.kind() == CleanerError::Kind::operationCancelled) {
                result_.cancelled = true;
                return false;
            }
            ++result_.unreadable;
            warn(std::string(error.what()) + " — left out.");
            return true;
        }
        if (!node.isComplete) {
            result_.truncated = Clock::now() >= deadline_;
        }
        if (!bigEnough(node.logicalBytes, node.physicalBytes)) {
            return !result_.truncated;
        }
        ReviewCandidate c = candidateOf(path, st);
        c.isPackage = true;
        c.logicalSize = node.logicalBytes;
        c.physicalBytes = node.physicalBytes;
        c.modified = std::max(c.modified, static_cast<double>(node.newest));
        c.born = c.modified;
        if (auto born = platform::birthTime(frame.fd.get(), name.c_str(), st)) {
            c.born = static_cast<double>(born->sec) + static_cast<double>(born->nsec) / 1e9;
        }
        result_.candidates.push_back(std::move(c));
        return !result_.truncated;
    }

    void report(const std::string* path) {
        if (!progress_) {
            return;
        }
        lastReport_ = Clock::now();
        double budget = std::max(options_.budget, 1e-9);
        double elapsed = std::chrono::duration<double>(lastReport_ - started_).count();
        ReviewProgress p;
        p.stage = ReviewStage::walking;
        p.itemsSeen = result_.nodeCount;
        if (path != nullptr) {
            p.currentPath = *path;
        }
        p.budgetFraction = result_.truncated ? 1.0 : std::min(1.0, elapsed / budget);
        progress_(p);
    }

    const ReviewWalkOptions& options_;
    const Cancellation& cancel_;
    const ReviewProgressCallback& progress_;
    Clock::time_point started_;
    Clock::time_point deadline_;
    Clock::time_point lastReport_{};
    std::vector<std::vector<std::string>> patterns_;
    size_t deepestPattern_ = 0;
    std::vector<Frame> stack_;
    ReviewWalkResult result_;
    std::uint64_t overflow_ = 0;
};

} // namespace

std::string_view reviewStageName(ReviewStage stage) {
    switch (stage) {
    case ReviewStage::walking:
        return "walking";
    case ReviewStage::dating:
        return "dating";
    case ReviewStage::comparing:
        return "comparing";
    }
    return "walking";
}

std::string reviewProgressText(const ReviewProgress& progress) {
    std::string items =
        formatCount(progress.itemsSeen) + (progress.itemsSeen == 1 ? " item" : " items");
    switch (progress.stage) {
    case ReviewStage::walking:
        return "Reading your folders — " + items;
    case ReviewStage::dating:
        return "Checking when files were last opened — " + items;
    case ReviewStage::comparing:
        return "Comparing contents — " + items;
    }
    return items;
}

ReviewWalkResult walkForReview(const ReviewWalkOptions& options, const Cancellation& cancel,
                               const ReviewProgressCallback& progress) {
    return Walker(options, cancel, progress).run();
}

ReviewWalkOptions duplicateWalkOptions(const std::string& root, const std::string& home) {
    ReviewWalkOptions options;
    options.roots = {{root, RootRequirement::required}};
    options.home = home;
    options.excluded.assign(sharedDuplicateExclusions.begin(), sharedDuplicateExclusions.end());
    for (std::string_view row : platform::extraCloudFolders()) {
        options.excluded.emplace_back(row);
    }
    for (std::string_view row : platform::extraReviewExclusions()) {
        options.excluded.emplace_back(row);
    }
    options.hidden = HiddenFolders::walk;
    options.packages = PackageHandling::skip;
    options.sizeRule = SizeRule::logical;
    return options;
}

ReviewWalkOptions largeOldWalkOptions(const std::string& home) {
    ReviewWalkOptions options;
    options.home = home;
    options.roots = {{home, RootRequirement::required}};
    for (std::string_view row : sharedDeveloperFolders) {
        options.roots.push_back({home + "/" + std::string(row), RootRequirement::optional});
    }
    for (std::string_view row : platform::extraDeveloperFolders()) {
        options.roots.push_back({home + "/" + std::string(row), RootRequirement::optional});
    }
    options.excluded.assign(sharedLargeOldExclusions.begin(), sharedLargeOldExclusions.end());
    for (std::string_view row : platform::extraReviewExclusions()) {
        options.excluded.emplace_back(row);
    }
    options.hidden = HiddenFolders::skip;
    options.packages = PackageHandling::asItems;
    options.sizeRule = SizeRule::logicalAndAllocated;
    return options;
}

bool isPackageName(std::string_view name) {
    std::string extension = lowerExtension(name);
    return !extension.empty() && std::find(packageExtensions.begin(), packageExtensions.end(),
                                           extension) != packageExtensions.end();
}

std::string lowerExtension(std::string_view name) {
    size_t dot = name.rfind('.');
    if (dot == std::string_view::npos || dot == 0 || dot + 1 == name.size()) {
        return {};
    }
    std::string extension(name.substr(dot + 1));
    for (char& c : extension) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return extension;
}

} // namespace sd
