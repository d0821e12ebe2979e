# Nodes on one machine, for the multi-host stages: sourced by hosts.sh and
# tests/glusterfs/cluster.sh. A node is a network namespace named after the
# run (so that runs and leftovers never collide) and a process that keeps a
# mount and UTS namespace of its own open, to be entered with nsenter. The
# caller sets run (the state directory), id (the run's name) and prefix (of
# the nodes' hostnames). Pid files are RUN/pid.NAME; RUN/netns lists the
# namespaces made.

pidOf() { cat "$run/pid.$1" 2>/dev/null || true; }

# Runs a command in the namespaces of a node.
on() {
  local node=$1
  shift
  local anchor
  anchor=$(pidOf "anchor.$node")
  [ -n "$anchor" ] || { echo "$prefix: no node $node in $run" >&2; return 1; }
  nsenter -t "$anchor" -n -m -u -- "$@"
}

# The anchor ends by itself within the hour if everything else is killed
# without cleaning up.
startNode() {
  local node=$1
  ip netns add "$id$node"
  echo "$id$node" >>"$run/netns"
  ip netns exec "$id$node" unshare --mount --uts --propagation private sleep 3600 >/dev/null 2>&1 &
  echo $! >"$run/pid.anchor.$node"
  local tries=0
  until [ "$(readlink "/proc/$!/ns/mnt" 2>/dev/null)" != "$(readlink /proc/self/ns/mnt)" ] &&
    [ "$(cat "/proc/$!/comm" 2>/dev/null)" = sleep ]; do
    tries=$((tries + 1))
    [ "$tries" -lt 500 ] || { echo "$prefix: node $node did not start" >&2; return 1; }
    sleep 0.01
  done
  on "$node" hostname "$prefix-$node"
  on "$node" ip link set lo up
}

waitFor() {  # waitFor SECONDS WHAT CMD...: polls CMD every 0.1 s
  local limit=$(($1 * 10)) what=$2 tries=0
  shift 2
  until "$@" >/dev/null 2>&1; do
    tries=$((tries + 1))
    [ "$tries" -lt "$limit" ] || { echo "$prefix: $what" >&2; return 1; }
    sleep 0.1
  done
}

gone() {  # a process that has ended, or only waits to be reaped
  local stat
  stat=$(cat "/proc/$1/stat" 2>/dev/null) || return 0
  [ "$(echo "${stat##*) }" | cut -c1)" = Z ]
}

# Kills whatever runs in the run's namespaces (all of it was started there
# by this run), and the given pids, then removes the namespaces.
endNodes() {
  local pids=() more pid ns
  while read -r ns; do
    mapfile -t more < <(ip netns pids "$ns" 2>/dev/null)
    pids+=("${more[@]}")
  done <"$run/netns"
  for pid in "${pids[@]}" "$@"; do
    kill -KILL "$pid" 2>/dev/null
  done
  for pid in "${pids[@]}"; do
    waitFor 5 "process $pid did not end" gone "$pid"
  done
  while read -r ns; do
    ip netns del "$ns" 2>/dev/null
  done <"$run/netns"
}
