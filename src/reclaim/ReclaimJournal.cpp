#include "reclaim/ReclaimJournal.h"

#include "base/CleanerError.h"
#include "base/FileIo.h"
#include "base/UniqueFd.h"
#include "core/ByteFormat.h"
#include "platform/Dirs.h"
#include "platform/Trash.h"
#include "reclaim/PutBack.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <random>
#include <sys/stat.h>
#include <unistd.h>

namespace sd {
namespace {

using nlohmann::json;

constexpr std::array<std::string_view, 5> kindNames{"sweep", "findings", "caches", "uninstall",
                                                    "leftovers"};

json entryJson(const JournalEntry& entry) {
    json items = json::array();
    for (const TrashedItem& item : entry.items) {
        json j{{"originalPath", item.originalPath},
               {"trashPath", item.trashPath},
               {"bytes", item.bytes},
               {"identityToken", item.identityToken},
               {"group", item.group},
               {"restored", item.restored}};
        if (item.targetID) {
            j["targetID"] = *item.targetID;
        }
        items.push_back(std::move(j));
    }
    json out{{"id", entry.id},
             {"date", entry.date},
             {"title", entry.title},
             {"kind", journalKindName(entry.kind)},
             {"items", std::move(items)}};
    if (entry.targetBytes) {
        out["targetBytes"] = *entry.targetBytes;
    }
    if (entry.targetRemainingBytes) {
        out["targetRemainingBytes"] = *entry.targetRemainingBytes;
    }
    return out;
}

// Every key is required but the three optional ones; anything else makes the file unreadable.
JournalEntry entryFromJson(const json& j) {
    JournalEntry entry;
    entry.id = j.at("id").get<std::string>();
    entry.date = j.at("date").get<std::string>();
    entry.title = j.at("title").get<std::string>();
    std::optional<JournalKind> kind = journalKindFromName(j.at("kind").get<std::string>());
    if (!kind) {
        throw std::invalid_argument("unknown kind");
    }
    entry.kind = *kind;
    for (const json& i : j.at("items")) {
        TrashedItem item;
        item.originalPath = i.at("originalPath").get<std::string>();
        item.trashPath = i.at("trashPath").get<std::string>();
        item.bytes = i.at("bytes").get<std::uint64_t>();
        item.identityToken = i.at("identityToken").get<std::string>();
        item.group = i.at("group").get<std::string>();
        item.restored = i.at("restored").get<bool>();
        if (i.contains("targetID")) {
            item.targetID = i.at("targetID").get<std::string>();
        }
        entry.items.push_back(std::move(item));
    }
    if (j.contains("targetBytes")) {
        entry.targetBytes = j.at("targetBytes").get<std::map<std::string, std::uint64_t>>();
    }
    if (j.contains("targetRemainingBytes")) {
        entry.targetRemainingBytes =
            j.at("targetRemainingBytes").get<std::map<std::string, std::uint64_t>>();
    }
    return entry;
}

std::vector<JournalEntry> decode(const std::string& text) {
    json parsed = json::parse(text);
    if (!parsed.is_array()) {
        throw std::invalid_argument("not an array");
    }
    std::vector<JournalEntry> entries;
    for (const json& j : parsed) {
        entries.push_back(entryFromJson(j));
    }
    return entries;
}

void refreshTargetBytes(JournalEntry& entry) {
    std::map<std::string, std::uint64_t> bytes;
    for (const TrashedItem& item : entry.items) {
        if (item.targetID) {
            bytes[*item.targetID] += item.bytes;
        }
    }
    if (bytes.empty()) {
        entry.targetBytes.reset();
    } else {
        entry.targetBytes = std::move(bytes);
    }
}

// What two writers know together: every entry either has, every item either has, and an item
// restored by either is restored.
std::vector<JournalEntry> merge(std::vector<JournalEntry> disk,
                                const std::vector<JournalEntry>& mine) {
    for (const JournalEntry& entry : mine) {
        auto same = std::find_if(disk.begin(), disk.end(),
                                 [&](const JournalEntry& e) { return e.id == entry.id; });
        if (same == disk.end()) {
            disk.push_back(entry);
            continue;
        }
        for (const TrashedItem& item : entry.items) {
            auto known =
                std::find_if(same->items.begin(), same->items.end(), [&](const TrashedItem& i) {
                    return i.id() == item.id() && i.identityToken == item.identityToken;
                });
            if (known == same->items.end()) {
                same->items.push_back(item);
            } else {
                known->restored = known->restored || item.restored;
            }
        }
        if (entry.targetRemainingBytes) {
            same->targetRemainingBytes = entry.targetRemainingBytes;
        }
        refreshTargetBytes(*same);
    }
    return disk;
}

std::string directoryOf(const std::string& path) {
    return path.substr(0, path.rfind('/'));
}

std::string fileNameOf(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

std::string timestampForName() {
    std::time_t now = std::time(nullptr);
    std::tm utc{};
    ::gmtime_r(&now, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y%m%d-%H%M%S", &utc);
    return text;
}

// Reads the file under the lock. An undecodable file is renamed aside, never overwritten.
std::vector<JournalEntry> readDisk(const std::string& file, std::vector<std::string>& warnings) {
    UniqueFd fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    if (!fd) {
        if (errno == ENOENT) {
            return {};
        }
        throw makeCoreError(operation::opening, file, errno);
    }
    std::string text = readAll(fd.get());
    try {
        return decode(text);
    } catch (const std::exception&) {
        std::string aside = file + ".unreadable-" + timestampForName();
        for (int n = 2; ::access(aside.c_str(), F_OK) == 0; ++n) {
            aside = file + ".unreadable-" + timestampForName() + "-" + std::to_string(n);
        }
        if (::rename(file.c_str(), aside.c_str()) != 0) {
            throw makeCoreError(operation::opening, file, errno);
        }
        warnings.push_back("The activity journal could not be read, so it was kept as " +
                           fileNameOf(aside) +
                           " and a new one was started. Nothing on your disk was changed.");
        return {};
    }
}

void writeDisk(const std::string& file, const std::vector<JournalEntry>& entries) {
    json out = json::array();
    for (const JournalEntry& entry : entries) {
        if (!entry.items.empty()) {
            out.push_back(entryJson(entry));
        }
    }
    replaceFileAtomically(file, out.dump(2));
}
} // namespace

json journalEntryToJson(const JournalEntry& entry) {
    return entryJson(entry);
}

std::string_view journalKindName(JournalKind kind) {
    return kindNames[static_cast<size_t>(kind)];
}

std::optional<JournalKind> journalKindFromName(std::string_view name) {
    auto found = std::find(kindNames.begin(), kindNames.end(), name);
    if (found == kindNames.end()) {
        return std::nullopt;
    }
    return static_cast<JournalKind>(found - kindNames.begin());
}

std::string newUuid() {
    std::random_device random;
    std::array<unsigned char, 16> bytes{};
    for (size_t i = 0; i < bytes.size(); i += 4) {
        std::uint32_t word = random();
        for (size_t k = 0; k < 4; ++k) {
            bytes[i + k] = static_cast<unsigned char>(word >> (8 * k));
        }
    }
    bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0F) | 0x40);
    bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3F) | 0x80);
    static constexpr char hex[] = "0123456789ABCDEF";
    std::string out;
    for (size_t i = 0; i < bytes.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) {
            out.push_back('-');
        }
        out.push_back(hex[bytes[i] >> 4]);
        out.push_back(hex[bytes[i] & 0xF]);
    }
    return out;
}

