#include "core/MockRoots.h"

#include "base/CleanerError.h"
#include "core/PathRules.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <sys/stat.h>
#include <vector>

namespace sd {
namespace {

struct OwnedRoot {
    std::string path;
    EntryIdentity identity;
};

struct Registry {
    std::mutex lock;
    std::vector<OwnedRoot> roots;
};

Registry& registry() {
    static Registry instance;
    return instance;
}

std::optional<OwnedRoot> find(std::string_view path) {
    Registry& r = registry();
    std::lock_guard guard(r.lock);
    for (const OwnedRoot& root : r.roots) {
        if (isInside(path, root.path)) {
            return root;
        }
    }
    return std::nullopt;
}

} // namespace

std::string MockRoots::create() {
    const char* tmp = std::getenv("TMPDIR");
    std::string base = tmp != nullptr && *tmp == '/' ? tmp : "/tmp";
    while (base.size() > 1 && base.back() == '/') {
        base.pop_back();
    }
    std::string templ = base + "/SparrowdeckMock-XXXXXX";
    std::vector<char> buffer(templ.begin(), templ.end());
    buffer.push_back('\0');
    if (::mkdtemp(buffer.data()) == nullptr) {
        throw makeCoreError(operation::opening, templ, errno);
    }
    // The temporary folder itself may be reached through a link (/tmp -> /private/tmp); the
    // root is kept by its real location so that paths inside it hold no link.
    std::unique_ptr<char, decltype(&std::free)> real(::realpath(buffer.data(), nullptr),
                                                     &std::free);
    std::string path = normalizePath(real ? real.get() : buffer.data());
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) {
        throw makeCoreError(operation::readingMetadata, path, errno);
    }
    Registry& r = registry();
    std::lock_guard guard(r.lock);
    r.roots.push_back({path, EntryIdentity::of(st)});
    return path;
}

bool MockRoots::owns(std::string_view path) {
    return find(path).has_value();
}

std::optional<std::string> MockRoots::rootOf(std::string_view path) {
    if (auto root = find(path)) {
        return root->path;
    }
    return std::nullopt;
}

void MockRoots::checkPath(std::string_view path) {
    std::optional<OwnedRoot> root = find(path);
    if (!root) {
        throw CleanerError::safety("Protected or out-of-home path: " + std::string(path));
    }
    std::optional<ParentHandle> parent = openParent(root->path);
    std::optional<struct stat> st;
    if (parent) {
        st = statEntry(parent->fd.get(), parent->name.c_str(), root->path);
    }
    if (!st || EntryIdentity::of(*st) != root->identity || !S_ISDIR(st->st_mode)) {
        throw CleanerError::safety("Directory changed during traversal: " + root->path);
    }
    refuseSymlink(path);
}

RemovalCounts MockRoots::tearDown(std::string_view rootPath) {
    std::optional<OwnedRoot> root = find(rootPath);
    if (!root || root->path != rootPath) {
        throw CleanerError::safety("Mock teardown escaped its owned root");
    }
    checkPath(root->path);
    RemovalOptions options;
    options.ownedRoot = root->path;
    RemovalCounts counts = removeTree(root->path, root->identity.device, options);
    Registry& r = registry();
    std::lock_guard guard(r.lock);
    std::erase_if(r.roots, [&](const OwnedRoot& owned) { return owned.path == root->path; });
    return counts;
}

ScopedMockRoot::~ScopedMockRoot() {
    try {
        MockRoots::tearDown(path_);
    } catch (const CleanerError&) {
        // A fixture that cannot be removed is left for the system's temporary-file cleaner;
        // throwing from a destructor would end the process.
    }
}

} // namespace sd
