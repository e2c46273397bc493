#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace sd::platform {

// What the system's own record says about one file. Dates are seconds since 1970.
struct LastOpenedRecord {
    std::optional<double> lastOpened; // the last time the file was opened, where that is known
    std::optional<double> dateAdded;  // when the record first learned of the file
    bool indexed = false;             // the record has the file at all
};

// The file's own times as the review walk read them, for readers that fall back on them.
struct FileTimes {
    double modified = 0;
    double changed = 0; // status change
    double accessed = 0;
    std::uint64_t device = 0;
};

// Answers for one absolute path at a time. Built once per search; reads only.
using LastOpenedReader =
    std::function<LastOpenedRecord(const std::string& path, const FileTimes& times)>;

// The system's reader: on macOS Spotlight, then the "com.apple.lastuseddate#PS" attribute; on
// Linux the desktop's recently-used.xbel, then the access time where the mount keeps it honestly.
LastOpenedReader systemLastOpenedReader();

// One application as the desktop's recently-used record names it: the last time it opened any
// file through the desktop.
struct ApplicationUse {
    std::string name; // the application's name as it registered ("Firefox")
    std::string exec; // the command it registered ("'firefox %u'"), quotes kept
    double lastUsed = 0;
};

// Every application of the recently-used record in `file`, one entry per name and command with
// its latest use. Empty when the file is missing or unreadable.
std::vector<ApplicationUse> recentApplicationUses(const std::string& file);

} // namespace sd::platform
