#include "review/ReviewTexts.h"

#include "platform/Words.h"
#include "reclaim/VaultTypes.h"
#include "review/DuplicateComparer.h"

namespace sd {
namespace {

// A few words for the row, and the reason as the second half of "Sparrowdeck keeps this where it
// is: …".
struct KeptInPlace {
    std::string note;
    std::string reason;
};

const KeptInPlace neverMovedFolder{std::string(duplicateText::protectedCopy),
                                   "it is in a folder Sparrowdeck never moves things from."};

KeptInPlace keptInPlace(VaultDenyReason reason) {
    switch (reason) {
    case VaultDenyReason::systemPath:
    case VaultDenyReason::protectedUserDir:
        return neverMovedFolder;
    case VaultDenyReason::datalessFile:
    case VaultDenyReason::datalessStateChanged:
    case VaultDenyReason::cloudStorage:
        return {std::string(denyText(reason, DenyTextForm::compact)),
                "it lives in the cloud, not only on " + std::string(platform::thisMachineText()) +
                    "."};
    case VaultDenyReason::gitWorkingTree:
        return {std::string(duplicateText::gitCopy),
                "Git tracks it, and Sparrowdeck moves only what Git ignores."};
    case VaultDenyReason::multiplyLinked:
        return {"Hard-linked elsewhere: moving it frees nothing",
                "it is hard-linked elsewhere, so moving it wouldn’t free the space."};
    case VaultDenyReason::protectedDescendant:
        return {"Holds what looks like your own files",
                "something inside looks like your own files (photos, documents, keys)."};
    case VaultDenyReason::photosLibraryInternal:
        return {"Inside a photo library or disk image",
                "it is inside a photo library or a disk image, which is never taken apart."};
    case VaultDenyReason::symlinkInPath:
        return {"Reached through a symbolic link", "its path goes through a symbolic link."};
    case VaultDenyReason::timeMachine:
        return {"Part of a backup", "it is part of a backup."};
    case VaultDenyReason::nonTrashableVolume:
        return {"On a disk without a Trash", "its disk has no Trash it can use."};
    case VaultDenyReason::tooShallow:
        return {"Too near the top of the disk", "it is too near the top of the disk."};
    case VaultDenyReason::outsideGrantedScope:
        return {"Outside the folders Sparrowdeck may change",
                "it is outside the folders Sparrowdeck may change."};
    case VaultDenyReason::sizeChangedSinceScan:
    case VaultDenyReason::stalePlan:
    case VaultDenyReason::identityChanged:
        return {"Changed since the search",
                "it changed since the search. Search again to see it as it is now."};
    case VaultDenyReason::unreadable:
        return {"Couldn’t be read", "it couldn’t be read."};
    }
    return neverMovedFolder;
}

} // namespace

bool inFolderNeverMoved(VaultDenyReason reason) {
    return reason == VaultDenyReason::protectedUserDir || reason == VaultDenyReason::systemPath ||
           reason == VaultDenyReason::cloudStorage;
}

std::string keptInPlaceNote(VaultDenyReason reason) {
    return keptInPlace(reason).note;
}

std::string keptInPlaceDetail(VaultDenyReason reason) {
    return "Sparrowdeck keeps this where it is: " + keptInPlace(reason).reason + " Open it in " +
           std::string(platform::fileManagerName()) + " to decide.";
}

std::string everyCopyStaysDetail() {
    return "Sparrowdeck keeps these where they are: every copy is in a folder it never moves "
           "things from. Open them in " +
           std::string(platform::fileManagerName()) + " to decide which you need.";
}

} // namespace sd
