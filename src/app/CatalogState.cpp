#include "app/CatalogState.h"

#include "app/Workers.h"
#include "sweep/Sweep.h"

namespace sd::app {

std::string pathKey(const Target& target, const PathSpec& path) {
    return target.id + "\n" + path.id.value_or(path.pathTemplate);
}

CatalogState::CatalogState(platform::UserDefaults store)
    : store(std::move(store)), catalog(platformCatalog(DistributionMode::direct)),
      prefs(loadInclusionPreferences(this->store)) {
    reloadLeftOut();
}

void CatalogState::setIncluded(const std::string& id, bool included) {
    // One switch for both: what is measured is what a clean may move.
    prefs.scan[id] = included;
    prefs.clean[id] = included;
    saveInclusionPreferences(store, prefs);
}

bool CatalogState::isIncluded(const std::string& id) const {
    return InclusionPreferences::includes(prefs.scan, id) &&
           InclusionPreferences::includes(prefs.clean, id);
}

bool CatalogState::isIncluded(const Target& target, const PathSpec& path) const {
    return isIncluded(target.id) && (!path.id || isIncluded(*path.id));
}

void CatalogState::reloadLeftOut() {
    Sweep reader(DistributionMode::direct, store, homePolicy());
    leftOutOfSweep = reader.skippedTargets();
}

void CatalogState::leaveOut(const std::string& targetID, bool leftOut) {
    Sweep writer(DistributionMode::direct, store, homePolicy());
    if (leftOut) {
        writer.leaveOut(targetID);
    } else {
        writer.bringBack(targetID);
    }
    leftOutOfSweep = writer.skippedTargets();
}

void CatalogState::setScan(std::optional<ScanResult> result) {
    scan = std::move(result);
    bytesByTarget.clear();
    bytesByPath.clear();
    if (!scan) {
        return;
    }
    for (const TargetSize& t : scan->perTargetBytes) {
        bytesByTarget[t.targetId] = t.bytes;
    }
    for (const PathSize& p : scan->perPathBytes) {
        bytesByPath[p.targetId + "\n" + p.pathId] += p.bytes;
    }
}

} // namespace sd::app
