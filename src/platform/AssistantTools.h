#pragma once

#include <span>
#include <string>
#include <string_view>

// What the assistant needs of the system to find the user's own AI command-line tool.
namespace sd::platform {

// The shell the account logs in with, whose start-up files set up the PATH the user's tools are
// on: on Linux the account's entry in the user database (/bin/sh when it has none); on macOS
// "/bin/zsh".
std::string loginShell();

// The account's user name from the user database; empty when it has no entry.
std::string accountUserName();

// Folders this platform adds after the usual search folders, for tools a login shell's
// capture can miss. Entries starting with "~" are below the home folder.
std::span<const std::string_view> extraToolFolders();

// Where a person types a command: "Terminal" on macOS, "a terminal" elsewhere.
std::string_view terminalName();

} // namespace sd::platform
