#!/usr/bin/env bash
# The directory locks between two hosts that share a directory over sshfs
# (see hosts.sh), with skewed clocks and a cut link. Run as root:
#   tests/multihost/stage.sh BUILD_DIR
# BUILD_DIR holds tests/lock_child and tools/korvel-lock. Each scenario prints
# its figures; the exit status is 0 when all of them held. Hold times and
# takeover delays are measured on CLOCK_MONOTONIC, shared by all hosts.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=$(realpath "$1")
worker=$build/tests/lock_child
tool=$build/tools/korvel-lock
faketime=/usr/lib/x86_64-linux-gnu/faketime/libfaketimeMT.so.1
for f in "$worker" "$tool" "$faketime"; do
  [ -e "$f" ] || { echo "multihost: $f is missing" >&2; exit 2; }
done

run=$(mktemp -d "${TMPDIR:-/tmp}/korvel-multihost.XXXXXX")
logs=$run/logs
shared=$run/run/shared  # the same path on both hosts
mkdir -p "$run/run" "$logs"
failed=0
phases=0
running=()  # the scenarios of the current phase
cleanup() {
  local status=$?
  trap - EXIT INT TERM
  [ ${#running[@]} -eq 0 ] || kill "${running[@]}" 2>/dev/null
  "$here/hosts.sh" down "$run/run"  # also ends every process left on the hosts
  if [ "$status" -eq 0 ]; then rm -rf "$run"; else echo "multihost: logs kept in $logs"; fi
  exit "$status"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

on() { "$here/hosts.sh" on "$run/run" "$@"; }
nodes=("$here/hosts.sh" on "$run/run")
# shellcheck source=checks.sh
. "$here/checks.sh"
lockFiles() { on b ls -A "$1" | grep -c '^\.deploy_' || true; }
hiddenFiles() { on b ls -A "$1" | grep -c '^\.fuse_hidden' || true; }

# 1. The exclusive lock: two processes per host, 100 holds each.
exclusive() {
  local d=$shared/excl rounds=100 pids=() fail="" markers=0 start status
  on a mkdir "$d"
  start=$(stamp)
  for p in a.1 a.2 b.1 b.2; do
    start "$logs/excl.$p" "${p%.*}" "$worker" count "$d" "$rounds"
    pids+=("$started")
  done
  for pid in "${pids[@]}"; do
    status=0
    wait "$pid" || status=$?
    [ "$status" -lt 100 ] || fail+=" a worker failed ($status)"
    markers=$((markers + status % 100))
  done
  local took holds counter left hidden o
  took=$(seconds "$start" "$(stamp)")
  holds=$(cat "$logs"/excl.* | grep -c '^X ' || true)
  read -r o _ _ < <(overlaps "$logs"/excl.*)
  counter=$(on b cat "$d/counter" || echo 0)
  left=$(lockFiles "$d")
  hidden=$(hiddenFiles "$d")
  [ "$o" -eq 0 ] || fail+=" overlapping holds"
  [ "$markers" -eq 0 ] || fail+=" marker overlaps"
  [ "$counter" -eq $((4 * rounds)) ] || fail+=" counter"
  [ "$left" -eq 0 ] || fail+=" lock files left"
  verdict "1 exclusive lock, 2 hosts x 2 processes x $rounds holds" \
    "$holds holds in ${took} s, $o overlapping by interval, $markers by marker, counter $counter of $((4 * rounds)), $left lock files left ($hidden .fuse_hidden names)" "$fail"
}

# 2. The read-write lock: two processes per host, readers and writers mixed.
readWrite() {
  local d=$shared/rw rounds=80 pids=() fail="" markers=0 status
  on a mkdir "$d"
  local i=0
  for p in a.1 a.2 b.1 b.2; do
    i=$((i + 1))
    start "$logs/rw.$p" "${p%.*}" "$worker" rw-mix "$d" "$d" "$rounds" "$i" 20000
    pids+=("$started")
  done
  for pid in "${pids[@]}"; do
    status=0
    wait "$pid" || status=$?
    [ "$status" -lt 100 ] || fail+=" a worker failed ($status)"
    markers=$((markers + status % 100))
  done
  local writes reads counter left c r x
  writes=$(cat "$logs"/rw.* | grep -c '^W ' || true)
  reads=$(cat "$logs"/rw.* | grep -c '^R ' || true)
  read -r c r x < <(overlaps "$logs"/rw.*)
  counter=$(on b cat "$d/counter" || echo 0)
  left=$(lockFiles "$d")
  [ "$c" -eq 0 ] || fail+=" a writer overlapped"
  [ "$markers" -eq 0 ] || fail+=" marker overlaps"
  [ "$r" -gt 0 ] || fail+=" readers never overlapped"
  [ "$counter" -eq "$writes" ] || fail+=" counter"
  [ "$left" -eq 0 ] || fail+=" lock files left"
  [ $((writes + reads)) -eq $((4 * rounds)) ] || fail+=" holds missing"
  verdict "2 read-write lock, 2 hosts x 2 processes x $rounds holds" \
    "$writes writes, $reads reads; $c writer overlaps by interval, $markers by marker; $r reader pairs overlapped ($x across hosts); counter $counter of $writes; $left lock files left" "$fail"
}

# The end of a takeover: the new holder (log NAME.taker) releases and the
# watcher stops. releaseTaken NAME TAKER_PID WATCHER_PID DIR prints the lock
# files left in DIR, then what failed.
releaseTaken() {
  local name=$1 taker=$2 watcher=$3 d=$4 fail="" left
  kill -TERM "$taker"
  waitLine "$logs/$name.taker" released 10
  kill "$watcher"
  grep -q '^released 1' "$logs/$name.taker" || fail+=" the new holder's release failed"
  left=$(lockFiles "$d")
  [ "$left" -eq 0 ] || fail+=" lock files left"
  echo "$left$fail"
}

# 3. Stale takeover across hosts, through the library.
staleLibrary() {
  local d=$shared/stale-lib
  on a mkdir "$d"
  spawn "$logs/stale-lib.watch" b "$worker" watch "$d/.deploy_lock.0"
  local watcher=$started
  spawn "$logs/stale-lib.holder" a "$worker" hold "$d" excl
  local holder=$started
  waitLine "$logs/stale-lib.holder" held 10 || { verdict "3 stale takeover (library)" "-" " no first hold"; return 1; }
  spawn "$logs/stale-lib.taker" b "$worker" hold "$d" excl
  local taker=$started delay refreshes fail left more
  read -r delay refreshes fail < <(takeover stale-lib "$holder" "$logs/stale-lib.holder" "$logs/stale-lib.taker" 7)
  read -r left more < <(releaseTaken stale-lib "$taker" "$watcher" "$d")
  fail+="${more:+ $more}"
  verdict "3 stale takeover, library, killed on a, waiter on b" \
    "refreshes seen: $refreshes; killed, taken over $delay s after the last refresh; $left lock files left" "$fail"
}

# 3. The same with korvel-lock (the read-write lock's write side).
staleTool() {
  local d=$shared/stale-tool
  on a mkdir "$d"
  spawn "$logs/stale-tool.watch" b "$worker" watch "$d/.deploy_write_lock"
  local watcher=$started
  spawn "$logs/stale-tool.holder" a "$tool" "$d" -- sh -c "'$worker' stamp; exec sleep 600"
  local holder=$started
  waitLine "$logs/stale-tool.holder" "[0-9]" 10 || { verdict "3 stale takeover (korvel-lock)" "-" " no first hold"; return 1; }
  local child
  child=$(cat "/proc/$holder/task/$holder/children")
  start "$logs/stale-tool.taker" b "$tool" "$d" -- "$worker" stamp
  local taker=$started delay refreshes fail left status=0
  read -r delay refreshes fail < <(takeover stale-tool "$holder" "$logs/stale-tool.holder" "$logs/stale-tool.taker" 7)
  [ -z "$child" ] || kill -KILL "$child" 2>/dev/null || true
  wait "$taker" || status=$?
  kill "$watcher"
  [ "$status" -eq 0 ] || fail+=" the waiting korvel-lock exited with $status"
  left=$(lockFiles "$d")
  [ "$left" -eq 0 ] || fail+=" lock files left"
  verdict "3 stale takeover, korvel-lock, killed on a, waiter on b" \
    "refreshes seen: $refreshes; killed, taken over $delay s after the last refresh; $left lock files left" "$fail"
}

# 4. Skew: the holder's clock and the waiter's are two hours apart. The live
# holder keeps the lock for 62 s; then it is killed and taken over.
skew() {
  local hostA=$1 skewA=$2 hostB=$3 skewB=$4 name=skew$1
  local d=$shared/$name
  on a mkdir "$d"
  spawn "$logs/$name.watch" "$hostB" "$worker" watch "$d/.deploy_lock.0"
  local watcher=$started
  spawn "$logs/$name.holder" "$hostA" "${skewed[@]}" FAKETIME="$skewA" "$worker" hold "$d" excl
  local holder=$started
  waitLine "$logs/$name.holder" held 10 || { verdict "4 skew" "-" " no first hold"; return 1; }
  local offsetA
  offsetA=$(($(word "$logs/$name.holder" held 3) - $(date +%s)))
  spawn "$logs/$name.taker" "$hostB" "${skewed[@]}" FAKETIME="$skewB" "$worker" hold "$d" excl
  local taker=$started delay refreshes fail offsetB left more
  read -r delay refreshes fail < <(takeover "$name" "$holder" "$logs/$name.holder" "$logs/$name.taker" 62)
  offsetB=$(($(word "$logs/$name.taker" held 3) - $(date +%s)))
  within "$offsetA" $((${skewA%h} * 3600 - 5)) $((${skewA%h} * 3600 + 5)) || fail+=" holder not skewed"
  within "$offsetB" $((${skewB%h} * 3600 - 5)) $((${skewB%h} * 3600 + 5)) || fail+=" waiter not skewed"
  read -r left more < <(releaseTaken "$name" "$taker" "$watcher" "$d")
  fail+="${more:+ $more}"
  verdict "4 skew, holder on $hostA at ${offsetA} s, waiter on $hostB at ${offsetB} s" \
    "live holder kept the lock 62 s (refreshes seen: $refreshes); killed, taken over $delay s after its last refresh; $left lock files left" "$fail"
}

# 5. Partition: host a's link is cut while it holds the lock.
partition() {
  local d=$shared/partition fail=""
  on a mkdir "$d"
  spawn "$logs/partition.watch" b "$worker" watch "$d/.deploy_lock.0"
  local watcher=$started
  spawn "$logs/partition.old" a "$worker" hold "$d" excl
  local old=$started
  waitLine "$logs/partition.old" held 10 || { verdict "5 partition" "-" " no first hold"; return 1; }
  spawn "$logs/partition.new" b "$worker" hold "$d" excl
  local new=$started
  sleep 6
  local cut
  cut=$(stamp)
  "$here/hosts.sh" link "$run/run" a down
  waitLine "$logs/partition.new" held 40 || fail+=" no takeover within 40 s"
  local last took lost delay lead
  last=$(lastChangeBefore "$logs/partition.watch" "$cut")
  took=$(word "$logs/partition.new" held 2)
  lost=$(word "$logs/partition.old" lost 2)
  delay=$(seconds "${last:-0}" "${took:-0}")
  within "$delay" 15 17.5 || fail+=" takeover not 15-17.5 s after the last refresh"
  if [ -n "$lost" ]; then
    lead=$(seconds "$lost" "${took:-0}")
    within "$lead" 0.001 1000 || fail+=" the old holder learnt of its loss after the takeover"
  else
    lead="-"
    fail+=" the old holder was not told of its loss"
  fi
  "$here/hosts.sh" link "$run/run" a up
  local i
  for ((i = 0; i < 100; i++)); do
    on a stat "$d" >/dev/null 2>&1 && break
    sleep 0.1
  done
  on a stat "$d" >/dev/null 2>&1 || fail+=" host a did not reconnect"
  sleep 6  # more than a refresh period with the link back
  kill -TERM "$old"
  waitLine "$logs/partition.old" released 15 || fail+=" the old holder's release hung"
  local oldRelease kept=yes
  oldRelease=$(word "$logs/partition.old" released 2)
  [ "$oldRelease" = 0 ] || fail+=" the old holder's release did not report the loss"
  on b test -e "$d/.deploy_lock.0" || { kept=no; fail+=" the new holder's file was removed"; }
  kill -TERM "$new"
  waitLine "$logs/partition.new" released 10
  kill "$watcher"
  local newLost=no newRelease left
  grep -q '^lost' "$logs/partition.new" && { newLost=yes; fail+=" the new holder lost its lock"; }
  newRelease=$(word "$logs/partition.new" released 2)
  [ "$newRelease" = 1 ] || fail+=" the new holder's release failed"
  left=$(lockFiles "$d")
  [ "$left" -eq 0 ] || fail+=" lock files left"
  verdict "5 partition, a cut off while holding, b waiting" \
    "taken over $delay s after the last refresh; a told of its loss $lead s before the takeover; link back: a's release returned ${oldRelease:--}, b's file still there: $kept, b told of a loss: $newLost, b's release returned ${newRelease:--}; $left lock files left" "$fail"
}

began=$(date +%s)
"$here/hosts.sh" up "$run/run"
phase exclusive readWrite
phase staleLibrary staleTool "skew a +1h b -1h" "skew b -1h a +1h"
phase partition
echo "multihost: $(($(date +%s) - began)) s"
exit "$failed"
