#include "reclaim/PutBack.h"

#include "base/OpenFlags.h"
#include "core/CoreFileSystem.h"
#include "core/PathRules.h"
#include "platform/FileSystemExtras.h"
#include "reclaim/VaultTypes.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>

namespace sd {
namespace {

// Opens the parent folder of `path` from "/", creating missing folders when asked.
std::optional<ParentHandle> openParentCreating(const std::string& path, bool create) {
    std::vector<std::string_view> components = splitComponents(path);
    if (components.empty()) {
        return std::nullopt;
    }
    UniqueFd fd(::open("/", searchOpenFlags));
    if (!fd) {
        return std::nullopt;
    }
    for (size_t i = 0; i + 1 < components.size(); ++i) {
        std::string name(components[i]);
        UniqueFd next = openSearch(fd.get(), name.c_str());
        if (!next && errno == ENOENT && create) {
            if (::mkdirat(fd.get(), name.c_str(), 0700) != 0 && errno != EEXIST) {
                return std::nullopt;
            }
            next = openSearch(fd.get(), name.c_str());
        }
        if (!next) {
            return std::nullopt;
        }
        fd = std::move(next);
    }
    return ParentHandle{std::move(fd), std::string(components.back())};
}

} // namespace

RestoreOutcome restoreFromTrash(const std::string& trashPath, const std::string& originalPath,
                                const std::optional<std::string>& identityToken) {
    std::optional<ParentHandle> from = openParentCreating(trashPath, false);
    if (!from) {
        return RestoreOutcome::unreachable;
    }
    struct stat st {};
    if (::fstatat(from->fd.get(), from->name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
        return RestoreOutcome::gone;
    }
    if (identityToken && sd::identityToken(EntryIdentity::of(st)) != *identityToken) {
        return RestoreOutcome::replaced;
    }
    std::optional<ParentHandle> to = openParentCreating(originalPath, true);
    if (!to) {
        return RestoreOutcome::unreachable;
    }
    int rc = platform::renameNoReplace(from->fd.get(), from->name.c_str(), to->fd.get(),
                                       to->name.c_str());
    if (rc == 0) {
        return RestoreOutcome::restored;
    }
    return rc == EEXIST || rc == ENOTEMPTY ? RestoreOutcome::occupied : RestoreOutcome::unreachable;
}

} // namespace sd
