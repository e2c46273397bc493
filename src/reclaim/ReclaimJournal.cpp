#include "reclaim/ReclaimJournal.h"

#include "base/CleanerError.h"
#include "base/FileIo.h"
#include "base/PathText.h"
#include "base/PercentEncoding.h"
#include "base/Saturating.h"
#include "base/TestHooks.h"
#include "base/UniqueFd.h"
#include "core/ByteFormat.h"
#include "core/CoreFileSystem.h"
#include "core/MockRoots.h"
#include "core/PathRules.h"
#include "platform/Dirs.h"
#include "platform/FileSystemExtras.h"
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
#include <utility>

namespace sd {
namespace {

using nlohmann::json;

constexpr std::array<std::string_view, 5> kindNames{"sweep", "findings", "caches", "uninstall",
                                                    "leftovers"};

json entryJson(const JournalEntry& entry) {
    json items = json::array();
    for (const TrashedItem& item : entry.items) {
        json j{{"originalPath", journalPathText(item.originalPath)},
               {"trashPath", journalPathText(item.trashPath)},
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

// A byte count as the file must hold it: a whole number from 0 to 2^64-1. Negative numbers,
// fractions and numbers written as text make the file unreadable instead of being read as
// something else.
std::uint64_t byteCount(const json& j) {
    if (!j.is_number_unsigned()) {
        throw std::invalid_argument("not a byte count");
    }
    return j.get<std::uint64_t>();
}

std::map<std::string, std::uint64_t> byteCounts(const json& j) {
    if (!j.is_object()) {
        throw std::invalid_argument("not a map of byte counts");
    }
    std::map<std::string, std::uint64_t> out;
    for (const auto& [key, value] : j.items()) {
        out[key] = byteCount(value);
    }
    return out;
}

std::string recordedPath(const json& j) {
    std::optional<std::string> path = pathFromJournalText(j.get<std::string>());
    if (!path) {
        throw std::invalid_argument("malformed path escape");
    }
    return *path;
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
    if (!j.at("items").is_array()) {
        throw std::invalid_argument("items is not a list");
    }
    for (const json& i : j.at("items")) {
        TrashedItem item;
        item.originalPath = recordedPath(i.at("originalPath"));
        item.trashPath = recordedPath(i.at("trashPath"));
        item.bytes = byteCount(i.at("bytes"));
        item.identityToken = i.at("identityToken").get<std::string>();
        item.group = i.at("group").get<std::string>();
        item.restored = i.at("restored").get<bool>();
        if (i.contains("targetID")) {
            item.targetID = i.at("targetID").get<std::string>();
        }
        entry.items.push_back(std::move(item));
    }
    if (j.contains("targetBytes")) {
        entry.targetBytes = byteCounts(j.at("targetBytes"));
    }
    if (j.contains("targetRemainingBytes")) {
        entry.targetRemainingBytes = byteCounts(j.at("targetRemainingBytes"));
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
// restored by either is restored. A pending item (no Trash path yet) is the disk's to keep: the
// process that wrote it drops or completes it there, and a copy read earlier must not revive it.
std::vector<JournalEntry> merge(std::vector<JournalEntry> disk,
                                const std::vector<JournalEntry>& known) {
    std::vector<JournalEntry> mine = known;
    for (JournalEntry& entry : mine) {
        std::erase_if(entry.items, [](const TrashedItem& item) { return item.trashPath.empty(); });
    }
    std::erase_if(mine, [](const JournalEntry& entry) { return entry.items.empty(); });
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

// Reads the file under the lock. An undecodable file is renamed aside, never overwritten.
std::vector<JournalEntry> readDisk(const std::string& file, std::vector<std::string>& warnings) {
    std::optional<std::string> text = readRecordFile(file);
    if (!text) {
        return {};
    }
    try {
        return decode(*text);
    } catch (const std::exception&) {
        warnings.push_back("The activity journal could not be read, so it was kept as " +
                           keepAside(file) +
                           " and a new one was started. Nothing on your disk was changed.");
        return {};
    }
}

std::string serialize(const std::vector<JournalEntry>& entries) {
    json out = json::array();
    for (const JournalEntry& entry : entries) {
        if (!entry.items.empty()) {
            out.push_back(entryJson(entry));
        }
    }
    return out.dump(2);
}

void writeDisk(const std::string& file, const std::vector<JournalEntry>& entries) {
    replaceFileAtomically(file, serialize(entries));
}
// Beside the journal, what each moved object was born as, so that a new file that reuses a
// trashed item's name and inode after the Trash was emptied is never taken for it. Kept apart
// from the journal's own keys, which other readers of the journal know.
constexpr std::string_view birthRecordsName = "journal-births.json";

json readBirthRecords(const std::string& file) {
    try {
        UniqueFd fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
        json parsed = json::parse(fd ? readAll(fd.get(), size_t(1) << 26) : std::string("{}"));
        return parsed.is_object() ? parsed : json::object();
    } catch (const std::exception&) {
        return json::object();
    }
}

std::string birthKey(const TrashedItem& item) {
    return journalPathText(item.trashPath);
}

// The birth time of the object at `trashPath`, or where the file system keeps none its size and
// change time (a rename into the Trash changes the latter, so it is taken after the move).
std::optional<json> birthOf(const std::string& trashPath, const std::string& token) {
    try {
        std::optional<ParentHandle> parent = openParent(trashPath);
        std::optional<struct stat> st;
        if (parent) {
            st = statEntry(parent->fd.get(), parent->name.c_str(), trashPath);
        }
        if (!st || identityToken(EntryIdentity::of(*st)) != token) {
            return std::nullopt;
        }
        if (auto born = platform::birthTime(parent->fd.get(), parent->name.c_str(), *st)) {
            return json{{"born", {born->sec, born->nsec}}};
        }
        Timestamp changed = platform::changedTime(*st);
        return json{{"size", static_cast<std::int64_t>(st->st_size)},
                    {"changed", {changed.sec, changed.nsec}}};
    } catch (const CleanerError&) {
        return std::nullopt;
    }
}

std::string parentOf(const std::string& path) {
    size_t slash = path.rfind('/');
    return slash == 0 || slash == std::string::npos ? std::string("/") : path.substr(0, slash);
}

// Why an item's record cannot be trusted to move anything, or nothing when it can. A journal is
// a file anyone with the account can edit: its paths get the same scope rules as every other
// path, and the object in the Trash must still be the one the move recorded.
std::optional<std::string> untrustedRecord(const TrashedItem& item, const json& births) {
    auto plainAbsolute = [](const std::string& path) {
        try {
            return normalizePath(path) == path;
        } catch (const CleanerError&) {
            return false;
        }
    };
    if (!plainAbsolute(item.originalPath)) {
        return "its recorded place is not a plain absolute path";
    }
    const std::string& home = homeDirectory();
    bool inHome = item.originalPath != home && isInside(item.originalPath, home);
    if (!inHome && !MockRoots::owns(item.originalPath)) {
        return "its recorded place lies outside your home folder";
    }
    if (isProtected(item.originalPath)) {
        return "its recorded place is a protected location";
    }
    std::vector<std::string> folders = platform::trashFolders();
    if (!plainAbsolute(item.trashPath) ||
        std::find(folders.begin(), folders.end(), parentOf(item.trashPath)) == folders.end()) {
        return "its recorded place in the Trash is not one of your Trash folders";
    }
    std::optional<std::string> origin = platform::recordedOrigin(item.trashPath);
    if (!origin) {
        return "the Trash no longer holds its record of where it came from";
    }
    if (*origin != item.originalPath) {
        return "the Trash's record of it names another place";
    }
    auto recorded = births.find(birthKey(item));
    if (recorded != births.end()) {
        std::optional<json> now = birthOf(item.trashPath, item.identityToken);
        if (now && *now != *recorded) {
            return "what sits in the Trash under its name is a newer file, not the one that moved";
        }
    }
    return std::nullopt;
}

// An item whose place in the Trash was never written (the program ended between the move and
// the journal's last write) is found by its Trash record and identity.
std::optional<std::string> findInTrash(const TrashedItem& item) {
    for (const platform::TrashedEntry& trashed : platform::listTrash()) {
        if (trashed.originalPath == item.originalPath && trashed.identity &&
            identityToken(*trashed.identity) == item.identityToken) {
            return trashed.trashPath;
        }
    }
    return std::nullopt;
}

// The object is already at its old place: a Put Back happened that the journal did not record.
bool alreadyBack(const TrashedItem& item) {
    try {
        std::optional<ParentHandle> parent = openParent(item.originalPath);
        std::optional<struct stat> st;
        if (parent) {
            st = statEntry(parent->fd.get(), parent->name.c_str(), item.originalPath);
        }
        return st && identityToken(EntryIdentity::of(*st)) == item.identityToken;
    } catch (const CleanerError&) {
        return false;
    }
}

void restoreItems(std::vector<JournalEntry>& entries, const std::string& entryID,
                  const PutBackChoice& choice, const std::stop_token& stop, const json& births,
                  TrashRestoreResult& result) {
    const std::optional<std::string>& group = choice.group;
    for (JournalEntry& entry : entries) {
        if (entry.id != entryID) {
            continue;
        }
        for (TrashedItem& item : entry.items) {
            if (item.restored || (group && item.group != *group) ||
                (choice.itemID && item.id() != *choice.itemID)) {
                continue;
            }
            if (stop.stop_requested()) {
                result.skipped.push_back(item.originalPath);
                continue;
            }
            if (item.trashPath.empty()) {
                if (std::optional<std::string> found = findInTrash(item)) {
                    item.trashPath = *found;
                } else {
                    item.restored = alreadyBack(item);
                    if (!item.restored) {
                        result.skipped.push_back(item.originalPath);
                    }
                    continue;
                }
            }
            if (std::optional<std::string> why = untrustedRecord(item, births)) {
                result.notes.push_back(readablePath(item.originalPath) + ": " + *why +
                                       ", so it stayed in the Trash.");
                result.skipped.push_back(item.originalPath);
                continue;
            }
            RestoreOutcome outcome =
                restoreFromTrash(item.trashPath, item.originalPath, item.identityToken);
            if (outcome == RestoreOutcome::restored) {
                platform::forgetTrashed(item.trashPath);
                item.restored = true;
                result.restoredIDs.insert(item.id());
                result.restoredBytes = saturatingAdd(result.restoredBytes, item.bytes);
            } else if (outcome == RestoreOutcome::gone && alreadyBack(item)) {
                item.restored = true;
            } else {
                result.skipped.push_back(item.originalPath);
            }
        }
    }
}

} // namespace

json journalEntryToJson(const JournalEntry& entry) {
    return entryJson(entry);
}

namespace {

// How many bytes the well-formed UTF-8 character at `at` takes, or 0 when none starts there.
size_t utf8Length(std::string_view text, size_t at) {
    auto lead = static_cast<unsigned char>(text[at]);
    size_t length = lead < 0x80   ? 1
                    : lead < 0xC2 ? 0
                    : lead < 0xE0 ? 2
                    : lead < 0xF0 ? 3
                    : lead < 0xF5 ? 4
                                  : 0;
    if (length == 0 || at + length > text.size() || !isUtf8(text.substr(at, length))) {
        return 0;
    }
    return length;
}

std::string escapeBytes(std::string_view path, bool escapePercent) {
    static constexpr char hex[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(path.size());
    for (size_t at = 0; at < path.size();) {
        size_t length = utf8Length(path, at);
        if (length == 0 || (escapePercent && path[at] == '%')) {
            auto byte = static_cast<unsigned char>(path[at]);
            out.push_back('%');
            out.push_back(hex[byte >> 4]);
            out.push_back(hex[byte & 0xF]);
            ++at;
            continue;
        }
        out.append(path.substr(at, length));
        at += length;
    }
    return out;
}

} // namespace

std::string journalPathText(std::string_view path) {
    return escapeBytes(path, true);
}

std::optional<std::string> pathFromJournalText(std::string_view text) {
    return percentDecode(text);
}

std::string readablePath(std::string_view path) {
    return escapeBytes(path, false);
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

void ReclaimJournal::writeAhead(std::vector<TrashedItem> planned, const std::string& title,
                                JournalKind kind, const std::optional<JournalContext>& context) {
    Pending pending{context ? context->entryID : newUuid(), {}};
    for (TrashedItem& item : planned) {
        item.trashPath.clear(); // not known until the Trash has taken it
        item.restored = false;
        if (context) {
            item.group = context->group;
        }
        pending.items.emplace_back(item.originalPath, item.identityToken);
    }
    if (planned.empty()) {
        return;
    }
    update([&](std::vector<JournalEntry>& entries) {
        auto entry = std::find_if(entries.begin(), entries.end(),
                                  [&](const JournalEntry& e) { return e.id == pending.entryID; });
        if (entry == entries.end()) {
            entries.push_back(
                {pending.entryID, isoTimestampNow(), title, kind, {}, std::nullopt, std::nullopt});
            entry = std::prev(entries.end());
        }
        entry->items.insert(entry->items.end(), planned.begin(), planned.end());
        refreshTargetBytes(*entry);
    });
    pending_ = std::move(pending);
}

std::string ReclaimJournal::record(std::vector<TrashedItem> items, const std::string& title,
                                   JournalKind kind, const std::optional<JournalContext>& context) {
    testhooks::beforeJournalRecord();
    std::optional<Pending> pending = std::exchange(pending_, std::nullopt);
    std::string id = context ? context->entryID : pending ? pending->entryID : newUuid();
    if (items.empty() && !pending) {
        return id;
    }
    if (context) {
        for (TrashedItem& item : items) {
            item.group = context->group;
        }
    }
    update([&](std::vector<JournalEntry>& entries) {
        if (pending) {
            // What really moved is written below; what was only about to move is dropped.
            for (JournalEntry& entry : entries) {
                std::erase_if(entry.items, [&](const TrashedItem& item) {
                    return item.trashPath.empty() &&
                           std::find(pending->items.begin(), pending->items.end(),
                                     std::pair(item.originalPath, item.identityToken)) !=
                               pending->items.end();
                });
            }
        }
        if (items.empty()) {
            return;
        }
        auto entry = std::find_if(entries.begin(), entries.end(),
                                  [&](const JournalEntry& e) { return e.id == id; });
        if (entry == entries.end()) {
            entries.push_back({id, isoTimestampNow(), title, kind, {}, std::nullopt, std::nullopt});
            entry = std::prev(entries.end());
        }
        entry->items.insert(entry->items.end(), items.begin(), items.end());
        refreshTargetBytes(*entry);
    });
    rememberBirths(items);
    return id;
}

void ReclaimJournal::rememberBirths(const std::vector<TrashedItem>& items) {
    if (!file_ || items.empty()) {
        return;
    }
    try {
        std::string file = directoryOf(*file_) + "/" + std::string(birthRecordsName);
        FileLock lock(*file_);
        json records = readBirthRecords(file);
        for (const TrashedItem& item : items) {
            if (std::optional<json> birth = birthOf(item.trashPath, item.identityToken)) {
                records[birthKey(item)] = *birth;
            }
        }
        replaceFileAtomically(file, records.dump());
    } catch (const CleanerError&) {
        // The journal itself is written; Put Back still checks the Trash's own record.
    }
}

TrashRestoreResult ReclaimJournal::putBack(const std::string& entryID,
                                           const std::optional<std::string>& group,
                                           const std::stop_token& stop) {
    return putBack(entryID, PutBackChoice{group, std::nullopt}, stop);
}

TrashRestoreResult ReclaimJournal::putBack(const std::string& entryID, const PutBackChoice& choice,
                                           const std::stop_token& stop) {
    TrashRestoreResult result;
    if (!file_) {
        restoreItems(entries_, entryID, choice, stop, {}, result);
        return result;
    }
    makeDirectories(directoryOf(*file_), 0700);
    // The whole Put Back runs under the lock, so two windows cannot return the same item twice.
    FileLock lock(*file_);
    std::vector<JournalEntry> merged = merge(readDisk(*file_, warnings_), entries_);
    // Proves the journal can take the result before anything moves: a Put Back the journal
    // cannot record would leave Activity saying the item is still in the Trash. The result is
    // no larger than what is written here.
    std::string probe = *file_ + ".probe";
    replaceFileAtomically(probe, serialize(merged));
    ::unlink(probe.c_str());
    json births = readBirthRecords(directoryOf(*file_) + "/" + std::string(birthRecordsName));
    const std::string before = serialize(merged);
    restoreItems(merged, entryID, choice, stop, births, result);
    try {
        if (serialize(merged) != before) {
            writeDisk(*file_, merged);
        }
    } catch (const CleanerError& error) {
        result.notes.push_back(
            std::string("What went back is back, but Activity could not be updated (") +
            error.what() + "); it will notice them the next time you put back this entry.");
    }
    entries_ = std::move(merged);
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
