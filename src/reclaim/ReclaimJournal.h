#pragma once

#include "base/Stop.h"

#include <cstdint>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace sd {

enum class JournalKind { sweep, findings, caches, uninstall, leftovers };

std::string_view journalKindName(JournalKind kind);
std::optional<JournalKind> journalKindFromName(std::string_view name);

struct TrashedItem {
    std::string originalPath;
    std::string trashPath;
    std::uint64_t bytes = 0;
    std::string identityToken;
    std::string group;
    bool restored = false;
    std::optional<std::string> targetID;

    // Items are told apart by where they went and what they were.
    std::string id() const { return trashPath; }
};

struct JournalEntry {
    std::string id;
    std::string date; // ISO 8601, UTC
    std::string title;
    JournalKind kind = JournalKind::findings;
    std::vector<TrashedItem> items;
    std::optional<std::map<std::string, std::uint64_t>> targetBytes;
    std::optional<std::map<std::string, std::uint64_t>> targetRemainingBytes;
};

// Where a move's items go: an existing entry, under one of its row groups.
struct JournalContext {
    std::string entryID;
    std::string group;
};

struct TrashRestoreResult {
    std::set<std::string> restoredIDs;
    std::uint64_t restoredBytes = 0;
    std::vector<std::string> skipped;
    // A sentence for each item refused because the journal's record of it cannot be trusted, and
    // for a journal that could not be updated after items went back.
    std::vector<std::string> notes;
};

// The record of everything moved to the Trash, behind the Activity list and Put Back. Several
// processes may write it at once: every save takes an advisory lock and merges with what is on
// disk, so no process's entries are lost.
// Which of an entry's items a Put Back returns; nothing named means all of them.
struct PutBackChoice {
    std::optional<std::string> group;
    std::optional<std::string> itemID; // TrashedItem::id()
};

class ReclaimJournal {
public:
    // A journal kept in `file`, or only in memory when there is none.
    explicit ReclaimJournal(std::optional<std::string> file);
    // The journal in the support folder.
    static ReclaimJournal standard();

    // Reads the file. A file that cannot be decoded is kept aside under a new name and a
    // sentence saying so is returned; nothing is ever silently overwritten.
    std::vector<std::string> load();

    const std::vector<JournalEntry>& entries() const noexcept { return entries_; }
    const std::optional<std::string>& file() const noexcept { return file_; }
    const JournalEntry* find(std::string_view idOrPrefix) const;

    // Writes the items about to move (their trashPath still empty) as a pending entry, opened and
    // locked, before anything moves. Throws CleanerError when that cannot be done: then nothing
    // may move. The next record() replaces the pending items with what really moved.
    void writeAhead(std::vector<TrashedItem> planned, const std::string& title, JournalKind kind,
                    const std::optional<JournalContext>& context = std::nullopt);

    // Appends moved items to the entry named by `context`, the pending entry of writeAhead(), or
    // a new entry, and drops the pending items that did not move. Returns the entry's id.
    // Nothing is written when `items` is empty and nothing is pending.
    std::string record(std::vector<TrashedItem> items, const std::string& title, JournalKind kind,
                       const std::optional<JournalContext>& context = std::nullopt);

    // Returns the entry's items still in the Trash (only those of `group` when given) to where
    // they were, and marks the ones that went back. Nothing moves unless the journal can be
    // written first; an item whose recorded paths fall outside what Sparrowdeck itself writes, or
    // whose Trash record or birth no longer match the move, stays where it is with a note.
    TrashRestoreResult putBack(const std::string& entryID, const std::optional<std::string>& group,
                               const std::stop_token& stop = {});
    // The same for the items `choice` names: one group's, or a single item by its id.
    TrashRestoreResult putBack(const std::string& entryID, const PutBackChoice& choice,
                               const std::stop_token& stop = {});

    // Sentences from the last save or load that the person should see (a journal set aside).
    const std::vector<std::string>& warnings() const noexcept { return warnings_; }

private:
    template <typename Change> void update(Change&& change);
    void rememberBirths(const std::vector<TrashedItem>& items);

    struct Pending {
        std::string entryID;
        std::vector<std::pair<std::string, std::string>> items; // original path, identity token
    };

    std::optional<std::string> file_;
    std::vector<JournalEntry> entries_;
    std::vector<std::string> warnings_;
    std::optional<Pending> pending_;
};

// Texts of Put Back.
std::string putBackProgressText(std::uint64_t count);
std::string putBackResultText(const TrashRestoreResult& result);
std::string putBackSkippedText(std::uint64_t count);
inline constexpr std::string_view putBackConfirmationText = "Each goes back exactly where it was.";

// A path as the journal file writes it: bytes that are not part of well-formed UTF-8, and "%"
// itself, escaped as %XX the way Trash info files escape them, so any name the disk can hold is
// recorded exactly and the file stays valid JSON.
std::string journalPathText(std::string_view path);
// The bytes a journal path stands for; empty when an escape is malformed.
std::optional<std::string> pathFromJournalText(std::string_view text);
// A path for people to read: well-formed UTF-8 as it is, any other byte as %XX.
std::string readablePath(std::string_view path);

// The entry as the journal file writes it.
nlohmann::json journalEntryToJson(const JournalEntry& entry);

std::string newUuid();
std::string isoTimestampNow();

} // namespace sd
