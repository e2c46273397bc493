#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace sd::test {

// The fixture home the whole test process runs with (SPARROWDECK_HOME), inside an owned
// SparrowdeckMock- root that is removed when the tests end.
const std::string& fixtureHome();
const std::string& fixtureRoot();

// A new empty folder inside the fixture home, unique to the calling test.
std::string freshFolder(std::string_view label);

void makeDirs(const std::string& path);
void writeFile(const std::string& path, std::string_view contents);
// A file of `bytes` bytes written in full (every block allocated).
void writeFilledFile(const std::string& path, std::uint64_t bytes, char fill = 'x');
// A file of `size` bytes of which only `written` bytes at the start hold data.
void writeSparseFile(const std::string& path, std::uint64_t size, std::uint64_t written);
void makeSymlink(const std::string& target, const std::string& link);
void makeHardlink(const std::string& existing, const std::string& link);

struct CommandResult {
    int status = -1;
    std::string output;
};
// Runs a shell command and captures its standard output.
CommandResult runShell(const std::string& command);
// Quotes a string for the shell.
std::string shellQuote(std::string_view text);
bool haveTool(const std::string& name);
// The whole file as bytes; empty when it cannot be read.
std::string readAll(const std::string& path);
// Whether anything, a dangling link included, is at `path`.
bool exists(const std::string& path);

// What GNU find says the regular files under `path` hold: blocks × 512 over distinct inodes,
// optionally only down to `maxDepth` levels.
std::uint64_t peerAllocatedBytes(const std::string& path, int maxDepth = -1);

} // namespace sd::test
