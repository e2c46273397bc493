#include "reclaim/VaultTypes.h"

#include "platform/Words.h"

#include <array>
#include <string>

namespace sd {

std::string_view denyText(VaultDenyReason reason, DenyTextForm form) {
    // Names the machine in the platform's own word.
    static const std::string inTheCloud =
        "Some files live in the cloud, not on " + std::string(platform::thisMachineText()) + ".";
    switch (reason) {
    case VaultDenyReason::datalessFile:
    case VaultDenyReason::datalessStateChanged:
    case VaultDenyReason::cloudStorage:
        return inTheCloud;
    case VaultDenyReason::gitWorkingTree:
        return form == DenyTextForm::compact
                   ? "Git tracks it: by hand only."
                   : "Git tracks something here — Sparrowdeck moves only what Git ignores. Reveal "
                     "it and decide by hand.";
    case VaultDenyReason::multiplyLinked:
        return "Some files are hard-linked elsewhere, so moving them wouldn’t free the space.";
    case VaultDenyReason::protectedDescendant:
        return "Something inside looks like your own files (photos, documents, keys), so it won’t "
               "move automatically.";
    default:
        return "The vault won’t move this automatically. Reveal it and decide by hand.";
    }
}

std::string_view denyReasonName(VaultDenyReason reason) {
    static constexpr std::array<std::string_view, 18> names{
        "systemPath",           "protectedUserDir", "symlinkInPath",         "datalessFile",
        "datalessStateChanged", "cloudStorage",     "photosLibraryInternal", "timeMachine",
        "gitWorkingTree",       "multiplyLinked",   "protectedDescendant",   "sizeChangedSinceScan",
        "nonTrashableVolume",   "tooShallow",       "outsideGrantedScope",   "stalePlan",
        "unreadable",           "identityChanged",
    };
    return names[static_cast<size_t>(reason)];
}

std::string_view classificationName(VaultClassification classification) {
    switch (classification) {
    case VaultClassification::catalogued:
        return "catalogued";
    case VaultClassification::uncataloguedLarge:
        return "uncataloguedLarge";
    case VaultClassification::obviousUserData:
        return "obviousUserData";
    }
    return "uncataloguedLarge";
}

std::string_view frictionName(VaultFriction friction) {
    switch (friction) {
    case VaultFriction::cataloguedLow:
        return "cataloguedLow";
    case VaultFriction::uncataloguedMedium:
        return "uncataloguedMedium";
    case VaultFriction::confirmOwnFiles:
        return "confirmOwnFiles";
    }
    return "uncataloguedMedium";
}

} // namespace sd
