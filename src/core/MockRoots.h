#pragma once

#include "core/CoreFileSystem.h"

#include <optional>
#include <string>
#include <string_view>

namespace sd {

// Temporary "SparrowdeckMock-" folders that this process created and still owns. Tests build
// fixture homes in them; the scope rules let the core operate inside them, and they are the only
// trees the core ever removes.
class MockRoots {
public:
    // Creates a new owned root in the system's temporary folder and returns its real path.
    static std::string create();
    // True when `path` is an owned root or lies inside one.
    static bool owns(std::string_view path);
    // The owned root that holds `path`.
    static std::optional<std::string> rootOf(std::string_view path);
    // Checks a path inside an owned root: the root is still the folder that was created, and no
    // component of the path is a symbolic link. Throws SafetyViolation otherwise.
    static void checkPath(std::string_view path);
    // Removes an owned root and everything in it, and forgets it.
    static RemovalCounts tearDown(std::string_view root);
};

// An owned root for the length of a scope.
class ScopedMockRoot {
public:
    ScopedMockRoot() : path_(MockRoots::create()) {}
    ScopedMockRoot(const ScopedMockRoot&) = delete;
    ScopedMockRoot& operator=(const ScopedMockRoot&) = delete;
    ~ScopedMockRoot();

    const std::string& path() const noexcept { return path_; }

private:
    std::string path_;
};

} // namespace sd
