#include "review/ReviewTexts.h"

#include "platform/Words.h"
#include "reclaim/VaultTypes.h"
#include "review/DuplicateComparer.h"

namespace sd {
namespace {

// Why, as the second half of "Sparrowdeck keeps this where it is: …".
std::string reasonSentence(VaultDenyReason reason) {
    switch (reason) {
    case VaultDenyReason::systemPath:
    case VaultDenyReason::protectedUserDir:
        return "it is in a folder Sparrowdeck never moves things from.";
    case VaultDenyReason::datalessFile:
    case VaultDenyReason::datalessStateChanged:
    case VaultDenyReason::cloudStorage:
        return "it lives in the cloud, not only on " + std::string(platform::thisMachineText()) +
               ".";
    case VaultDenyReason::gitWorkingTree:
        return "Git tracks it, and Sparrowdeck moves only what Git ignores.";
    case VaultDenyReason::multiplyLinked:
        return "it is hard-linked elsewhere, so moving it wouldn’t free the space.";
    case VaultDenyReason::protectedDescendant:
        return "something inside looks like your own files (photos, documents, keys).";
    case VaultDenyReason::photosLibraryInternal:
        return "it is inside a photo library or a disk image, which is never taken apart.";
    case VaultDenyReason::symlinkInPath:
        return "its path goes through a symbolic link.";
    case VaultDenyReason::timeMachine:
        return "it is part of a backup.";
    case VaultDenyReason::nonTrashableVolume:
        return "its disk has no Trash it can use.";
    case VaultDenyReason::tooShallow:
        return "it is too near the top of the disk.";
    case VaultDenyReason::outsideGrantedScope:
        return "it is outside the folders Sparrowdeck may change.";
    case VaultDenyReason::sizeChangedSinceScan:
    case VaultDenyReason::stalePlan:
    case VaultDenyReason::identityChanged:
        return "it changed since the search. Search again to see it as it is now.";
    case VaultDenyReason::unreadable:
        return "it couldn’t be read.";
    }
    return "it is in a folder Sparrowdeck never moves things from.";
}

} // namespace

bool inFolderNeverMoved(VaultDenyReason reason) {
    return reason == VaultDenyReason::protectedUserDir || reason == VaultDenyReason::systemPath ||
           reason == VaultDenyReason::cloudStorage;
}

std::string keptInPlaceNote(VaultDenyReason reason) {
    switch (reason) {
    case VaultDenyReason::systemPath:
    case VaultDenyReason::protectedUserDir:
        return std::string(duplicateText::protectedCopy);
    case VaultDenyReason::gitWorkingTree:
        return std::string(duplicateText::gitCopy);
    case VaultDenyReason::datalessFile:
    case VaultDenyReason::datalessStateChanged:
    case VaultDenyReason::cloudStorage:
        return std::string(denyText(reason, DenyTextForm::compact));
    case VaultDenyReason::multiplyLinked:
        return "Hard-linked elsewhere: moving it frees nothing";
    case VaultDenyReason::protectedDescendant:
        return "Holds what looks like your own files";
    case VaultDenyReason::photosLibraryInternal:
        return "Inside a photo library or disk image";
    case VaultDenyReason::symlinkInPath:
        return "Reached through a symbolic link";
    case VaultDenyReason::timeMachine:
        return "Part of a backup";
    case VaultDenyReason::nonTrashableVolume:
        return "On a disk without a Trash";
    case VaultDenyReason::tooShallow:
        return "Too near the top of the disk";
    case VaultDenyReason::outsideGrantedScope:
        return "Outside the folders Sparrowdeck may change";
    case VaultDenyReason::sizeChangedSinceScan:
    case VaultDenyReason::stalePlan:
    case VaultDenyReason::identityChanged:
        return "Changed since the search";
    case VaultDenyReason::unreadable:
        return "Couldn’t be read";
    }
    return std::string(duplicateText::protectedCopy);
}

std::string keptInPlaceDetail(VaultDenyReason reason) {
    return "Sparrowdeck keeps this where it is: " + reasonSentence(reason) + " Open it in " +
           std::string(platform::fileManagerName()) + " to decide.";
}

std::string everyCopyStaysDetail() {
    return "Sparrowdeck keeps these where they are: every copy is in a folder it never moves "
           "things from. Open them in " +
           std::string(platform::fileManagerName()) + " to decide which you need.";
}

} // namespace sd
