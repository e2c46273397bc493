// The freedesktop.org Trash: a home Trash for the home's volume and one per other volume at the
// top of that volume. Items are renamed into "files" after their record is written to "info",
// so a crash can leave an orphan record but never an item nobody knows the origin of.
#include "platform/Trash.h"

#include "base/CleanerError.h"
#include "base/Descriptors.h"
#include "base/FileIo.h"
#include "base/OpenFlags.h"
#include "base/PathText.h"
#include "base/PercentEncoding.h"
#include "base/Saturating.h"
#include "base/UniqueFd.h"
#include "platform/DirectoryReader.h"
#include "platform/Dirs.h"
#include "platform/FileSystemExtras.h"
#include "platform/linux/MountTable.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <random>
#include <sstream>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace sd::platform {
namespace {

constexpr size_t nameMax = 255;

std::string uidText() {
    return std::to_string(::getuid());
}

std::string homeTrashPath() {
    return dataHome() + "/Trash";
}

UniqueFd openOrMake(int parentFd, const char* name) {
    UniqueFd fd = openSearch(parentFd, name);
    if (!fd && errno == ENOENT) {
        if (::mkdirat(parentFd, name, 0700) != 0 && errno != EEXIST) {
            return {};
        }
        fd = openSearch(parentFd, name);
    }
    return fd;
}

// The device the home Trash is (or would be created) on: that of its deepest existing folder.
std::optional<dev_t> homeTrashDevice() {
    UniqueFd fd(::open("/", searchOpenFlags));
    if (!fd) {
        return std::nullopt;
    }
    const std::string trashPath = homeTrashPath(); // the views below point into it
    for (std::string_view component : splitComponents(trashPath)) {
        std::string name(component);
        UniqueFd next = openSearch(fd.get(), name.c_str());
        if (!next) {
            break;
        }
        fd = std::move(next);
    }
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0) {
        return std::nullopt;
    }
    return st.st_dev;
}

// The top folder of the volume that holds `path`: its shortest ancestor on the same device.
std::optional<std::string> topDirectoryOf(const std::string& path, dev_t device) {
    std::string prefix;
    for (std::string_view component : splitComponents(path)) {
        prefix.append("/").append(component);
        struct stat st {};
        if (::lstat(prefix.c_str(), &st) != 0) {
            return std::nullopt;
        }
        if (S_ISLNK(st.st_mode)) {
            return std::nullopt;
        }
        if (st.st_dev == device) {
            return prefix;
        }
    }
    return std::nullopt;
}

struct TrashRoot {
    UniqueFd dir;
    UniqueFd files;
    UniqueFd info;
    std::string path;
    std::string topDirectory; // empty for the home Trash, whose records hold absolute paths
};

bool ownedDirectoryOn(int fd, dev_t device) {
    struct stat st {};
    return ::fstat(fd, &st) == 0 && S_ISDIR(st.st_mode) && st.st_uid == ::getuid() &&
           st.st_dev == device;
}

std::optional<TrashRoot> finishRoot(UniqueFd dir, std::string path, std::string top, dev_t device) {
    if (!dir || !ownedDirectoryOn(dir.get(), device)) {
        return std::nullopt;
    }
    TrashRoot root;
    root.files = openOrMake(dir.get(), "files");
    root.info = openOrMake(dir.get(), "info");
    if (!root.files || !root.info || !ownedDirectoryOn(root.files.get(), device) ||
        !ownedDirectoryOn(root.info.get(), device)) {
        return std::nullopt;
    }
    root.dir = std::move(dir);
    root.path = std::move(path);
    root.topDirectory = std::move(top);
    return root;
}

