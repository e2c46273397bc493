#pragma once

#include <string>

// Starting the companion when the person logs in: an XDG autostart entry on Linux, a login item
// on macOS. Off unless the person turns it on.
namespace sd::platform {

// Whether the companion starts at login.
bool companionStartsAtLogin();

// Turns starting at login on (with `program` as the app to start) or off. Throws CleanerError
// when the entry cannot be written or removed.
void setCompanionStartsAtLogin(bool on, const std::string& program);

// Where the entry lives, for the Settings sentence and tests.
std::string loginItemLocation();

} // namespace sd::platform