std::string isoTimestampNow() {
    std::time_t now = std::time(nullptr);
    std::tm utc{};
    ::gmtime_r(&now, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

ReclaimJournal::ReclaimJournal(std::optional<std::string> file) : file_(std::move(file)) {}

ReclaimJournal ReclaimJournal::standard() {
    return ReclaimJournal(platform::supportDirectory() + "/journal.json");
}

std::vector<std::string> ReclaimJournal::load() {
    warnings_.clear();
    if (!file_) {
        return {};
    }
    // Reading never creates anything: a person who only looks leaves no trace on the disk.
    if (::access(directoryOf(*file_).c_str(), F_OK) != 0) {
        entries_.clear();
        return {};
    }
    FileLock lock(*file_);
    entries_ = readDisk(*file_, warnings_);
    return warnings_;
}

template <typename Change> void ReclaimJournal::update(Change&& change) {
    if (!file_) {
        change(entries_);
        return;
    }
    makeDirectories(directoryOf(*file_), 0700);
    FileLock lock(*file_);
    std::vector<JournalEntry> merged = merge(readDisk(*file_, warnings_), entries_);
    change(merged);
    writeDisk(*file_, merged);
    entries_ = std::move(merged);
}

const JournalEntry* ReclaimJournal::find(std::string_view idOrPrefix) const {
    const JournalEntry* match = nullptr;
    for (const JournalEntry& entry : entries_) {
        if (entry.id == idOrPrefix) {
            return &entry;
        }
        if (!idOrPrefix.empty() && entry.id.starts_with(idOrPrefix)) {
            if (match != nullptr) {
                return nullptr; // ambiguous
            }
            match = &entry;
        }
    }
    return match;
}

std::string ReclaimJournal::record(std::vector<TrashedItem> items, const std::string& title,
                                   JournalKind kind, const std::optional<JournalContext>& context) {
    std::string id = context ? context->entryID : newUuid();
    if (items.empty()) {
        return id;
    }
    if (context) {
        for (TrashedItem& item : items) {
            item.group = context->group;
        }
    }
    update([&](std::vector<JournalEntry>& entries) {
        auto entry = std::find_if(entries.begin(), entries.end(),
                                  [&](const JournalEntry& e) { return e.id == id; });
        if (entry == entries.end()) {
            entries.push_back({id, isoTimestampNow(), title, kind, {}, std::nullopt, std::nullopt});
            entry = std::prev(entries.end());
        }
        entry->items.insert(entry->items.end(), items.begin(), items.end());
        refreshTargetBytes(*entry);
    });
    return id;
}

TrashRestoreResult ReclaimJournal::putBack(const std::string& entryID,
                                           const std::optional<std::string>& group,
                                           const std::stop_token& stop) {
    TrashRestoreResult result;
    // The whole Put Back runs under the lock, so two windows cannot return the same item twice.
    update([&](std::vector<JournalEntry>& entries) {
        for (JournalEntry& entry : entries) {
            if (entry.id != entryID) {
                continue;
            }
            for (TrashedItem& item : entry.items) {
                if (item.restored || (group && item.group != *group)) {
                    continue;
                }
                if (stop.stop_requested()) {
                    result.skipped.push_back(item.originalPath);
                    continue;
                }
                if (restoreFromTrash(item.trashPath, item.originalPath, item.identityToken) ==
                    RestoreOutcome::restored) {
                    platform::forgetTrashed(item.trashPath);
                    item.restored = true;
                    result.restoredIDs.insert(item.id());
                    result.restoredBytes += item.bytes;
                } else {
                    result.skipped.push_back(item.originalPath);
                }
            }
        }
    });
    return result;
}

std::string putBackProgressText(std::uint64_t count) {
    return "Putting back " + std::to_string(count) + (count == 1 ? " item" : " items");
}

std::string putBackResultText(const TrashRestoreResult& result) {
    std::uint64_t returned = result.restoredIDs.size();
    if (returned == 0) {
        return "Nothing could go back — the Trash may have been emptied.";
    }
    std::string text = "Put back " + std::to_string(returned) +
                       (returned == 1 ? " item" : " items") + " · " +
                       formatBytes(result.restoredBytes);
    if (!result.skipped.empty()) {
        text += "; " + std::to_string(result.skipped.size()) + " couldn’t — see Activity.";
    }
    return text;
}

std::string putBackSkippedText(std::uint64_t count) {
    return std::to_string(count) +
           " stayed in the Trash: something now sits where they were, or the Trash was emptied.";
}

} // namespace sd
