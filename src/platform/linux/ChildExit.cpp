#include "platform/ChildExit.h"

#include <sys/syscall.h>
#include <unistd.h>

namespace sd::platform {

UniqueFd watchChildExit(pid_t pid) {
    // A process descriptor (Linux 5.3): readable when the process ends, and it can never stand
    // for another process that later gets the same number.
    long fd = ::syscall(SYS_pidfd_open, pid, 0);
    return UniqueFd(fd < 0 ? -1 : static_cast<int>(fd));
}

} // namespace sd::platform
