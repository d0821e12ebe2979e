#!/usr/bin/env bash
# Processes contending through korvel-lock for one directory, then dead
# holders' locks taken over: one killed on this host, one left by a holder
# elsewhere.
#   demo-contention.sh PATH/TO/korvel-lock
set -euo pipefail
tool=$1
dir=$(mktemp -d /tmp/korvel_contention.XXXXXX)
trap 'rm -rf "$dir"' EXIT

T0=$(date +%s.%N)
# Prints its arguments after the time since the start.
say() {
  awk -v t0="$T0" -v now="$(date +%s.%N)" -v text="$*" \
    'BEGIN { printf "  %5.2f s  %s\n", now - t0, text }'
}
export T0
export -f say

# korvel-lock --status, indented, with what its exit status says.
showStatus() {
  local code=0
  "$tool" --status "$dir" | sed 's/^/  /' || code=${PIPESTATUS[0]}
  echo "  (exit status $code: 0 no live lock, 1 a live lock, 2 only stale files, 3 a foreign object)"
}

echo "== Three writers (exclusive) and three readers (shared) start at once on"
echo "   $dir; readers may share it, a writer is alone:"
for w in A B C; do
  "$tool" --exclusive "$dir" -- bash -c \
    "say 'writer $w holds it alone'; sleep 0.5; say 'writer $w lets go'" &
done
for r in 1 2 3; do
  "$tool" --shared "$dir" -- bash -c \
    "say 'reader $r holds it (shared)'; sleep 0.8; say 'reader $r lets go'" &
done
wait

echo
echo "== A holder is killed (SIGKILL): it cannot remove its lock file."
setsid "$tool" --exclusive "$dir" -- sleep 600 &
holder=$!
while [ ! -e "$dir/.deploy_write_lock" ]; do sleep 0.05; done
say "holder (pid $holder) holds the lock"
{
  kill -9 -- "-$holder"
  wait "$holder"
} 2>/dev/null || true
say "holder killed"
echo "   This host knows that its holder has ended, so the file is dead:"
showStatus
"$tool" --timeout 1 "$dir" -- bash -c "say 'newcomer holds it at once: the dead lock was taken over'"

echo
echo "== A lock file left by a holder on another host, which this host knows"
echo "   nothing of. Its times may come from a skewed clock, so looking old"
echo "   is not enough: a waiter takes it over once it has watched it stand"
echo "   still for 15 s. (The demonstration plants one, 30 s old.)"
echo 4242 >"$dir/.deploy_write_lock"
touch -d "@$(($(date +%s) - 30))" "$dir/.deploy_write_lock"
showStatus
status=0
"$tool" --timeout 1 "$dir" -- true 2>&1 | sed 's/^/  /' || status=${PIPESTATUS[0]}
say "a newcomer with a 1 s time-out gave up (status $status)"
echo
echo "   A file 10 minutes old by the file server's clock is dead at once (the"
echo "   demonstration backdates it by 11 minutes):"
touch -d "@$(($(date +%s) - 660))" "$dir/.deploy_write_lock"
showStatus
"$tool" --timeout 1 "$dir" -- bash -c "say 'newcomer holds it: the dead lock was taken over'"
showStatus
