#pragma once

#include <string>
#include <string_view>
#include <vector>

// Small real executables that tests write and run as children: shell scripts standing in for
// git, the AI tools, the snapshot tools and login shells.
namespace sd::test {

// Writes `script` to `path` and makes it executable. The file is closed before this returns,
// so no other child can still hold it open for writing when it is started.
void writeExecutable(const std::string& path, std::string_view script);

// The lines of a file, without their line ends; empty when it does not exist.
std::vector<std::string> readLines(const std::string& path);

// The whole of a file; empty when it does not exist.
std::string readText(const std::string& path);

// Stand-ins for tmutil and snapper that keep their snapshots in "snapshots.txt" beside them
// (tmutil: one full name a line; snapper: "CONFIG|NUMBER|DATE|USED|DESCRIPTION") and log each
// call to "calls.txt". A stamp listed in "refuse.txt" fails to delete; one in "stubborn.txt" is
// reported deleted but stays listed; "list-fails" makes listing fail; "relist-fails" makes every
// listing after a deletion fail; a named pipe "gate" gets each stamp before it is deleted.
extern const char* const fakeTmutilScript;
extern const char* const fakeSnapperScript;

} // namespace sd::test
