# What the multi-host stages share: starting processes on hosts, reading
# their logs, checking hold intervals, running scenarios side by side.
# Sourced by tests/multihost/stage.sh and tests/glusterfs/stage.sh after
# they set: nodes (the command that runs a command on a host: nodes[@] HOST
# CMD... execs CMD there), worker (lock_child), faketime (libfaketimeMT),
# logs (a directory), failed=0, phases=0 and running=().

# start OUT HOST CMD...: starts CMD on HOST in the background, its output
# into OUT; sets started to its pid (the node script and nsenter exec it).
# spawn: the same for a process that will be killed, not waited for.
start() {
  local out=$1
  shift
  "${nodes[@]}" "$@" >"$out" &
  started=$!
}
spawn() {
  start "$@"
  disown "$started"
}
stamp() { "$worker" stamp; }
# "${skewed[@]}" FAKETIME=OFFSET CMD...: CMD with its wall clock moved by
# OFFSET (+1h, -1h), the monotonic clock and file times left alone. Without
# the monotonic fix, because with it timed condition waits return at once.
skewed=(env LD_PRELOAD="$faketime" FAKETIME_DONT_FAKE_MONOTONIC=1 NO_FAKE_STAT=1
  FAKETIME_FORCE_MONOTONIC_FIX=0)
# waitLine FILE WORD SECONDS: until a line of FILE starts with WORD.
waitLine() {
  local i
  for ((i = 0; i < $3 * 20; i++)); do
    grep -q "^$2" "$1" 2>/dev/null && return 0
    sleep 0.05
  done
  return 1
}
word() { awk -v w="$2" -v n="$3" '$1 == w { print $n; exit }' "$1" 2>/dev/null; }
seconds() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", (b - a) / 1e6 }'; }
within() { awk -v v="$1" -v lo="$2" -v hi="$3" 'BEGIN { exit !(v >= lo && v <= hi) }'; }
# The last change of a watched file before time T: the holder's last refresh.
lastChangeBefore() { awk -v t="$2" '$1 < t && $2 != "-" && $2 != "" { last = $1 } END { print last }' "$1"; }
# Overlapping pairs of hold intervals in the given logs (lines "KIND start
# end", the log's name ending in .HOST.N): conflicting pairs (anything but
# two readers), reader pairs, and reader pairs from different hosts.
overlaps() {
  awk '/^[XWR] / { n++; k[n] = $1; s[n] = $2; e[n] = $3; f = FILENAME; sub(/\.[0-9]+$/, "", f); h[n] = f }
    END {
      for (i = 1; i <= n; i++)
        for (j = i + 1; j <= n; j++)
          if (s[i] < e[j] && s[j] < e[i]) {
            if (k[i] == "R" && k[j] == "R") { r++; if (h[i] != h[j]) x++ } else c++
          }
      print c + 0, r + 0, x + 0
    }' "$@"
}
verdict() {  # verdict NAME FIGURES FAILURES
  if [ -z "$3" ]; then echo "$1: $2: ok"; else echo "$1: $2: FAILED:$3"; return 1; fi
}

# A holder on one host is SIGKILLed; a waiter on the other takes over.
# takeover NAME HOLDER_PID HOLDER_LOG TAKER_LOG FIRST_SECONDS: waits
# FIRST_SECONDS (the holder must keep the lock meanwhile), kills the holder
# and prints the delay from its last refresh (seen in the watch log NAME.watch)
# to the takeover, the refreshes seen before the kill, and what failed.
takeover() {
  local name=$1 holder=$2 held=$3 taker=$4 first=$5 fail=""
  sleep "$first"
  grep -q '^held\|^[0-9]' "$taker" && fail+=" taken over from a live holder"
  grep -q '^lost' "$held" && fail+=" the live holder lost its lock"
  kill -KILL "$holder"
  local killed
  killed=$(stamp)
  waitLine "$taker" "held\|^[0-9]" 30 || fail+=" no takeover within 30 s"
  local last took delay refreshes
  last=$(lastChangeBefore "$logs/$name.watch" "$killed")
  refreshes=$(awk -v t="$killed" '$1 < t && $2 != "-" && $2 != "" { n++ } END { print n - 1 }' "$logs/$name.watch")
  took=$(awk '/^held/ { print $2; exit } /^[0-9]/ { print $1; exit }' "$taker")
  [ "$refreshes" -gt 0 ] || fail+=" no refresh seen before the kill"
  if [ -n "$took" ]; then
    delay=$(seconds "${last:-0}" "$took")
    within "$delay" 15 17.5 || fail+=" takeover not 15-17.5 s after the last refresh"
  else
    delay=-
  fi
  echo "$delay $refreshes$fail"
}

# phase NAME FUNCTION...: runs the functions side by side, then prints their lines.
phase() {
  local n=0 f
  phases=$((phases + 1))
  running=()
  for f in "$@"; do
    n=$((n + 1))
    $f >"$logs/phase$phases.$n" 2>&1 &
    running+=($!)
  done
  for ((n = 0; n < ${#running[@]}; n++)); do
    wait "${running[$n]}" || failed=1
    cat "$logs/phase$phases.$((n + 1))"
  done
  running=()
}
