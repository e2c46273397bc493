#pragma once

#include <string>

namespace sd::platform {

// The account's home folder as the user database records it (not $HOME, which any process can
// set). Empty when the database has no entry for this user.
std::string accountHomeDirectory();

} // namespace sd::platform
