#include "platform/InstalledApps.h"

#include "base/ChildProcess.h"
#include "base/CleanerError.h"
#include "base/FileIo.h"
#include "base/PathText.h"
#include "base/Stop.h"
#include "base/UniqueFd.h"
#include "platform/DirectoryReader.h"
#include "platform/Dirs.h"
#include "platform/Home.h"
#include "platform/LastOpened.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <map>
#include <set>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <unordered_map>

// Readers of the freedesktop.org records: desktop entries, Flatpak deploys, snaps, AppImages and
// the Debian package database. Everything here only reads; it follows the links the deploy
// layouts are made of ("current", "active") because it never moves what it reads.
namespace sd::platform {
namespace {

// Record files are small; a bigger one is not what its name says.
constexpr size_t largestRecord = 4u << 20;

std::optional<std::string> readSmallFile(const std::string& path) {
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    if (!fd) {
        return std::nullopt;
    }
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        return std::nullopt;
    }
    return readAll(fd.get(), largestRecord);
}

// The names in a folder, sorted; empty when it cannot be read.
std::vector<std::string> namesIn(const std::string& folder) {
    std::vector<std::string> names;
    UniqueFd fd(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd || !readDirectoryNames(fd.get(), names).operation.empty()) {
        return {};
    }
    std::sort(names.begin(), names.end());
    return names;
}

// A folder that is there but cannot be listed: the apps in it are installed but unseen.
bool unreadableFolder(const std::string& folder) {
    struct stat st {};
    if (::stat(folder.c_str(), &st) != 0) {
        return errno != ENOENT && errno != ENOTDIR;
    }
    UniqueFd fd(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    std::vector<std::string> names;
    return !fd || !readDirectoryNames(fd.get(), names).operation.empty();
}

std::optional<struct stat> followStat(const std::string& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) {
        return std::nullopt;
    }
    return st;
}

std::optional<struct stat> linkStat(const std::string& path) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) {
        return std::nullopt;
    }
    return st;
}

std::string_view trim(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t' || text.front() == '\r')) {
        text.remove_prefix(1);
    }
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r')) {
        text.remove_suffix(1);
    }
    return text;
}

// The keys of one group of a key file (desktop entries, Flatpak metadata), values unescaped.
// Localized keys ("Name[de]") are left out: the untranslated value is the one compared.
std::map<std::string, std::string> keyFileGroup(std::string_view text, std::string_view group) {
    std::map<std::string, std::string> keys;
    bool inside = false;
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find('\n', at);
        std::string_view line = trim(
            text.substr(at, end == std::string_view::npos ? std::string_view::npos : end - at));
        at = end == std::string_view::npos ? text.size() : end + 1;
        if (line.empty() || line.front() == '#') {
            continue;
        }
        if (line.front() == '[') {
            inside = line.size() == group.size() + 2 && line.substr(1, group.size()) == group;
            continue;
        }
        size_t eq = line.find('=');
        if (!inside || eq == std::string_view::npos) {
            continue;
        }
        std::string key(trim(line.substr(0, eq)));
        if (key.find('[') != std::string::npos) {
            continue;
        }
        std::string value;
        std::string_view raw = trim(line.substr(eq + 1));
        for (size_t i = 0; i < raw.size(); ++i) {
            if (raw[i] != '\\' || i + 1 == raw.size()) {
                value.push_back(raw[i]);
                continue;
            }
            char next = raw[++i];
            value.push_back(next == 's' ? ' ' : next == 'n' ? '\n' : next == 't' ? '\t' : next);
        }
        keys.emplace(std::move(key), std::move(value)); // the first of a repeated key wins
    }
    return keys;
}

bool isTrue(const std::map<std::string, std::string>& keys, const std::string& key) {
    auto found = keys.find(key);
    return found != keys.end() && found->second == "true";
}

std::string valueOr(const std::map<std::string, std::string>& keys, const std::string& key,
                    const std::string& fallback = {}) {
    auto found = keys.find(key);
    return found == keys.end() ? fallback : found->second;
}

