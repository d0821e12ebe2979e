#!/usr/bin/env bash
# A replica-2 volume on two brick servers and client hosts, all on one
# machine, for the lock tests on a distributed file system.
#
#   cluster.sh up RUN CLIENT...   bring up servers s1 and s2, the volume, and
#                                 the clients; RUN is an empty directory that
#                                 keeps the state, bricks and mount point
#   cluster.sh down RUN           take down what "up" made (as far as it got)
#   cluster.sh on RUN NODE CMD... run CMD on a client, or on server s1 or s2
#   cluster.sh link RUN NODE up|down    connect or cut a node
#   cluster.sh brick RUN s1|s2 kill|start
#                                 SIGKILL a server's brick process, or start
#                                 the volume's dead bricks again
#   cluster.sh heal RUN           print the entries waiting for self-heal and
#                                 the bricks that answered
#
# A CLIENT is NAME, or NAME:OPTION,... with the options
#   skew=SECONDS  the client's glusterfs process runs with its wall clock
#                 moved by SECONDS (libfaketime), so the times it stamps on
#                 files are off by as much (features.ctime is on)
#   cached        mounted without --auto-invalidation=on: a file this host
#                 wrote and another host rewrote with the same size reads
#                 back with this host's old bytes
#
# Every node has its own network, mount and UTS namespace (nodes.sh) and
# joins a bridge in a node of its own through a veth pair. The servers run
# glusterd -N with their own /var/lib/glusterd, /var/log/glusterfs and /run;
# their bricks are RUN/bricks/s1 and s2. Each client runs the glusterfs FUSE
# client in the foreground and mounts the volume on RUN/shared, a path that
# is the same on every client and empty outside them.
#
# The lock needs every change to show on the other hosts at once: no
# attribute, entry or negative caching in the kernel, and page cache dropped
# when another host changed the file. network.ping-timeout is 5 s, below the
# lock's 14 s lease: a server that stops answering is given up within 5 s,
# and the calls of a host that was cut off fail instead of reaching the
# bricks late, after the link is back.
set -euo pipefail

readonly VOLUME=locks
readonly NET=10.78.0
readonly SERVERS=(s1 s2)
readonly TIMEOUTS=(--attribute-timeout=0 --entry-timeout=0 --negative-timeout=0)
readonly faketime=/usr/lib/x86_64-linux-gnu/faketime/libfaketimeMT.so.1

run=""
id=""
prefix=gl
# shellcheck source=../multihost/nodes.sh
. "$(dirname "$0")/../multihost/nodes.sh"

gluster() { on "$1" /usr/sbin/gluster --mode=script "${@:2}"; }

paired() { gluster s1 pool list | grep -q "$NET.2.*Connected"; }

# join NODE ADDRESS: a veth pair from NODE to the bridge.
join() {
  ip link add eth0 netns "$id$1" type veth peer name "p$1" netns "${id}net"
  on net ip link set "p$1" master br0 up
  on "$1" ip addr add "$2/24" dev eth0
  on "$1" ip link set eth0 up
}

startServer() {
  local s=$1 address=$2
  startNode "$s"
  join "$s" "$address"
  mkdir -p "$run/$s/glusterd" "$run/$s/log" "$run/bricks"
  on "$s" mount -t tmpfs -o mode=755 run /run
  on "$s" mount --bind "$run/$s/glusterd" /var/lib/glusterd
  on "$s" mount --bind "$run/$s/log" /var/log/glusterfs
  on "$s" /usr/sbin/glusterd -N -l "$run/$s/log/glusterd.log" >/dev/null 2>&1 &
  echo $! >"$run/pid.glusterd.$s"
}

# startClient CLIENT ADDRESS
startClient() {
  local name=${1%%:*} options="" skew="" keep=(--auto-invalidation=on) option env=()
  [ "$name" = "$1" ] || options=${1#*:}
  for option in ${options//,/ }; do
    case "$option" in
      skew=*) skew=${option#skew=} ;;
      cached) keep=() ;;
      *) echo "cluster.sh: unknown client option $option" >&2; return 1 ;;
    esac
  done
  [ -z "$skew" ] || env=(env LD_PRELOAD="$faketime" FAKETIME="$skew" FAKETIME_DONT_FAKE_MONOTONIC=1
    FAKETIME_FORCE_MONOTONIC_FIX=0)
  startNode "$name"
  join "$name" "$2"
  echo "$name" >>"$run/clients"
  on "$name" "${env[@]}" /usr/sbin/glusterfs -N --volfile-server="$NET.1" --volfile-server="$NET.2" \
    --volfile-id="$VOLUME" "${TIMEOUTS[@]}" "${keep[@]}" -l "$run/client.$name.log" \
    "$run/shared" >/dev/null 2>&1 &
  echo $! >"$run/pid.client.$name"
  echo "$name: glusterfs ${TIMEOUTS[*]} ${keep[*]}${skew:+, wall clock $skew s}"
}

