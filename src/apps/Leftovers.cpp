#include "apps/Leftovers.h"

#include "base/ChildProcess.h"
#include "base/CleanerError.h"
#include "base/Descriptors.h"
#include "base/PathText.h"
#include "base/Saturating.h"
#include "base/Stop.h"
#include "core/CoreFileSystem.h"
#include "core/PathRules.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <fcntl.h>
#include <map>
#include <unistd.h>

namespace sd {
namespace {

std::string lower(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return std::tolower(c); });
    return out;
}

// The entries of a folder with their no-follow stat; empty when it cannot be opened.
std::vector<std::pair<std::string, struct stat>> entriesOf(const std::string& folder,
                                                           const std::stop_token& stop) {
    std::vector<std::pair<std::string, struct stat>> out;
    // Opened from "/" without following a link, then for reading its names.
    UniqueFd chain = openChain(folder);
    UniqueFd fd(chain ? ::openat(chain.get(), ".", listingOpenFlags) : -1);
    if (!fd) {
        return out;
    }
    try {
        for (const std::string& name : listDirectory(fd.get(), folder, stop)) {
            if (std::optional<struct stat> st =
                    statEntry(fd.get(), name.c_str(), childPath(folder, name))) {
                out.emplace_back(name, *st);
            }
        }
    } catch (const CleanerError& error) {
        if (error.kind() == CleanerError::Kind::operationCancelled) {
            throw;
        }
    }
    return out;
}

