#pragma once

#include "base/CleanerError.h"
#include "base/OpenFlags.h"
#include "base/UniqueFd.h"

#include <optional>
#include <string>
#include <string_view>
#include <sys/stat.h>

// The descriptor primitives every reader and mover is built from: open a folder without following
// a link, open a child that a listing described and prove it is that child, and open a path from
// "/" one component at a time. Nothing here resolves a path string once its parent is open.
namespace sd {

// Opens a directory to descend through it. Returns an invalid descriptor with errno set on
// failure; a symbolic link in the last component fails with ELOOP.
UniqueFd openSearch(int parentFd, const char* name);
// Opens a directory to read its entries, with the same refusal of links.
UniqueFd openListing(int parentFd, const char* name);

// No-follow stat of one entry. Empty when the entry is gone; other failures throw "Reading
// metadata for <path>".
std::optional<struct stat> statEntry(int parentFd, const char* name, std::string_view path);

// What opening a listed child gave.
enum class ChildOpening {
    opened,   // the folder the listing described, proven by device, inode and type
    vanished, // nothing by that name any more
    changed,  // a link, a file or another folder now answers to the name
    failed,   // the system refused (see `error`)
};

struct VerifiedChild {
    UniqueFd fd;
    ChildOpening outcome = ChildOpening::failed;
    int error = 0; // errno for `failed`
};

// Opens the child `name` of `parentFd` that a listing described as `listed` (its no-follow stat)
// with `flags`, and proves that what opened is that same folder. `path` is the child's full path,
// for the test seam and for errors.
VerifiedChild openVerifiedChild(int parentFd, const char* name, std::string_view path,
                                const struct stat& listed, int flags = listingOpenFlags);

// The same, for callers to whom anything but the listed folder or its absence is an error: empty
// when it vanished; throws SafetyViolation "Directory changed during traversal: <path>" when
// something else answers, and the system's refusal as "Opening directory <path>: …".
UniqueFd openListedFolder(int parentFd, const char* name, std::string_view path,
                          const struct stat& listed, int flags = listingOpenFlags);

// The error a failed opening stands for, as openListedFolder throws it.
CleanerError childOpeningError(const VerifiedChild& child, std::string_view path);

// Whether a walk from "/" may make the folders it does not find.
enum class CreateMissing { no, yes };

// Opens the folder `path` (normalized, absolute) from "/" one component at a time without
// following a link, creating missing folders with mode 0700 when asked. Returns an invalid
// descriptor with errno set on failure.
UniqueFd openChain(std::string_view path, CreateMissing create = CreateMissing::no);

struct ParentHandle {
    UniqueFd fd;
    std::string name;
};
// Opens the parent folder of `path` the same way and names its last component. Empty when an
// ancestor is gone (or, when creating, could not be made); throws "Opening ancestor of" for other
// failures and SafetyViolation for "/" itself.
std::optional<ParentHandle> openParent(std::string_view path,
                                       CreateMissing create = CreateMissing::no);

} // namespace sd