// The Trash that takes items of `device`, created as needed. Empty when none can.
std::optional<TrashRoot> openTrashFor(const std::string& path, dev_t device) {
    if (homeTrashDevice() == device) {
        std::string trash = homeTrashPath();
        return finishRoot(openChain(trash, CreateMissing::yes), trash, {}, device);
    }
    std::optional<std::string> top = topDirectoryOf(path, device);
    if (!top) {
        return std::nullopt;
    }
    UniqueFd topFd = openChain(*top);
    if (!topFd) {
        return std::nullopt;
    }
    // A shared ".Trash" counts only when it is a real folder with the sticky bit, so that no
    // user can replace another's Trash inside it.
    struct stat shared {};
    if (::fstatat(topFd.get(), ".Trash", &shared, AT_SYMLINK_NOFOLLOW) == 0 &&
        S_ISDIR(shared.st_mode) && (shared.st_mode & S_ISVTX) != 0) {
        UniqueFd sharedFd = openSearch(topFd.get(), ".Trash");
        if (sharedFd) {
            std::string uid = uidText();
            if (auto root = finishRoot(openOrMake(sharedFd.get(), uid.c_str()),
                                       *top + "/.Trash/" + uid, *top, device)) {
                return root;
            }
        }
    }
    std::string own = ".Trash-" + uidText();
    return finishRoot(openOrMake(topFd.get(), own.c_str()), *top + "/" + own, *top, device);
}

std::string localTimestamp() {
    std::time_t now = std::time(nullptr);
    std::tm local{};
    ::localtime_r(&now, &local);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &local);
    return text;
}

// Cuts a name so that it and `suffix` fit one path component, at a character boundary.
std::string fitName(const std::string& name, size_t room) {
    if (name.size() <= room) {
        return name;
    }
    size_t cut = room;
    while (cut > 0 && (static_cast<unsigned char>(name[cut]) & 0xC0) == 0x80) {
        --cut;
    }
    return name.substr(0, cut);
}

// An info file that is removed again unless the move it describes happened.
class PendingInfo {
public:
    PendingInfo(int infoDir, std::string name) : dir_(infoDir), name_(std::move(name)) {}
    PendingInfo(const PendingInfo&) = delete;
    PendingInfo& operator=(const PendingInfo&) = delete;
    ~PendingInfo() {
        if (!kept_) {
            ::unlinkat(dir_, name_.c_str(), 0);
        }
    }
    void keep() { kept_ = true; }

private:
    int dir_;
    std::string name_;
    bool kept_ = false;
};

