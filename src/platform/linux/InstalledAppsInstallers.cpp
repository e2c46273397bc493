#include "base/ChildProcess.h"
#include "base/FileIo.h"
#include "base/PathText.h"
#include "base/Stop.h"
#include "base/UniqueFd.h"
#include "platform/InstalledApps.h"

#include <algorithm>
#include <cctype>
#include <fcntl.h>
#include <sys/stat.h>

// What an installer left in a download folder would install: Debian packages read with the
// package tool, Flatpak references by their key file, AppImages by their file name.
namespace sd::platform {
namespace {

bool endsWithIgnoringCase(std::string_view text, std::string_view suffix) {
    if (text.size() < suffix.size()) {
        return false;
    }
    for (size_t i = 0; i < suffix.size(); ++i) {
        if (std::tolower(static_cast<unsigned char>(text[text.size() - suffix.size() + i])) !=
            std::tolower(static_cast<unsigned char>(suffix[i]))) {
            return false;
        }
    }
    return true;
}

std::string lineValue(std::string_view text, std::string_view key) {
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find('\n', at);
        std::string_view line =
            text.substr(at, end == std::string_view::npos ? std::string_view::npos : end - at);
        at = end == std::string_view::npos ? text.size() : end + 1;
        while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) {
            line.remove_suffix(1);
        }
        if (line.size() > key.size() && line.substr(0, key.size()) == key) {
            std::string_view value = line.substr(key.size());
            while (!value.empty() && value.front() == ' ') {
                value.remove_prefix(1);
            }
            return std::string(value);
        }
    }
    return {};
}

// The order of Debian version strings: non-digits compare with "~" before everything (even the
// end) and letters before other characters; digit runs compare as numbers.
int characterOrder(char c) {
    if (c == '~') {
        return -1;
    }
    if (std::isdigit(static_cast<unsigned char>(c)) != 0) {
        return 0;
    }
    if (c == '\0') {
        return 0;
    }
    if (std::isalpha(static_cast<unsigned char>(c)) != 0) {
        return c;
    }
    return c + 256;
}

int comparePart(std::string_view a, std::string_view b) {
    size_t i = 0;
    size_t j = 0;
    while (i < a.size() || j < b.size()) {
        while ((i < a.size() && std::isdigit(static_cast<unsigned char>(a[i])) == 0) ||
               (j < b.size() && std::isdigit(static_cast<unsigned char>(b[j])) == 0)) {
            int ca = characterOrder(i < a.size() ? a[i] : '\0');
            int cb = characterOrder(j < b.size() ? b[j] : '\0');
            if (ca != cb) {
                return ca < cb ? -1 : 1;
            }
            ++i;
            ++j;
        }
        while (i < a.size() && a[i] == '0') {
            ++i;
        }
        while (j < b.size() && b[j] == '0') {
            ++j;
        }
        int firstDifference = 0;
        while (i < a.size() && std::isdigit(static_cast<unsigned char>(a[i])) != 0 &&
               j < b.size() && std::isdigit(static_cast<unsigned char>(b[j])) != 0) {
            if (firstDifference == 0) {
                firstDifference = a[i] - b[j];
            }
            ++i;
            ++j;
        }
        if (i < a.size() && std::isdigit(static_cast<unsigned char>(a[i])) != 0) {
            return 1;
        }
        if (j < b.size() && std::isdigit(static_cast<unsigned char>(b[j])) != 0) {
            return -1;
        }
        if (firstDifference != 0) {
            return firstDifference < 0 ? -1 : 1;
        }
    }
    return 0;
}

struct Version {
    long epoch = 0;
    std::string_view upstream;
    std::string_view revision;
};

Version parseVersion(std::string_view text) {
    Version v;
    if (size_t colon = text.find(':'); colon != std::string_view::npos) {
        v.epoch = std::strtol(std::string(text.substr(0, colon)).c_str(), nullptr, 10);
        text.remove_prefix(colon + 1);
    }
    if (size_t dash = text.rfind('-'); dash != std::string_view::npos) {
        v.revision = text.substr(dash + 1);
        text = text.substr(0, dash);
    }
    v.upstream = text;
    return v;
}

} // namespace

bool versionAtLeast(std::string_view a, std::string_view b) {
    Version va = parseVersion(a);
    Version vb = parseVersion(b);
    if (va.epoch != vb.epoch) {
        return va.epoch > vb.epoch;
    }
    int upstream = comparePart(va.upstream, vb.upstream);
    if (upstream != 0) {
        return upstream > 0;
    }
    return comparePart(va.revision, vb.revision) >= 0;
}

std::vector<std::string_view> installerSuffixes() {
    return {".deb", ".flatpakref", ".flatpak", ".AppImage"};
}

std::optional<InstallerInfo> readInstaller(const std::string& path, const std::string& dpkgDeb,
                                           const std::stop_token& stop) {
    std::string file = lastComponent(path);
    if (endsWithIgnoringCase(file, ".deb")) {
        if (dpkgDeb.empty() || ::access(dpkgDeb.c_str(), X_OK) != 0) {
            return std::nullopt;
        }
        ChildCommand command;
        command.executable = dpkgDeb;
        command.arguments = {"--field", path, "Package", "Version"};
        command.environment = {"LC_ALL=C.UTF-8", "PATH=/usr/bin:/bin"};
        command.timeout = std::chrono::seconds(20);
        ChildResult result = runChild(command, stop);
        throwIfStopped(stop);
        std::string package = lineValue(result.output, "Package:");
        if (!result.succeeded() || package.empty()) {
            return std::nullopt;
        }
        return InstallerInfo{package, lineValue(result.output, "Version:"), AppSource::deb};
    }
    if (endsWithIgnoringCase(file, ".flatpakref")) {
        UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
        if (!fd) {
            return std::nullopt;
        }
        std::string text = readAll(fd.get(), 1u << 20);
        if (text.find("[Flatpak Ref]") == std::string::npos) {
            return std::nullopt;
        }
        std::string id = lineValue(text, "Name=");
        if (id.empty()) {
            return std::nullopt;
        }
        return InstallerInfo{id, {}, AppSource::flatpak};
    }
    if (endsWithIgnoringCase(file, ".flatpak")) {
        // A single-file bundle is named after the app it carries ("org.example.Tool.flatpak").
        std::string id = file.substr(0, file.size() - 8);
        if (std::count(id.begin(), id.end(), '.') < 2) {
            return std::nullopt;
        }
        return InstallerInfo{id, {}, AppSource::flatpak};
    }
    if (endsWithIgnoringCase(file, ".appimage")) {
        auto [name, version] = appImageNameAndVersion(file);
        return InstallerInfo{name, version, AppSource::appImage};
    }
    return std::nullopt;
}

bool appDataUnderLibrary() {
    return false;
}

std::string installersTileText(std::uint64_t count) {
    if (count == 0) {
        return "Packages, AppImages and Flatpak files for apps you already have";
    }
    return std::to_string(count) + (count == 1 ? " installer" : " installers") +
           " whose app is installed";
}

} // namespace sd::platform
