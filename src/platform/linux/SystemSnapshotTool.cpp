#include "platform/LocalSnapshotTool.h"

#include <cstdlib>
#include <unistd.h>

namespace sd::platform {

std::unique_ptr<LocalSnapshotTool> systemSnapshotTool() {
    SnapperSetup setup;
#ifdef SPARROWDECK_HOME_OVERRIDE
    // Test and benchmark builds may stand a fake snapper in; a build for people never looks.
    if (const char* fake = std::getenv("SPARROWDECK_SNAPPER"); fake != nullptr && *fake == '/') {
        setup.executable = fake;
    }
#endif
    // The administrator needs no snapper daemon: root may read the configurations directly.
    if (::geteuid() == 0) {
        setup.extra = {"--no-dbus"};
    }
    return makeSnapper(std::move(setup));
}

} // namespace sd::platform
