#!/usr/bin/env bash
# Runs the fault explorer of the directory locks (explorer/) in the
# normal build: schedules of contenders with injected faults, checked by its
# oracle. Prints each failing seed with its schedule in words, then the
# schedules per minute and the faults injected by kind. Exit status 1 when
# any schedule broke the lock's promise.
#
#   scripts/explore.sh                     1,000 schedules (the CI stage)
#   scripts/explore.sh --schedules N       N schedules, seeds 1..N
#   scripts/explore.sh --minutes N         as many as fit in N minutes
#   scripts/explore.sh --seed S [--repeat R]
#                                          replay one seed (R times)
# Further options go to the explorer as they are: --first S (the first
# seed), --jobs J (schedules run side by side, default 2), --scale X (host
# seconds per real second, default 200), --calm (only the faults the lock
# survives by design), --keep (keep every schedule's logs).
set -euo pipefail
cd "$(dirname "$0")/.."
build=${KORVEL_BUILD_DIR:-build/normal}
if [ ! -x "$build/tests/lock_explorer" ]; then
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
cmake --build "$build" -j 2 --target lock_explorer >/dev/null
args=("$@")
[ $# -eq 0 ] && args=(--schedules 1000)
exec "$build/tests/lock_explorer" "${args[@]}"
