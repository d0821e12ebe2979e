#!/usr/bin/env bash
# Processes contending through korvel-lock for one directory, then a holder
# killed so that its lock goes stale and is taken over.
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
showStatus

echo
echo "   A newcomer with a 1 s time-out cannot get in: the lock file is fresh."
status=0
"$tool" --timeout 1 "$dir" -- true 2>&1 | sed 's/^/  /' || status=${PIPESTATUS[0]}
say "newcomer gave up (status $status)"

echo
echo "   A lock file that has not been rewritten for 15 s belongs to a dead"
echo "   holder. So as not to wait, the demonstration backdates the file by 30 s:"
touch -d "@$(($(date +%s) - 30))" "$dir/.deploy_write_lock"
showStatus
"$tool" --timeout 10 "$dir" -- bash -c "say 'newcomer holds it: the stale lock was taken over'"
showStatus
