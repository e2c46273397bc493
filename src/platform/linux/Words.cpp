#include "platform/Words.h"

namespace sd::platform {

std::string_view systemName() {
    return "Linux";
}
std::string_view openedRecordName() {
    return "your desktop's record of opened files";
}
std::string_view openedRecordDescription() {
    return "your desktop's record of opened files";
}
std::string_view fileManagerName() {
    return "Files";
}
std::string_view cloneCopiesName() {
    return "reflinked copies";
}
std::string_view largeOldScopeText() {
    return "Looked in your folders and your developer tools' disk images (~/.android/avd, "
           "~/.local/share/libvirt/images and the like). Hidden tool folders, the Trash and "
           "caches are left out — the Sweep covers those.";
}

std::string_view duplicatesScopeText() {
    return "Looked in your home folder, except the Trash, cloud folders and tool caches.";
}
std::string_view ownFoldersExamples() {
    return "Downloads, Documents, Videos";
}
std::string_view appIdName() {
    return "app ID";
}

std::string_view revealActionText() {
    return "Show in Files";
}
std::string_view thisMachineText() {
    return "this computer";
}

} // namespace sd::platform