// The program an Exec line starts: its first word without quotes, after "env VAR=value".
std::string execProgram(std::string_view exec) {
    std::vector<std::string> words;
    std::string word;
    char quote = 0;
    bool any = false;
    for (char c : exec) {
        if (quote != 0) {
            if (c == quote) {
                quote = 0;
            } else {
                word.push_back(c);
            }
        } else if (c == '"' || c == '\'') {
            quote = c;
            any = true;
        } else if (c == ' ' || c == '\t') {
            if (any || !word.empty()) {
                words.push_back(word);
            }
            word.clear();
            any = false;
        } else {
            word.push_back(c);
        }
    }
    if (any || !word.empty()) {
        words.push_back(word);
    }
    size_t first = 0;
    if (!words.empty() && lastComponent(words[0]) == "env") {
        first = 1;
        while (first < words.size() && words[first].find('=') != std::string::npos) {
            ++first;
        }
    }
    return first < words.size() ? words[first] : std::string();
}

bool isExecutableFile(const std::string& path) {
    std::optional<struct stat> st = followStat(path);
    return st && S_ISREG(st->st_mode) && (st->st_mode & 0111) != 0;
}

std::optional<std::string> findExecutable(const std::string& program,
                                          const std::vector<std::string>& folders) {
    if (program.empty()) {
        return std::nullopt;
    }
    if (program.front() == '/') {
        return program;
    }
    if (program.find('/') != std::string::npos) {
        return std::nullopt;
    }
    for (const std::string& folder : folders) {
        std::string candidate = folder + "/" + program;
        if (isExecutableFile(candidate)) {
            return candidate;
        }
    }
    return std::nullopt;
}

// TryExec's test: an absolute path that is an executable file, or a name found on the path.
bool isInstalledProgram(const std::string& program, const std::vector<std::string>& folders) {
    if (program.front() == '/') {
        return isExecutableFile(program);
    }
    return findExecutable(program, folders).has_value();
}

std::vector<std::string> splitList(const char* text) {
    std::vector<std::string> out;
    std::string_view rest = text == nullptr ? std::string_view() : std::string_view(text);
    while (!rest.empty()) {
        size_t colon = rest.find(':');
        std::string_view part = rest.substr(0, colon);
        if (!part.empty() && part.front() == '/') {
            out.emplace_back(part);
        }
        if (colon == std::string_view::npos) {
            break;
        }
        rest.remove_prefix(colon + 1);
    }
    return out;
}

// The release a metainfo file names first, which AppStream orders newest first.
std::string metainfoVersion(const std::string& text) {
    size_t release = text.find("<release ");
    if (release == std::string::npos) {
        return {};
    }
    size_t end = text.find('>', release);
    std::string_view tag = std::string_view(text).substr(release, end - release);
    size_t at = tag.find(" version=");
    if (at == std::string_view::npos || at + 10 >= tag.size()) {
        return {};
    }
    char quote = tag[at + 9];
    size_t close = tag.find(quote, at + 10);
    return close == std::string_view::npos ? std::string()
                                           : std::string(tag.substr(at + 10, close - at - 10));
}

// A top-level "key: value" of a snap.yaml, quotes removed.
std::string yamlValue(std::string_view text, std::string_view key) {
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find('\n', at);
        std::string_view line =
            text.substr(at, end == std::string_view::npos ? std::string_view::npos : end - at);
        at = end == std::string_view::npos ? text.size() : end + 1;
        if (line.size() > key.size() && line.substr(0, key.size()) == key &&
            line[key.size()] == ':') {
            std::string_view value = trim(line.substr(key.size() + 1));
            if (value.size() >= 2 && (value.front() == '\'' || value.front() == '"') &&
                value.back() == value.front()) {
                value = value.substr(1, value.size() - 2);
            }
            return std::string(value);
        }
    }
    return {};
}

bool endsWithIgnoringCase(std::string_view text, std::string_view suffix) {
    if (text.size() < suffix.size()) {
        return false;
    }
    return std::equal(suffix.begin(), suffix.end(), text.end() - suffix.size(),
                      [](char a, char b) { return std::tolower(a) == std::tolower(b); });
}

