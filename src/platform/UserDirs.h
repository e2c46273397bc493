#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace sd::platform {

// The account's own folders as the desktop records them (Desktop, Documents, Downloads, Music,
// Pictures, Public, Templates, Videos, under whatever localized names the account uses), each
// relative to the home folder, in the record's order. Read once per process; empty where the
// platform keeps no such record.
const std::vector<std::string>& userDirectories();

// The rows of a user-dirs.dirs text for the given home: only the eight known keys, each value
// either "$HOME/…" or an absolute path inside the home. Entries that name the home itself, lie
// outside it, climb with "." or "..", or cannot be parsed are left out.
std::vector<std::string> parseUserDirectories(std::string_view text, std::string_view home);

} // namespace sd::platform
