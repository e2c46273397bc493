#include "platform/InstalledApps.h"

#include "base/PathText.h"
#include "base/Stop.h"
#include "platform/Home.h"

#include <CoreFoundation/CoreFoundation.h>
#include <algorithm>
#include <dirent.h>
#include <sys/stat.h>

// App bundles in /Applications, read through their Info.plist with CoreFoundation.
namespace sd::platform {
namespace {

std::string text(CFStringRef value) {
    if (value == nullptr || CFGetTypeID(value) != CFStringGetTypeID()) {
        return {};
    }
    char buffer[1024];
    return CFStringGetCString(value, buffer, sizeof buffer, kCFStringEncodingUTF8) ? buffer : "";
}

std::string infoValue(CFBundleRef bundle, CFStringRef key) {
    return text(static_cast<CFStringRef>(CFBundleGetValueForInfoDictionaryKey(bundle, key)));
}

} // namespace

std::string_view appSourceName(AppSource source) {
    static constexpr std::string_view names[]{"deb", "flatpak", "snap", "appImage", "local",
                                              "bundle"};
    return names[static_cast<size_t>(source)];
}

std::string_view lastUsedEvidenceName(LastUsedEvidence evidence) {
    static constexpr std::string_view names[]{"recentlyUsed", "accessTime", "spotlight", "none"};
    return names[static_cast<size_t>(evidence)];
}

AppSearchRoots standardAppRoots() {
    AppSearchRoots roots;
    roots.home = homeDirectory();
    roots.dataDirs = {"/Applications"};
    return roots;
}

AppRecords readInstalledApps(const AppSearchRoots& roots, const std::stop_token& stop) {
    AppRecords records;
    for (const std::string& folder : roots.dataDirs) {
        DIR* dir = ::opendir(folder.c_str());
        if (dir == nullptr) {
            continue;
        }
        while (dirent* entry = ::readdir(dir)) {
            throwIfStopped(stop);
            std::string name = entry->d_name;
            if (!name.ends_with(".app")) {
                continue;
            }
            std::string path = folder + "/" + name;
            struct stat st {};
            if (::lstat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
                continue;
            }
            CFURLRef url = CFURLCreateFromFileSystemRepresentation(
                nullptr, reinterpret_cast<const UInt8*>(path.c_str()),
                static_cast<CFIndex>(path.size()), true);
            CFBundleRef bundle = url != nullptr ? CFBundleCreate(nullptr, url) : nullptr;
            if (bundle != nullptr) {
                InstalledApp app;
                app.id = infoValue(bundle, CFSTR("CFBundleIdentifier"));
                app.name = infoValue(bundle, CFSTR("CFBundleDisplayName"));
                if (app.name.empty()) {
                    app.name = name.substr(0, name.size() - 4);
                }
                app.version = infoValue(bundle, CFSTR("CFBundleShortVersionString"));
                app.icon = infoValue(bundle, CFSTR("CFBundleIconFile"));
                app.source = AppSource::bundle;
                app.entry = path;
                app.location = path;
                app.identity = EntryIdentity::of(st);
                app.measurePaths = {path};
                if (!app.id.empty()) {
                    records.apps.push_back(std::move(app));
                }
                CFRelease(bundle);
            }
            if (url != nullptr) {
                CFRelease(url);
            }
        }
        ::closedir(dir);
    }
    std::sort(records.apps.begin(), records.apps.end(),
              [](const InstalledApp& a, const InstalledApp& b) { return a.name < b.name; });
    return records;
}

std::optional<EntryIdentity> currentIdentity(const std::string& location) {
    struct stat st {};
    if (::lstat(location.c_str(), &st) != 0) {
        return std::nullopt;
    }
    return EntryIdentity::of(st);
}

std::string removalCommand(const InstalledApp&) {
    return {};
}

std::vector<std::string_view> installerSuffixes() {
    return {".dmg", ".pkg"};
}

std::optional<InstallerInfo> readInstaller(const std::string&, const std::string&,
                                           const std::stop_token&) {
    // Reading which app a disk image or package installs needs hdiutil and pkgutil; until that
    // is written no installer is offered.
    return std::nullopt;
}

bool versionAtLeast(std::string_view a, std::string_view b) {
    return a >= b;
}

std::pair<std::string, std::string> appImageNameAndVersion(std::string_view file) {
    return {std::string(file), {}};
}

bool appDataUnderLibrary() {
    return true;
}

std::string installersTileText(std::uint64_t count) {
    if (count == 0) {
        return "Disk images and packages for apps already in Applications";
    }
    return std::to_string(count) + " .dmg/.pkg whose app is in Applications, installed later";
}

} // namespace sd::platform
