#!/usr/bin/env bash
# Builds the library and runs the whole test suite three times: the normal
# build, AddressSanitizer+UndefinedBehaviorSanitizer and ThreadSanitizer.
# Each build has its own folder under build/.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

jobs=$(nproc)
run() {
  local name=$1
  shift
  echo "=== ${name} build ==="
  cmake -S . -B "build/${name}" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
  cmake --build "build/${name}" -j "${jobs}"
  (cd "build/${name}" && ctest -j "${jobs}" --output-on-failure)
}

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1

run normal
run asan -DKORVEL_SANITIZE=address -DKORVEL_BUILD_BENCH=OFF -DKORVEL_BUILD_EXAMPLES=OFF
run tsan -DKORVEL_SANITIZE=thread -DKORVEL_BUILD_BENCH=OFF -DKORVEL_BUILD_EXAMPLES=OFF
echo "all builds passed"
