#pragma once

#include <fcntl.h>

namespace sd {

// Flags for a descriptor that is only used to descend: it needs search permission on the
// directory, not read permission, and never follows a link in the last component.
#if defined(O_PATH)
inline constexpr int searchOpenFlags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
#elif defined(O_SEARCH)
inline constexpr int searchOpenFlags = O_SEARCH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
#else
inline constexpr int searchOpenFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
#endif

// Flags for a descriptor whose entries will be read.
inline constexpr int listingOpenFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

} // namespace sd