up() {
  [ -z "$(ls -A "$run")" ] || { echo "cluster.sh: $run is not empty" >&2; return 1; }
  id="gl$$x$RANDOM"
  echo "$id" >"$run/id"
  : >"$run/netns"
  : >"$run/clients"
  mkdir -p "$run/shared"
  startNode net
  on net ip link add br0 type bridge
  on net ip link set br0 up
  startServer s1 "$NET.1"
  startServer s2 "$NET.2"
  for s in "${SERVERS[@]}"; do
    waitFor 20 "glusterd on $s did not start (see $run/$s/log)" gluster "$s" peer status
  done
  gluster s1 peer probe "$NET.2" >/dev/null
  waitFor 20 "the servers did not pair" paired
  # force: the bricks are directories on the root file system.
  gluster s1 volume create "$VOLUME" replica 2 "$NET.1:$run/bricks/s1" "$NET.2:$run/bricks/s2" \
    force >/dev/null
  gluster s1 volume set "$VOLUME" network.ping-timeout 5 >/dev/null
  gluster s1 volume start "$VOLUME" >/dev/null
  echo "volume $VOLUME: replica 2, bricks $NET.1 and $NET.2, features.ctime" \
    "$(gluster s1 volume get "$VOLUME" features.ctime | awk '$1 == "features.ctime" { print $2; exit }')," \
    "network.ping-timeout 5"
  local i=10 client
  for client in "$@"; do
    i=$((i + 1))
    startClient "$client" "$NET.$i"
  done
  local name
  while read -r name; do
    waitFor 20 "client $name did not mount (see $run/client.$name.log)" on "$name" mountpoint -q "$run/shared"
  done <"$run/clients"
}

down() {
  set +e
  [ -f "$run/id" ] || return 0
  id=$(cat "$run/id")
  local name
  while read -r name; do
    [ -n "$(pidOf "anchor.$name")" ] && on "$name" umount -l "$run/shared" 2>/dev/null
  done <"$run/clients"
  endNodes
  rm -f "$run"/pid.* "$run/id"
  return 0
}

brickPid() {
  local pid
  for pid in $(ip netns pids "$id$1"); do
    [ "$(cat "/proc/$pid/comm" 2>/dev/null)" = glusterfsd ] && echo "$pid"
  done
  return 0
}

brick() {
  local s=$1 pid
  case "$2" in
    kill)
      pid=$(brickPid "$s")
      [ -n "$pid" ] || { echo "cluster.sh: no brick process on $s" >&2; return 1; }
      kill -KILL "$pid"
      ;;
    start)
      gluster s1 volume start "$VOLUME" force >/dev/null
      waitFor 20 "the brick on $s did not start" test -n "$(brickPid "$s")"
      ;;
    *) echo "cluster.sh: brick s1|s2 kill|start" >&2; return 64 ;;
  esac
}

[ $# -ge 2 ] || { sed -n '2,16s/^# \{0,1\}//p' "$0" >&2; exit 64; }
command=$1
run=$(realpath "$2")
shift 2
case "$command" in
  up)  # a failed or interrupted set-up takes down what it made
    trap '[ $? -eq 0 ] || down' EXIT
    trap 'exit 130' INT TERM
    up "$@"
    ;;
  down) down ;;
  on)  # exec, so that the caller's $! is the command's own pid
    anchor=$(pidOf "anchor.${1:-}")
    [ -n "$anchor" ] || { echo "cluster.sh: no node ${1:-} in $run" >&2; exit 64; }
    shift
    exec nsenter -t "$anchor" -n -m -u -- "$@"
    ;;
  link) id=$(cat "$run/id"); on "$1" ip link set eth0 "$2" ;;
  brick) id=$(cat "$run/id"); brick "$@" ;;
  heal)
    gluster s1 volume heal "$VOLUME" info |
      awk '/^Status: Connected/ { up++ } /^Number of entries: [0-9]/ { n += $4 } END { print n + 0, up + 0 }'
    ;;
  *) echo "cluster.sh: unknown command $command" >&2; exit 64 ;;
esac