// An AppImage carries "AI" and its type (1 or 2) at offset 8 of its ELF header.
bool hasAppImageMagic(const std::string& path) {
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    std::array<unsigned char, 11> head{};
    return fd && ::pread(fd.get(), head.data(), head.size(), 0) == 11 && head[0] == 0x7F &&
           head[1] == 'E' && head[8] == 'A' && head[9] == 'I' && (head[10] == 1 || head[10] == 2);
}

} // namespace

// "Tool-1.2.3-x86_64.AppImage" is the app "Tool" at version "1.2.3": the name ends where a
// separator is followed by a digit (or "v" and a digit).
std::pair<std::string, std::string> appImageNameAndVersion(std::string_view file) {
    std::string_view stem = file;
    if (endsWithIgnoringCase(stem, ".appimage")) {
        stem.remove_suffix(9);
    }
    for (size_t i = 1; i + 1 < stem.size(); ++i) {
        char c = stem[i];
        if (c != '-' && c != '_' && c != ' ' && c != '.') {
            continue;
        }
        size_t digit = i + 1;
        if ((stem[digit] == 'v' || stem[digit] == 'V') && digit + 1 < stem.size()) {
            ++digit;
        }
        if (std::isdigit(static_cast<unsigned char>(stem[digit])) == 0) {
            continue;
        }
        std::string_view rest = stem.substr(digit);
        size_t cut = rest.find_first_of("-_ ");
        return {std::string(stem.substr(0, i)), std::string(rest.substr(0, cut))};
    }
    return {std::string(stem), {}};
}