bool sameContents(const std::string& a, const std::string& b, const std::stop_token& stop) {
    UniqueFd fa(::open(a.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    UniqueFd fb(::open(b.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    struct stat sa {};
    struct stat sb {};
    if (!fa || !fb || ::fstat(fa.get(), &sa) != 0 || ::fstat(fb.get(), &sb) != 0 ||
        !S_ISREG(sa.st_mode) || !S_ISREG(sb.st_mode) || sa.st_size != sb.st_size) {
        return false;
    }
    std::vector<char> ba(1 << 20);
    std::vector<char> bb(1 << 20);
    for (;;) {
        throwIfStopped(stop);
        ssize_t na = ::read(fa.get(), ba.data(), ba.size());
        if (na < 0) {
            return false;
        }
        if (na == 0) {
            return true;
        }
        ssize_t got = 0;
        while (got < na) {
            ssize_t nb = ::read(fb.get(), bb.data() + got, static_cast<size_t>(na - got));
            if (nb <= 0) {
                return false;
            }
            got += nb;
        }
        if (!std::equal(ba.begin(), ba.begin() + na, bb.begin())) {
            return false;
        }
    }
}

// The version of each named package that is installed, in one question to the package
// database. Packages it does not know are simply absent.
std::map<std::string, std::string> installedPackageVersions(const std::string& dpkgQuery,
                                                            const std::set<std::string>& names,
                                                            const std::stop_token& stop) {
    std::map<std::string, std::string> versions;
    if (names.empty() || dpkgQuery.empty() || ::access(dpkgQuery.c_str(), X_OK) != 0) {
        return versions;
    }
    ChildCommand command;
    command.executable = dpkgQuery;
    command.arguments = {"-W", "-f", "${Package}\t${Version}\t${db:Status-Abbrev}\n"};
    command.arguments.insert(command.arguments.end(), names.begin(), names.end());
    command.environment = {"LC_ALL=C.UTF-8", "PATH=/usr/bin:/bin"};
    // Unknown names make it exit 1 while still printing the known ones.
    ChildResult result = runChild(command, stop);
    throwIfStopped(stop);
    std::string_view text = result.output;
    while (!text.empty()) {
        size_t end = text.find('\n');
        std::string_view line = text.substr(0, end);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        size_t tab1 = line.find('\t');
        size_t tab2 = tab1 == std::string_view::npos ? tab1 : line.find('\t', tab1 + 1);
        if (tab2 == std::string_view::npos) {
            continue;
        }
        std::string_view status = line.substr(tab2 + 1);
        if (status.size() >= 2 && status[1] == 'i') {
            versions[std::string(line.substr(0, tab1))] =
                std::string(line.substr(tab1 + 1, tab2 - tab1 - 1));
        }
    }
    return versions;
}

} // namespace

LeftoversReport findRemovedAppLeftovers(const std::vector<platform::InstalledApp>& installed,
                                        const std::set<std::string>& remembered,
                                        const std::stop_token& stop, OperationProgress* progress) {
    LeftoversReport report;
    std::set<std::string> installedIds;
    std::set<std::string> flatpaks;
    std::set<std::string> snaps;
    std::set<std::string> claimed; // folded ids and names an installed app may use for a folder
    for (const platform::InstalledApp& app : installed) {
        installedIds.insert(app.id);
        if (app.source == platform::AppSource::flatpak) {
            flatpaks.insert(app.id);
        } else if (app.source == platform::AppSource::snap) {
            snaps.insert(app.id);
        }
        claimed.insert(lower(app.id));
        claimed.insert(lower(app.name));
        for (const std::string& alias : app.nameAliases) {
            claimed.insert(lower(alias));
        }
        if (app.package) {
            claimed.insert(lower(*app.package));
        }
    }

    std::vector<std::pair<std::string, std::string>> candidates; // id, name
    std::set<std::string> candidateIds;
    auto consider = [&](const std::string& id, const std::string& name) {
        if (installedIds.count(id) == 0 && claimed.count(lower(id)) == 0 &&
            candidateIds.insert(id).second) {
            candidates.emplace_back(id, name);
        }
    };
    const std::string& home = homeDirectory();
    for (const auto& [name, st] : entriesOf(home + "/.var/app", stop)) {
        if (S_ISDIR(st.st_mode) && flatpaks.count(name) == 0) {
            consider(name, name);
        }
    }
    for (const auto& [name, st] : entriesOf(home + "/snap", stop)) {
        if (S_ISDIR(st.st_mode) && snaps.count(name) == 0) {
            consider(name, name);
        }
    }
    for (const std::string& id : remembered) {
        consider(id, id);
    }

    if (progress != nullptr) {
        progress->setTotal(candidates.size());
    }
    for (const auto& [id, name] : candidates) {
        throwIfStopped(stop);
        AppDataQuery query;
        query.bundleId = id;
        query.appName = name;
        query.strategies = {MatchStrategy::bundleId};
        query.overridePlaces = false;
        LeftoverScanResult found = findAppData(query, stop, progress);
        report.warnings.insert(report.warnings.end(), found.warnings.begin(), found.warnings.end());
        OrphanGroup group{id, name, {}, 0};
        for (Leftover& place : found.leftovers) {
            std::string last = lower(lastComponent(place.path));
            if (last.ends_with(".desktop")) {
                last.resize(last.size() - 8);
            }
            if (claimed.count(last) != 0) {
                continue; // an installed app answers to this name too
            }
            group.bytes = saturatingAdd(group.bytes, place.bytes);
            group.places.push_back(std::move(place));
        }
        if (!group.places.empty()) {
            report.totalBytes = saturatingAdd(report.totalBytes, group.bytes);
            report.groups.push_back(std::move(group));
        }
        if (progress != nullptr) {
            progress->addDone();
        }
    }
    return report;
}

InstallerSearch standardInstallerSearch() {
    const std::string& home = homeDirectory();
    InstallerSearch search;
    search.folders = {home + "/Downloads", home + "/Desktop", home};
    search.appImageFolders = platform::standardAppRoots().appImageFolders;
    return search;
}

InstallerPlan planUsedInstallers(const std::vector<platform::InstalledApp>& installed,
                                 const InstallerSearch& search, const std::stop_token& stop,
                                 OperationProgress* progress) {
    InstallerPlan plan;
    struct Candidate {
        std::string path;
        struct stat st;
        platform::InstallerInfo info;
    };
    std::vector<Candidate> candidates;
    std::vector<std::string_view> suffixes = platform::installerSuffixes();
    for (const std::string& folder : search.folders) {
        for (const auto& [name, st] : entriesOf(folder, stop)) {
            throwIfStopped(stop);
            std::string folded = lower(name);
            bool installer = std::any_of(suffixes.begin(), suffixes.end(), [&](auto suffix) {
                return folded.ends_with(lower(suffix));
            });
            if (!S_ISREG(st.st_mode) || !installer) {
                continue;
            }
            std::string path = childPath(folder, name);
            if (std::optional<platform::InstallerInfo> info =
                    platform::readInstaller(path, search.dpkgDeb, stop)) {
                candidates.push_back({path, st, *info});
            }
        }
    }

    std::set<std::string> packages;
    for (const Candidate& c : candidates) {
        if (c.info.source == platform::AppSource::deb) {
            packages.insert(c.info.appId);
        }
    }
    std::map<std::string, std::string> debVersions =
        installedPackageVersions(search.dpkgQuery, packages, stop);

    FootprintTally tally;
    for (const Candidate& c : candidates) {
        throwIfStopped(stop);
        std::optional<std::string> installedVersion;
        switch (c.info.source) {
        case platform::AppSource::deb:
            if (auto found = debVersions.find(c.info.appId);
                found != debVersions.end() &&
                platform::versionAtLeast(found->second, c.info.version)) {
                installedVersion = found->second;
            }
            break;
        case platform::AppSource::flatpak:
            for (const platform::InstalledApp& app : installed) {
                if (app.source == platform::AppSource::flatpak && app.id == c.info.appId) {
                    installedVersion = app.version;
                }
            }
            break;
        case platform::AppSource::appImage:
            for (const platform::InstalledApp& app : installed) {
                if (app.source != platform::AppSource::appImage || app.location == c.path ||
                    app.identity == EntryIdentity::of(c.st)) {
                    continue;
                }
                bool sameApp = app.id == c.info.appId && !app.version.empty() &&
                               !c.info.version.empty() &&
                               platform::versionAtLeast(app.version, c.info.version);
                if (sameApp || sameContents(app.location, c.path, stop)) {
                    installedVersion = app.version;
                    break;
                }
            }
            break;
        default:
            break;
        }
        if (!installedVersion) {
            continue;
        }
        std::vector<std::string> warnings;
        Footprint footprint =
            measureFootprint(c.path, EntryIdentity::of(c.st), warnings, tally, stop, progress);
        plan.warnings.insert(plan.warnings.end(), warnings.begin(), warnings.end());
        if (footprint.vanished) {
            continue;
        }
        plan.items.push_back({c.path, footprint.allocatedBytes, EntryIdentity::of(c.st),
                              c.info.appId, c.info.version, *installedVersion, c.info.source});
        plan.totalBytes = saturatingAdd(plan.totalBytes, footprint.allocatedBytes);
    }
    return plan;
}

} // namespace sd
