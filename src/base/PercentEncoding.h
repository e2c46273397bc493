#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace sd {

// Escapes every byte but unreserved URL characters and "/" as %XX, as Trash info files and file
// URLs want paths written.
std::string percentEncodePath(std::string_view path);

// The bytes a %XX-escaped path stands for; empty when an escape is malformed.
std::optional<std::string> percentDecode(std::string_view text);

} // namespace sd
