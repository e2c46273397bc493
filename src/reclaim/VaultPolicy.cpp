#include "reclaim/VaultPolicy.h"

#include "base/OpenFlags.h"
#include "core/CoreFileSystem.h"
#include "core/PathRules.h"
#include "platform/ScopeTables.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <fcntl.h>
#include <sys/stat.h>

namespace sd {
namespace {

constexpr std::array<std::string_view, 2> sharedCloudRows{"Library/Mobile Documents",
                                                          "Library/CloudStorage"};

constexpr std::array<std::string_view, 8> packageNames{
    ".photoslibrary", ".photolibrary", ".aplibrary", ".migratedaplibrary",
    ".lrcat",         ".lrdata",       ".cocatalog", ".sparsebundle",
};

constexpr std::array<std::string_view, 11> secretNames{
    ".ssh",    ".gnupg",          ".aws",      ".env",       ".envrc", ".netrc", ".npmrc",
    ".pypirc", ".password-store", ".electrum", "wallet.dat",
};

constexpr std::array<std::string_view, 4> secretPrefixes{"id_rsa", "id_dsa", "id_ecdsa",
                                                         "id_ed25519"};
constexpr std::array<std::string_view, 6> secretSuffixes{".pem", ".key",      ".p12",
                                                         ".pfx", ".keychain", ".keychain-db"};
constexpr std::array<std::string_view, 4> secretWords{"keychain", "keychains", "credentials",
                                                      "secrets"};

constexpr std::array<std::string_view, 9> userDataFragments{
    "indexeddb",   "leveldb", "local storage", "service worker", "session storage",
    "/databases/", "cookies", "credentials",   "token",
};
constexpr std::array<std::string_view, 8> userDataNames{
    ".password-store", ".electrum", "wallet.dat", "config.json",
    "id_rsa",          ".npmrc",    ".pypirc",    ".netrc",
};
constexpr std::array<std::string_view, 4> userDataSuffixes{".key", ".pem", ".p12", ".keychain"};
constexpr std::array<std::string_view, 6> userDataWords{"backup", "export", "invoice",
                                                        "tax",    "resume", "passport"};
constexpr std::array<std::string_view, 39> userDataExtensions{
    "jpg",     "jpeg", "png", "gif", "heic", "cr2",    "cr3",  "nef",    "arw",  "dng",
    "raf",     "orf",  "rw2", "mov", "mp4",  "m4v",    "avi",  "mkv",    "wav",  "aiff",
    "flac",    "mp3",  "m4a", "doc", "docx", "xls",    "xlsx", "ppt",    "pptx", "pages",
    "numbers", "key",  "pdf", "psd", "ai",   "sketch", "sql",  "sqlite", "db",
};

template <size_t N>
bool contains(const std::array<std::string_view, N>& table, std::string_view value) {
    return std::find(table.begin(), table.end(), value) != table.end();
}

bool containsAny(std::string_view text, std::span<const std::string_view> fragments) {
    return std::any_of(fragments.begin(), fragments.end(),
                       [&](std::string_view f) { return text.find(f) != std::string_view::npos; });
}

} // namespace

std::vector<std::string_view> wordsOf(std::string_view name) {
    std::vector<std::string_view> words;
    size_t start = std::string_view::npos;
    for (size_t i = 0; i <= name.size(); ++i) {
        // Bytes of multi-byte characters count as letters, so accented words stay whole.
        bool wordByte = i < name.size() && (std::isalnum(static_cast<unsigned char>(name[i])) ||
                                            static_cast<unsigned char>(name[i]) >= 0x80);
        if (wordByte && start == std::string_view::npos) {
            start = i;
        } else if (!wordByte && start != std::string_view::npos) {
            words.push_back(name.substr(start, i - start));
            start = std::string_view::npos;
        }
    }
    return words;
}

bool isSecretComponent(std::string_view name) {
    if (contains(secretNames, name) || name.starts_with(".env.") || name.ends_with(".env")) {
        return true;
    }
    for (std::string_view prefix : secretPrefixes) {
        if (name.starts_with(prefix)) {
            return true;
        }
    }
    for (std::string_view suffix : secretSuffixes) {
        if (name.ends_with(suffix)) {
            return true;
        }
    }
    std::vector<std::string_view> words = wordsOf(name);
    return std::any_of(words.begin(), words.end(),
                       [](std::string_view w) { return contains(secretWords, w); });
}

bool looksLikeUserData(std::string_view foldedPath, std::string_view foldedName) {
    if (containsAny(foldedPath, userDataFragments)) {
        return true;
    }
    if (contains(userDataNames, foldedName)) {
        return true;
    }
    for (std::string_view suffix : userDataSuffixes) {
        if (foldedName.ends_with(suffix)) {
            return true;
        }
    }
    std::vector<std::string_view> words = wordsOf(foldedName);
    if (std::any_of(words.begin(), words.end(),
                    [](std::string_view w) { return contains(userDataWords, w); })) {
        return true;
    }
    size_t dot = foldedName.rfind('.');
    if (dot == std::string_view::npos || dot == 0) {
        return false; // no extension: no dot, or only a leading one
    }
    return contains(userDataExtensions, foldedName.substr(dot + 1));
}

VaultPolicy::VaultPolicy(std::string home, VCSIgnoreCheck vcsIgnore)
    : home_(std::move(home)), vcsIgnore_(std::move(vcsIgnore)), foldedHome_(foldPath(home_)) {
    for (std::string_view root : platform::systemRoots()) {
        // A system folder that holds the home (a home under /var, say) would deny everything.
        if (isInside(home_, root)) {
            continue;
        }
        systemRoots_.emplace_back(root);
        foldedSystemRoots_.push_back(foldPath(root));
    }
    std::string base = home_ == "/" ? std::string() : home_;
    auto add = [&](std::string_view relative, bool cloud) {
        protected_.push_back(
            {foldPath(base + "/" + std::string(relative)), std::string(relative), cloud});
    };
    for (std::string_view row : scope::allProtectedLocations()) {
        add(row, false);
    }
    for (const std::string& own : ownRecordLocations()) {
        protected_.push_back({foldPath(own), own, false});
    }
    for (std::string_view row : sharedCloudRows) {
        add(row, true);
    }
    for (std::string_view row : platform::extraCloudFolders()) {
        add(row, true);
    }
}

std::optional<VaultDenyReason> VaultPolicy::verdict(std::string_view foldedPath) const {
    for (const std::string& root : foldedSystemRoots_) {
        if (isInside(foldedPath, root)) {
            return VaultDenyReason::systemPath;
        }
    }
    if (foldedPath == foldedHome_) {
        return VaultDenyReason::protectedUserDir;
    }
    for (const ProtectedDirectory& dir : protected_) {
        if (isInside(foldedPath, dir.path)) {
            return dir.cloud ? VaultDenyReason::cloudStorage : VaultDenyReason::protectedUserDir;
        }
    }
    if (containsAny(foldedPath, packageNames)) {
        return VaultDenyReason::photosLibraryInternal;
    }
    for (std::string_view component : splitComponents(foldedPath)) {
        if (isSecretComponent(component)) {
            return VaultDenyReason::protectedUserDir;
        }
    }
    return std::nullopt;
}

std::optional<VaultDenyReason> VaultPolicy::descendantVerdict(std::string_view foldedItem,
                                                              std::string_view foldedPath) const {
    // Only a protected folder that lies inside the foldedItem can be met below it.
    for (const ProtectedDirectory& dir : protected_) {
        if (isInside(dir.path, foldedItem) && isInside(foldedPath, dir.path)) {
            return dir.cloud ? VaultDenyReason::cloudStorage : VaultDenyReason::protectedUserDir;
        }
    }
    std::string_view below = foldedPath.substr(std::min(foldedItem.size(), foldedPath.size()));
    if (containsAny(below, packageNames)) {
        return VaultDenyReason::photosLibraryInternal;
    }
    if (isSecretComponent(lastComponent(foldedPath))) {
        return VaultDenyReason::protectedUserDir;
    }
    return std::nullopt;
}

ResolvedPath resolveRequestedPath(std::string_view requested) {
    ResolvedPath resolved;
    if (requested.empty() || requested.front() != '/' ||
        requested.find('\0') != std::string_view::npos) {
        resolved.denied = VaultDenyReason::unreadable;
        return resolved;
    }
    std::vector<std::string_view> components = splitComponents(requested);
    if (components.empty() || std::any_of(components.begin(), components.end(),
                                          [](auto c) { return c == "." || c == ".."; })) {
        resolved.denied = VaultDenyReason::unreadable;
        return resolved;
    }
    UniqueFd fd(::open("/", searchOpenFlags));
    std::string path;
    for (size_t i = 0; i < components.size(); ++i) {
        std::string name(components[i]);
        path.append("/").append(name);
        struct stat st {};
        if (!fd || ::fstatat(fd.get(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
            // A missing entry is judged by what can still be said of its name; the later look at
            // the entry itself reports it unreadable.
            path.clear();
            for (std::string_view c : components) {
                path.append("/").append(c);
            }
            break;
        }
        if (S_ISLNK(st.st_mode)) {
            resolved.denied = VaultDenyReason::symlinkInPath;
            resolved.path = normalizePath(requested);
            return resolved;
        }
        if (i + 1 < components.size()) {
            fd = openSearch(fd.get(), name.c_str());
        }
    }
    static constexpr std::string_view dataVolume = "/System/Volumes/Data";
    if (path == dataVolume) {
        path = "/";
    } else if (path.starts_with(std::string(dataVolume) + "/")) {
        path = path.substr(dataVolume.size());
    }
    resolved.path = path;
    return resolved;
}

} // namespace sd
