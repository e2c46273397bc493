#pragma once

#include <string>
#include <string_view>

namespace sd::platform {

// A field of the kernel's mount table (/proc/self/mounts, /proc/swaps), which writes a blank, a
// tab, a newline and a backslash as three octal digits after a backslash, read back as the
// name it stands for.
std::string unescapeMountField(std::string_view field);

} // namespace sd::platform
