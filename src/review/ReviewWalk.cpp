#include "review/ReviewWalk.h"

#include "base/CleanerError.h"
#include "base/Saturating.h"
#include "core/ByteFormat.h"
#include "core/CoreFileSystem.h"
#include "core/MockRoots.h"
#include "core/PathRules.h"
#include "core/Walk.h"
#include "platform/DirectoryReader.h"
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

std::vector<std::string> splitPattern(std::string_view pattern) {
    const std::string absolute = std::string("/").append(pattern); // the views point into it
    std::vector<std::string> parts;
    for (std::string_view part : splitComponents(absolute)) {
        parts.emplace_back(part);
    }
    return parts;
}

class Walker {
public:
    // Per open folder: its path relative to the home while it is shallow enough for an exclusion
    // to match below it.
    struct Folder {
        std::optional<std::string> relative;
        size_t relativeDepth = 0;
    };

    Walker(const ReviewWalkOptions& options, const std::stop_token& stop,
           OperationProgress* progress)
        : options_(options), stop_(stop), progress_(progress), started_(Clock::now()),
          deadline_(started_ + std::chrono::duration_cast<Clock::duration>(
                                   std::chrono::duration<double>(std::max(0.0, options.budget)))) {
        for (const std::string& pattern : options.excluded) {
            patterns_.push_back(splitPattern(pattern));
            deepestPattern_ = std::max(deepestPattern_, patterns_.back().size());
        }
    }

    ReviewWalkResult run() {
        if (progress_ != nullptr) {
            progress_->setPhase(reviewStage::walking);
        }
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
        reportFraction();
        return std::move(result_);
    }

    WalkStep visit(Folder& in, const WalkEntry& entry) {
        if (++seen_ % checkEvery == 0) {
            reportFraction();
        }
        const struct stat& st = entry.stat();
        if (S_ISREG(st.st_mode)) {
            consider(entry);
            return WalkStep::skip;
        }
        if (!S_ISDIR(st.st_mode)) {
            return WalkStep::skip; // links are never followed; devices and pipes hold no documents
        }
        if (leftOut(in, entry.name)) {
            return WalkStep::skip;
        }
        if (static_cast<std::uint64_t>(st.st_dev) != device_) {
            warn("Skipped mounted filesystem: " + entry.path());
            return WalkStep::skip;
        }
        if (isPackageName(entry.name)) {
            if (options_.packages == PackageHandling::asItems && !considerPackage(entry)) {
                return WalkStep::stop;
            }
            return WalkStep::skip;
        }
        if (entry.depth >= maxWalkDepth) {
            warn("Traversal depth limit: " + entry.path());
            return WalkStep::skip;
        }
        return WalkStep::enter;
    }

    void enter(Folder& child, Folder& in, const WalkEntry& entry) {
        child = Folder{};
        if (in.relative && in.relativeDepth + 1 < deepestPattern_) {
            child.relative =
                in.relative->empty() ? std::string(entry.name) : *in.relative + "/" + entry.name;
            child.relativeDepth = in.relativeDepth + 1;
        }
    }

    void leave(Folder&, Folder*, const WalkExit&) {}

    WalkStep problem(Folder&, const std::string&, const CleanerError& error) {
        std::string_view text = error.what();
        // A folder that could not be opened or read is counted as unreadable; an entry that could
        // not be looked at, or a folder swapped while we looked, is only told.
        if (!text.starts_with(operation::readingMetadata) &&
            !text.starts_with("Directory changed") && !text.starts_with("Directory contains")) {
            ++result_.unreadable;
        }
        warn(std::string(text) + " — left out.");
        return WalkStep::skip;
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
        VerifiedChild opened =
            openVerifiedChild(parent->fd.get(), parent->name.c_str(), path, *found);
        switch (opened.outcome) {
        case ChildOpening::opened:
            st = *found;
            return std::move(opened.fd);
        case ChildOpening::failed:
            return fail(opened.error == EACCES || opened.error == EPERM
                            ? CleanerError::Kind::accessDenied
                            : CleanerError::Kind::ioError,
                        std::strerror(opened.error));
        default:
            return fail(CleanerError::Kind::safetyViolation, "it changed while it was opened");
        }
    }

    void walkRoot(const ReviewRoot& root) {
        std::string path;
        struct stat st {};
        UniqueFd fd = openRoot(root, path, st);
        if (!fd) {
            return;
        }
        device_ = static_cast<std::uint64_t>(st.st_dev);
        Folder folder;
        if (isInside(path, options_.home)) {
            std::string relative =
                path.size() > options_.home.size() ? path.substr(options_.home.size() + 1) : "";
            size_t depth =
                relative.empty() ? 0 : splitComponents(std::string("/").append(relative)).size();
            if (depth < deepestPattern_) {
                folder.relative = relative;
                folder.relativeDepth = depth;
            }
        }
        // The root itself must be readable: a required root that is not is refused as a whole.
        std::vector<std::string> probe;
        if (platform::DirectoryReadFailure failure = platform::readDirectoryNames(fd.get(), probe);
            !failure.operation.empty()) {
            CleanerError error = makeCoreError(failure.operation, path, failure.error);
            if (root.requirement == RootRequirement::required) {
                refuse(error.kind(), path, "its contents could not be read");
            }
            ++result_.unreadable;
            warn(std::string(error.what()) + " — left out.");
            return;
        }
        ::lseek(fd.get(), 0, SEEK_SET);
        WalkOptions walk;
        walk.utf8Names = true;
        walk.stop = stop_;
        walk.deadline = deadline_;
        walk.progress = progress_;
        TreeWalk<Walker> treeWalk(*this, walk);
        WalkEnd end = treeWalk.run(folder, std::move(fd), path);
        result_.nodeCount = saturatingAdd(result_.nodeCount, treeWalk.examined());
        if (end == WalkEnd::cancelled) {
            result_.cancelled = true;
        } else if (end == WalkEnd::timedOut) {
            result_.truncated = true;
        }
    }

