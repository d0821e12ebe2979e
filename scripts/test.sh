#!/usr/bin/env bash
# Checks the formatting, builds the library and runs the whole test suite
# three times: the normal build (followed by clang-tidy over the library
# sources, with its compile commands), AddressSanitizer+UndefinedBehavior-
# Sanitizer and ThreadSanitizer. Each build has its own folder under build/.
# After the normal build, the current lock code is run against the lock code
# of an earlier release, and the fault explorer runs 1,000 schedules of
# every fault. Last, the multi-host stage and the GlusterFS stage, side by
# side (they mostly wait on the network and the locks' timing, not on the
# processors), where root, network namespaces and FUSE allow them. The
# stages that compile or run many processes run one after another: beside
# each other they would only slow each other down.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh test
# The network stages' packages, now rather than from two stages at once
# (they would both wait for the package manager). Only as root: without
# root those stages are skipped.
if [ "$(id -u)" -eq 0 ]; then
  scripts/install-deps.sh multihost
  scripts/install-deps.sh glusterfs
fi

# The folders clang-tidy checks, headers included.
tidy_dirs=(host paths threads ipc fs_lock tools include)

jobs=$(nproc)

# Each stage's heading gives the seconds since the packages were in place.
stage_start=$SECONDS
stage() {
  echo "=== $1 === ($((SECONDS - stage_start)) s since the start)"
}

stage formatting
git ls-files -z '*.cpp' '*.h' '*.hpp' | xargs -0 clang-format --dry-run --Werror

run() {
  local name=$1
  shift
  stage "${name} build"
  cmake -S . -B "build/${name}" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
  cmake --build "build/${name}" -j "${jobs}"
  (cd "build/${name}" && ctest -j "${jobs}" --output-on-failure)
}

tidy() {
  stage clang-tidy
  local filter status=0
  filter="^$(pwd)/($(
    IFS='|'
    echo "${tidy_dirs[*]}"
  ))/"
  git ls-files -z -- "${tidy_dirs[@]/%//*.cpp}" |
    xargs -0 -n 1 -P "${jobs}" clang-tidy -p build/normal --quiet --header-filter="${filter}" \
      --warnings-as-errors='*' >build/clang-tidy.log 2>&1 || status=$?
  grep -v "warnings\? generated\.$" build/clang-tidy.log || true
  return "${status}"
}

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1

run normal
tidy
stage "interop with earlier lock code"
tests/interop/run.sh build/normal/tests/lock_child build/interop
# The fault explorer: 1,000 schedules of every fault, under 2 minutes on 2
# cores; any violation fails the run, with its seed and schedule in words.
stage "fault explorer"
explorer=0
scripts/explore.sh --schedules 1000 --jobs 4 >build/explorer.log 2>&1 || explorer=$?
if [ "${explorer}" -ne 0 ]; then
  cat build/explorer.log
  exit "${explorer}"
fi
tail -n 3 build/explorer.log
run asan -DKORVEL_SANITIZE=address -DKORVEL_BUILD_BENCH=OFF -DKORVEL_BUILD_EXAMPLES=OFF
run tsan -DKORVEL_SANITIZE=thread -DKORVEL_BUILD_BENCH=OFF -DKORVEL_BUILD_EXAMPLES=OFF
stage "multi-host and GlusterFS, side by side"
scripts/multihost.sh build/normal >build/multihost.log 2>&1 &
multihost=$!
scripts/glusterfs.sh build/normal >build/glusterfs.log 2>&1 &
glusterfs=$!
status=0
wait "${multihost}" || status=$?
echo "--- multi-host ($(date +%T))" && cat build/multihost.log
wait "${glusterfs}" || status=$?
echo "--- GlusterFS ($(date +%T))" && cat build/glusterfs.log
[ "${status}" -eq 0 ] || exit "${status}"
echo "all builds, the interop check and the multi-host stages passed in $((SECONDS - stage_start)) s"
