#include "platform/UserDirs.h"

#include "base/FileIo.h"
#include "base/PathText.h"
#include "platform/Dirs.h"
#include "platform/Home.h"

#include <algorithm>
#include <array>
#include <fcntl.h>
#include <optional>
#include <sys/stat.h>

namespace sd::platform {
namespace {

constexpr std::array<std::string_view, 8> knownKeys{
    "XDG_DESKTOP_DIR",  "XDG_DOCUMENTS_DIR",   "XDG_DOWNLOAD_DIR",  "XDG_MUSIC_DIR",
    "XDG_PICTURES_DIR", "XDG_PUBLICSHARE_DIR", "XDG_TEMPLATES_DIR", "XDG_VIDEOS_DIR",
};

std::string_view trimLeft(std::string_view text) {
    size_t start = text.find_first_not_of(" \t");
    return start == std::string_view::npos ? std::string_view() : text.substr(start);
}

// The double-quoted value as the shell that sources the file would read it: a backslash keeps the
// next character. Nothing after the closing quote but blanks or a comment.
std::optional<std::string> quotedValue(std::string_view text) {
    if (text.empty() || text.front() != '"') {
        return std::nullopt;
    }
    std::string value;
    for (size_t i = 1; i < text.size(); ++i) {
        char c = text[i];
        if (c == '\\' && i + 1 < text.size()) {
            value.push_back(text[++i]);
        } else if (c == '"') {
            std::string_view rest = trimLeft(text.substr(i + 1));
            if (!rest.empty() && rest.front() != '#') {
                return std::nullopt;
            }
            return value;
        } else {
            value.push_back(c);
        }
    }
    return std::nullopt;
}

// `path` relative to `home`, when it lies strictly inside it with no "." or ".." on the way.
std::optional<std::string> belowHome(std::string_view path, std::string_view home) {
    std::vector<std::string_view> pathParts = splitComponents(path);
    std::vector<std::string_view> homeParts = splitComponents(home);
    if (pathParts.size() <= homeParts.size() ||
        !std::equal(homeParts.begin(), homeParts.end(), pathParts.begin())) {
        return std::nullopt;
    }
    std::string relative;
    for (size_t i = homeParts.size(); i < pathParts.size(); ++i) {
        if (pathParts[i] == "." || pathParts[i] == "..") {
            return std::nullopt;
        }
        if (!relative.empty()) {
            relative.push_back('/');
        }
        relative.append(pathParts[i]);
    }
    return relative;
}

} // namespace

std::vector<std::string> parseUserDirectories(std::string_view text, std::string_view home) {
    std::vector<std::string> rows;
    while (!text.empty()) {
        size_t end = text.find('\n');
        std::string_view line = trimLeft(text.substr(0, end));
        text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
        size_t equals = line.find('=');
        if (line.empty() || line.front() == '#' || equals == std::string_view::npos) {
            continue;
        }
        std::string_view key = line.substr(0, equals);
        key = key.substr(0, key.find_last_not_of(" \t") + 1);
        if (std::find(knownKeys.begin(), knownKeys.end(), key) == knownKeys.end()) {
            continue;
        }
        std::optional<std::string> value = quotedValue(trimLeft(line.substr(equals + 1)));
        if (!value) {
            continue;
        }
        std::string absolute;
        if (value->starts_with("$HOME")) {
            std::string_view rest = std::string_view(*value).substr(5);
            if (!rest.empty() && rest.front() != '/') {
                continue; // "$HOMEWORK" is another variable, not the home
            }
            absolute = std::string(home) + std::string(rest);
        } else if (value->starts_with('/')) {
            absolute = *value;
        } else {
            continue;
        }
        std::optional<std::string> relative = belowHome(absolute, home);
        if (relative && std::find(rows.begin(), rows.end(), *relative) == rows.end()) {
            rows.push_back(std::move(*relative));
        }
    }
    return rows;
}

const std::vector<std::string>& userDirectories() {
    static const std::vector<std::string> rows = [] {
        // A dotfile manager may link the record in, so a symbolic link is followed here; nothing
        // is ever moved on the strength of this file, it only protects more.
        std::string path = configHome() + "/user-dirs.dirs";
        UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
        struct stat st {};
        if (!fd || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
            return std::vector<std::string>{};
        }
        return parseUserDirectories(readAll(fd.get(), size_t{1} << 16), homeDirectory());
    }();
    return rows;
}

} // namespace sd::platform
