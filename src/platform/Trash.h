#pragma once

#include "base/Identity.h"

#include <cstdint>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace sd::platform {

struct TrashMoveResult {
    std::optional<std::string> trashPath; // where the item now is, when it moved
    int error = 0;                        // errno of the failure, when it did not
    bool nonTrashable = false;            // no Trash on the item's volume can take it
};

// Moves `name` from the open directory `parentFd` (its absolute path is `path`, its no-follow
// stat `st`) into the Trash of its own volume, recording where it came from. Renames only: an
// item that no Trash on its volume can take stays where it is. `bytes` is the item's allocated
// size, kept for folders so the Trash can show it without measuring.
TrashMoveResult moveToTrash(int parentFd, const std::string& name, const std::string& path,
                            const struct stat& st, std::uint64_t bytes);

// True when some Trash on the volume of the entry (absolute `path`, stat `st`) could take it.
// Asks without creating anything.
bool trashCanTake(const std::string& path, const struct stat& st);

// Drops the Trash's record of an item that has left it (put back): its info file and, for a
// folder, its line in the folder-size cache. Missing records are not an error.
void forgetTrashed(const std::string& trashPath);

struct TrashedEntry {
    std::string trashPath;    // the item inside the Trash
    std::string originalPath; // where it came from
    std::string deletionDate; // as recorded, local time "YYYY-MM-DDThh:mm:ss"
    // Allocated bytes: a file's own, a folder's from the Trash's size cache when its line is
    // current. Empty for a folder the cache does not vouch for; the caller measures it.
    std::optional<std::uint64_t> bytes;
    std::optional<EntryIdentity> identity; // of the item in "files"
    bool isDirectory = false;
};

// Every item in the user's Trashes: the home one and those at the top of mounted volumes,
// whoever put them there.
std::vector<TrashedEntry> listTrash();

// The folders that hold trashed items ("files" folders), existing ones only.
std::vector<std::string> trashFolders();

// Where the Trash's own info record says the item at `trashPath` came from, as an absolute path.
// Empty when `trashPath` is not directly inside one of trashFolders(), or its record is missing
// or unreadable.
std::optional<std::string> recordedOrigin(const std::string& trashPath);

} // namespace sd::platform
