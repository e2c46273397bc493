#include "reclaim/TrashListing.h"

#include "base/CleanerError.h"
#include "core/CoreFileSystem.h"

namespace sd {

std::vector<platform::TrashedEntry> listTrashMeasured(const std::stop_token& stop) {
    std::vector<platform::TrashedEntry> entries = platform::listTrash();
    for (platform::TrashedEntry& entry : entries) {
        if (entry.bytes) {
            continue;
        }
        std::vector<std::string> warnings;
        FootprintTally tally;
        try {
            entry.bytes = measureFootprint(entry.trashPath, entry.identity, warnings, tally, stop)
                              .allocatedBytes;
        } catch (const CleanerError& error) {
            if (error.kind() == CleanerError::Kind::operationCancelled) {
                throw;
            }
            entry.bytes = 0; // unreadable inside: what could not be read is not counted
        }
    }
    return entries;
}

} // namespace sd
