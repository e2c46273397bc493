# Shared by the hyperfine scripts in bench/: where things are, the cold-cache switch, and the
# table of times and ratios they all print. Sourced, never run; `script` and `repo` are set by the
# caller.

die() {
  echo "$script: $*" >&2
  exit 1
}

# The bench preset's command: optimised like the release, and it honours SPARROWDECK_HOME.
bench_binary() {
  local binary="$repo/build/bench/src/sparrowdeck"
  [ -x "$binary" ] || die "$binary is missing; build the bench preset first (make bench)"
  printf '%s\n' "$binary"
}

bench_results_dir() {
  local dir="$repo/build/bench-results"
  mkdir -p -- "$dir"
  printf '%s\n' "$dir"
}

# The fixture homes are taken by their real location, so their path must hold no link (/tmp may
# be one on some systems).
bench_tmp_base() {
  (cd "${TMPDIR:-/tmp}" && pwd -P)
}

require_tools() {
  local tool
  for tool in "$@"; do
    command -v "$tool" >/dev/null || die "$tool is not installed (scripts/install-deps)"
  done
}

# Prints 1 when a cold-cache run was asked for, by --cold or SPARROWDECK_BENCH_COLD=1.
bench_cold_requested() {
  local argument wanted=${SPARROWDECK_BENCH_COLD:-0}
  for argument in "$@"; do
    case "$argument" in
    --cold) wanted=1 ;;
    --warm-only) wanted=0 ;;
    *) die "unknown option $argument (use --cold)" ;;
    esac
  done
  [ "$wanted" = 1 ] && echo 1 || echo 0
}

# What hyperfine runs before every timed run in cold mode: written-back pages first, so that the
# drop leaves nothing cached, then the page cache, dentries and inodes.
drop_caches_command='sync; echo 3 > /proc/sys/vm/drop_caches'

# True when this process may drop the kernel's caches: root, and a /proc that lets it (a
# container may not). Tried once for real, since only writing tells.
cold_available() {
  if [ -z "${_cold_checked:-}" ]; then
    _cold_checked=no
    if [ "$(id -u)" -eq 0 ] && sh -c "$drop_caches_command" 2>/dev/null; then
      _cold_checked=yes
    fi
  fi
  [ "$_cold_checked" = yes ]
}

cold_unavailable_reason() {
  if [ "$(id -u)" -ne 0 ]; then
    echo "dropping the page cache needs root (run as root or with sudo for --cold)"
  else
    echo "/proc/sys/vm/drop_caches cannot be written here (a container without that right?)"
  fi
}

# One shell word per argument, for hyperfine's command strings.
quote_command() {
  printf '%q ' "$@"
}

# print_ratios RESULTS.json LABEL OURS PEER[:LIMIT]...
# Prints every command's mean time and ours / each peer; a peer given with a limit is a target,
# and the status is 3 when any target is missed.
print_ratios() {
  python3 - "$@" <<'PY'
import json, sys
path, label, ours_name, *peers = sys.argv[1:]
results = {r["command"]: r for r in json.load(open(path))["results"]}
ours = results[ours_name]
width = max(len(name) for name in results) + 1
print(f"  {label}:")
for name, r in results.items():
    print(f"    {name:{width}s} {r['mean'] * 1000:9.1f} ms ± {(r['stddev'] or 0) * 1000:6.1f} ms "
          f"(user {r['user'] * 1000:.1f} ms, system {r['system'] * 1000:.1f} ms)")
ok = True
for peer in peers:
    name, _, limit = peer.partition(":")
    ratio = ours["mean"] / results[name]["mean"]
    line = f"    {label} ratio ours / {name:{width}s} = {ratio:5.2f}"
    if limit:
        within = ratio <= float(limit)
        ok = ok and within
        line += f"  (target <= {float(limit):.2f}: {'within' if within else 'OVER'})"
    print(line)
sys.exit(0 if ok else 3)
PY
}

# The cores and the load before a timed run: on a shared machine other work slows every command,
# and the spread of the times says how unevenly.
machine_note() {
  local load
  load=$(cut -d' ' -f1 /proc/loadavg 2>/dev/null || echo unknown)
  printf '%s cores, load average %s' "$(nproc)" "$load"
}
