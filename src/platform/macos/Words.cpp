#include "platform/Words.h"

namespace sd::platform {

std::string_view systemName() {
    return "macOS";
}
std::string_view openedRecordName() {
    return "Spotlight";
}
std::string_view openedRecordDescription() {
    return "macOS’s own record, from Spotlight";
}
std::string_view fileManagerName() {
    return "Finder";
}
std::string_view cloneCopiesName() {
    return "Finder duplicates";
}
std::string_view largeOldScopeText() {
    return "Looked in your folders and ~/Library/Developer. The rest of ~/Library, hidden tool "
           "folders, the Trash and caches are left out — the Sweep covers those.";
}

std::string_view duplicatesScopeText() {
    return "Looked in your home folder, except Library, the Trash, cloud folders and tool caches.";
}
std::string_view ownFoldersExamples() {
    return "Downloads, Documents, Movies";
}
std::string_view appIdName() {
    return "bundle ID";
}

std::string_view revealActionText() {
    return "Reveal in Finder";
}
std::string_view thisMachineText() {
    return "this Mac";
}

} // namespace sd::platform
