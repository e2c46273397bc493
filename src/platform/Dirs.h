#pragma once

#include <string>

namespace sd::platform {

// Where per-user data lives: $XDG_DATA_HOME when it is an absolute path, else
// <home>/.local/share (macOS: <home>/Library/Application Support). The home is the one the scope
// rules use, so a fixture home brings its own data folder.
std::string dataHome();

// Sparrowdeck's own support folder (the journal lives here). Not created by asking.
std::string supportDirectory();

// Where per-user settings live: $XDG_CONFIG_HOME or <home>/.config (macOS: Preferences).
std::string configHome();

} // namespace sd::platform