std::string readSmallFile(int dirFd, const char* name) {
    UniqueFd fd(::openat(dirFd, name, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    return fd ? readAll(fd.get(), size_t(1) << 24) : std::string();
}

// Rewrites the folder-size cache with `change` applied to its lines, replacing it atomically.
template <typename Change> void rewriteDirectorySizes(int trashDir, Change&& change) {
    std::istringstream lines(readSmallFile(trashDir, "directorysizes"));
    std::string kept;
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && change(line)) {
            kept.append(line).append("\n");
        }
    }
    change.append(kept);
    std::random_device random;
    std::string temporary = "directorysizes." + std::to_string(random());
    UniqueFd fd(
        ::openat(trashDir, temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!fd) {
        return;
    }
    if (!writeAll(fd.get(), kept) ||
        ::renameat(trashDir, temporary.c_str(), trashDir, "directorysizes") != 0) {
        ::unlinkat(trashDir, temporary.c_str(), 0);
    }
}

struct AddSize {
    std::string encodedName;
    std::string line;
    bool operator()(const std::string& existing) const {
        return !existing.ends_with(" " + encodedName);
    }
    void append(std::string& text) const { text.append(line).append("\n"); }
};

struct DropSize {
    std::string encodedName;
    bool operator()(const std::string& existing) const {
        return !existing.ends_with(" " + encodedName);
    }
    void append(std::string&) const {}
};

struct InfoRecord {
    std::string path;
    std::string date;
};

std::optional<InfoRecord> parseInfo(const std::string& text) {
    std::istringstream lines(text);
    std::string line;
    bool inSection = false;
    InfoRecord record;
    bool havePath = false;
    while (std::getline(lines, line)) {
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        if (line.starts_with("[")) {
            inSection = line == "[Trash Info]";
            continue;
        }
        if (!inSection) {
            continue;
        }
        if (line.starts_with("Path=") && !havePath) {
            std::optional<std::string> decoded = percentDecode(line.substr(5));
            if (!decoded) {
                return std::nullopt;
            }
            record.path = *decoded;
            havePath = true;
        } else if (line.starts_with("DeletionDate=") && record.date.empty()) {
            record.date = line.substr(13);
        }
    }
    if (!havePath) {
        return std::nullopt;
    }
    return record;
}

std::vector<std::string> mountPoints() {
    std::vector<std::string> points;
    std::ifstream mounts("/proc/self/mounts");
    for (std::string line; std::getline(mounts, line);) {
        std::istringstream fields(line);
        std::string source;
        std::string target;
        if (fields >> source >> target) {
            points.push_back(unescapeMountField(target));
        }
    }
    return points;
}

struct RootLocation {
    std::string path;
    std::string topDirectory;
};

std::vector<RootLocation> existingTrashRoots() {
    std::vector<RootLocation> roots{{homeTrashPath(), {}}};
    std::string uid = uidText();
    for (const std::string& top : mountPoints()) {
        std::string base = top == "/" ? std::string() : top;
        roots.push_back({base.append("/.Trash/").append(uid), top});
        base.resize(top == "/" ? 0 : top.size());
        roots.push_back({base.append("/.Trash-").append(uid), top});
    }
    std::vector<RootLocation> existing;
    std::vector<std::pair<dev_t, ino_t>> seen;
    for (RootLocation& root : roots) {
        UniqueFd fd = openChain(root.path);
        struct stat st {};
        if (!fd || ::fstat(fd.get(), &st) != 0) {
            continue;
        }
        std::pair<dev_t, ino_t> id{st.st_dev, st.st_ino};
        if (std::find(seen.begin(), seen.end(), id) != seen.end()) {
            continue; // the same Trash reached through two mount entries
        }
        seen.push_back(id);
        existing.push_back(std::move(root));
    }
    return existing;
}

} // namespace

