#!/usr/bin/env bash
# The GlusterFS stage (tests/glusterfs/): two brick servers and client hosts
# in network namespaces on this machine, sharing a replica-2 volume, with a
# brick killed, a client cut off, skewed client clocks and stale content.
# Needs root, network namespaces and FUSE; without them it prints one line
# saying why it is skipped and exits 0.
#   scripts/glusterfs.sh [BUILD_DIR [PHASE...]]
#                         (default build/normal, built if needed; the phases
#                         as tests/glusterfs/stage.sh takes them)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/normal}
shift $(($# > 0 ? 1 : 0))

skip() {
  echo "glusterfs: skipped, $*"
  exit 0
}
[ "$(id -u)" -eq 0 ] || skip "it needs root"
unshare --net true 2>/dev/null || skip "network namespaces cannot be made here"
[ -c /dev/fuse ] || skip "there is no /dev/fuse"
scripts/install-deps.sh glusterfs

if [ ! -x "$build/tests/lock_child" ] || [ ! -x "$build/tools/korvel-lock" ]; then
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  cmake --build "$build" --target lock_child korvel-lock
fi
exec tests/glusterfs/stage.sh "$build" "$@"
