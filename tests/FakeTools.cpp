#include "FakeTools.h"

#include "Fixture.h"

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>

namespace sd::test {

// tmutil's two commands over a file of snapshot names. A stamp listed in "refuse.txt" fails to
// delete; one in "stubborn.txt" is reported deleted but stays listed; while "gate" exists (a
// named pipe) each deletion first writes its stamp there, which the test reads.
extern const char* const fakeTmutilScript = R"SH(#!/bin/sh
here=$(dirname "$0")
printf '%s\n' "$*" >> "$here/calls.txt"
case "$1" in
listlocalsnapshots)
  if [ -e "$here/list-fails" ]; then exit "$(cat "$here/list-fails")"; fi
  echo "Snapshots for disk /:"
  cat "$here/snapshots.txt"
  ;;
deletelocalsnapshots)
  [ -p "$here/gate" ] && echo "$2" > "$here/gate"
  [ -e "$here/relist-fails" ] && echo 75 > "$here/list-fails"
  if grep -qx "$2" "$here/refuse.txt"; then
    echo "Failed to delete local snapshot '$2'" >&2
    echo "Error: The operation couldn't be completed. (Operation not permitted)" >&2
    exit 70
  fi
  if ! grep -qx "$2" "$here/stubborn.txt"; then
    grep -vx "com.apple.TimeMachine.$2.local" "$here/snapshots.txt" > "$here/next.txt"
    mv "$here/next.txt" "$here/snapshots.txt"
  fi
  echo "Deleted local snapshot '$2'"
  ;;
esac
)SH";

// snapper's list and delete over a file of "CONFIG|NUMBER|DATE|USED|DESCRIPTION" lines, printed
// as its --jsonout list prints them (number 0 is the live file system).
extern const char* const fakeSnapperScript = R"SH(#!/bin/sh
here=$(dirname "$0")
printf '%s\n' "$*" >> "$here/calls.txt"
config=""
command=""
while [ $# -gt 0 ]; do
  case "$1" in
    --config|-c) config="$2"; shift 2 ;;
    list|delete) command="$1"; shift; break ;;
    *) shift ;;
  esac
done
case "$command" in
list)
  if [ -e "$here/list-fails" ]; then echo "Failure (dbus fatal exception)." >&2; exit 1; fi
  awk -F'|' '
    { if (!($1 in rows)) { order[n++] = $1; rows[$1] = sprintf("{\"config\":\"%s\",\"number\":0,\"date\":\"\",\"used-space\":null,\"description\":\"current\"}", $1) }
      rows[$1] = rows[$1] sprintf(",{\"config\":\"%s\",\"number\":%s,\"date\":\"%s\",\"used-space\":%s,\"description\":\"%s\"}", $1, $2, $3, $4, $5) }
    END { printf "{"; for (i = 0; i < n; i++) printf "%s\"%s\":[%s]", (i ? "," : ""), order[i], rows[order[i]]; print "}" }
  ' "$here/snapshots.txt"
  ;;
delete)
  [ -p "$here/gate" ] && echo "$config:$1" > "$here/gate"
  [ -e "$here/relist-fails" ] && touch "$here/list-fails"
  if grep -qx "$config:$1" "$here/refuse.txt"; then echo "Snapshot '$1' not found." >&2; exit 1; fi
  if ! grep -qx "$config:$1" "$here/stubborn.txt"; then
    grep -v "^$config|$1|" "$here/snapshots.txt" > "$here/next.txt"
    mv "$here/next.txt" "$here/snapshots.txt"
  fi
  ;;
esac
)SH";

void writeExecutable(const std::string& path, std::string_view script) {
    writeFile(path, script);
    if (::chmod(path.c_str(), 0755) != 0) {
        throw std::runtime_error("chmod " + path);
    }
}

std::vector<std::string> readLines(const std::string& path) {
    std::vector<std::string> lines;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::string readText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

} // namespace sd::test
