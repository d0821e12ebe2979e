#!/usr/bin/env bash
# Two hosts and a file server on one machine, for the multi-host lock tests.
#
#   hosts.sh up RUN              bring everything up; RUN is an empty directory
#                                that keeps the state, keys, export and mount point
#   hosts.sh down RUN            take down what "up" made (as far as it got)
#   hosts.sh on RUN HOST CMD...  run CMD on host a or b, or on the server s
#   hosts.sh link RUN HOST up|down
#                                connect or cut host a or b
#
# Each of the three has its own network namespace (named after this run, so
# that runs and leftovers never collide), mount namespace and hostname; the
# hosts have their own /dev/shm. The server's namespace holds a bridge that
# the hosts join through veth pairs, and an sshd that exports RUN/export over
# SFTP. Each host mounts it with sshfs on RUN/shared, a path that is the same
# on both hosts and empty outside them. Nothing is made outside RUN and the
# namespaces.
#
# Mount options: the lock needs every change to show on the other host at
# once (no directory, attribute, entry or negative caching), and a cut link
# must fail I/O within seconds instead of hanging: ssh gives up after three
# unanswered keep-alives a second apart, and sshfs then reconnects on the
# next request (a reconnect attempt fails within 2 s while the link is down).
set -euo pipefail

# noforget: sshfs numbers inodes itself, and a file whose cached inode was
# forgotten comes back under a new number; the lock checks a file's inode
# before it acts on it, and would take its own file for another.
readonly MOUNT_OPTIONS=dir_cache=no,attr_timeout=0,entry_timeout=0,negative_timeout=0,noforget
readonly LINK_OPTIONS=ServerAliveInterval=1,ServerAliveCountMax=3,ConnectTimeout=2,reconnect
readonly SERVER=10.77.0.1
declare -A ADDRESS=([a]=10.77.0.2 [b]=10.77.0.3)

run=""
id=""
prefix=mh
# shellcheck source=nodes.sh
. "$(dirname "$0")/nodes.sh"

up() {
  [ -z "$(ls -A "$run")" ] || { echo "hosts.sh: $run is not empty" >&2; return 1; }
  id="mh$$x$RANDOM"
  echo "$id" >"$run/id"
  : >"$run/netns"
  mkdir -p "$run/export" "$run/shared"

  startNode s
  on s ip link add br0 type bridge
  on s ip addr add "$SERVER/24" dev br0
  on s ip link set br0 up
  for host in a b; do
    startNode "$host"
    ip link add eth0 netns "$id$host" type veth peer name "port$host" netns "${id}s"
    on s ip link set "port$host" master br0 up
    on "$host" ip addr add "${ADDRESS[$host]}/24" dev eth0
    on "$host" ip link set eth0 up
    on "$host" mount -t tmpfs -o mode=1777 shm /dev/shm
  done

  ssh-keygen -q -t ed25519 -N '' -f "$run/host_key"
  ssh-keygen -q -t ed25519 -N '' -f "$run/client_key"
  cp "$run/client_key.pub" "$run/authorized_keys"
  echo "$SERVER $(cat "$run/host_key.pub")" >"$run/known_hosts"
  cat >"$run/sshd_config" <<EOF
ListenAddress $SERVER
HostKey $run/host_key
AuthorizedKeysFile $run/authorized_keys
PermitRootLogin prohibit-password
PasswordAuthentication no
KbdInteractiveAuthentication no
UsePAM no
StrictModes no
PidFile none
ClientAliveInterval 2
ClientAliveCountMax 3
Subsystem sftp internal-sftp
EOF
  # sshd wants its privilege separation directory; the server gets its own /run.
  on s mount -t tmpfs -o mode=755 run /run
  on s mkdir /run/sshd
  on s /usr/sbin/sshd -D -e -f "$run/sshd_config" >"$run/sshd.log" 2>&1 &
  echo $! >"$run/pid.sshd"
  waitFor 10 "sshd did not start (see $run/sshd.log)" on s sh -c "ss -ltn | grep -q '$SERVER:22 '"

  for host in a b; do
    on "$host" sshfs -f -F /dev/null "root@$SERVER:$run/export" "$run/shared" \
      -o "IdentityFile=$run/client_key,UserKnownHostsFile=$run/known_hosts,BatchMode=yes" \
      -o "$LINK_OPTIONS,$MOUNT_OPTIONS" >"$run/sshfs.$host.log" 2>&1 &
    echo $! >"$run/pid.sshfs.$host"
  done
  for host in a b; do
    waitFor 10 "host $host did not mount (see $run/sshfs.$host.log)" on "$host" mountpoint -q "$run/shared"
  done
  echo "hosts: server $SERVER, hosts a ${ADDRESS[a]} and b ${ADDRESS[b]}; sshfs -o $LINK_OPTIONS,$MOUNT_OPTIONS"
}

down() {
  set +e
  [ -f "$run/id" ] || return 0
  id=$(cat "$run/id")
  for host in a b; do
    [ -n "$(pidOf "anchor.$host")" ] && on "$host" umount -l "$run/shared" 2>/dev/null
  done
  endNodes $(pidOf sshd) $(pidOf sshfs.a) $(pidOf sshfs.b)
  rm -f "$run"/pid.* "$run/id"
  return 0
}

[ $# -ge 2 ] || { sed -n '2,9s/^# \{0,1\}//p' "$0" >&2; exit 64; }
command=$1
run=$(realpath "$2")
shift 2
case "$command" in
  up)  # a failed or interrupted set-up takes down what it made
    trap '[ $? -eq 0 ] || down' EXIT
    trap 'exit 130' INT TERM
    up
    ;;
  down) down ;;
  on)  # exec, so that the caller's $! is the command's own pid
    anchor=$(pidOf "anchor.${1:-}")
    [ -n "$anchor" ] || { echo "hosts.sh: no node ${1:-} in $run" >&2; exit 64; }
    shift
    exec nsenter -t "$anchor" -n -m -u -- "$@"
    ;;
  link)
    [ "${1:-}" = a ] || [ "${1:-}" = b ] || { echo "hosts.sh: link a|b up|down" >&2; exit 64; }
    on "$1" ip link set eth0 "$2"
    ;;
  *) echo "hosts.sh: unknown command $command" >&2; exit 64 ;;
esac
