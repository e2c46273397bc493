#include "platform/CatalogLocations.h"

namespace sd::platform {

std::span<const CatalogLocation> extraCatalogLocations() {
    return {};
}

} // namespace sd::platform
