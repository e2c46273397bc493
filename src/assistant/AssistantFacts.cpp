#include "assistant/AssistantFacts.h"

#include "base/CleanerError.h"
#include "base/Descriptors.h"
#include "base/PathText.h"
#include "base/Stop.h"
#include "core/ByteFormat.h"
#include "core/CoreFileSystem.h"
#include "core/PathRules.h"

#include <algorithm>
#include <ctime>
#include <sys/stat.h>

namespace sd {
namespace {

std::string dateText(std::int64_t seconds) {
    auto whole = static_cast<std::time_t>(seconds);
    std::tm local{};
    ::localtime_r(&whole, &local);
    char text[16];
    (void)std::strftime(text, sizeof text, "%Y-%m-%d", &local);
    return text;
}

std::string plural(std::uint64_t count, const char* one, const char* many) {
    return formatCount(count) + " " + (count == 1 ? one : many);
}

std::string factLine(const Fact& fact) {
    std::string line = fact.name;
    if (!fact.kind.empty()) {
        line += " (" + fact.kind + ")";
    }
    std::vector<std::string> parts;
    if (fact.bytes) {
        parts.push_back(formatBytes(*fact.bytes) + " (" + formatCount(*fact.bytes) + " bytes)");
    }
    if (fact.files) {
        parts.push_back(plural(*fact.files, "file", "files"));
    }
    if (fact.folders && *fact.folders > 0) {
        parts.push_back(plural(*fact.folders, "folder", "folders"));
    }
    if (fact.changed) {
        parts.push_back("last changed " + dateText(*fact.changed));
    }
    if (fact.opened) {
        parts.push_back("last opened " + dateText(*fact.opened));
    }
    for (size_t i = 0; i < parts.size(); ++i) {
        line += (i == 0 ? ": " : "; ") + parts[i];
    }
    return line;
}

} // namespace

std::string AssistantFacts::text() const {
    std::string out = subject + "\n";
    if (about) {
        out += "- " + factLine(*about) + "\n";
    }
    if (!contents.empty()) {
        out += "Inside it, biggest first:\n";
        for (const Fact& fact : contents) {
            out += "- " + factLine(fact) + "\n";
        }
    }
    if (!alsoMeasured.empty()) {
        out += "Also measured:\n";
        for (const Fact& fact : alsoMeasured) {
            out += "- " + factLine(fact) + "\n";
        }
    }
    for (const std::string& note : notes) {
        out += note + "\n";
    }
    return out;
}

std::vector<std::uint64_t> AssistantFacts::byteFigures() const {
    std::vector<std::uint64_t> figures;
    if (about && about->bytes) {
        figures.push_back(*about->bytes);
    }
    for (const std::vector<Fact>* list : {&contents, &alsoMeasured}) {
        for (const Fact& fact : *list) {
            if (fact.bytes) {
                figures.push_back(*fact.bytes);
            }
        }
    }
    return figures;
}

std::string factName(const std::string& path, const std::string& home) {
    if (path == home) {
        return "~";
    }
    if (isInside(path, home)) {
        return "~/" + path.substr(home.size() + 1);
    }
    return path;
}

AssistantFacts measureFacts(const std::string& path, const std::string& home,
                            const std::stop_token& stop, std::size_t limit) {
    const std::string normalized = normalizePath(path);
    if (!isInside(normalized, home)) {
        throw CleanerError::invalidPath("Only what is inside your home folder can be explained, "
                                        "and " +
                                        normalized + " is not. Nothing was sent.");
    }
    refuseSymlink(normalized);
    struct stat st {};
    if (::lstat(normalized.c_str(), &st) != 0) {
        throw CleanerError::invalidPath("There is nothing at " + normalized +
                                        ". Nothing was sent.");
    }
    const bool folder = S_ISDIR(st.st_mode);
    AssistantFacts facts;
    facts.subject = std::string(folder ? "The folder " : "The file ") + factName(normalized, home);
    Fact about{.name = factName(normalized, home), .kind = folder ? "folder" : "file"};
    about.changed = st.st_mtime;
    std::vector<std::string> warnings;
    FootprintTally tally;
    if (!folder) {
        Footprint footprint = measureFootprint(normalized, std::nullopt, warnings, tally, stop);
        about.bytes = footprint.allocatedBytes;
        facts.about = about;
        return facts;
    }

    std::optional<ParentHandle> parent = openParent(normalized);
    UniqueFd fd = parent ? openListedFolder(parent->fd.get(), parent->name.c_str(), normalized, st)
                         : UniqueFd();
    if (!fd) {
        throw CleanerError::invalidPath("There is nothing at " + normalized +
                                        ". Nothing was sent.");
    }
    std::vector<std::string> names = listDirectory(fd.get(), normalized, stop);
    std::uint64_t total = 0; // files' allocated bytes, as every size Sparrowdeck shows
    std::uint64_t files = 0;
    std::uint64_t folders = 0;
    std::vector<Fact> items;
    for (const std::string& name : names) {
        throwIfStopped(stop);
        const std::string child = childPath(normalized, name);
        std::optional<struct stat> childStat = statEntry(fd.get(), name.c_str(), child);
        if (!childStat) {
            continue;
        }
        Footprint footprint =
            measureFootprint(child, EntryIdentity::of(*childStat), warnings, tally, stop);
        if (footprint.vanished) {
            continue;
        }
        const bool isFolder = S_ISDIR(childStat->st_mode);
        Fact item{.name = name, .kind = isFolder ? "folder" : "file"};
        item.bytes = footprint.allocatedBytes;
        if (isFolder) {
            item.files = footprint.fileCount;
            item.folders = footprint.directoryCount - 1;
        }
        item.changed = childStat->st_mtime;
        total += footprint.allocatedBytes;
        files += footprint.fileCount;
        folders += footprint.directoryCount;
        items.push_back(std::move(item));
    }
    std::stable_sort(items.begin(), items.end(),
                     [](const Fact& a, const Fact& b) { return a.bytes > b.bytes; });
    if (items.size() > limit) {
        Fact rest{.name = formatCount(items.size() - limit) + " smaller items", .kind = "together"};
        std::uint64_t restBytes = 0;
        for (size_t i = limit; i < items.size(); ++i) {
            restBytes += items[i].bytes.value_or(0);
        }
        rest.bytes = restBytes;
        items.resize(limit);
        items.push_back(std::move(rest));
    }
    about.bytes = total;
    about.files = files;
    about.folders = folders;
    facts.about = about;
    facts.contents = std::move(items);
    return facts;
}

} // namespace sd
