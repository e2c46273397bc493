#include "platform/LocalSnapshotTool.h"

namespace sd::platform {

std::unique_ptr<LocalSnapshotTool> systemSnapshotTool() {
    return makeTmutil();
}

} // namespace sd::platform
