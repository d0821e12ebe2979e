#!/usr/bin/env bash
# The multi-host stage (tests/multihost/): a file server and two hosts in
# network namespaces on this machine, sharing a directory over sshfs, with
# skewed clocks and a cut link. Needs root, network namespaces and FUSE;
# without them it prints one line saying why it is skipped and exits 0.
#   scripts/multihost.sh [BUILD_DIR]   (default build/normal, built if needed)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/normal}

skip() {
  echo "multihost: skipped, $*"
  exit 0
}
[ "$(id -u)" -eq 0 ] || skip "it needs root"
unshare --net true 2>/dev/null || skip "network namespaces cannot be made here"
[ -c /dev/fuse ] || skip "there is no /dev/fuse"
scripts/install-deps.sh multihost

if [ ! -x "$build/tests/lock_child" ] || [ ! -x "$build/tools/korvel-lock" ]; then
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  cmake --build "$build" --target lock_child korvel-lock
fi
exec tests/multihost/stage.sh "$build"