    bool leftOut(const Folder& in, const char* nameText) const {
        std::string_view name(nameText);
        if (std::find(repositoryFolders.begin(), repositoryFolders.end(), name) !=
                repositoryFolders.end() ||
            isCacheName(name)) {
            return true;
        }
        if (options_.hidden == HiddenFolders::skip && name.starts_with('.')) {
            return true;
        }
        if (!in.relative) {
            return false;
        }
        const size_t depth = in.relativeDepth + 1;
        for (const std::vector<std::string>& pattern : patterns_) {
            if (pattern.size() != depth) {
                continue;
            }
            if (::fnmatch(pattern.back().c_str(), nameText, FNM_PERIOD) != 0) {
                continue;
            }
            const std::string absolute = std::string("/").append(*in.relative); // views into it
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

    static ReviewCandidate candidateOf(const std::string& path, const struct stat& st) {
        ReviewCandidate c;
        c.path = path;
        c.device = static_cast<std::uint64_t>(st.st_dev);
        c.inode = static_cast<std::uint64_t>(st.st_ino);
        c.links = st.st_nlink == 0 ? 1 : static_cast<std::uint64_t>(st.st_nlink);
        c.logicalSize = st.st_size < 0 ? 0 : static_cast<std::uint64_t>(st.st_size);
        c.physicalBytes = allocatedBytesOf(st);
        c.modified = platform::modifiedTime(st);
        c.accessed = platform::accessedTime(st);
        const Timestamp changed = platform::changedTime(st);
        c.changedSec = changed.sec;
        c.changedNsec = changed.nsec;
        c.born = c.modified;
        return c;
    }

    void consider(const WalkEntry& entry) {
        const struct stat& st = entry.stat();
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
        ReviewCandidate c = candidateOf(entry.path(), st);
        if (auto born = platform::birthTime(entry.folderFd, entry.name, st)) {
            c.born = *born;
        }
        result_.candidates.push_back(std::move(c));
    }

    // A package is measured whole; its date is the newest change of anything inside it. False
    // once the walk must end.
    bool considerPackage(const WalkEntry& entry) {
        const struct stat& st = entry.stat();
        HardlinkLedger ledger;
        InventoryNode node;
        try {
            node = buildInventory(entry.folderFd, entry.name, entry.path(), st, entry.depth,
                                  deadline_, ledger, stop_);
        } catch (const CleanerError& error) {
            if (error.kind() == CleanerError::Kind::operationCancelled) {
                result_.cancelled = true;
                return false;
            }
            ++result_.unreadable;
            warn(std::string(error.what()) + " — left out.");
            return true;
        }
        if (!node.isComplete && Clock::now() >= deadline_) {
            result_.truncated = true;
        }
        if (!bigEnough(node.logicalBytes, node.physicalBytes)) {
            return !result_.truncated;
        }
        ReviewCandidate c = candidateOf(entry.path(), st);
        c.isPackage = true;
        c.logicalSize = node.logicalBytes;
        c.physicalBytes = node.physicalBytes;
        c.modified = std::max(c.modified, Timestamp{node.newest, 0});
        c.born = c.modified;
        if (auto born = platform::birthTime(entry.folderFd, entry.name, st)) {
            c.born = *born;
        }
        result_.candidates.push_back(std::move(c));
        return !result_.truncated;
    }

    void reportFraction() {
        if (progress_ == nullptr) {
            return;
        }
        double budget = std::max(options_.budget, 1e-9);
        double elapsed = std::chrono::duration<double>(Clock::now() - started_).count();
        progress_->setFraction(result_.truncated ? 1.0 : std::min(1.0, elapsed / budget));
    }

    const ReviewWalkOptions& options_;
    std::stop_token stop_;
    OperationProgress* progress_;
    Clock::time_point started_;
    Clock::time_point deadline_;
    std::vector<std::vector<std::string>> patterns_;
    size_t deepestPattern_ = 0;
    std::uint64_t device_ = 0;
    std::uint64_t seen_ = 0;
    ReviewWalkResult result_;
    std::uint64_t overflow_ = 0;
};

} // namespace

std::string reviewProgressText(const OperationProgress::Reading& progress) {
    if (progress.items == 0) {
        return progress.phase;
    }
    std::string items = formatCount(progress.items) + (progress.items == 1 ? " item" : " items");
    return progress.phase.empty() ? items : progress.phase + " — " + items;
}

ReviewWalkResult walkForReview(const ReviewWalkOptions& options, const std::stop_token& stop,
                               OperationProgress* progress) {
    return Walker(options, stop, progress).run();
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
