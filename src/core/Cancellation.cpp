#include "core/Cancellation.h"

#include "base/CleanerError.h"

namespace sd {

void Cancellation::check() const {
    if (requested()) {
        throw CleanerError::cancelled();
    }
}

} // namespace sd