namespace {

struct DesktopEntry {
    std::string id;
    std::string path;
    size_t dirIndex = 0;
    std::map<std::string, std::string> keys;
};

void collectEntries(const std::string& folder, const std::string& prefix, size_t dirIndex,
                    int depth, std::set<std::string>& seen, std::vector<DesktopEntry>& out,
                    const std::stop_token& stop) {
    for (const std::string& name : namesIn(folder)) {
        throwIfStopped(stop);
        std::string path = folder + "/" + name;
        std::optional<struct stat> st = followStat(path);
        if (!st) {
            continue;
        }
        if (S_ISDIR(st->st_mode)) {
            if (depth < 4) {
                collectEntries(path, prefix + name + "-", dirIndex, depth + 1, seen, out, stop);
            }
            continue;
        }
        if (!S_ISREG(st->st_mode) || !name.ends_with(".desktop")) {
            continue;
        }
        std::string id = prefix + name.substr(0, name.size() - 8);
        if (!seen.insert(id).second) {
            continue; // an entry of the same id earlier on the path hides this one
        }
        std::optional<std::string> text = readSmallFile(path);
        if (!text) {
            continue;
        }
        out.push_back({id, path, dirIndex, keyFileGroup(*text, "Desktop Entry")});
    }
}

void readFlatpaks(const AppSearchRoots& roots, std::vector<InstalledApp>& apps,
                  const std::stop_token& stop) {
    for (const auto& [installation, user] : roots.flatpakInstallations) {
        std::string appsFolder = installation + "/app";
        for (const std::string& id : namesIn(appsFolder)) {
            throwIfStopped(stop);
            std::string location = appsFolder + "/" + id;
            std::string active = location + "/current/active";
            std::optional<std::string> metadata = readSmallFile(active + "/metadata");
            std::optional<struct stat> st = linkStat(location);
            if (!metadata || !st) {
                continue; // a deploy being written or removed
            }
            auto application = keyFileGroup(*metadata, "Application");
            InstalledApp app;
            app.id = valueOr(application, "name", id);
            if (app.id != id) {
                continue;
            }
            app.source = AppSource::flatpak;
            app.userInstallation = user;
            app.location = location;
            app.identity = EntryIdentity::of(*st);
            app.measurePaths = {location};
            app.name = id;
            app.icon = id;
            std::string exported = active + "/export/share/applications/" + id + ".desktop";
            if (std::optional<std::string> entry = readSmallFile(exported)) {
                auto keys = keyFileGroup(*entry, "Desktop Entry");
                app.name = valueOr(keys, "Name", id);
                app.icon = valueOr(keys, "Icon", id);
                app.entry = exported;
            }
            for (const char* file : {"/files/share/metainfo/", "/files/share/appdata/"}) {
                for (const char* suffix : {".metainfo.xml", ".appdata.xml"}) {
                    if (!app.version.empty()) {
                        break;
                    }
                    if (std::optional<std::string> text =
                            readSmallFile(active + file + id + suffix)) {
                        app.version = metainfoVersion(*text);
                    }
                }
            }
            std::string command = valueOr(application, "command");
            if (!command.empty() && command.find('/') == std::string::npos) {
                app.executable = active + "/files/bin/" + command;
            }
            apps.push_back(std::move(app));
        }
    }
}

void readSnaps(const AppSearchRoots& roots, std::vector<InstalledApp>& apps,
               const std::stop_token& stop) {
    static const std::set<std::string> notApps{"base", "os", "core", "snapd", "kernel", "gadget"};
    std::vector<std::string> images = namesIn(roots.snapImages);
    for (const std::string& name : namesIn(roots.snapRoot)) {
        throwIfStopped(stop);
        std::string location = roots.snapRoot + "/" + name;
        std::optional<std::string> yaml = readSmallFile(location + "/current/meta/snap.yaml");
        std::optional<struct stat> st = linkStat(location);
        if (!yaml || !st || !S_ISDIR(st->st_mode)) {
            continue;
        }
        std::string type = yamlValue(*yaml, "type");
        if (notApps.count(type) != 0 || yamlValue(*yaml, "name") != name) {
            continue;
        }
        InstalledApp app;
        app.id = name;
        app.source = AppSource::snap;
        app.location = location;
        app.identity = EntryIdentity::of(*st);
        std::string title = yamlValue(*yaml, "title");
        app.name = title.empty() ? name : title;
        app.version = yamlValue(*yaml, "version");
        for (const std::string& image : images) {
            if (image.starts_with(name + "_") && image.ends_with(".snap")) {
                app.measurePaths.push_back(roots.snapImages + "/" + image);
            }
        }
        std::string gui = location + "/current/meta/gui";
        if (followStat(gui + "/icon.png")) {
            app.icon = gui + "/icon.png";
        } else if (followStat(gui + "/icon.svg")) {
            app.icon = gui + "/icon.svg";
        }
        std::string binary = location + "/current/bin/" + name;
        if (followStat(binary)) {
            app.executable = binary;
        }
        apps.push_back(std::move(app));
    }
}

void readAppImages(const AppSearchRoots& roots, std::vector<InstalledApp>& apps,
                   const std::stop_token& stop) {
    for (size_t folderIndex = 0; folderIndex < roots.appImageFolders.size(); ++folderIndex) {
        const std::string& folder = roots.appImageFolders[folderIndex];
        for (const std::string& file : namesIn(folder)) {
            throwIfStopped(stop);
            std::string path = folder + "/" + file;
            std::optional<struct stat> st = linkStat(path);
            if (!st || file.starts_with(".")) {
                continue;
            }
            InstalledApp app;
            app.location = path;
            app.identity = EntryIdentity::of(*st);
            app.measurePaths = {path};
            if (S_ISREG(st->st_mode) &&
                (endsWithIgnoringCase(file, ".appimage") || hasAppImageMagic(path))) {
                auto [name, version] = appImageNameAndVersion(file);
                app.id = name;
                app.name = name;
                app.version = version;
                app.source = AppSource::appImage;
                app.executable = path;
            } else if (S_ISDIR(st->st_mode) && folderIndex == 0) {
                // A folder in the Applications folder is an app unpacked by hand.
                app.id = file;
                app.name = file;
                app.source = AppSource::local;
            } else {
                continue;
            }
            apps.push_back(std::move(app));
        }
    }
}

struct PackageFacts {
    std::string package;
    std::string version;
    std::uint64_t installedBytes = 0;
};

// One question to the package database for every package at once: each installed package with
// its version, size and files. Only the files in `wanted` are kept.
std::unordered_map<std::string, PackageFacts>
owningPackages(const std::string& dpkgQuery, const std::set<std::string>& wanted,
               std::vector<std::string>& warnings, bool& complete, const std::stop_token& stop) {
    std::unordered_map<std::string, PackageFacts> owners;
    if (dpkgQuery.empty() || wanted.empty() || ::access(dpkgQuery.c_str(), X_OK) != 0) {
        return owners;
    }
    ChildCommand command;
    command.executable = dpkgQuery;
    command.arguments = {"-W", "-f",
                         "${binary:Package}\t${Version}\t${Installed-Size}\t${db:Status-Abbrev}\n"
                         "${db-fsys:Files}"};
    command.environment = {"LC_ALL=C.UTF-8", "PATH=/usr/bin:/bin"};
    command.outputLimit = std::size_t(512) << 20;
    command.timeout = std::chrono::seconds(60);
    ChildResult result = runChild(command, stop);
    throwIfStopped(stop);
    if (!result.succeeded() || result.outputCut) {
        warnings.push_back("Could not ask the package database which apps it installed: " +
                           std::string(trim(result.errors.substr(0, result.errors.find('\n')))));
        complete = false;
        return owners;
    }
    std::string_view text = result.output;
    PackageFacts current;
    bool installed = false;
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find('\n', at);
        std::string_view line =
            text.substr(at, end == std::string_view::npos ? std::string_view::npos : end - at);
        at = end == std::string_view::npos ? text.size() : end + 1;
        if (line.empty()) {
            continue;
        }
        if (line.front() == ' ') {
            if (installed && line.ends_with(".desktop")) {
                std::string path(line.substr(1));
                if (wanted.count(path) != 0) {
                    owners.emplace(std::move(path), current);
                }
            }
            continue;
        }
        std::array<std::string_view, 4> fields{};
        size_t field = 0;
        while (field < fields.size()) {
            size_t tab = line.find('\t');
            fields[field++] = line.substr(0, tab);
            if (tab == std::string_view::npos) {
                break;
            }
            line.remove_prefix(tab + 1);
        }
        current = {std::string(fields[0]), std::string(fields[1]), 0};
        current.installedBytes =
            std::strtoull(std::string(fields[2]).c_str(), nullptr, 10) * std::uint64_t(1024);
        installed = fields[3].size() >= 2 && fields[3][1] == 'i';
    }
    return owners;
}

