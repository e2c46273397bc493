#pragma once

namespace sd {

// How this copy of the program reaches people, fixed at build time. The App Store variant runs
// sandboxed: it cannot look outside the home folder or into other apps' containers.
enum class DistributionMode { appStore, direct };

} // namespace sd
