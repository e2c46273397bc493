#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace sd::platform {

struct DirectoryReadFailure {
    std::string_view operation; // one of the core's operation words
    int error = 0;
};

// Appends the names in the open directory `fd` to `names`, "." and ".." left out, in the order
// the file system gives them. The descriptor stays open and usable. Returns a failure with the
// operation word and errno, or an empty operation on success.
DirectoryReadFailure readDirectoryNames(int fd, std::vector<std::string>& names);

} // namespace sd::platform
