#!/usr/bin/env bash
# The directory locks on a replica-2 GlusterFS volume (see cluster.sh): runs
# across two client hosts, a brick killed and restarted, a client host cut
# off, a dead holder taken over, clients whose clocks stamp file times 3
# minutes off, and a client that reads stale file content. Run as root:
#   tests/glusterfs/stage.sh BUILD_DIR [PHASE...]
# BUILD_DIR holds tests/lock_child and tools/korvel-lock. A PHASE is a
# comma-separated list of scenarios (1 to 6) run side by side; the default
# is "1 2 3,4,5,6". Every scenario that changes a client (a cut link, a
# skewed clock, a stopped holder) has client hosts of its own. Each scenario
# prints its figures; the exit status is 0 when all of them held. Times are
# taken on CLOCK_MONOTONIC, shared by all hosts.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=$(realpath "$1")
shift
phaseList=("$@")
[ ${#phaseList[@]} -gt 0 ] || phaseList=(1 2 3,4,5,6)
worker=$build/tests/lock_child
tool=$build/tools/korvel-lock
faketime=/usr/lib/x86_64-linux-gnu/faketime/libfaketimeMT.so.1
for f in "$worker" "$tool" "$faketime"; do
  [ -e "$f" ] || { echo "glusterfs: $f is missing" >&2; exit 2; }
done

run=$(mktemp -d "${TMPDIR:-/tmp}/korvel-glusterfs.XXXXXX")
logs=$run/logs
shared=$run/run/shared  # the same path on every client
mkdir -p "$run/run" "$logs"
failed=0
phases=0
running=()  # the scenarios of the current phase
cleanup() {
  local status=$?
  trap - EXIT INT TERM
  [ ${#running[@]} -eq 0 ] || kill "${running[@]}" 2>/dev/null
  "$here/cluster.sh" down "$run/run"  # also ends every process left on the nodes
  if [ "$status" -eq 0 ]; then rm -rf "$run"; else echo "glusterfs: logs kept in $logs"; fi
  exit "$status"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

cluster() { "$here/cluster.sh" "$1" "$run/run" "${@:2}"; }
on() { cluster on "$@"; }
nodes=("$here/cluster.sh" on "$run/run")
# shellcheck source=../multihost/checks.sh
. "$here/../multihost/checks.sh"
lockFiles() { on "$1" ls -A "$2" | grep -c '^\.deploy_' || true; }

# The command korvel-lock runs in the cut-off scenario: it says when it
# started and when it was sent SIGTERM.
cat >"$run/command.sh" <<EOF
#!/bin/sh
echo "held \$('$worker' stamp)"
trap 'echo "term \$('$worker' stamp)"; exit 143' TERM
while :; do sleep 0.1; done
EOF
chmod +x "$run/command.sh"

# waitExit PID SECONDS: the exit status of a started process; 124 when it
# had to be killed after SECONDS.
waitExit() {
  local i status=0
  for ((i = 0; i < $2 * 10; i++)); do
    kill -0 "$1" 2>/dev/null || break
    sleep 0.1
  done
  kill -0 "$1" 2>/dev/null && { kill -KILL "$1"; wait "$1" || true; return 124; }
  wait "$1" || status=$?
  return "$status"
}

# refreshed WATCH_LOG: until the watched file was written twice (made,
# then refreshed), for at most 10 s.
refreshed() {
  local i
  for ((i = 0; i < 200; i++)); do
    [ "$(awk '$2 ~ /^[0-9]+$/' "$1" | wc -l)" -ge 2 ] && return 0
    sleep 0.05
  done
  return 0
}

# waits LOGS...: the waits for the lock in hold lines "KIND start end asked":
# the median, the longest, and how many took more than 10 s.
waits() {
  cat "$@" | awk '/^[XWR] / && NF >= 4 { print ($2 - $4) / 1e6 }' | sort -n |
    awk '{ w[NR] = $1; if ($1 > 10) late++ }
      END { printf "%.2f %.2f %d\n", NR ? w[int((NR + 1) / 2)] : 0, NR ? w[NR] : 0, late }'
}
# holdTimes LOGS...: the median and longest hold, in milliseconds.
holdTimes() {
  cat "$@" | awk '/^[XWR] / { print ($3 - $2) / 1e3 }' | sort -n |
    awk '{ h[NR] = $1 } END { printf "%.1f %.1f\n", NR ? h[int((NR + 1) / 2)] : 0, NR ? h[NR] : 0 }'
}
# collect PIDS...: waits for workers whose exit status is the overlaps they
# saw (100 and up: a failure); sets markers and adds to fail.
collect() {
  local pid status
  markers=0
  for pid in "$@"; do
    status=0
    wait "$pid" || status=$?
    [ "$status" -lt 100 ] || fail+=" a worker failed ($status)"
    markers=$((markers + status % 100))
  done
}

# The exclusive lock through the library: two processes per host.
exclusiveRun() {  # exclusiveRun NAME HOST_A HOST_B ROUNDS
  local name=$1 d=$shared/$1 pids=() p
  on "$2" mkdir "$d"
  for p in "$2.1" "$2.2" "$3.1" "$3.2"; do
    start "$logs/$name.$p" "${p%.*}" "$worker" count "$d" "$4"
    pids+=("$started")
  done
  collect "${pids[@]}"
}

# 1. Both locks through the library, and korvel-lock's read-write lock, two
# processes on each of two hosts.
excl() {
  local fail="" markers holds o counter left
  exclusiveRun excl a b 50
  holds=$(cat "$logs"/excl.* | grep -c '^X ' || true)
  read -r o _ _ < <(overlaps "$logs"/excl.*)
  counter=$(on b cat "$shared/excl/counter" || echo 0)
  left=$(lockFiles b "$shared/excl")
  [ "$o" -eq 0 ] || fail+=" overlapping holds"
  [ "$markers" -eq 0 ] || fail+=" marker overlaps"
  [ "$counter" -eq 200 ] || fail+=" counter"
  [ "$left" -eq 0 ] || fail+=" lock files left"
  local median longest late holdMedian holdLongest
  read -r median longest late < <(waits "$logs"/excl.*)
  read -r holdMedian holdLongest < <(holdTimes "$logs"/excl.*)
  verdict "1 exclusive lock, library, 2 hosts x 2 processes x 50 holds" \
    "$holds holds (median $holdMedian ms, longest $holdLongest ms), $o overlapping by interval, $markers by marker, counter $counter of 200, $left lock files left; waits: median $median s, longest $longest s, $late over 10 s" "$fail"
}

rwLibrary() {
  local d=$shared/rw rounds=40 pids=() fail="" markers i=0 p
  on a mkdir "$d"
  for p in a.1 a.2 b.1 b.2; do
    i=$((i + 1))
    start "$logs/rw.$p" "${p%.*}" "$worker" rw-mix "$d" "$d" "$rounds" "$i" 20000
    pids+=("$started")
  done
  collect "${pids[@]}"
  local writes reads counter left c r x median longest late
  writes=$(cat "$logs"/rw.* | grep -c '^W ' || true)
  reads=$(cat "$logs"/rw.* | grep -c '^R ' || true)
  read -r c r x < <(overlaps "$logs"/rw.*)
  read -r median longest late < <(waits "$logs"/rw.*)
  counter=$(on b cat "$d/counter" || echo 0)
  left=$(lockFiles b "$d")
  [ "$c" -eq 0 ] || fail+=" a writer overlapped"
  [ "$markers" -eq 0 ] || fail+=" marker overlaps"
  [ "$counter" -eq "$writes" ] || fail+=" counter"
  [ "$left" -eq 0 ] || fail+=" lock files left"
  [ $((writes + reads)) -eq $((4 * rounds)) ] || fail+=" holds missing"
  verdict "1 read-write lock, library, 2 hosts x 2 processes x $rounds holds" \
    "$writes writes, $reads reads; $c writer overlaps by interval, $markers by marker; $r reader pairs overlapped ($x across hosts); counter $counter of $writes; $left lock files left; waits: median $median s, longest $longest s, $late over 10 s" "$fail"
}

# korvel-lock -x or -s around one hold's work, ROUNDS times per process,
# about 40 % writes. A run prints "status S" for each korvel-lock that did
# not exit 0.
rwTool() {
  local d=$shared/tool rounds=25 pids=() fail="" i=0 p
  on a mkdir "$d"
  for p in a.1 a.2 b.1 b.2; do
    i=$((i + 1))
    start "$logs/tool.$p" "${p%.*}" sh -c '
      worker=$1 tool=$2 d=$3 rounds=$4 seed=$5 i=0
      while [ $i -lt "$rounds" ]; do
        if [ $(((i * 7 + seed * 3) % 10)) -lt 4 ]; then kind=write flag=-x; else kind=read flag=-s; fi
        "$tool" $flag "$d" -- "$worker" inside "$d" $kind "$("$worker" stamp)" || echo "status $?"
        i=$((i + 1))
      done' sh "$worker" "$tool" "$d" "$rounds" "$i"
    pids+=("$started")
  done
  for p in "${pids[@]}"; do wait "$p" || fail+=" a run failed"; done
  local writes reads counter left c r x statuses median longest late
  writes=$(cat "$logs"/tool.* | grep -c '^W ' || true)
  reads=$(cat "$logs"/tool.* | grep -c '^R ' || true)
  statuses=$(cat "$logs"/tool.* | grep -c '^status ' || true)
  read -r c r x < <(overlaps "$logs"/tool.*)
  read -r median longest late < <(waits "$logs"/tool.*)
  counter=$(on b cat "$d/counter" || echo 0)
  left=$(lockFiles b "$d")
  [ "$c" -eq 0 ] || fail+=" a writer overlapped"
  [ "$statuses" -eq 0 ] || fail+=" $statuses korvel-lock runs failed or saw an overlap"
  [ "$counter" -eq "$writes" ] || fail+=" counter"
  [ "$left" -eq 0 ] || fail+=" lock files left"
  [ $((writes + reads)) -eq $((4 * rounds)) ] || fail+=" holds missing"
  verdict "1 read-write lock, korvel-lock -x/-s, 2 hosts x 2 processes x $rounds runs" \
    "$writes writes, $reads reads; $c writer overlaps by interval; $statuses runs with another status than 0; $r reader pairs overlapped ($x across hosts); counter $counter of $writes; $left lock files left; waits: median $median s, longest $longest s, $late over 10 s" "$fail"
}

# 2. A brick is SIGKILLed while both hosts take the exclusive lock in turn
# and a third process holds another directory's lock with a waiter on the
# other host; the brick is started again and self-heal must empty the heal
# list. Nothing may reach a user: no overlap, no failed call, no loss.
brick() {
  local fail="" markers more d=$shared/brick-hold
  on a mkdir "$d"
  spawn "$logs/brick.watch" a "$worker" watch "$d/.deploy_lock.0" stat
  local watcher=$started
  spawn "$logs/brick.holder" a "$worker" hold "$d" excl
  local holder=$started
  waitLine "$logs/brick.holder" held 10 || fail+=" no first hold"
  spawn "$logs/brick.waiter" b "$worker" hold "$d" excl
  local waiter=$started
  (
    exclusiveRun brick a b 60
    echo "$markers$fail" >"$logs/brick.result"
  ) &
  local runs=$!
  sleep 2
  local killed restarted healed
  killed=$(stamp)
  cluster brick s1 kill || fail+=" no brick to kill"
  sleep 8
  cluster brick s1 start || fail+=" the brick did not start again"
  restarted=$(stamp)
  wait "$runs" || true
  read -r markers more <"$logs/brick.result"
  fail+="${more:+ $more}"
  local entries=1 bricks=0 i
  for ((i = 0; i < 60; i++)); do
    read -r entries bricks < <(cluster heal)
    [ "$entries" -eq 0 ] && [ "$bricks" -eq 2 ] && break
    sleep 0.5
  done
  healed=$(stamp)
  [ "$entries" -eq 0 ] && [ "$bricks" -eq 2 ] ||
    fail+=" heal list not empty after 30 s ($entries entries, $bricks bricks answering)"
  sleep 6  # one more refresh of the holder on the healed volume
  grep -q '^held' "$logs/brick.waiter" && fail+=" the waiter got in beside the holder"
  grep -q '^lost' "$logs/brick.holder" && fail+=" the holder was told of a loss"
  kill -TERM "$holder"
  waitLine "$logs/brick.holder" released 10 || true
  kill "$watcher"
  # What the holder's host saw of its file: attributes that changed more
  # than a second away from any write of the holder would read as a
  # takeover to a holder that compares them. (The watcher reads and stats
  # apart, so it may see a write's attributes a poll before its bytes.)
  local moved refreshes
  read -r moved refreshes < <(awk 'NF < 5 { next }  # gone, or gone before its stat
    { n++; t[n] = $1; c[n] = $2; a[n] = $3 " " $4 " " $5 }
    END {
      for (i = 2; i <= n; i++) if (c[i] != c[i - 1]) w[++writes] = t[i]
      for (i = 2; i <= n; i++) {
        if (c[i] != c[i - 1] || a[i] == a[i - 1]) continue
        near = 0
        for (j = 1; j <= writes; j++) if (w[j] - t[i] < 1e6 && t[i] - w[j] < 1e6) near = 1
        if (!near) moved++
      }
      print moved + 0, writes + 0
    }' "$logs/brick.watch")
  [ "$moved" -eq 0 ] || fail+=" the held file's attributes changed $moved times without a write"
  [ "$refreshes" -ge 3 ] || fail+=" only $refreshes refreshes of the held file seen"
  grep -q '^released 1' "$logs/brick.holder" || fail+=" the holder's release failed"
  waitLine "$logs/brick.waiter" held 10 || fail+=" the waiter did not get the lock after the release"
  kill -TERM "$waiter"
  waitLine "$logs/brick.waiter" released 10 || kill -KILL "$waiter"
  grep -q '^released 1' "$logs/brick.waiter" || fail+=" the waiter's release failed"
  local holds o counter left
  holds=$(cat "$logs"/brick.[ab].* | grep -c '^X ' || true)
  read -r o _ _ < <(overlaps "$logs"/brick.[ab].*)
  counter=$(on b cat "$shared/brick/counter" || echo 0)
  left=$(($(lockFiles b "$shared/brick") + $(lockFiles b "$d")))
  [ "$holds" -eq 240 ] || fail+=" $holds of 240 holds (a worker failed)"
  [ "$o" -eq 0 ] || fail+=" overlapping holds"
  [ "$markers" -eq 0 ] || fail+=" marker overlaps"
  [ "$counter" -eq 240 ] || fail+=" counter"
  [ "$left" -eq 0 ] || fail+=" lock files left"
  local during
  during=$(awk -v k="$killed" -v r="$restarted" '/^X / && $3 > k && $2 < r { n++ } END { print n + 0 }' "$logs"/brick.[ab].*)
  [ "$during" -gt 0 ] || fail+=" no hold while the brick was down"
  verdict "2 brick s1 SIGKILLed for 8 s during 2 hosts x 2 processes x 60 holds" \
    "$holds holds ($during while the brick was down), $o overlapping by interval, $markers by marker, counter $counter of 240; heal list empty $(seconds "$restarted" "$healed") s after the restart; a holder across it kept its lock ($refreshes refreshes, attributes changed without a write: $moved), its waiter got in after the release; $left lock files left" "$fail"
}

# 3. The link of a host whose korvel-lock holds the write lock is cut for
# longer than the stale time-out, then restored. Its command must be sent
# SIGTERM before the other host takes over, korvel-lock must exit with the
# lost status (76), and the new holder's file must stay untouched.
cut() {
  local d=$shared/cut fail=""
  on a3 mkdir "$d"
  spawn "$logs/cut.watch" b3 "$worker" watch "$d/.deploy_write_lock"
  local watcher=$started
  start "$logs/cut.old" a3 sh -c 'exec "$@" 2>&1' sh "$tool" -x "$d" -- "$run/command.sh"
  local old=$started
  waitLine "$logs/cut.old" held 10 || fail+=" no first hold"
  spawn "$logs/cut.new" b3 "$worker" hold "$d" write
  local new=$started
  # Cut right after a refresh, so that the last one is known.
  refreshed "$logs/cut.watch"
  local cutAt
  cutAt=$(stamp)
  cluster link a3 down
  waitLine "$logs/cut.new" held 40 || fail+=" no takeover within 40 s"
  local last took told delay lead
  last=$(lastChangeBefore "$logs/cut.watch" "$cutAt")
  took=$(word "$logs/cut.new" held 2)
  told=$(word "$logs/cut.old" term 2)
  delay=$(seconds "${last:-0}" "${took:-0}")
  within "$delay" 15 17.5 || fail+=" takeover not 15-17.5 s after the last refresh"
  if [ -n "$told" ]; then
    lead=$(seconds "$told" "${took:-0}")
    within "$lead" 0.001 1000 || fail+=" the command was sent SIGTERM after the takeover"
  else
    lead="-"
    fail+=" the command was not sent SIGTERM"
  fi
  sleep 1
  cluster link a3 up
  local status=0
  waitExit "$old" 30 || status=$?
  [ "$status" -eq 76 ] || fail+=" korvel-lock exited with $status, not 76"
  for ((i = 0; i < 100; i++)); do
    on a3 stat "$d" >/dev/null 2>&1 && break
    sleep 0.1
  done
  on a3 stat "$d" >/dev/null 2>&1 || fail+=" host a3 did not reconnect"
  sleep 6  # more than a refresh period with the link back
  local kept=yes newLost=no newRelease left message
  on b3 test -e "$d/.deploy_write_lock" || { kept=no; fail+=" the new holder's file was removed"; }
  kill -TERM "$new"
  waitLine "$logs/cut.new" released 10 || kill -KILL "$new"
  kill "$watcher"
  grep -q '^lost' "$logs/cut.new" && { newLost=yes; fail+=" the new holder lost its lock"; }
  newRelease=$(word "$logs/cut.new" released 2)
  [ "$newRelease" = 1 ] || fail+=" the new holder's release failed"
  left=$(lockFiles b3 "$d")
  [ "$left" -eq 0 ] || fail+=" lock files left"
  message=$(grep -m1 '^korvel-lock:' "$logs/cut.old" || true)
  verdict "3 a3 cut off while korvel-lock -x held the lock, b3 waiting" \
    "taken over $delay s after the last refresh; the command was sent SIGTERM $lead s before the takeover; korvel-lock exited $status (\"${message#korvel-lock: }\"); link back: b3's file still there: $kept, b3 told of a loss: $newLost, b3's release returned ${newRelease:--}; $left lock files left" "$fail"
}

# The end of a takeover: releaseTaken NAME HOST TAKER_PID WATCHER_PID DIR
# prints the lock files left in DIR, then what failed.
releaseTaken() {
  local name=$1 host=$2 taker=$3 watcher=$4 d=$5 fail="" left
  kill -TERM "$taker"
  waitLine "$logs/$name.taker" released 10 || kill -KILL "$taker"
  kill "$watcher"
  grep -q '^released 1' "$logs/$name.taker" || fail+=" the new holder's release failed"
  left=$(lockFiles "$host" "$d")
  [ "$left" -eq 0 ] || fail+=" lock files left"
  echo "$left$fail"
}

# A holder on HOST_A, possibly under a skewed clock, a waiter and watcher
# on HOST_B. The holder keeps the lock LIVE seconds, then is SIGKILLed.
# holdAndKill NAME HOST_A HOST_B LIVE [SKEW]: prints the takeover's
# figures, then what failed.
holdAndKill() {
  local name=$1 hostA=$2 hostB=$3 live=$4 skew=${5:-} d=$shared/$1 env=()
  [ -z "$skew" ] || env=("${skewed[@]}" FAKETIME="$skew")
  on "$hostA" mkdir "$d"
  spawn "$logs/$name.watch" "$hostB" "$worker" watch "$d/.deploy_lock.0"
  local watcher=$started
  spawn "$logs/$name.holder" "$hostA" "${env[@]}" "$worker" hold "$d" excl
  local holder=$started
  waitLine "$logs/$name.holder" held 10 || { echo "- - - no first hold"; return 0; }
  spawn "$logs/$name.taker" "$hostB" "$worker" hold "$d" excl
  local taker=$started delay refreshes fail left more
  read -r delay refreshes fail < <(takeover "$name" "$holder" "$logs/$name.holder" "$logs/$name.taker" "$live")
  read -r left more < <(releaseTaken "$name" "$hostB" "$taker" "$watcher" "$d")
  echo "$delay $refreshes $left${fail:+ $fail}${more:+ $more}"
}

# 4. A dead holder's lock taken over across hosts, with the library and
# with korvel-lock.
dead() {
  local delay refreshes left fail
  read -r delay refreshes left fail < <(holdAndKill dead-lib a4 b4 7)
  verdict "4 dead holder, library, killed on a4, waiter on b4" \
    "refreshes seen: $refreshes; taken over $delay s after the last refresh; $left lock files left" "${fail:+ $fail}"
}

deadTool() {
  local d=$shared/dead-tool fail=""
  on a4 mkdir "$d"
  spawn "$logs/dead-tool.watch" b4 "$worker" watch "$d/.deploy_write_lock"
  local watcher=$started
  spawn "$logs/dead-tool.holder" a4 "$tool" "$d" -- sh -c "'$worker' stamp; exec sleep 600"
  local holder=$started
  waitLine "$logs/dead-tool.holder" "[0-9]" 10 || fail+=" no first hold"
  local child
  child=$(cat "/proc/$holder/task/$holder/children" 2>/dev/null || true)
  start "$logs/dead-tool.taker" b4 "$tool" "$d" -- "$worker" stamp
  local taker=$started delay refreshes more left status=0
  read -r delay refreshes more < <(takeover dead-tool "$holder" "$logs/dead-tool.holder" "$logs/dead-tool.taker" 7)
  fail+="${more:+ $more}"
  [ -z "$child" ] || kill -KILL "$child" 2>/dev/null || true
  waitExit "$taker" 10 || status=$?
  kill "$watcher"
  [ "$status" -eq 0 ] || fail+=" the waiting korvel-lock exited with $status"
  left=$(lockFiles b4 "$d")
  [ "$left" -eq 0 ] || fail+=" lock files left"
  verdict "4 dead holder, korvel-lock, killed on a4, waiter on b4" \
    "refreshes seen: $refreshes; taken over $delay s after the last refresh; $left lock files left" "$fail"
}

# 5. features.ctime stamps file times with the client's clock: the holder's
# host (its glusterfs client and its processes) is 3 minutes slow or fast.
# The live holder keeps its lock for 22 s, and once killed it is taken over
# 15 to 17.5 s after its last refresh. The kill falls between two refreshes:
# one made a moment before it may reach the watcher only after it.
skew() {
  local pair=$1 seconds=$2 hostA=a5$1 hostB=b5$1
  local probe=$shared/skew-probe-$pair fail="" offset
  on "$hostA" sh -c "echo 1 >'$probe'"
  offset=$(($(on "$hostB" stat -c %Y "$probe") - $(date +%s)))
  within "$offset" $((seconds - 5)) $((seconds + 5)) || fail+=" file times not skewed ($offset s)"
  local delay refreshes left more
  read -r delay refreshes left more < <(holdAndKill "skew$pair" "$hostA" "$hostB" 22 "$seconds")
  fail+="${more:+ $more}"
  local kept=yes
  case "$more" in *"live holder"*)
    kept="no, taken $(seconds "$(word "$logs/skew$pair.holder" held 2)" "$(word "$logs/skew$pair.taker" held 2)") s after it acquired"
    ;;
  esac
  verdict "5 ctime skew, holder on $hostA stamping files $offset s off, waiter on $hostB" \
    "live holder kept the lock 22 s: $kept (refreshes seen: $refreshes); killed, taken over $delay s after its last refresh; $left lock files left" "$fail"
}
skewSlow() { skew s -180; }
skewFast() { skew f +180; }

# 6. Stale content: a6's mount keeps a file's pages after another host
# rewrote it with the same size. The holder on a6 is stopped as a paused
# virtual machine is (its clocks do not count the stop) until b6 has taken
# the lock over. On resume it must learn of its loss, leave b6's file alone
# and report the loss on release.
stale() {
  local d=$shared/stale fail=""
  on a6 mkdir "$d"
  spawn "$logs/stale.watch" b6 "$worker" watch "$d/.deploy_lock.0"
  local watcher=$started
  spawn "$logs/stale.old" a6 "$worker" hold "$d" excl
  local old=$started
  waitLine "$logs/stale.old" held 10 || fail+=" no first hold"
  spawn "$logs/stale.new" b6 "$worker" hold "$d" excl
  local new=$started
  # Stop right after a refresh, which left the holder's bytes in a6's cache.
  refreshed "$logs/stale.watch"
  kill -TSTP "$old"
  local stopped took resumed told seenA seenB served
  stopped=$(stamp)
  waitLine "$logs/stale.new" held 40 || fail+=" no takeover within 40 s"
  took=$(word "$logs/stale.new" held 2)
  grep -q '^lost' "$logs/stale.old" && fail+=" the stopped holder was told while stopped"
  seenA=$(on a6 cat "$d/.deploy_lock.0" || true)
  seenB=$(on b6 cat "$d/.deploy_lock.0" || true)
  [ "$seenA" != "$seenB" ] && served=yes || served=no
  kill -CONT "$old"
  resumed=$(stamp)
  sleep 7  # more than a refresh period
  told=$(word "$logs/stale.old" lost 2)
  local toldAfter=never
  [ -z "$told" ] || toldAfter="$(seconds "$resumed" "$told") s after resuming"
  [ -n "$told" ] || fail+=" the resumed holder was not told of its loss"
  kill -TERM "$old"
  waitLine "$logs/stale.old" released 15 || { kill -KILL "$old"; fail+=" the old holder's release hung"; }
  local oldRelease newLost=no newRelease left
  oldRelease=$(word "$logs/stale.old" released 2)
  [ "$oldRelease" = 0 ] || fail+=" the old holder's release did not report the loss"
  on b6 test -e "$d/.deploy_lock.0" || fail+=" the new holder's file was removed"
  kill -TERM "$new"
  waitLine "$logs/stale.new" released 10 || kill -KILL "$new"
  kill "$watcher"
  grep -q '^lost' "$logs/stale.new" && { newLost=yes; fail+=" the new holder lost its lock"; }
  newRelease=$(word "$logs/stale.new" released 2)
  [ "$newRelease" = 1 ] || fail+=" the new holder's release failed"
  left=$(lockFiles b6 "$d")
  [ "$left" -eq 0 ] || fail+=" lock files left"
  verdict "6 stale content, holder on a6 stopped with its clocks, b6 waiting" \
    "stopped $(seconds "$stopped" "$resumed") s, taken over $(seconds "$stopped" "${took:-0}") s after the stop; a6 served its old bytes: $served; told of its loss $toldAfter; a6's release returned ${oldRelease:--}; b6 told of a loss: $newLost, b6's release returned ${newRelease:--}; $left lock files left" "$fail"
}

declare -A scenarios=([1]="excl rwLibrary rwTool" [2]=brick [3]=cut [4]="dead deadTool"
  [5]="skewSlow skewFast" [6]=stale)

began=$(date +%s)
cluster up a b a3 b3 a4 b4 a5s:skew=-180 b5s a5f:skew=+180 b5f a6:cached b6
echo "glusterfs: up in $(($(date +%s) - began)) s"
for p in "${phaseList[@]}"; do
  functions=()
  for s in ${p//,/ }; do
    [ -n "${scenarios[$s]:-}" ] || { echo "glusterfs: no scenario $s" >&2; exit 64; }
    read -ra more <<<"${scenarios[$s]}"
    functions+=("${more[@]}")
  done
  phase "${functions[@]}"
done
echo "glusterfs: $(($(date +%s) - began)) s"
exit "$failed"
