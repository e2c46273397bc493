#include "base/ParallelFor.h"

namespace sd {

unsigned hardwareWorkers() noexcept {
    unsigned cores = std::thread::hardware_concurrency();
    return cores == 0 ? 1 : cores;
}

} // namespace sd
