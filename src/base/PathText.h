#pragma once

#include <string>
#include <string_view>
#include <vector>

// Small, pure helpers on path text. None of them touches the disk.
namespace sd {

// Splits a normalized path into its components ("/a/b" gives "a", "b"). The views point into
// `path`, so a temporary string is refused at compile time.
std::vector<std::string_view> splitComponents(std::string_view path);
std::vector<std::string_view> splitComponents(std::string&& path) = delete;

// `parent` + "/" + `name`, with the root written once ("/" and "a" give "/a").
std::string childPath(std::string_view parent, std::string_view name);

// The last component of a path ("/a/b" gives "b"); the path itself when it has none.
std::string lastComponent(std::string_view path);

// True when `text` is well-formed UTF-8: shortest forms only, no surrogates, nothing past U+10FFFF.
bool isUtf8(std::string_view text) noexcept;

} // namespace sd