// The executable's access time, when the mount keeps it and a read came after the last change.
std::optional<double> accessTimeUse(const std::string& executable) {
    std::optional<struct stat> st = followStat(executable);
    if (!st) {
        return std::nullopt;
    }
    auto seconds = [](const struct timespec& t) {
        return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
    };
    double accessed = seconds(st->st_atim);
    struct statvfs fs {};
    if (accessed <= seconds(st->st_mtim) || accessed <= seconds(st->st_ctim) ||
        ::statvfs(executable.c_str(), &fs) != 0 || (fs.f_flag & ST_NOATIME) != 0) {
        return std::nullopt;
    }
    return accessed;
}

void dateLastUse(InstalledApp& app, const std::vector<ApplicationUse>& uses) {
    std::string program = app.executable ? lastComponent(*app.executable) : std::string();
    for (const ApplicationUse& use : uses) {
        std::string used = lastComponent(execProgram(use.exec));
        bool flatpakRun = app.source == AppSource::flatpak &&
                          use.exec.find(" run ") != std::string::npos &&
                          use.exec.find(app.id) != std::string::npos;
        if (use.name == app.name || (!program.empty() && used == program) || flatpakRun) {
            if (!app.lastUsed || use.lastUsed > *app.lastUsed) {
                app.lastUsed = use.lastUsed;
                app.lastUsedEvidence = LastUsedEvidence::recentlyUsed;
            }
        }
    }
    if (!app.lastUsed && app.executable) {
        if (std::optional<double> accessed = accessTimeUse(*app.executable)) {
            app.lastUsed = accessed;
            app.lastUsedEvidence = LastUsedEvidence::accessTime;
        }
    }
}

} // namespace

