#include "FakeAssistantTool.h"

#include "FakeTools.h"
#include "Fixture.h"

#include <cerrno>
#include <fcntl.h>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace sd::test {
namespace {

// The probe's questions are answered from files; anything else is a request, recorded and
// answered from files too. /proc/self/environ is the environment exactly as the child got it.
constexpr const char* script = R"SH(#!/bin/sh
here=$(dirname "$0")
case "$1 $2" in
  "--version "*) cat "$here/version.txt"; exit 0 ;;
  "--help "*|"exec --help") cat "$here/help.txt"; exit 0 ;;
  "auth status"|"login status") cat "$here/login.txt"; exit "$(cat "$here/login-exit.txt")" ;;
  "features list") cat "$here/features.txt"; exit 0 ;;
esac
: > "$here/argv.txt"
last=""
previous=""
for argument in "$@"; do
  printf '%s\n' "$argument" >> "$here/argv.txt"
  [ "$previous" = "--output-last-message" ] && last="$argument"
  previous="$argument"
done
tr '\0' '\n' < /proc/$$/environ > "$here/env.txt"
ls -A > "$here/pwd-contents.txt"
cat > "$here/stdin.txt"
pwd > "$here/pwd.txt"
[ -p "$here/gate" ] && echo started > "$here/gate"
if [ -e "$here/hang" ]; then exec sleep 600; fi
[ -n "$last" ] && cat "$here/last-message.txt" > "$last"
cat "$here/stdout.txt"
cat "$here/stderr.txt" >&2
exit "$(cat "$here/exit.txt")"
)SH";

} // namespace

FakeAssistantTool::FakeAssistantTool(IntelligenceProvider provider, const std::string& folder)
    : folder_(folder), executable_(folder + "/" + std::string(executableName(provider))) {
    makeDirs(folder_);
    writeExecutable(executable_, script);
    setVersionText(provider == IntelligenceProvider::claudeCode ? "2.1.197 (Claude Code)\n"
                                                                : "codex-cli 0.169.0\n");
    setHelpFlags({});
    setLoginStatus("", 1);
    setFeatures({});
    respond("", "", 0);
    // A fake written where an earlier one stood starts with no request recorded.
    for (const char* record : {"pwd.txt", "argv.txt", "stdin.txt", "env.txt"}) {
        put(record, "");
    }
}

FakeAssistantTool::FakeAssistantTool(FakeAssistantTool&& other) noexcept
    : folder_(std::exchange(other.folder_, {})), executable_(std::move(other.executable_)) {}

FakeAssistantTool::~FakeAssistantTool() {
    if (!folder_.empty()) {
        ::unlink((folder_ + "/gate").c_str());
    }
}

void FakeAssistantTool::put(const std::string& name, const std::string& text) const {
    writeFile(folder_ + "/" + name, text);
}

void FakeAssistantTool::setVersionText(const std::string& text) {
    put("version.txt", text);
}

void FakeAssistantTool::setHelpFlags(const std::vector<std::string>& flags) {
    std::string help = "Usage: tool [options]\n\nOptions:\n";
    for (const std::string& flag : flags) {
        help.append("  ").append(flag).append(" <value>    Does something useful (see ");
        help.append(flag).append("=x)\n");
    }
    help += "  -h, --help    Display help\n";
    put("help.txt", help);
}

void FakeAssistantTool::setLoginStatus(const std::string& text, int exitStatus) {
    put("login.txt", text);
    put("login-exit.txt", std::to_string(exitStatus));
}

void FakeAssistantTool::setFeatures(const std::vector<std::string>& names) {
    std::string listing;
    for (const std::string& name : names) {
        listing += name + "                      stable             true\n";
    }
    put("features.txt", listing);
}

void FakeAssistantTool::respond(const std::string& output, const std::string& errors,
                                int exitStatus, const std::string& lastMessage) {
    put("stdout.txt", output);
    put("stderr.txt", errors);
    put("exit.txt", std::to_string(exitStatus));
    put("last-message.txt", lastMessage);
}

void FakeAssistantTool::hang() {
    put("hang", "");
    // With a named pipe at "gate" each request says "started" there once it has read its input.
    std::string gate = folder_ + "/gate";
    if (::mkfifo(gate.c_str(), 0600) != 0 && errno != EEXIST) {
        throw std::runtime_error("mkfifo " + gate);
    }
}

void FakeAssistantTool::awaitRequest() const {
    std::string gate = folder_ + "/gate";
    int fd = ::open(gate.c_str(), O_RDONLY | O_CLOEXEC);
    char buffer[16];
    while (fd >= 0 && ::read(fd, buffer, sizeof buffer) > 0) {
    }
    if (fd >= 0) {
        ::close(fd);
    }
}

bool FakeAssistantTool::requested() const {
    return !readText(folder_ + "/pwd.txt").empty();
}

std::vector<std::string> FakeAssistantTool::arguments() const {
    return readLines(folder_ + "/argv.txt");
}

std::string FakeAssistantTool::input() const {
    return readText(folder_ + "/stdin.txt");
}

std::string FakeAssistantTool::workingFolder() const {
    std::vector<std::string> lines = readLines(folder_ + "/pwd.txt");
    return lines.empty() ? "" : lines.front();
}

std::string FakeAssistantTool::workingFolderContents() const {
    return readText(folder_ + "/pwd-contents.txt");
}

std::vector<std::string> FakeAssistantTool::environment() const {
    return readLines(folder_ + "/env.txt");
}

} // namespace sd::test
