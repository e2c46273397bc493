#pragma once

#include "base/UniqueFd.h"

#include <sys/types.h>

namespace sd::platform {

// A descriptor that becomes readable once the child `pid` has ended (and is waiting to be
// reaped), so that one poll() can wait for the child's output, its end and a stop request
// together, with no thread and no timer. The child is not reaped by it. Returns an invalid
// descriptor with errno set when the system cannot give one.
UniqueFd watchChildExit(pid_t pid);

} // namespace sd::platform