TrashMoveResult moveToTrash(int parentFd, const std::string& name, const std::string& path,
                            const struct stat& st, std::uint64_t bytes) {
    TrashMoveResult result;
    std::optional<TrashRoot> root = openTrashFor(path, st.st_dev);
    if (!root) {
        result.nonTrashable = true;
        result.error = EXDEV;
        return result;
    }
    std::string recorded = path;
    if (!root->topDirectory.empty()) {
        recorded =
            root->topDirectory == "/" ? path.substr(1) : path.substr(root->topDirectory.size() + 1);
    }
    std::string info = "[Trash Info]\nPath=" + percentEncodePath(recorded) +
                       "\nDeletionDate=" + localTimestamp() + "\n";
    const std::string infoSuffix = ".trashinfo";
    for (int attempt = 1; attempt < 10000; ++attempt) {
        std::string suffix = attempt == 1 ? std::string() : "." + std::to_string(attempt);
        std::string candidate = fitName(name, nameMax - infoSuffix.size() - suffix.size()) + suffix;
        std::string infoName = candidate + infoSuffix;
        UniqueFd infoFd(::openat(root->info.get(), infoName.c_str(),
                                 O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!infoFd) {
            if (errno == EEXIST) {
                continue;
            }
            result.error = errno;
            return result;
        }
        PendingInfo pending(root->info.get(), infoName);
        struct stat infoStat {};
        if (!writeAll(infoFd.get(), info) || ::fsync(infoFd.get()) != 0 ||
            ::fstat(infoFd.get(), &infoStat) != 0) {
            result.error = errno == 0 ? EIO : errno;
            return result;
        }
        infoFd.reset();
        int rc = renameNoReplace(parentFd, name.c_str(), root->files.get(), candidate.c_str());
        if (rc == EEXIST) {
            continue;
        }
        if (rc != 0) {
            result.error = rc;
            return result;
        }
        pending.keep();
        if (S_ISDIR(st.st_mode)) {
            std::string encoded = percentEncodePath(candidate);
            rewriteDirectorySizes(root->dir.get(),
                                  AddSize{encoded, std::to_string(bytes) + " " +
                                                       std::to_string(infoStat.st_mtime) + " " +
                                                       encoded});
        }
        result.trashPath = root->path + "/files/" + candidate;
        return result;
    }
    result.error = EEXIST;
    return result;
}

bool trashCanTake(const std::string& path, const struct stat& st) {
    if (homeTrashDevice() == st.st_dev) {
        return true;
    }
    std::optional<std::string> top = topDirectoryOf(path, st.st_dev);
    if (!top) {
        return false;
    }
    struct statvfs fs {};
    if (::statvfs(top->c_str(), &fs) != 0 || (fs.f_flag & ST_RDONLY) != 0) {
        return false;
    }
    UniqueFd topFd = openChain(*top);
    if (!topFd) {
        return false;
    }
    std::string uid = uidText();
    struct stat existing {};
    // The same order as the move: a sticky shared ".Trash" first, then our own ".Trash-$uid".
    if (::fstatat(topFd.get(), ".Trash", &existing, AT_SYMLINK_NOFOLLOW) == 0 &&
        S_ISDIR(existing.st_mode) && (existing.st_mode & S_ISVTX) != 0) {
        struct stat mine {};
        std::string inShared = ".Trash/" + uid;
        if (::fstatat(topFd.get(), inShared.c_str(), &mine, AT_SYMLINK_NOFOLLOW) != 0
                ? errno == ENOENT &&
                      ::faccessat(topFd.get(), ".Trash", W_OK | X_OK, AT_EACCESS) == 0
                : S_ISDIR(mine.st_mode) && mine.st_uid == ::getuid()) {
            return true;
        }
    }
    if (::fstatat(topFd.get(), (".Trash-" + uid).c_str(), &existing, AT_SYMLINK_NOFOLLOW) == 0) {
        return S_ISDIR(existing.st_mode) && existing.st_uid == ::getuid();
    }
    return ::faccessat(topFd.get(), ".", W_OK | X_OK, AT_EACCESS) == 0;
}

void forgetTrashed(const std::string& trashPath) {
    size_t slash = trashPath.rfind('/');
    if (slash == std::string::npos || slash == 0) {
        return;
    }
    std::string name = trashPath.substr(slash + 1);
    std::string filesDir = trashPath.substr(0, slash);
    if (!filesDir.ends_with("/files")) {
        return;
    }
    std::string root = filesDir.substr(0, filesDir.size() - 6);
    UniqueFd rootFd = openChain(root);
    if (!rootFd) {
        return;
    }
    UniqueFd infoFd = openSearch(rootFd.get(), "info");
    if (infoFd) {
        ::unlinkat(infoFd.get(), (name + ".trashinfo").c_str(), 0);
    }
    rewriteDirectorySizes(rootFd.get(), DropSize{percentEncodePath(name)});
}

std::vector<TrashedEntry> listTrash() {
    std::vector<TrashedEntry> entries;
    for (const RootLocation& root : existingTrashRoots()) {
        UniqueFd rootFd = openChain(root.path);
        if (!rootFd) {
            continue;
        }
        UniqueFd infoFd = openListing(rootFd.get(), "info");
        UniqueFd filesFd = openSearch(rootFd.get(), "files");
        if (!infoFd || !filesFd) {
            continue;
        }
        // Read raw: another tool may have trashed a name that is not UTF-8, and that must not
        // hide every other item of this Trash.
        std::vector<std::string> names;
        if (!readDirectoryNames(infoFd.get(), names).operation.empty()) {
            continue;
        }
        std::sort(names.begin(), names.end());
        std::istringstream sizes(readSmallFile(rootFd.get(), "directorysizes"));
        struct CachedSize {
            std::string encoded;
            std::uint64_t bytes = 0;
            long long infoTime = 0;
        };
        std::vector<CachedSize> folderSizes;
        for (std::string line; std::getline(sizes, line);) {
            std::istringstream fields(line);
            CachedSize row;
            if (fields >> row.bytes >> row.infoTime >> row.encoded) {
                folderSizes.push_back(std::move(row));
            }
        }
        for (const std::string& infoName : names) {
            if (!infoName.ends_with(".trashinfo") || infoName.size() == 10) {
                continue;
            }
            std::string itemName = infoName.substr(0, infoName.size() - 10);
            std::optional<InfoRecord> record =
                parseInfo(readSmallFile(infoFd.get(), infoName.c_str()));
            struct stat st {};
            if (!record ||
                ::fstatat(filesFd.get(), itemName.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
                continue; // a record without its item, or an unreadable record
            }
            TrashedEntry entry;
            entry.trashPath = root.path + "/files/" + itemName;
            entry.originalPath = record->path;
            if (!record->path.starts_with("/")) {
                entry.originalPath =
                    (root.topDirectory == "/" ? std::string() : root.topDirectory) + "/" +
                    record->path;
            }
            entry.deletionDate = record->date;
            entry.isDirectory = S_ISDIR(st.st_mode);
            entry.identity = EntryIdentity::of(st);
            if (!entry.isDirectory) {
                entry.bytes = allocatedBytesOf(st);
            }
            if (entry.isDirectory) {
                // A line is only as good as the record it was written with: a tool that put the
                // folder back may have left it, and a later folder of the same name has a newer
                // record.
                std::string encoded = percentEncodePath(itemName);
                struct stat infoStat {};
                bool haveInfoTime =
                    ::fstatat(infoFd.get(), infoName.c_str(), &infoStat, AT_SYMLINK_NOFOLLOW) == 0;
                auto cached = std::find_if(folderSizes.begin(), folderSizes.end(),
                                           [&](const CachedSize& row) {
                                               return haveInfoTime && row.encoded == encoded &&
                                                      row.infoTime == infoStat.st_mtime;
                                           });
                if (cached != folderSizes.end()) {
                    entry.bytes = cached->bytes;
                }
            }
            entries.push_back(std::move(entry));
        }
    }
    return entries;
}

std::optional<std::string> recordedOrigin(const std::string& trashPath) {
    size_t slash = trashPath.rfind('/');
    if (slash == std::string::npos || slash + 1 == trashPath.size()) {
        return std::nullopt;
    }
    std::string name = trashPath.substr(slash + 1);
    std::string folder = trashPath.substr(0, slash);
    for (const RootLocation& root : existingTrashRoots()) {
        if (root.path + "/files" != folder) {
            continue;
        }
        UniqueFd rootFd = openChain(root.path);
        UniqueFd infoFd = rootFd ? openSearch(rootFd.get(), "info") : UniqueFd();
        if (!infoFd) {
            return std::nullopt;
        }
        std::optional<InfoRecord> record =
            parseInfo(readSmallFile(infoFd.get(), (name + ".trashinfo").c_str()));
        if (!record) {
            return std::nullopt;
        }
        if (record->path.starts_with("/")) {
            return record->path;
        }
        return (root.topDirectory == "/" ? std::string() : root.topDirectory) + "/" + record->path;
    }
    return std::nullopt;
}

std::vector<std::string> trashFolders() {
    std::vector<std::string> folders;
    for (const RootLocation& root : existingTrashRoots()) {
        folders.push_back(root.path + "/files");
    }
    return folders;
}

} // namespace sd::platform
