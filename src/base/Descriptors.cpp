#include "base/Descriptors.h"

#include "base/CleanerError.h"
#include "base/Identity.h"
#include "base/PathText.h"
#include "base/TestHooks.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace sd {
namespace {

// A no-follow, directory-only open that meets a symbolic link says ELOOP on most systems but
// ENOTDIR where the directory flag is tested first; either way the caller must see a link.
UniqueFd openDirectory(int parentFd, const char* name, int flags) {
    UniqueFd fd(::openat(parentFd, name, flags));
    if (!fd && errno == ENOTDIR) {
        struct stat st {};
        if (::fstatat(parentFd, name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode)) {
            errno = ELOOP;
        } else {
            errno = ENOTDIR;
        }
    }
    return fd;
}

UniqueFd openOrMake(int parentFd, const char* name, CreateMissing create) {
    UniqueFd fd = openDirectory(parentFd, name, searchOpenFlags);
    if (!fd && errno == ENOENT && create == CreateMissing::yes) {
        if (::mkdirat(parentFd, name, 0700) != 0 && errno != EEXIST) {
            return {};
        }
        fd = openDirectory(parentFd, name, searchOpenFlags);
    }
    return fd;
}

// Descends from "/" through the first `count` components of `components`.
UniqueFd descend(const std::vector<std::string_view>& components, size_t count,
                 CreateMissing create) {
    UniqueFd fd(::open("/", searchOpenFlags));
    std::string name;
    for (size_t i = 0; fd && i < count; ++i) {
        name.assign(components[i]);
        fd = openOrMake(fd.get(), name.c_str(), create);
    }
    return fd;
}

} // namespace

UniqueFd openSearch(int parentFd, const char* name) {
    return openDirectory(parentFd, name, searchOpenFlags);
}

UniqueFd openListing(int parentFd, const char* name) {
    return openDirectory(parentFd, name, listingOpenFlags);
}

std::optional<struct stat> statEntry(int parentFd, const char* name, std::string_view path) {
    struct stat st {};
    if (::fstatat(parentFd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno == ENOENT) {
            return std::nullopt;
        }
        throw makeCoreError(operation::readingMetadata, path, errno);
    }
    return st;
}

VerifiedChild openVerifiedChild(int parentFd, const char* name, std::string_view path,
                                const struct stat& listed, int flags) {
    if constexpr (testhooks::enabled) {
        testhooks::beforeOpenDirectory(std::string(path));
    }
    VerifiedChild child;
    child.fd = openDirectory(parentFd, name, flags);
    if (!child.fd) {
        child.error = errno;
        child.outcome = child.error == ENOENT                            ? ChildOpening::vanished
                        : child.error == ELOOP || child.error == ENOTDIR ? ChildOpening::changed
                                                                         : ChildOpening::failed;
        return child;
    }
    struct stat opened {};
    if (::fstat(child.fd.get(), &opened) != 0) {
        child.error = errno;
        child.fd.reset();
        child.outcome = ChildOpening::failed;
        return child;
    }
    if (EntryIdentity::of(opened) != EntryIdentity::of(listed) || !S_ISDIR(opened.st_mode)) {
        child.fd.reset();
        child.outcome = ChildOpening::changed;
        return child;
    }
    child.outcome = ChildOpening::opened;
    return child;
}

CleanerError childOpeningError(const VerifiedChild& child, std::string_view path) {
    if (child.outcome == ChildOpening::changed) {
        return CleanerError::safety("Directory changed during traversal: " + std::string(path));
    }
    if (child.outcome == ChildOpening::vanished) {
        return makeCoreError(operation::openingDirectory, path, ENOENT);
    }
    return child.error == 0 ? makeCoreError(operation::readingMetadata, path, EIO)
                            : makeCoreError(operation::openingDirectory, path, child.error);
}

UniqueFd openListedFolder(int parentFd, const char* name, std::string_view path,
                          const struct stat& listed, int flags) {
    VerifiedChild child = openVerifiedChild(parentFd, name, path, listed, flags);
    switch (child.outcome) {
    case ChildOpening::opened:
        return std::move(child.fd);
    case ChildOpening::vanished:
        return {};
    default:
        throw childOpeningError(child, path);
    }
}

UniqueFd openChain(std::string_view path, CreateMissing create) {
    std::vector<std::string_view> components = splitComponents(path);
    return descend(components, components.size(), create);
}

std::optional<ParentHandle> openParent(std::string_view path, CreateMissing create) {
    std::vector<std::string_view> components = splitComponents(path);
    if (components.empty()) {
        throw CleanerError::safety("The filesystem root cannot be operated on");
    }
    UniqueFd fd = descend(components, components.size() - 1, create);
    if (!fd) {
        if (errno == ENOENT || errno == EEXIST) {
            return std::nullopt;
        }
        throw makeCoreError(operation::openingAncestor, path, errno);
    }
    return ParentHandle{std::move(fd), std::string(components.back())};
}

} // namespace sd
