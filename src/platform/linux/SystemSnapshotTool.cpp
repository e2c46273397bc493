#include "platform/LocalSnapshotTool.h"

#include <unistd.h>

namespace sd::platform {

std::unique_ptr<LocalSnapshotTool> systemSnapshotTool() {
    SnapperSetup setup;
    // The administrator needs no snapper daemon: root may read the configurations directly.
    if (::geteuid() == 0) {
        setup.extra = {"--no-dbus"};
    }
    return makeSnapper(std::move(setup));
}

} // namespace sd::platform
