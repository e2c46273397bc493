#pragma once

#include "reclaim/GitIgnoreCheck.h"
#include "reclaim/VaultTypes.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sd {

// What the vault will never move, decided on folded paths (NFC, lower case). Built once per
// home; immutable after.
class VaultPolicy {
public:
    struct ProtectedDirectory {
        std::string path;     // folded absolute path
        std::string relative; // as written, relative to the home ("Library/CloudStorage")
        bool cloud = false;
    };

    explicit VaultPolicy(std::string home, VCSIgnoreCheck vcsIgnore = makeGitIgnoreCheck());

    const std::string& home() const noexcept { return home_; }
    const std::vector<std::string>& systemRoots() const noexcept { return systemRoots_; }
    const VCSIgnoreCheck& vcsIgnore() const noexcept { return vcsIgnore_; }
    const std::string& foldedHome() const noexcept { return foldedHome_; }
    const std::vector<ProtectedDirectory>& foldedProtectedDirectories() const noexcept {
        return protected_;
    }

    // The first rule a folded path breaks, in the fixed order: system folder, the home itself,
    // protected or cloud folder, inside a library package, a secret location.
    std::optional<VaultDenyReason> verdict(std::string_view foldedPath) const;

    // The same rules for something found inside an item that already passed: only what the
    // descendant adds below `foldedItem` is judged by name.
    std::optional<VaultDenyReason> descendantVerdict(std::string_view foldedItem,
                                                     std::string_view foldedPath) const;

private:
    std::string home_;
    std::vector<std::string> systemRoots_;
    VCSIgnoreCheck vcsIgnore_;
    std::string foldedHome_;
    std::vector<std::string> foldedSystemRoots_;
    std::vector<ProtectedDirectory> protected_;
};

// A name that holds secrets or keys (".ssh", "id_ed25519.pub", "my-credentials-2024").
bool isSecretComponent(std::string_view foldedName);

// True when a folded path looks like the person's own files rather than something that comes
// back by itself. `foldedPath` is the path judged for "contains" rules, `foldedName` its last
// component.
bool looksLikeUserData(std::string_view foldedPath, std::string_view foldedName);

// The words of a name: its maximal runs of letters and digits.
std::vector<std::string_view> wordsOf(std::string_view name);

struct ResolvedPath {
    std::string path;                      // what scope and policy see
    std::optional<VaultDenyReason> denied; // unreadable or symlinkInPath
};

// Checks the shape of a requested path and that no component is a link, without following any.
// The data-volume prefix "/System/Volumes/Data" is dropped so rules see the usual spelling.
ResolvedPath resolveRequestedPath(std::string_view requested);

} // namespace sd
