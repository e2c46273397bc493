#include "core/PathRules.h"

#include "base/CleanerError.h"
#include "core/CoreFileSystem.h"
#include "core/MockRoots.h"
#include "platform/Dirs.h"
#include "platform/Home.h"
#include "platform/ScopeTables.h"
#include "platform/UserDirs.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <memory>
#include <utf8proc.h>

namespace sd {
namespace {

std::string asciiLower(std::string_view text) {
    std::string out(text);
    for (char& c : out) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return out;
}

bool isAscii(std::string_view text) {
    return std::all_of(text.begin(), text.end(),
                       [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

bool isCased(utf8proc_int32_t c) {
    return utf8proc_islower(c) || utf8proc_isupper(c) ||
           utf8proc_category(c) == UTF8PROC_CATEGORY_LT;
}

bool isCaseIgnorable(utf8proc_int32_t c) {
    switch (utf8proc_category(c)) {
    case UTF8PROC_CATEGORY_MN:
    case UTF8PROC_CATEGORY_ME:
    case UTF8PROC_CATEGORY_CF:
    case UTF8PROC_CATEGORY_LM:
    case UTF8PROC_CATEGORY_SK:
        return true;
    default:
        break;
    }
    // Word-break MidLetter, MidNumLet and Single_Quote characters.
    switch (c) {
    case 0x27:
    case 0x2E:
    case 0x3A:
    case 0xB7:
    case 0x387:
    case 0x55F:
    case 0x5F4:
    case 0x2018:
    case 0x2019:
    case 0x2024:
    case 0x2027:
    case 0xFE13:
    case 0xFE52:
    case 0xFE55:
    case 0xFF07:
    case 0xFF0E:
    case 0xFF1A:
        return true;
    default:
        return false;
    }
}

// Capital sigma lowers to the final form at the end of a word, as full Unicode lower-casing
// (and so every other tool that folds names) does.
bool isFinalSigma(const std::vector<utf8proc_int32_t>& text, size_t at) {
    size_t j = at;
    bool before = false;
    while (j > 0) {
        --j;
        if (!isCaseIgnorable(text[j])) {
            before = isCased(text[j]);
            break;
        }
    }
    if (!before) {
        return false;
    }
    for (size_t k = at + 1; k < text.size(); ++k) {
        if (!isCaseIgnorable(text[k])) {
            return !isCased(text[k]);
        }
    }
    return true;
}

void appendUtf8(std::string& out, utf8proc_int32_t c) {
    utf8proc_uint8_t bytes[4];
    auto n = utf8proc_encode_char(c, bytes);
    out.append(reinterpret_cast<const char*>(bytes), static_cast<size_t>(n));
}

struct ScopeTables {
    std::string home;
    std::string homeLibraryFolded;
    // Each protected row as "<home>/<row>" folded, and the same with a trailing "/".
    std::vector<std::pair<std::string, std::string>> protectedRows;
    std::vector<std::string> appDataRowsFolded;
};

const ScopeTables& tables() {
    static const ScopeTables built = [] {
        ScopeTables t;
        t.home = homeDirectory();
        std::string base = t.home == "/" ? std::string() : t.home;
        t.homeLibraryFolded = foldPath(base + "/Library");
        for (std::string_view row : scope::allProtectedLocations()) {
            std::string full = foldPath(base + "/" + std::string(row));
            t.protectedRows.emplace_back(full, full + "/");
        }
        for (const std::string& own : ownRecordLocations()) {
            std::string full = foldPath(own);
            t.protectedRows.emplace_back(full, full + "/");
        }
        for (std::string_view row : scope::allAppDataLocations()) {
            t.appDataRowsFolded.push_back(foldPath(base + "/" + std::string(row)));
        }
        return t;
    }();
    return built;
}

std::string outOfScope(std::string_view path) {
    return "Protected or out-of-home path: " + std::string(path);
}

} // namespace

const std::string& homeDirectory() {
    return platform::homeDirectory();
}

std::string foldPath(std::string_view path) {
    if (isAscii(path)) {
        return asciiLower(path);
    }
    utf8proc_uint8_t* composed = nullptr;
    auto length = utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(path.data()),
                               static_cast<utf8proc_ssize_t>(path.size()), &composed,
                               static_cast<utf8proc_option_t>(UTF8PROC_STABLE | UTF8PROC_COMPOSE));
    if (length < 0) {
        // Not UTF-8: no composition is possible, so compare the bytes as they are.
        return asciiLower(path);
    }
    std::unique_ptr<utf8proc_uint8_t, decltype(&std::free)> owner(composed, &std::free);
    std::vector<utf8proc_int32_t> points;
    points.reserve(static_cast<size_t>(length));
    for (utf8proc_ssize_t at = 0; at < length;) {
        utf8proc_int32_t c = 0;
        auto n = utf8proc_iterate(composed + at, length - at, &c);
        if (n <= 0) {
            return asciiLower(path);
        }
        points.push_back(c);
        at += n;
    }
    std::string out;
    out.reserve(static_cast<size_t>(length) + 8);
    for (size_t i = 0; i < points.size(); ++i) {
        utf8proc_int32_t c = points[i];
        if (c == 0x130) { // capital I with dot above keeps its dot when lowered
            appendUtf8(out, 0x69);
            appendUtf8(out, 0x307);
        } else if (c == 0x3A3) {
            appendUtf8(out, isFinalSigma(points, i) ? 0x3C2 : 0x3C3);
        } else {
            appendUtf8(out, utf8proc_tolower(c));
        }
    }
    return out;
}

std::string normalizePath(std::string_view path) {
    if (path.empty() || path.front() != '/' || path.find('\0') != std::string_view::npos) {
        throw CleanerError::invalidPath("An absolute path without NUL bytes is required");
    }
    std::string out;
    out.reserve(path.size());
    for (std::string_view component : splitComponents(path)) {
        if (component == "." || component == "..") {
            throw CleanerError::safety("Relative path components are forbidden: " +
                                       std::string(path));
        }
        out.push_back('/');
        out.append(component);
    }
    return out.empty() ? std::string("/") : out;
}

bool isInside(std::string_view path, std::string_view root) noexcept {
    if (root.empty()) {
        return false;
    }
    if (root == "/") {
        return !path.empty() && path.front() == '/';
    }
    if (root.back() == '/') {
        root.remove_suffix(1);
    }
    if (!path.starts_with(root)) {
        return false;
    }
    return path.size() == root.size() || path[root.size()] == '/';
}

std::vector<std::string> ownRecordLocations() {
    return {platform::supportDirectory(), platform::configHome() + "/sparrowdeck"};
}

bool isProtected(std::string_view path) {
    std::string folded = foldPath(path);
    const auto& rows = tables().protectedRows;
    return std::any_of(rows.begin(), rows.end(), [&](const auto& row) {
        return folded == row.first || folded.starts_with(row.second);
    });
}

std::string validateOperablePath(std::string_view path) {
    std::string normalized = normalizePath(path);
    const ScopeTables& t = tables();
    if (t.home.empty() || normalized == t.home) {
        throw CleanerError::safety(outOfScope(normalized));
    }
    bool inHome = isInside(normalized, t.home);
    bool inMockRoot = MockRoots::owns(normalized);
    if (!inHome && !inMockRoot) {
        throw CleanerError::safety(outOfScope(normalized));
    }
    if (isProtected(normalized)) {
        throw CleanerError::safety(outOfScope(normalized));
    }
    if (foldPath(normalized) == t.homeLibraryFolded) {
        throw CleanerError::safety("Cannot operate on the Library root");
    }
    if (inMockRoot) {
        MockRoots::checkPath(normalized);
    } else {
        refuseSymlink(normalized);
    }
    return normalized;
}

std::string validateAppDataPath(std::string_view path) {
    std::string normalized = validateOperablePath(path);
    std::string folded = foldPath(normalized);
    const auto& rows = tables().appDataRowsFolded;
    bool isLocation = std::find(rows.begin(), rows.end(), folded) != rows.end();
    bool strictlyInside = std::any_of(rows.begin(), rows.end(), [&](const std::string& row) {
        return folded.size() > row.size() && isInside(folded, row);
    });
    if (isLocation || !strictlyInside) {
        throw CleanerError::safety("Not a specific app path under a permitted Library location: " +
                                   normalized);
    }
    return normalized;
}

std::string validateCachePath(std::string_view path) {
    std::string normalized = validateOperablePath(path);
    const std::string& home = tables().home;
    std::string_view below;
    if (isInside(normalized, home)) {
        below = std::string_view(normalized).substr(home == "/" ? 0 : home.size());
    } else if (auto root = MockRoots::rootOf(normalized)) {
        below = std::string_view(normalized).substr(root->size());
    } else {
        throw CleanerError::safety("Unrecognized path scope");
    }
    std::string belowFolded = foldPath(below);
    std::vector<std::string_view> components = splitComponents(belowFolded);

    for (std::string_view component : components) {
        if (std::find(scope::cacheDirectoryNames.begin(), scope::cacheDirectoryNames.end(),
                      component) != scope::cacheDirectoryNames.end()) {
            return normalized;
        }
    }
    for (std::string_view fragment : scope::recognizedCacheFragments) {
        std::string fragmentFolded = foldPath(fragment);
        std::vector<std::string_view> parts = splitComponents(fragmentFolded);
        if (std::search(components.begin(), components.end(), parts.begin(), parts.end()) !=
            components.end()) {
            return normalized;
        }
    }
    if (components.size() >= 4 && components[0] == "library" &&
        components[1] == "group containers" &&
        components[2].ends_with(scope::telegramContainerSuffix) &&
        std::find(scope::telegramCacheFolders.begin(), scope::telegramCacheFolders.end(),
                  components[3]) != scope::telegramCacheFolders.end()) {
        return normalized;
    }
    throw CleanerError::safety("Path is not a recognized cache: " + normalized);
}

bool isSensitiveName(std::string_view name) noexcept {
    return std::find(scope::sensitiveNames.begin(), scope::sensitiveNames.end(), name) !=
           scope::sensitiveNames.end();
}

bool isCacheName(std::string_view name) {
    std::string folded = foldPath(name);
    return std::find(scope::quickCacheNames.begin(), scope::quickCacheNames.end(), folded) !=
           scope::quickCacheNames.end();
}

std::vector<std::string_view> scope::allProtectedLocations() {
    std::vector<std::string_view> rows(protectedLocations.begin(), protectedLocations.end());
    auto extra = platform::extraProtectedLocations();
    rows.insert(rows.end(), extra.begin(), extra.end());
    const std::vector<std::string>& recorded = platform::userDirectories();
    rows.insert(rows.end(), recorded.begin(), recorded.end());
    return rows;
}

std::vector<std::string_view> scope::ownFolders() {
    std::vector<std::string_view> rows(sharedOwnFolders.begin(), sharedOwnFolders.end());
    auto extra = platform::extraOwnFolders();
    rows.insert(rows.end(), extra.begin(), extra.end());
    const std::vector<std::string>& recorded = platform::userDirectories();
    rows.insert(rows.end(), recorded.begin(), recorded.end());
    return rows;
}

std::vector<std::string_view> scope::allAppDataLocations() {
    std::vector<std::string_view> rows(appDataLocations.begin(), appDataLocations.end());
    auto extra = platform::extraAppDataLocations();
    rows.insert(rows.end(), extra.begin(), extra.end());
    return rows;
}

} // namespace sd
