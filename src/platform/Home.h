#pragma once

#include <string>

namespace sd::platform {

// The account's home folder as the user database records it (not $HOME, which any process can
// set). Empty when the database has no entry for this user.
std::string accountHomeDirectory();

// The home every rule and every default location is relative to: the account's home, read once
// per process and kept by its real location as a normalized absolute path (a home reached through
// a link would make every path in it fail the no-link rule). Empty when there is none. Test and
// benchmark builds take SPARROWDECK_HOME instead, so each brings its own home; a build for people
// never looks at it.
const std::string& homeDirectory();

} // namespace sd::platform