std::string_view appSourceName(AppSource source) {
    static constexpr std::array<std::string_view, 6> names{"deb",      "flatpak", "snap",
                                                           "appImage", "local",   "bundle"};
    return names[static_cast<size_t>(source)];
}

std::string_view lastUsedEvidenceName(LastUsedEvidence evidence) {
    static constexpr std::array<std::string_view, 4> names{"recentlyUsed", "accessTime",
                                                           "spotlight", "none"};
    return names[static_cast<size_t>(evidence)];
}

AppSearchRoots standardAppRoots() {
    AppSearchRoots roots;
    roots.home = homeDirectory();
    roots.dataDirs.push_back(dataHome());
    std::vector<std::string> system = splitList(std::getenv("XDG_DATA_DIRS"));
    if (system.empty()) {
        system = {"/usr/local/share", "/usr/share"};
    }
    for (const std::string& dir : system) {
        if (std::find(roots.dataDirs.begin(), roots.dataDirs.end(), dir) == roots.dataDirs.end()) {
            roots.dataDirs.push_back(dir);
        }
    }
    roots.flatpakInstallations = {{dataHome() + "/flatpak", true}, {"/var/lib/flatpak", false}};
    roots.snapRoot = "/snap";
    roots.snapImages = "/var/lib/snapd/snaps";
    roots.snapDesktopEntries = "/var/lib/snapd/desktop/applications";
    roots.appImageFolders = {roots.home + "/Applications", roots.home + "/AppImages",
                             roots.home + "/.local/bin"};
    roots.dpkgQuery = "/usr/bin/dpkg-query";
    roots.recentlyUsed = dataHome() + "/recently-used.xbel";
    roots.executableFolders = splitList(std::getenv("PATH"));
    for (const char* folder : {"/usr/local/bin", "/usr/bin", "/bin", "/usr/games"}) {
        if (std::find(roots.executableFolders.begin(), roots.executableFolders.end(), folder) ==
            roots.executableFolders.end()) {
            roots.executableFolders.emplace_back(folder);
        }
    }
    return roots;
}

