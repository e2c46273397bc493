#include "base/Stop.h"

#include "base/CleanerError.h"

namespace sd {

void throwIfStopped(const std::stop_token& stop) {
    if (stop.stop_requested()) {
        throw CleanerError::cancelled();
    }
}

} // namespace sd