AppRecords readInstalledApps(const AppSearchRoots& roots, const std::stop_token& stop) {
    AppRecords records;
    std::vector<InstalledApp>& apps = records.apps;
    // Deploy folders hold apps by id; one that cannot be read would make its apps' data look
    // left behind, so the listing says it is incomplete.
    std::vector<std::string> deployFolders{roots.snapRoot};
    for (const auto& installation : roots.flatpakInstallations) {
        deployFolders.push_back(installation.first + "/app");
    }
    for (const std::string& folder : deployFolders) {
        if (!folder.empty() && unreadableFolder(folder)) {
            records.warnings.push_back("Could not read the apps in " + folder);
            records.complete = false;
        }
    }
    readFlatpaks(roots, apps, stop);
    readSnaps(roots, apps, stop);
    readAppImages(roots, apps, stop);

    std::vector<DesktopEntry> entries;
    std::set<std::string> seen;
    for (size_t i = 0; i < roots.dataDirs.size(); ++i) {
        collectEntries(roots.dataDirs[i] + "/applications", "", i, 0, seen, entries, stop);
    }

    // Entries that belong to a deploy read above lend it their name and icon; the rest are apps
    // of their own, owned by a package or put there by hand.
    std::set<std::string> wanted;
    std::vector<DesktopEntry*> standalone;
    for (DesktopEntry& entry : entries) {
        const auto& keys = entry.keys;
        if (valueOr(keys, "Type") != "Application" || isTrue(keys, "NoDisplay") ||
            isTrue(keys, "Hidden")) {
            continue;
        }
        // An entry whose TryExec program is not installed is one menus leave out: its program
        // was removed and the entry stayed behind.
        if (std::string tryExec = valueOr(keys, "TryExec");
            !tryExec.empty() && !isInstalledProgram(tryExec, roots.executableFolders)) {
            continue;
        }
        std::string program = execProgram(valueOr(keys, "Exec"));
        std::string flatpakId = valueOr(keys, "X-Flatpak");
        std::string snapName = valueOr(keys, "X-SnapInstanceName");
        bool inSnapExports = !roots.snapDesktopEntries.empty() &&
                             entry.path.starts_with(roots.snapDesktopEntries + "/");
        InstalledApp* owner = nullptr;
        for (InstalledApp& app : apps) {
            bool match = false;
            switch (app.source) {
            case AppSource::flatpak:
                match = flatpakId == app.id || entry.id == app.id;
                break;
            case AppSource::snap:
                match =
                    snapName == app.id ||
                    (inSnapExports && (entry.id == app.id || entry.id.starts_with(app.id + "_")));
                break;
            case AppSource::appImage:
                match = program == app.location;
                break;
            case AppSource::local:
                match = !program.empty() && program.starts_with(app.location + "/");
                break;
            default:
                break;
            }
            if (match) {
                owner = &app;
                break;
            }
        }
        if (owner != nullptr) {
            if (owner->entry.empty() || owner->source != AppSource::flatpak) {
                owner->entry = entry.path;
                owner->name = valueOr(keys, "Name", owner->name);
                owner->icon = valueOr(keys, "Icon", owner->icon);
                if (owner->source == AppSource::appImage || owner->source == AppSource::local) {
                    owner->nameAliases.push_back(entry.id);
                }
            }
            continue;
        }
        if (!flatpakId.empty() || !snapName.empty() || inSnapExports) {
            continue; // the deploy itself is gone or unreadable: it is no installed app
        }
        standalone.push_back(&entry);
        wanted.insert(entry.path);
    }

    std::unordered_map<std::string, PackageFacts> owners =
        owningPackages(roots.dpkgQuery, wanted, records.warnings, records.complete, stop);
    for (DesktopEntry* entry : standalone) {
        InstalledApp app;
        app.id = entry->id;
        app.name = valueOr(entry->keys, "Name", entry->id);
        app.icon = valueOr(entry->keys, "Icon");
        app.entry = entry->path;
        app.location = entry->path;
        if (std::optional<struct stat> st = linkStat(entry->path)) {
            app.identity = EntryIdentity::of(*st);
        }
        app.executable =
            findExecutable(execProgram(valueOr(entry->keys, "Exec")), roots.executableFolders);
        app.source = AppSource::local;
        if (auto owner = owners.find(entry->path); owner != owners.end()) {
            app.source = AppSource::deb;
            app.package = owner->second.package;
            app.version = owner->second.version;
            app.packageBytes = owner->second.installedBytes;
        }
        apps.push_back(std::move(app));
    }

    std::vector<ApplicationUse> uses = recentApplicationUses(roots.recentlyUsed);
    for (InstalledApp& app : apps) {
        dateLastUse(app, uses);
    }
    std::sort(apps.begin(), apps.end(), [](const InstalledApp& a, const InstalledApp& b) {
        auto lower = [](std::string text) {
            std::transform(text.begin(), text.end(), text.begin(),
                           [](unsigned char c) { return std::tolower(c); });
            return text;
        };
        std::string la = lower(a.name);
        std::string lb = lower(b.name);
        return la != lb ? la < lb : a.id < b.id;
    });
    return records;
}

std::optional<EntryIdentity> currentIdentity(const std::string& location) {
    std::optional<struct stat> st = linkStat(location);
    if (!st) {
        return std::nullopt;
    }
    return EntryIdentity::of(*st);
}

std::string removalCommand(const InstalledApp& app) {
    switch (app.source) {
    case AppSource::deb:
        return "sudo apt remove " + app.package.value_or(app.id);
    case AppSource::flatpak:
        return std::string("flatpak uninstall ") + (app.userInstallation ? "--user " : "") + app.id;
    case AppSource::snap:
        return "sudo snap remove " + app.id;
    default:
        return {};
    }
}

} // namespace sd::platform
